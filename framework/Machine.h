// Machines: what every state machine shares.
//
// A machine M derives from Kiv::Machine<M, factory> and gives
//   - kTypeName;
//   - Arguments: a struct of what it is made with, in the order of its factory's parameters. An
//     input that it observes is a ReactorSlot there, and what may not be null a ValidPtr;
//   - kAttributes: the table of its attributes, of which the first are those arguments
//     (framework/Attributes.h);
//   - reactors(), its ReactorSlots and ReactorMaps as a std::tie, and children(), its ChildMaps;
//   - kTeardownRunsCleanup: whether its end runs the cleanup of its own reactors;
//   - handleInitialized(), and where its end leaves something in the outputs, withdraw(), which
//     removes it when the machine could not be made;
//   - a constructor from (Arguments&&, Kiv::Start), which ends with begin(), and a destructor that
//     calls teardown().
// The factory is a function that calls Kiv::makeMachine<M>(). Activity thread only.
#pragma once

#include <exception>
#include <sstream>
#include <tuple>

#include "framework/Attributes.h"
#include "framework/ReactorMap.h"
#include "framework/Text.h"
#include "framework/Trace.h"

namespace [[gnu::visibility("default")]] Kiv {

// A pointer that is not null: to make one of a null pointer throws the range exception
// "null ValidPtr".
template <class T>
class ValidPtr : public Ptr<T> {
 public:
  // Holds what the pointer does; throws for a null one.
  ValidPtr(const Ptr<T>& pointer) : Ptr<T>(validPtr(pointer)) {}
};

// Who calls handleInitialized() of a new machine: its constructor, or the owner, which makes it a
// member of its collection first.
enum class Start : bool { byConstructor, byOwner };

// factory: the function that makes an M, for tools; null where there is none.
template <class M, auto factory = nullptr>
class Machine : public Member {
 public:
  const Type& fwkType() const final { return typeRecord<M>; }
  // How tools reach the machine's attributes, and make one.
  static const GenericIf& reflection();
  const GenericIf* genericIf() const override {
    if constexpr (requires { M::kAttributes; }) {
      return &reflection();
    } else {
      return nullptr;
    }
  }
  // The activity on which the machine runs: null, which is its owner's.
  const Activity* kivFwkActivity() const { return nullptr; }

  // Set when the machine has handled its inputs as they were when it was made. Only the flag.
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

  // For the owner of a machine that it starts itself: synchronises the collections that mirror an
  // input, then runs handleInitialized().
  void start() {
    struct Starting {
      explicit Starting(Machine& machine) : machine_(machine) { machine_.registeredIs(true); }
      ~Starting() { machine_.registeredIs(false); }
      Machine& machine_;
    };
    const Starting starting(*this);
    std::apply([](auto&... each) { (each.synchronise(), ...); }, self().reactors());
    self().handleInitialized();
  }
  // Whether the machine is in start(): what it publishes then is not to be withdrawn under it. Its
  // owner removes it, and it withdraws when it has started.
  bool starting() const { return registered(); }
  // Removes from the outputs what a machine that is dropped early has published there. An observer
  // of the outputs that throws meanwhile does not stop it.
  void abandon() noexcept {
    quietly([this] { self().withdraw(); });
  }

 protected:
  Machine() = default;

  // Removes what the machine has published and what its end does not remove: nothing, unless the
  // machine says otherwise.
  void withdraw() {}

  // Runs a step that writes outputs, again and again while observers throw: what a throw left is
  // done by the next.
  template <class Step>
  void quietly(Step step) const noexcept {
    (void)attempt([&] {
      step();
      return true;
    });
  }

  // The last step of the constructor. Where handleInitialized() throws, nothing is left in the
  // outputs, and the machine is not made.
  void begin(Start start) {
    std::apply([this](auto&... each) { (each.machineIs(self()), ...); }, self().reactors());
    if (start == Start::byOwner) return;
    try {
      this->start();
    } catch (...) {
      abandon();
      teardown();
      throw;
    }
  }

  // The end of a machine: its reactors become zombies, lose the machine, and the children are
  // deleted. An observer of the outputs that throws meanwhile does not stop it.
  void teardown() noexcept {
    if constexpr (!M::kTeardownRunsCleanup) reactorsLoseMachine();
    (void)attempt([this] {
      kivDoZombieReactors(true);
      return markedForDeletion();
    });
    kivMarkedForDeletionIs(true);
    reactorsLoseMachine();
    std::apply([](auto&... each) { (each.delAll(), ...); }, self().children());
  }

 private:
  // A step that threw has withdrawn a part; the next attempt goes on with the rest.
  static constexpr int kAttempts = 2048;

  M& self() { return static_cast<M&>(*this); }

  void reactorsLoseMachine() {
    std::apply([](auto&... each) { (each.machineDel(), ...); }, self().reactors());
  }

  // Runs step() until it returns true, also when observers throw; returns whether it did.
  template <class Step>
  bool attempt(Step step) const noexcept {
    for (int attempts = 0; attempts < kAttempts; ++attempts) {
      try {
        if (step()) return true;
      } catch (const std::exception& e) {
        report(e.what());
      } catch (...) {
        report("unknown exception");
      }
    }
    return false;
  }
  void report(const char* what) const {
    traceLine(1, {"Machine", "teardown", "void Kiv::Machine::teardown()"}, this, __LINE__,
              [what](std::ostream& text) { text << "an observer threw: " << what; });
  }
};

template <class M, auto factory>
const GenericIf& Machine<M, factory>::reflection() {
  static const auto description = describe<M>(M::kAttributes, factory);
  return description;
}

// Makes a machine and switches its notifications on. Throws a range exception "null ValidPtr" for a
// null argument that may not be null, and what handleInitialized() throws; nothing is made then.
template <class M>
[[nodiscard]] Ptr<M> makeMachine(typename M::Arguments&& arguments) {
  Ptr<M> machine = make<M>(std::move(arguments), Start::byConstructor);
  machine->hasNotificationActiveIs(true);
  return machine;
}

namespace detail {

inline std::string argumentText(const Text& text) {
  return text.str();
}
template <class T>
std::string argumentText(const Ptr<T>& pointer) {
  return valueToStrepOfRawPtr(pointer.get(), typeRecord<std::remove_const_t<T>>);
}

// Compares one argument with the one that an existing machine was made with.
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
  // Returns the child with this key, with its notifications switched on; made of the given
  // arguments when absent. An existing child is compared with them in order: a fixed one that
  // differs throws a name-in-use exception and the child stays, a changing one is written into it.
  //
  // A new child is a member before it publishes anything: whoever asks for it meanwhile gets it.
  // Where it cannot be made, or has been removed when it is, it leaves nothing in the outputs.
  template <class... Given>
  Ptr<C> is(const K& key, const Given&... given) {
    Ptr<C> child((*this)[key]);
    if (child) {
      std::apply([&](const auto&... each) { (detail::reconcile(each, *child, given), ...); },
                 C::kAttributes.arguments());
    } else {
      child = make<C>(typename C::Arguments{given...}, Start::byOwner);
      Map::newMember(child);
      start(*child);
    }
    child->hasNotificationActiveIs(true);
    return child;
  }

  // Removes the child and returns it; null when absent. Runs no cleanup.
  Ptr<C> del(const K& key) { return Map::deleteMember(key); }
  // Removes every child, in order. Runs no cleanup.
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

  void start(C& child) {
    const auto isMember = [&] { return (*this)[child.fwkKey()] == &child; };
    try {
      child.start();
    } catch (...) {
      child.abandon();
      if (isMember()) Map::deleteMember(child.fwkKey());
      throw;
    }
    if (!isMember()) child.abandon();
  }
};

}  // namespace Kiv
