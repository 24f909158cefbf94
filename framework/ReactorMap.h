// Kiv::ReactorMap: a machine's collection of reactors that mirrors a collection of its input.
//
// The machine forwards to it by name (`segmentIs`, `segmentDel`, `segmentDelAll`), passes itself,
// and has it in its table of attributes. Activity thread only.
#pragma once

#include <string>

#include "framework/Attribute.h"
#include "framework/Reactor.h"

namespace [[gnu::visibility("default")]] Kiv {

// The fixed text of the exception for a null argument to a collection's mutator. It closes with a
// double-quote character, which readers of old logs search for.
inline std::string nullArgumentText(std::string_view collection, std::string_view machine) {
  return std::string("null _")
      .append(collection)
      .append(" parameter to mutator for ")
      .append(machine)
      .append("::")
      .append(collection)
      .append(" not allowed\"");
}

// R: the reactor. K: its key. A machine that has work to do for a key after each change of the
// collection passes a hook; it runs after the member has come, and after it has gone.
template <class R, class K>
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
    inLineAt_ = kOutOfLine;
    reactor->kivDoZombieReactors(machine.markedForDeletion());
    hook(reactor->fwkKey());
    return reactor;
  }

  // Throws the range exception of nullArgumentText() for a null entity. The collection's name is
  // the one that it has in the machine's table.
  void requireEntity(const Machine& machine, const Ptr<const Entity>& entity) const {
    if (!entity) throwNull(machine);
  }

  // Puts in a reactor that was made by the caller, under a key that is free.
  void insert(Machine& machine, const Ptr<R>& reactor) {
    inLineAt_ = kOutOfLine;
    reactor->hasNotificationActiveIs(true);
    Map::newMember(reactor);
    reactor->kivDoZombieReactors(machine.markedForDeletion());
  }

  // Deletes the reactor with this key, and returns the entity that it observed; null when absent. A
  // reactor with a cleanup runs it while it is still a member.
  template <class Hook = NoHook>
  Ptr<const Entity> del(const K& key, Hook hook = {}) {
    const Ptr<R> reactor((*this)[key]);
    if (!reactor) return nullptr;
    const K gone = key;
    inLineAt_ = kOutOfLine;
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

  // Brings the collection in line with the input's: is() for every member that is there, del() for
  // every reactor whose member is not. Called from the notification of a single change, when the
  // two were in line before it, it looks at that member only.
  template <class Input, class Hook = NoHook>
  void resynchronise(Machine& machine, const Input& input, Hook hook = {}) {
    if (const K* changed = input.singleChangeSince(inLineAt_)) {
      resynchroniseOne(machine, input, *changed, hook);
      inLineAt_ = input.changes();
    } else {
      const U32 before = input.changes();
      resynchroniseAll(machine, input, hook);
      inLineAt_ = input.changes() == before ? before : kOutOfLine;
    }
  }
  // The same for one member.
  template <class Input, class Hook = NoHook>
  void resynchroniseOne(Machine& machine, const Input& input, const K& key, Hook hook = {}) {
    if (const auto* member = input[key]) {
      is(machine, Ptr<const Entity>(member), hook);
    } else {
      del(key, hook);
    }
  }

  // What the machine passes on to all that it owns: the switch of notifications, the zombie mark,
  // the loss of the machine, and that an input is about to be replaced.
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
  void outOfLine() { inLineAt_ = kOutOfLine; }

 private:
  using Map::deleteMember;
  using Map::emptyAllBuckets;
  using Map::newMember;
  using Map::replaceMember;
  using Map::reserve;

  template <class Input, class Hook>
  void resynchroniseAll(Machine& machine, const Input& input, Hook hook) {
    Map::reserve(input.size());
    const U32 inputBefore = input.changes();
    const U32 before = Map::changes();
    const std::size_t size = Map::size();
    for (const auto& member : input) is(machine, member, hook);
    // Where nothing has gone meanwhile and the input is what it was, all of it is here, and others
    // show in the number. A hook may change either.
    const bool told =
        input.changes() == inputBefore && Map::changes() - before == Map::size() - size;
    if (told && Map::size() == input.size()) return;
    for (const auto& reactor : std::as_const(*this)) {
      const K key = reactor->fwkKey();
      if (!input.contains(key)) del(key, hook);
    }
  }

  [[noreturn]] void throwNull(const Machine& machine) const {
    std::string_view name;
    if constexpr (requires { Machine::kAttributes; }) {
      name = Machine::kAttributes.nameOf(machine, *this);
    }
    throwRangeException(nullArgumentText(name, machine.fwkType().name()));
  }

  static constexpr U32 kOutOfLine = ~U32{0};

  U32 inLineAt_ = kOutOfLine;  // the input's changes() when the two were last brought in line
};

}  // namespace Kiv
