// Machines: what every state machine shares.
//
// A machine M derives from Kiv::Machine<M> and gives
//   - kTypeName, and kConstructorArguments: the list of its constructor's arguments (below);
//   - reactors(), its ReactorSlots and ReactorMaps as a std::tie, and children(), its ChildMaps;
//   - kTeardownRunsCleanup: whether its end runs the cleanup of its own reactors;
//   - a constructor that ends with handleInitialized(), and a destructor that calls teardown().
// Machines are made with Kiv::makeMachine<M>(), which switches their notifications on after
// construction. Activity thread only.
#pragma once

#include <exception>
#include <sstream>
#include <tuple>

#include "framework/ReactorMap.h"
#include "framework/Text.h"
#include "framework/Trace.h"

namespace [[gnu::visibility("default")]] Kiv {

template <class M>
class Machine : public Member {
 public:
  const Type& fwkType() const final { return typeRecord<M>; }
  // The activity on which the machine runs: null, which is its owner's.
  const Activity* kivFwkActivity() const { return nullptr; }

  // Set once the machine has been brought in line with its inputs. Only stores the flag.
  bool initialized() const { return initialized_; }
  void initializedIs(bool initialized) { initialized_ = initialized; }

  // Switches notifications for the machine, its reactors and its children, all the way down.
  void hasNotificationActiveIs(bool active) final {
    if (active == hasNotificationActive()) return;
    Member::hasNotificationActiveIs(active);
    std::apply([&](auto&... each) { (each.hasNotificationActiveIs(active), ...); },
               self().reactors());
    std::apply([&](auto&... each) { (each.hasNotificationActiveIs(active), ...); },
               self().children());
  }

  // Makes the machine and its reactors zombies, or brings them back.
  void kivDoZombieReactors(bool zombie) {
    if (zombie == markedForDeletion()) return;
    std::apply([&](auto&... each) { (each.kivDoZombieReactors(zombie), ...); }, self().reactors());
    kivMarkedForDeletionIs(zombie);
  }

  // Makes the reactors forget that they were in line with an input, which is about to be replaced.
  void kivReactorsOutOfLine() {
    std::apply([](auto&... each) { (each.outOfLine(), ...); }, self().reactors());
  }

 protected:
  Machine() = default;

  // The end of a machine: its reactors become zombies, lose the machine, and the children go. An
  // observer of the outputs that throws meanwhile does not stop it.
  void teardown() noexcept {
    if constexpr (!M::kTeardownRunsCleanup) reactorsLoseMachine();
    for (int attempt = 0; !markedForDeletion() && attempt < kTeardownAttempts; ++attempt) {
      try {
        kivDoZombieReactors(true);
      } catch (const std::exception& e) {
        tell(e.what());
      } catch (...) {
        tell("unknown exception");
      }
    }
    kivMarkedForDeletionIs(true);
    reactorsLoseMachine();
    std::apply([](auto&... each) { (each.delAll(), ...); }, self().children());
  }

 private:
  // A cleanup that threw has withdrawn a part; the next attempt goes on with the rest.
  static constexpr int kTeardownAttempts = 2048;

  M& self() { return static_cast<M&>(*this); }

  void reactorsLoseMachine() {
    std::apply([](auto&... each) { (each.machineDel(), ...); }, self().reactors());
  }

  void tell(const char* what) const {
    traceLine(1, {"Machine", "teardown", "void Kiv::Machine::teardown()"}, this, __LINE__,
              [what](std::ostream& text) { text << "an observer threw: " << what; });
  }

  bool initialized_ = false;
};

// Makes a machine and switches its notifications on. Throws a range exception "null ValidPtr" if
// there is none, and what the constructor throws.
template <class M, class... Arguments>
[[nodiscard]] Ptr<M> makeMachine(Arguments&&... arguments) {
  Ptr<M> machine = make<M>(std::forward<Arguments>(arguments)...);
  machine->hasNotificationActiveIs(true);
  return validPtr(std::move(machine));
}

// The arguments of a machine's constructor, as an owner's collection sees them:
//   static constexpr auto kConstructorArguments = std::tuple{
//       Kiv::keyArgument("regionName"),
//       Kiv::fixedArgument("regionConfig", &RegionConfigSm::regionConfig),
//       Kiv::changingArgument("regionSyncTimeout", &RegionConfigSm::regionSyncTimeoutIs)};

// The key under which the owner holds the machine; never compared.
struct KeyArgument_ {
  std::string_view name;  // of the argument
  // Nothing to hold against.
  template <class M, class T>
  void reconcile(M&, const T&) const {}
};

// An argument that an existing machine must have been made with.
template <class Get>
struct FixedArgument_ {
  std::string_view name;  // of the argument
  Get get;                // the machine's getter of it

  // Throws a name-in-use exception when `given` is not what the machine has.
  template <class M, class T>
  void reconcile(M& machine, const T& given) const {
    const auto& current = (machine.*get)();
    if (!(given == current)) throwNameInUseException(text(given, current));
  }

 private:
  template <class A, class B>
  std::string text(const A& given, const B& current) const {
    return std::string(
               "Reinstantiating the pointer interface where constructor parameter attribute _")
        .append(name)
        .append(" has a different value of ")
        .append(valueText(given))
        .append(" than the current value of ")
        .append(valueText(current))
        .append(" not allowed");
  }
  template <class T>
  static std::string valueText(const Ptr<T>& pointer) {
    return valueToStrepOfRawPtr(pointer.get(), typeRecord<std::remove_const_t<T>>);
  }
  static std::string valueText(const Text& text) { return text.str(); }
};

// An argument that is written into an existing machine.
template <class Set>
struct ChangingArgument_ {
  std::string_view name;  // of the argument
  Set set;                // the machine's mutator of it
  // Writes `given` into the machine.
  template <class M, class T>
  void reconcile(M& machine, const T& given) const {
    (machine.*set)(given);
  }
};

// Describe one argument: its name, and how to reach it.
constexpr KeyArgument_ keyArgument(std::string_view name) {
  return {name};
}
// As above.
template <class Get>
constexpr FixedArgument_<Get> fixedArgument(std::string_view name, Get get) {
  return {name, get};
}
// As above.
template <class Set>
constexpr ChangingArgument_<Set> changingArgument(std::string_view name, Set set) {
  return {name, set};
}

// A machine's collection of child machines.
template <class C, class K>
class ChildMap : public HashMap<C, K> {
  using Map = HashMap<C, K>;

 public:
  // Returns the child with this key, made with the given arguments when absent. An existing child
  // is held against them in order: a fixed one that differs throws a name-in-use exception and the
  // child stays, a changing one is written into it.
  template <class... Arguments>
  Ptr<C> is(const K& key, const Arguments&... arguments) {
    if (const Ptr<C> existing = Ptr<C>((*this)[key])) {
      std::apply([&](const auto&... each) { (each.reconcile(*existing, arguments), ...); },
                 C::kConstructorArguments);
      return existing;
    }
    Ptr<C> child = makeMachine<C>(arguments...);
    Map::newMember(child);
    child->hasNotificationActiveIs(true);
    return child;
  }

  // Takes the child out and returns it; null when absent. Runs no cleanup.
  Ptr<C> del(const K& key) { return Map::deleteMember(key); }
  // Takes out every child, in order. Runs no cleanup.
  void delAll() { Map::emptyAllBuckets(); }

  // What the machine passes on to all that it owns.
  void hasNotificationActiveIs(bool active) {
    for (const auto& child : *this) child->hasNotificationActiveIs(active);
  }

 private:
  using Map::deleteMember;
  using Map::emptyAllBuckets;
  using Map::newMember;
};

}  // namespace Kiv
