// Kiv::ReactorMap: a machine's collection of reactors that mirrors a collection of its input.
//
// The machine forwards to it by name (`segmentIs`, `segmentDel`, `segmentDelAll`), passes itself,
// and has it in its table of attributes. From the reactor of the input,
//   - follow() answers the immediate notification of a change,
//   - synchroniseOne() the keyed one,
//   - synchronise() a new input.
// Activity thread only.
#pragma once

#include <type_traits>

#include "framework/Attribute.h"
#include "framework/Reactor.h"

namespace [[gnu::visibility("default")]] Kiv {

// R: the reactor, a MemberReactor or a PassiveReactor. K: its key. A machine with work to do for
// a key after each change of the collection passes a hook; it runs after the member was added, and
// after it was removed.
//
// Followed: whether follow() looks at one member only where it can, for which the map notes the
// version of the input. Else it looks at all, which is right for collections that are always small.
template <class R, class K, bool Followed = true>
class ReactorMap : public HashMap<R, K, typename R::Entity> {
  using Map = HashMap<R, K, typename R::Entity>;
  using Machine = typename R::Machine;
  using Entity = typename R::Entity;

  struct NoHook {
    void operator()(const K&) const {}
  };

 public:
  ReactorMap() = default;
  // Reactors may outlive the machine in the activity loop; they must not find it any more.
  ~ReactorMap() { machineDel(); }

  // Makes the reactor for this entity, or re-points the one with its key; returns it. Does nothing
  // when the reactor observes the entity already. Throws as requireEntity() does.
  template <class Hook = NoHook>
  Ptr<R> is(Machine& machine, const Ptr<const Entity>& entity, Hook hook = {}) {
    requireEntity(machine, entity);
    Ptr<R> reactor((*this)[entity->fwkKey()]);
    if (!reactor) {
      reactor = make<R>(entity, &machine);
      reactor->hasNotificationActiveIs(true);
      Map::newMember(reactor);
    } else if (reactor->notifier() != entity.get()) {
      reactor->notifierIs(entity);
    } else {
      return reactor;
    }
    syncedVersion_.set(kStale);
    reactor->kivDoZombieReactors(machine.markedForDeletion());
    hook(reactor->fwkKey());
    return reactor;
  }

  // Throws the range exception of nullArgumentText() for a null entity. The collection's name is
  // the one that it has in the machine's table.
  void requireEntity(const Machine& machine, const Ptr<const Entity>& entity) const {
    if (!entity) throwNull(machine);
  }

  // Inserts a reactor that the caller has made, under a key that no member has.
  void insert(Machine& machine, const Ptr<R>& reactor) {
    syncedVersion_.set(kStale);
    reactor->hasNotificationActiveIs(true);
    Map::newMember(reactor);
    reactor->kivDoZombieReactors(machine.markedForDeletion());
  }

  // Deletes the reactor with this key, and returns the entity that it observed; null when absent or
  // disconnected. A reactor with a cleanup runs it while it is still a member.
  template <class Hook = NoHook>
  Ptr<const Entity> del(const K& key, Hook hook = {}) {
    const Ptr<R> reactor((*this)[key]);
    if (!reactor) return nullptr;
    const K gone = key;
    syncedVersion_.set(kStale);
    reactor->kivDoZombieReactors(true);
    Map::deleteMember(gone);
    hook(gone);
    reactor->machineDel();
    reactor->hasNotificationActiveIs(false);
    return reactor->entity();
  }

  // del() for every reactor, in order.
  template <class Hook = NoHook>
  void delAll(Hook hook = {}) {
    for (const auto& reactor : std::as_const(*this)) del(K(reactor->fwkKey()), hook);
  }

  // After a change of the input's collection: synchronises. When the two were synchronised before
  // the change, that is one look at the changed member.
  template <class Input, class Hook = NoHook>
  void follow(Machine& machine, const Input& input, Hook hook = {}) {
    if (const K* changed = input.singleChangeSince(syncedVersion_.get())) {
      const U32 version = input.changes();
      synchroniseOne(machine, input, *changed, hook);
      syncedVersion_.set(input.changes() == version ? version : kStale);
    } else {
      synchronise(machine, input, hook);
    }
  }

  // Makes the collection equal to the input's: is() for every member that the input has, then del()
  // for every reactor whose member it has not.
  template <class Input, class Hook = NoHook>
  void synchronise(Machine& machine, const Input& input, Hook hook = {}) {
    Map::reserve(input.size());
    const U32 version = input.changes();
    const U32 before = Map::changes();
    const std::size_t size = Map::size();
    for (const auto& member : input) is(machine, member, hook);
    // Where the input has not changed meanwhile and no reactor was deleted, every member has its
    // reactor, and equal sizes say that there is no other. A hook may change either.
    const bool undisturbed =
        input.changes() == version && Map::changes() - before == Map::size() - size;
    if (!undisturbed || Map::size() != input.size()) {
      for (const auto& reactor : std::as_const(*this)) {
        const K key = reactor->fwkKey();
        if (!input.contains(key)) del(key, hook);
      }
    }
    syncedVersion_.set(input.changes() == version ? version : kStale);
  }

  // The same for one member.
  template <class Input, class Hook = NoHook>
  void synchroniseOne(Machine& machine, const Input& input, const K& key, Hook hook = {}) {
    if (const auto* member = input[key]) {
      is(machine, Ptr<const Entity>(member), hook);
    } else {
      del(key, hook);
    }
  }

  // What the machine passes on to all that it owns; see ReactorSlot.
  void machineIs(Machine&) {}
  void hasNotificationActiveIs(bool active) {
    this->forEachUnguarded([active](R& reactor) { reactor.hasNotificationActiveIs(active); });
  }
  void kivDoZombieReactors(bool zombie) {
    for (const auto& reactor : *this) reactor->kivDoZombieReactors(zombie);
  }
  void machineDel() {
    this->forEachUnguarded([](R& reactor) {
      reactor.machineDel();
      reactor.hasNotificationActiveIs(false);
    });
  }
  void synchronise() {}

 private:
  using Map::deleteMember;
  using Map::emptyAllBuckets;
  using Map::newMember;
  using Map::replaceMember;

  [[noreturn]] void throwNull(const Machine& machine) const {
    std::string_view name;
    if constexpr (requires { Machine::kAttributes; }) {
      name = Machine::kAttributes.nameOf(machine, *this);
    }
    throwNullArgument(name, machine.fwkType().name());
  }

  static constexpr U32 kStale = ~U32{0};

  // The input's changes() when the two were last synchronised; kStale when they may differ.
  struct Version {
    U32 get() const { return version_; }
    void set(U32 version) { version_ = version; }
    U32 version_ = kStale;
  };
  struct NoVersion {
    static U32 get() { return kStale; }
    static void set(U32) {}
  };
  [[no_unique_address]] std::conditional_t<Followed, Version, NoVersion> syncedVersion_;
};

}  // namespace Kiv
