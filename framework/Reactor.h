// Reactors: the notifiees through which a machine observes its inputs.
//
//   Reactor         observes one input of the machine, and overrides its handlers
//   MemberReactor   the same for each member of an input's collection; a member of a ReactorMap
//   PassiveReactor  one for each member of an input's collection, with a cleanup and no handler
//
// A reactor class is nested in its machine and overrides one line for each notification:
//
//   class KivRegionConfig final : public Kiv::Reactor<KivRegionConfig, RegionConfigSm, Region> {
//    public:
//     static constexpr std::string_view kTypeName = "OpenStack::RegionConfigSm::KivRegionConfig";
//     using Reactor::Reactor;
//     void onSyncStatus() override { if (live()) machine()->handleSyncStatus(); }
//   };
//
// It holds its entity strongly and its machine plainly; the machine clears that pointer before it
// ends, or when it drops the reactor. A reactor whose member needs a cleanup overrides kivHandle(),
// which forwards to the machine's kiv_handle... hook. Activity thread only.
#pragma once

#include <memory>
#include <type_traits>

#include "framework/Attributes.h"
#include "framework/Notifiee.h"

namespace [[gnu::visibility("default")]] Kiv {

// Passive: of a class that overrides no handler; see PassiveReactor.
template <class Self, class M, class E, bool Passive = false>
class Reactor : public E::NotifieeConst {
 public:
  using Machine = M;
  using Entity = E;
  using Notifiee = typename E::NotifieeConst;

  // Connects to `entity`, which is not null, and registers. `machine` must outlive the reactor or
  // clear itself with machineDel().
  Reactor(const Ptr<const E>& entity, M* machine) {
    if constexpr (Passive) this->passiveIs();
    machineWord() = machine;
    Notifiee::notifierIs(entity);
    this->isRegisteredNotifieeIs(true);
  }

  const Type& fwkType() const final { return typeRecord<Self>; }
  // To tools a reactor shows the entity that it observes.
  const GenericIf* genericIf() const override {
    static const auto description = describe<Self>(attributes(plain("notifier", &Reactor::entity)));
    return &description;
  }

  // The observed entity; null when disconnected.
  Ptr<const E> entity() const { return Ptr<const E>(this->notifier()); }

  // Gives the reactor its machine, or clears the pointer.
  void machineIs(M& machine) { machineWord() = &machine; }
  void machineDel() { machineWord() = nullptr; }

  // Connects to another entity: the collections that mirror its own are synchronised, the handlers
  // of its scalars run, then the reactor registers again. Null disconnects. Does nothing when it is
  // the current one.
  using E::NotifieeConst::notifierIs;
  void notifierIs(const Ptr<const PtrInterface>& entity) override {
    if (static_cast<const PtrInterface*>(this->notifier()) == entity.get()) return;
    Notifiee::notifierIs(entity);
    catchUp();
    this->isRegisteredNotifieeIs(true);
  }

  // Makes the machine's collections equal to those of the entity that they mirror.
  void synchronise() {
    if (mirrors()) mirror();
  }
  // The same, then runs the handlers of the entity's scalars.
  void catchUp() {
    synchronise();
    if (mirrors() && live()) handleScalars();
  }

  // Makes the reactor a zombie, or brings it back. On each change, first the notifications are
  // switched, then the cleanup hook runs, and only then the mark is set.
  void kivDoZombieReactors(bool zombie) {
    if (zombie == this->markedForDeletion()) return;
    if (this->notifier() != nullptr) this->hasNotificationActiveIs(!zombie);
    if (machineWord() != nullptr) {
      const Ptr<Reactor> hold(this);
      kivHandle();
    }
    this->kivMarkedForDeletionIs(zombie);
  }

 protected:
  // Whether a handler that forwards to the machine may run.
  bool live() const { return !this->markedForDeletion() && machineWord() != nullptr; }
  // Whether a handler that maintains a collection of the machine may run.
  bool mirrors() const { return this->notifier() != nullptr && machineWord() != nullptr; }
  // The machine, held for as long as the handler runs. REQUIRES: live() or mirrors().
  Ptr<M> machine() const {
    M* const machine = machineWord();
    if (machine == nullptr) __builtin_unreachable();
    return Ptr<M>(machine);
  }

 private:
  // Synchronises the machine's collections; left empty by a reactor that mirrors none.
  virtual void mirror() {}
  // Runs the handlers of the scalars, after a change of the entity; left empty where there is none.
  virtual void handleScalars() {}
  // Calls the machine's hook for a member that has a cleanup; left empty, there is no cleanup.
  virtual void kivHandle() {}

  // A passive reactor has it in the memory that is its own.
  M*& machineWord() const {
    if constexpr (Passive) {
      return *this->template own<M*>(0);
    } else {
      return machine_.pointer;
    }
  }

  struct Nothing {};
  struct Word {
    mutable M* pointer;
  };
  [[no_unique_address]] std::conditional_t<Passive, Nothing, Word> machine_;
};

// The reactor of one member of an input's collection. It keeps the member's key itself, so that it
// can be found when it has been disconnected. K: the key.
template <class Self, class M, class E,
          class K = std::remove_cvref_t<decltype(std::declval<const E&>().fwkKey())>>
class MemberReactor : public Reactor<Self, M, E> {
 public:
  // Under the entity's own key.
  MemberReactor(const Ptr<const E>& entity, M* machine)
      : MemberReactor::Reactor(entity, machine), key_(entity->fwkKey()) {}

  // The key, also while disconnected.
  const K& fwkKey() const { return key_; }

 private:
  K key_;
};

// The reactor of a member that exists for the cleanup alone, when the member is removed, and
// overrides no handler. It stays out of the member's list of notifiees: changes of the member skip
// it, and it is made and deleted without a look at the other notifiees. K: the key.
template <class Self, class M, class E,
          class K = std::remove_cvref_t<decltype(std::declval<const E&>().fwkKey())>>
class PassiveReactor : public Reactor<Self, M, E, true> {
 public:
  // Under the entity's own key.
  PassiveReactor(const Ptr<const E>& entity, M* machine)
      : PassiveReactor(entity->fwkKey(), entity, machine) {}
  // Under another key.
  PassiveReactor(const K& key, const Ptr<const E>& entity, M* machine)
      : PassiveReactor::Reactor(entity, machine) {
    if constexpr (kFits) {
      ::new (keyWord()) K(key);
    } else {
      key_ = key;
    }
  }
  ~PassiveReactor() override {
    if constexpr (kFits) std::destroy_at(keyWord());
  }

  // The key, also while disconnected.
  const K& fwkKey() const {
    if constexpr (kFits) {
      return *keyWord();
    } else {
      return key_;
    }
  }

 protected:
  // The key, for a reactor that stores more in it. REQUIRES: what the collection looks it up by
  // does not change.
  K& key() { return const_cast<K&>(fwkKey()); }

 private:
  // A short key has its place behind the machine, in the memory that is the reactor's own.
  static constexpr bool kFits = sizeof(M*) + sizeof(K) <= NotifieeBase::kPassiveBytes;

  K* keyWord() const { return this->template own<K>(sizeof(M*)); }

  struct Nothing {};
  [[no_unique_address]] std::conditional_t<kFits, Nothing, K> key_;
};

// The reactor of a machine's single observed entity; null where there is no entity.
template <class R>
class ReactorSlot {
  using Machine = typename R::Machine;
  using Entity = typename R::Entity;

 public:
  ReactorSlot() = default;
  // A reactor on the entity, not active yet and without its machine; none for a null entity.
  template <class T>
  requires std::is_convertible_v<T*, const Entity*> ReactorSlot(const Ptr<T>& entity) {
    if (entity) reactor_ = make<R>(entity, nullptr);
  }
  ReactorSlot(ReactorSlot&&) noexcept = default;
  ReactorSlot& operator=(const ReactorSlot&) = delete;
  ~ReactorSlot() { del(); }

  // The reactor; null when there is none.
  R* reactor() const { return reactor_.get(); }
  // The entity that it observes; null when there is none.
  Ptr<const Entity> entity() const { return reactor_ ? reactor_->entity() : nullptr; }
  // The same, borrowed.
  const Entity* notifier() const { return reactor_ ? reactor_->notifier() : nullptr; }

  // Makes the machine observe this entity: re-points the reactor, or makes an active one, which
  // does the same on the new entity. A null entity drops it.
  void is(Machine& machine, const Ptr<const Entity>& entity) {
    if (!entity) {
      del();
    } else if (reactor_) {
      const Ptr<R> hold(reactor_);
      hold->notifierIs(entity);
    } else {
      const Ptr<R> made = make<R>(entity, &machine);
      reactor_ = made;
      made->hasNotificationActiveIs(true);
      if (machine.markedForDeletion()) made->kivDoZombieReactors(true);
      made->catchUp();
    }
  }

  // Drops the reactor.
  void del() {
    if (!reactor_) return;
    reactor_->machineDel();
    reactor_->hasNotificationActiveIs(false);
    reactor_->isRegisteredNotifieeIs(false);
    reactor_ = nullptr;
  }

  // What the machine passes on to all that it owns: itself, the switch of notifications, the zombie
  // mark, the loss of the machine, and that collections are to be synchronised.
  void machineIs(Machine& machine) {
    if (reactor_) reactor_->machineIs(machine);
  }
  void hasNotificationActiveIs(bool active) {
    if (reactor_) reactor_->hasNotificationActiveIs(active);
  }
  void kivDoZombieReactors(bool zombie) {
    if (reactor_) reactor_->kivDoZombieReactors(zombie);
  }
  void machineDel() {
    if (reactor_) reactor_->machineDel();
  }
  void synchronise() {
    if (const Ptr<R> hold = reactor_) hold->synchronise();
  }

 private:
  Ptr<R> reactor_;
};

}  // namespace Kiv
