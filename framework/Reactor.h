// Reactors: the notifiees through which a machine observes its inputs.
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
// goes, or when it drops the reactor. A reactor whose member needs a cleanup overrides kivHandle(),
// which forwards to the machine's kiv_handle... hook. Activity thread only.
#pragma once

#include "framework/Attributes.h"
#include "framework/Notifiee.h"

namespace [[gnu::visibility("default")]] Kiv {

// Silent: of a class that leaves every handler empty; see StandIn.
template <class Self, class M, class E, bool Silent = false>
class Reactor : public E::NotifieeConst {
 public:
  using Machine = M;
  using Entity = E;
  using Notifiee = typename E::NotifieeConst;

  // Connects to `entity`, which is not null, and registers. `machine` must outlive the reactor or
  // clear itself with machineDel().
  Reactor(const Ptr<const E>& entity, M* machine) : machine_(machine) {
    Notifiee::notifierIs(entity);
    enlist();
  }

  const Type& fwkType() const final { return typeRecord<Self>; }
  // To tools a reactor shows the entity that it observes.
  const GenericIf* genericIf() const override {
    static const auto description = describe<Self>(attributes(plain("notifier", &Reactor::entity)));
    return &description;
  }

  // The observed entity; null when disconnected.
  Ptr<const E> entity() const { return Ptr<const E>(this->notifier()); }
  // In a collection of reactors: the key of the observed entity.
  const auto& fwkKey() const { return this->notifier()->fwkKey(); }

  // Clears the pointer to the machine, which drops the reactor or goes.
  void machineDel() { machine_ = nullptr; }

  // Connects to another entity: what the reactor mirrors is brought in line with it, then the
  // reactor registers again. Does nothing when it is the current one.
  void notifierIs(const Ptr<const PtrInterface>& entity) override {
    if (static_cast<const PtrInterface*>(this->notifier()) == entity.get()) return;
    Notifiee::notifierIs(entity);
    resynchronise();
    enlist();
  }

  // Makes the reactor a zombie, or brings it back. On each change, first the notifications are
  // switched, then the cleanup hook runs, and only then the mark is set.
  void kivDoZombieReactors(bool zombie) {
    if (zombie == this->markedForDeletion()) return;
    if (this->notifier() != nullptr) this->hasNotificationActiveIs(!zombie);
    if (machine_ != nullptr) {
      const Ptr<Reactor> hold(this);
      kivHandle();
    }
    this->kivMarkedForDeletionIs(zombie);
  }

 protected:
  // Whether a handler that forwards to the machine may run.
  bool live() const { return !this->markedForDeletion() && machine_ != nullptr; }
  // Whether a handler that maintains a collection of the machine may run.
  bool mirrors() const { return this->notifier() != nullptr && machine_ != nullptr; }
  // The machine, held for as long as the handler runs. REQUIRES: live() or mirrors().
  Ptr<M> machine() const { return Ptr<M>(machine_); }

 private:
  void enlist() {
    if constexpr (Silent) {
      this->registerPassively();
    } else {
      this->isRegisteredNotifieeIs(true);
    }
  }
  // Brings what the reactor mirrors in line with a new entity; a reactor that mirrors nothing
  // leaves it empty.
  virtual void resynchronise() {}
  // Calls the machine's hook for a member that has a cleanup; left empty, there is no cleanup.
  virtual void kivHandle() {}

  M* machine_;
};

// A reactor that stands for a member of an input's collection, so that its coming and going can be
// handled, and overrides no handler of the member's own. It keeps out of the member's list: a
// change of the member passes it by, and it comes and goes without a look at those that stand
// there.
template <class Self, class M, class E>
using StandIn = Reactor<Self, M, E, true>;

// The reactor of a machine's single observed entity; null where there is no entity.
template <class R>
class ReactorSlot {
  using Machine = typename R::Machine;
  using Entity = typename R::Entity;

 public:
  // At construction: a reactor on the entity, not active yet; none for a null entity.
  ReactorSlot(const Ptr<const Entity>& entity, Machine* machine) {
    if (entity) reactor_ = make<R>(entity, machine);
  }
  ReactorSlot() = default;
  ReactorSlot(const ReactorSlot&) = delete;
  ReactorSlot& operator=(const ReactorSlot&) = delete;
  ~ReactorSlot() { del(); }

  // The reactor; null when there is none.
  R* reactor() const { return reactor_.get(); }
  // The entity that it observes; null when there is none.
  Ptr<const Entity> entity() const { return reactor_ ? reactor_->entity() : nullptr; }
  // The same, borrowed.
  const Entity* notifier() const { return reactor_ ? reactor_->notifier() : nullptr; }

  // Makes the machine observe this entity: re-points the reactor, or makes an active one. A null
  // entity drops it.
  void is(Machine& machine, const Ptr<const Entity>& entity) {
    if (entity != this->entity()) machine.kivReactorsOutOfLine();
    if (!entity) {
      del();
    } else if (reactor_) {
      const Ptr<R> hold(reactor_);
      hold->notifierIs(entity);
    } else {
      reactor_ = make<R>(entity, &machine);
      reactor_->hasNotificationActiveIs(true);
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

  // What the machine passes on to all that it owns: the switch of notifications, the zombie mark,
  // the loss of the machine, and that an input is about to be replaced.
  void hasNotificationActiveIs(bool active) {
    if (reactor_) reactor_->hasNotificationActiveIs(active);
  }
  void kivDoZombieReactors(bool zombie) {
    if (reactor_) reactor_->kivDoZombieReactors(zombie);
  }
  void machineDel() {
    if (reactor_) reactor_->machineDel();
  }
  void outOfLine() {}

 private:
  Ptr<R> reactor_;
};

}  // namespace Kiv
