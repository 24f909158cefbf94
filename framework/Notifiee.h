// Notifiees, the observers of entities, and the list of them that each entity has.
//
// An entity's class declares a nested NotifieeConst with an empty virtual handler for each of its
// notifications. An observer derives from it, overrides what it needs, connects to one entity with
// notifierIs() and registers with isRegisteredNotifieeIs(true):
//
//   class Watcher final : public OpenStack::Region::NotifieeConst {
//     void onSyncStatus() override { ... }
//   };
//   auto watcher = Kiv::make<Watcher>();
//   watcher->notifierIs(region);
//   watcher->isRegisteredNotifieeIs(true);
//   watcher->hasNotificationActiveIs(true);
//
// A notifiee holds its entity; the entity does not hold its notifiees. Handlers named
// on...kivImmediate run at once, inside the mutator; all others from the activity loop. A notifiee
// that is not registered, not active, or a zombie is not called. Each pending notification holds
// its notifiee: one that its owner has dropped may be called until the loop has run. Activity
// thread only.
#pragma once

#include <cstddef>
#include <new>
#include <type_traits>

#include "framework/HashMap.h"
#include "framework/detail/Cursor.h"
#include "framework/detail/PackedHandler.h"

namespace [[gnu::visibility("default")]] Kiv {

class EntityBase;

// The base of every notifiee.
class NotifieeBase : public Member {
 public:
  static constexpr std::string_view kTypeName = "Kiv::Notifiee";
  // How much memory a passive notifiee has of its own; see passiveIs().
  static constexpr std::size_t kPassiveBytes = 2 * sizeof(void*);

  // Connects to an entity of the observed type; null disconnects. Leaves the old entity's list;
  // registering with the new one is a step of its own. Throws a range exception for an entity of
  // another type.
  virtual void notifierIs(const Ptr<const PtrInterface>& entity);

  // Adds this notifiee to the end of its entity's list, or removes it; it is called only while it
  // is in the list. Does nothing without an entity.
  void isRegisteredNotifieeIs(bool registered);
  bool isRegisteredNotifiee() const { return registered(); }

  // Whether this notifiee is called: it is registered, active and no zombie.
  bool listens() const { return listening(); }

  // Whether this notifiee's class overrides the handler, which is empty else. Also true where that
  // is not known (framework/detail/PackedHandler.h).
  template <class N, class Handler>
  static bool overrides(const N& notifiee, Handler handler) {
    return detail::PackedHandler::overridden(notifiee, unsubscribed(notifiee), handler);
  }

  // The reactor that this notifiee is.
  NotifieeBase* kivReactor() { return this; }

  // A class of notifiee that wants a record of its own overrides this.
  const Type& fwkType() const override { return typeRecord<NotifieeBase>; }

 protected:
  NotifieeBase();
  ~NotifieeBase() override;

  // The observed entity, its class unknown; null when not connected.
  const EntityBase* notifierBase() const { return notifier_.get(); }

  // Makes this a passive notifiee, of a class that overrides no handler: as there is nothing to
  // call, it is in no list, also when it is registered, and the memory of its links belongs to its
  // class. REQUIRES: called from the constructor, before it is connected.
  void passiveIs() { initializedIs(true); }
  // That memory; its class makes and ends what is in it. REQUIRES: passive.
  template <class T>
  T* own(std::size_t offset) const {
    return std::launder(reinterpret_cast<T*>(links_.own + offset));
  }

 private:
  friend class NotifieeList;

  // The record of the entity type that this class of notifiee observes.
  virtual const Type& kivNotifierType() const = 0;
  // A notifiee of such entities that overrides no handler; null where there is none.
  virtual const NotifieeBase* kivUnsubscribed() const { return nullptr; }
  template <class N>
  static const N* unsubscribed(const N& notifiee) {
    return static_cast<const N*>(static_cast<const NotifieeBase&>(notifiee).kivUnsubscribed());
  }

  bool passive() const { return initialized(); }

  Ptr<const EntityBase> notifier_;
  // In the entity's circular list; both null where it is in no list.
  union Links {
    Links() : ring{nullptr, nullptr} {}
    struct {
      NotifieeBase* previous;
      NotifieeBase* next;
    } ring;
    mutable std::byte own[kPassiveBytes];  // of a passive notifiee
  } links_;
};

// The registered notifiees of one entity, in the order of their registration: an intrusive circular
// list, one word for each entity. Copes with notifiees that are removed during an iteration (it
// does not reach them any more) or added (it does not reach them yet).
class NotifieeList {
 public:
  NotifieeList() = default;
  NotifieeList(const NotifieeList&) = delete;
  NotifieeList& operator=(const NotifieeList&) = delete;

  bool empty() const { return first_ == nullptr; }

  // Calls `call(notifiee)` for each that listens, in order. `call` may add and remove notifiees,
  // and may drop the last reference to any; the one that is called lives until the call returns.
  template <class Call>
  void forEach(Call&& call) {
    if (empty()) return;
    for (ListCursor cursor(*this); NotifieeBase* notifiee = cursor.notifiee(); cursor.next()) {
      if (notifiee->listens()) call(*notifiee);
    }
  }

  // The same without a cursor. REQUIRES: `call` changes no list, and drops no notifiee.
  template <class Call>
  [[gnu::always_inline]] void forEachUnguarded(Call&& call) const {
    if (empty()) return;
    NotifieeBase* notifiee = first_;
    do {
      if (notifiee->listens()) call(*notifiee);
      notifiee = notifiee->links_.ring.next;
    } while (notifiee != first_);
  }

 private:
  friend class NotifieeBase;

  // The registered cursor of an iteration. It advances to the successor in the list; where the list
  // changes meanwhile, it remembers the successor of a notifiee that was removed under it. A
  // notifiee that is not there any more when its turn comes is not called.
  class ListCursor : private detail::Cursor {
   public:
    // At the first notifiee. REQUIRES: there is one.
    explicit ListCursor(const NotifieeList& list) : last_(list.first_->links_.ring.previous) {
      begin(&list, list.first_);
    }

    // The notifiee to call; null at the end.
    NotifieeBase* notifiee() const { return static_cast<NotifieeBase*>(object()); }
    void next() {
      if (stale()) [[unlikely]]
        return nextOfStale();
      NotifieeBase* const called = notifiee();
      advance(called == last_ ? nullptr : called->links_.ring.next);
    }

    // Corrects the cursors of a list for a notifiee that is about to be unlinked.
    static void unlinking(const NotifieeList& list, const NotifieeBase& notifiee);

   private:
    void nextOfStale();
    void correct(const NotifieeBase& unlinked);

    NotifieeBase* last_;            // the last of those that were in the list at the beginning
    NotifieeBase* next_ = nullptr;  // where removed_: the successor, null at the end
    bool removed_ = false;          // whether the current one was removed from the list
  };

  void add(NotifieeBase& notifiee);
  void remove(NotifieeBase& notifiee);

  NotifieeBase* first_ = nullptr;
};

// The typed part of a notifiee class: `class NotifieeConst : public Kiv::Notifiee<Region>`. Base is
// the NotifieeConst of the entity's base class, where that has notifications of its own.
template <class E, class Base = NotifieeBase>
class Notifiee : public Base {
 public:
  using Notifier = E;

  // The observed entity; null when not connected.
  const E* notifier() const { return static_cast<const E*>(this->notifierBase()); }

  // Connects; see NotifieeBase. An entity that is known to be of another class does not compile.
  using Base::notifierIs;
  template <class T>
  requires(!std::is_base_of_v<E, std::remove_const_t<T>> &&
           !std::is_base_of_v<std::remove_const_t<T>, E>) void notifierIs(const Ptr<T>&) = delete;

 protected:
  Notifiee() = default;

 private:
  const Type& kivNotifierType() const override { return typeRecord<E>; }
  // Of the binary that made this notifiee, as each has its own copies of the empty handlers.
  [[gnu::visibility("hidden")]] const NotifieeBase* kivUnsubscribed() const override {
    using Handlers = typename E::NotifieeConst;
    if constexpr (std::is_abstract_v<Handlers>) {
      return nullptr;
    } else {
      struct [[gnu::visibility("hidden")]] Unsubscribed final : Handlers{};
      // Never destroyed: entities in static objects may outlive it.
      union Forever {
        Forever() : value() {}
        ~Forever() {}
        Unsubscribed value;
      };
      static const Forever unsubscribed;
      return &unsubscribed.value;
    }
  }
};

}  // namespace Kiv
