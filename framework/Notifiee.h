// Notifiees: the observers of entities, and the lists in which they stand.
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
// that is not active, is a zombie or has gone is not called. Activity thread only.
#pragma once

#include "framework/HashMap.h"
#include "framework/detail/Overrider.h"

namespace [[gnu::visibility("default")]] Kiv {

class EntityBase;

// The base of every notifiee.
class NotifieeBase : public Member {
 public:
  static constexpr std::string_view kTypeName = "Kiv::Notifiee";

  // Connects to an entity of the observed type; null disconnects. Leaves the old entity's list;
  // registering with the new one is a step of its own. Throws a range exception for an entity of
  // another type.
  virtual void notifierIs(const Ptr<const PtrInterface>& entity);

  // Whether this notifiee is told what its entity notifies of. Without an entity it never is.
  void isRegisteredNotifieeIs(bool registered);
  bool isRegisteredNotifiee() const { return registered(); }

  // Whether a change is to be told to this notifiee.
  bool listens() const { return listening(); }

  // Whether this notifiee has left a handler of its class empty; false where that cannot be told.
  template <class N, class Handler>
  static bool ignores(const N& notifiee, Handler handler) {
    return detail::ignores(
        notifiee, static_cast<const N*>(static_cast<const NotifieeBase&>(notifiee).kivDeaf()),
        handler);
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
  // Registers a notifiee that has left every handler empty: as nothing can be told to it, it stands
  // in no list. Does nothing without an entity.
  void registerSilently() { registeredIs(notifier_ != nullptr); }

 private:
  friend class NotifieeList;

  // The record of the entity type that this class of notifiee observes.
  virtual const Type& kivNotifierType() const = 0;
  // A notifiee of such entities that overrides no handler; null where there is none.
  virtual const NotifieeBase* kivDeaf() const { return nullptr; }

  Ptr<const EntityBase> notifier_;
  NotifieeBase* previous_ = nullptr;  // in a ring with the other notifiees of the entity
  NotifieeBase* next_ = nullptr;      // null where it stands in no list
};

// The notifiees of one entity. Tolerates, in the middle of a round, that a notifiee leaves (it is
// not called any more) or joins (it is not called in this round).
class NotifieeList {
 public:
  NotifieeList() = default;
  NotifieeList(const NotifieeList&) = delete;
  NotifieeList& operator=(const NotifieeList&) = delete;

  bool empty() const { return first_ == nullptr; }

  // Calls `call(notifiee)` for each that listens, in the order of their registration. The one that
  // is called stays until the call returns, whoever lets go of it.
  template <class Call>
  void forEach(Call&& call) {
    if (empty()) return;
    Round round(*this);
    for (NotifieeBase* notifiee = first_; notifiee != nullptr; notifiee = round.next(notifiee)) {
      round.current_ = notifiee;
      if (notifiee->listens()) call(*notifiee);
    }
  }

  // The same for a `call` that changes no list, and lets go of no notifiee.
  template <class Call>
  void forEachAtRest(Call&& call) const {
    if (empty()) return;
    NotifieeBase* notifiee = first_;
    do {
      if (notifiee->listens()) call(*notifiee);
      notifiee = notifiee->next_;
    } while (notifiee != first_);
  }

 private:
  friend class NotifieeBase;
  friend class PtrInterface;

  // One walk over a list. Those under way are known, so that who leaves can correct them. Where
  // nobody does, a walk costs little more than its calls: the notifiee that is being called is held
  // only once it leaves, or loses its last reference.
  class Round {
   public:
    explicit Round(NotifieeList& list)
        : last_(list.first_->previous_), list_(list), outer_(innermost_) {
      innermost_ = this;
    }
    ~Round() { innermost_ = outer_; }
    Round(const Round&) = delete;
    Round& operator=(const Round&) = delete;

    // The one after `called`, which was called; null at the end.
    NotifieeBase* next(NotifieeBase* called) {
      if (current_ != called) [[unlikely]]
        return nextOfHeld();
      return called == last_ ? nullptr : called->next_;
    }
    // Corrects all walks under way for a notifiee that is about to leave its list.
    static void allLeave(const NotifieeList& list, const NotifieeBase& notifiee) {
      for (Round* round = innermost_; round != nullptr; round = round->outer_) {
        if (&round->list_ == &list) round->leaves(notifiee);
      }
    }
    // Makes the walks in which this object is being called hold it.
    static void allHold(const PtrInterface& object) {
      for (Round* round = innermost_; round != nullptr; round = round->outer_) {
        if (round->current_ == &object) round->hold();
      }
    }

    NotifieeBase* current_ = nullptr;  // being called; null once it is held

   private:
    void leaves(const NotifieeBase& notifiee);
    void hold();
    NotifieeBase* nextOfHeld();

    // The innermost of the walks under way, across all lists.
    inline static constinit Round* innermost_ = nullptr;

    NotifieeBase* last_;  // the last of those that were there when the round began
    NotifieeList& list_;
    NotifieeBase* next_ = nullptr;  // once the current one is held: to be called next
    Ptr<NotifieeBase> held_;
    Round* outer_;
  };

  void join(NotifieeBase& notifiee);
  void leave(NotifieeBase& notifiee);

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

 protected:
  Notifiee() = default;

 private:
  const Type& kivNotifierType() const override { return typeRecord<E>; }
  // Of the binary that made this notifiee, as each has its own copies of the empty handlers.
  [[gnu::visibility("hidden")]] const NotifieeBase* kivDeaf() const override {
    using Handlers = typename E::NotifieeConst;
    if constexpr (std::is_abstract_v<Handlers>) {
      return nullptr;
    } else {
      struct [[gnu::visibility("hidden")]] Deaf final : Handlers{};
      static const Deaf deaf;
      return &deaf;
    }
  }
};

}  // namespace Kiv
