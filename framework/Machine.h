// Machines: what every state machine shares.
//
// A machine M derives from Kiv::Machine<M> and gives
//   - kTypeName, and kAttributes: the table of its attributes, of which the first are its
//     constructor's arguments (framework/Attributes.h);
//   - reactors(), its ReactorSlots and ReactorMaps as a std::tie, and children(), its ChildMaps;
//   - kTeardownRunsCleanup: whether its end runs the cleanup of its own reactors;
//   - a constructor that ends with handleInitialized(), and a destructor that calls teardown().
// Machines are made with Kiv::makeMachine<M>(), which switches their notifications on after
// construction. Activity thread only.
#pragma once

#include <exception>
#include <sstream>
#include <tuple>

#include "framework/Attributes.h"
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
  bool initialized() const { return Member::initialized(); }
  void initializedIs(bool initialized) { Member::initializedIs(initialized); }

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
};

// Makes a machine and switches its notifications on. Throws a range exception "null ValidPtr" if
// there is none, and what the constructor throws.
template <class M, class... Arguments>
[[nodiscard]] Ptr<M> makeMachine(Arguments&&... arguments) {
  Ptr<M> machine = make<M>(std::forward<Arguments>(arguments)...);
  machine->hasNotificationActiveIs(true);
  return validPtr(std::move(machine));
}

namespace detail {

inline std::string argumentText(const Text& text) {
  return text.str();
}
template <class T>
std::string argumentText(const Ptr<T>& pointer) {
  return valueToStrepOfRawPtr(pointer.get(), typeRecord<std::remove_const_t<T>>);
}

// Holds one argument against the one that an existing machine was made with.
template <class Get, class Set, ArgumentRole Role, class M, class T>
void reconcile(const PlainAttribute<Get, Set, Role>& argument, M& machine, const T& given) {
  if constexpr (Role == ArgumentRole::changing) {
    (machine.*argument.set)(given);
  } else if constexpr (Role == ArgumentRole::fixed) {
    const auto& current = (machine.*argument.get)();
    if (given == current) return;
    throwNameInUseException(
        std::string("Reinstantiating the pointer interface where constructor parameter attribute _")
            .append(argument.attr.argument)
            .append(" has a different value of ")
            .append(argumentText(given))
            .append(" than the current value of ")
            .append(argumentText(current))
            .append(" not allowed"));
  }
}

}  // namespace detail

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
      std::apply([&](const auto&... each) { (detail::reconcile(each, *existing, arguments), ...); },
                 C::kAttributes.arguments());
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
    this->forEachUnguarded([active](C& child) { child.hasNotificationActiveIs(active); });
  }

 private:
  using Map::deleteMember;
  using Map::emptyAllBuckets;
  using Map::newMember;
  using Map::replaceMember;
};

}  // namespace Kiv
