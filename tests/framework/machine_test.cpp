// What every machine shares: how it is made, switched and marked, and its child machines.
#include "framework/Machine.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <stdexcept>
#include <string>

#include "tests/framework/toy_machine.h"

namespace {

using Kiv::make;
using Kiv::Ptr;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
using Toys::happened;
using Toys::Ledger;
using Toys::Marble;
using Toys::PotSm;
using Toys::Shelf;
using Toys::ShelfSm;

class MachineTest : public Toys::MachineTest {
 protected:
  Ptr<PotSm> potSm(const Kiv::String& id) {
    return machine_->potSmIs(id, make<Marble>(id), ledger_, "me", 30);
  }
};

// Creation

TEST_F(MachineTest, TheCreatorReturnsAnActiveMachineWithOneReference) {
  machine_ = ShelfSm::ShelfSmIs(shelf_, ledger_);
  EXPECT_EQ(machine_->references(), 1U);
  EXPECT_TRUE(machine_->hasNotificationActive());
  EXPECT_TRUE(machine_->shelfReactor()->hasNotificationActive());
  EXPECT_FALSE(machine_->markedForDeletion());
}

TEST_F(MachineTest, ConstructionMirrorsTheInputsAndEndsWithHandleInitialized) {
  shelf_->potIs("a");
  shelf_->jarIs("j");
  machine_ = ShelfSm::ShelfSmIs(shelf_, ledger_);
  EXPECT_THAT(happened(), ElementsAre("handlePot a there", "handleInitialized"));
  EXPECT_TRUE(machine_->initialized());
  EXPECT_THAT(entries(), ElementsAre("jar j"));
}

TEST_F(MachineTest, ASecondHandleInitializedOnlySaysSo) {
  shelf_->jarIs("j");
  start();
  ledger_->entryDel("jar j");
  machine_->handleInitialized();
  EXPECT_THAT(happened(), ElementsAre("already initialized"));
  EXPECT_THAT(entries(), IsEmpty());
}

TEST_F(MachineTest, InitializedIsOnlyAFlag) {
  start();
  machine_->initializedIs(false);
  EXPECT_FALSE(machine_->initialized());
  machine_->initializedIs(true);
  EXPECT_TRUE(machine_->initialized());
  EXPECT_THAT(happened(), IsEmpty());
}

TEST_F(MachineTest, AReactorIsMadeForAnEntityAndNoneForNull) {
  machine_ = ShelfSm::ShelfSmIs(nullptr, ledger_);
  EXPECT_EQ(machine_->shelfReactor(), nullptr);
  EXPECT_EQ(machine_->shelf(), nullptr);
  EXPECT_THAT(happened(), ElementsAre("handleInitialized"));
  machine_ = ShelfSm::ShelfSmIs(shelf_, ledger_);
  EXPECT_EQ(machine_->shelf(), shelf_);
}

TEST_F(MachineTest, TheMachineHoldsItsArguments) {
  start();
  EXPECT_EQ(ledger_->references(), 2U);
  EXPECT_EQ(shelf_->references(), 2U) << "through its reactor";
  machine_ = nullptr;
  EXPECT_EQ(ledger_->references(), 1U);
  EXPECT_EQ(shelf_->references(), 1U);
}

// A machine whose start-up fails.
class FailingSm final : public Kiv::Machine<FailingSm> {
 public:
  static constexpr std::string_view kTypeName = "Toys::FailingSm";
  static constexpr bool kTeardownRunsCleanup = true;

  class KivShelf final : public Kiv::Reactor<KivShelf, FailingSm, Shelf> {
   public:
    static constexpr std::string_view kTypeName = "Toys::FailingSm::KivShelf";
    using Reactor::Reactor;
    void onTitle() override {
      if (live()) Toys::journal.push_back("a machine that is not there heard of it");
    }
  };
  class KivPot final : public Kiv::MemberReactor<KivPot, FailingSm, Marble> {
   public:
    static constexpr std::string_view kTypeName = "Toys::FailingSm::KivPot";
    using MemberReactor::MemberReactor;
    void onColour() override {
      if (live()) Toys::journal.push_back("a machine that is not there heard of it");
    }
  };

  struct Arguments {
    Kiv::ReactorSlot<KivShelf> observed;
    Ptr<Shelf> shelf;
  };

  FailingSm(Arguments&& arguments, Kiv::Start start) : arguments_(std::move(arguments)) {
    begin(start);
  }
  ~FailingSm() override { teardown(); }

 private:
  friend class Kiv::Machine<FailingSm>;
  void handleInitialized() {
    const Ptr<Shelf>& shelf = arguments_.shelf;
    pot_.synchronise(*this, shelf->pot());
    arguments_.observed.hasNotificationActiveIs(true);
    shelf->titleIs("so that its reactors wait in the loop");
    for (const auto& pot : shelf->pot()) shelf->potIs(pot->fwkKey())->colourIs("red");
    throw std::runtime_error("start-up failed");
  }
  auto reactors() { return std::tie(arguments_.observed, pot_); }
  auto children() { return std::tuple<>(); }
  Arguments arguments_;
  Kiv::ReactorMap<KivPot, Kiv::String> pot_;
};

TEST_F(MachineTest, AConstructorThatThrowsLeavesNothingThatActs) {
  shelf_->potIs("a");
  EXPECT_THROW((void)Kiv::makeMachine<FailingSm>({shelf_, shelf_}), std::runtime_error);
  EXPECT_THAT(delivered(), IsEmpty());
  EXPECT_EQ(shelf_->references(), 1U);
  EXPECT_EQ(shelf_->pot()["a"]->references(), 1U);
}

TEST_F(MachineTest, AMachineTellsItsTypeAndRunsOnItsOwnersActivity) {
  start();
  EXPECT_EQ(machine_->fwkType().name(), "Toys::ShelfSm");
  EXPECT_EQ(machine_->fwkType().size(), sizeof(ShelfSm));
  EXPECT_EQ(machine_->kivFwkActivity(), nullptr);
  EXPECT_EQ(machine_->notifieeList(), nullptr);
  EXPECT_EQ(machine_->shelfReactor()->fwkType().name(), "Toys::ShelfSm::KivShelf");
}

// Notification on and off

TEST_F(MachineTest, NotificationIsSwitchedForAllThatTheMachineOwns) {
  const auto pot = shelf_->potIs("a");
  const auto jar = shelf_->jarIs("j");
  start();
  const auto child = potSm("a");
  const auto expectAll = [&](bool active) {
    EXPECT_EQ(machine_->hasNotificationActive(), active);
    EXPECT_EQ(machine_->shelfReactor()->hasNotificationActive(), active);
    EXPECT_EQ(machine_->pot()["a"]->hasNotificationActive(), active);
    EXPECT_EQ(machine_->jar()["j"]->hasNotificationActive(), active);
    EXPECT_EQ(child->hasNotificationActive(), active);
    EXPECT_EQ(child->potReactor()->hasNotificationActive(), active);
  };
  expectAll(true);
  machine_->hasNotificationActiveIs(false);
  expectAll(false);
  machine_->hasNotificationActiveIs(true);
  expectAll(true);
}

TEST_F(MachineTest, TheCurrentValueAgainDoesNotTouchWhatTheMachineOwns) {
  shelf_->potIs("a");
  start();
  const auto child = potSm("a");
  machine_->pot()["a"]->hasNotificationActiveIs(false);
  child->hasNotificationActiveIs(false);
  machine_->hasNotificationActiveIs(true);
  EXPECT_FALSE(machine_->pot()["a"]->hasNotificationActive());
  EXPECT_FALSE(child->hasNotificationActive());
}

TEST_F(MachineTest, AnInactiveMachineDoesNotHearOfChanges) {
  start();
  machine_->hasNotificationActiveIs(false);
  shelf_->potIs("a");
  shelf_->titleIs("x");
  EXPECT_THAT(delivered(), IsEmpty());
  EXPECT_TRUE(machine_->pot().empty());
}

// Zombies

TEST_F(MachineTest, TheMachineAndItsReactorsBecomeZombiesAndComeBack) {
  shelf_->potIs("a");
  shelf_->jarIs("j");
  start();
  const auto child = potSm("c");
  machine_->kivDoZombieReactors(true);
  EXPECT_TRUE(machine_->markedForDeletion());
  EXPECT_TRUE(machine_->shelfReactor()->markedForDeletion());
  EXPECT_TRUE(machine_->pot()["a"]->markedForDeletion());
  EXPECT_TRUE(machine_->jar()["j"]->markedForDeletion());
  EXPECT_FALSE(machine_->jar()["j"]->hasNotificationActive());
  EXPECT_FALSE(machine_->shelfReactor()->hasNotificationActive());
  EXPECT_FALSE(child->markedForDeletion()) << "children go their own way";

  machine_->kivDoZombieReactors(false);
  EXPECT_FALSE(machine_->markedForDeletion());
  EXPECT_FALSE(machine_->shelfReactor()->markedForDeletion());
  EXPECT_FALSE(machine_->pot()["a"]->markedForDeletion());
  EXPECT_TRUE(machine_->pot()["a"]->hasNotificationActive());
  EXPECT_TRUE(machine_->shelfReactor()->hasNotificationActive());
}

TEST_F(MachineTest, TheSameZombieStateAgainTouchesNothing) {
  shelf_->jarIs("j");
  start();
  machine_->kivDoZombieReactors(true);
  (void)happened();
  machine_->jar()["j"]->kivMarkedForDeletionIs(false);
  machine_->kivDoZombieReactors(true);
  EXPECT_FALSE(machine_->jar()["j"]->markedForDeletion());
  EXPECT_THAT(happened(), IsEmpty());
}

TEST_F(MachineTest, TheReactorOfAZombieMachineIsBornAZombie) {
  start();
  machine_->kivDoZombieReactors(true);
  const auto reactor = machine_->potIs(make<Marble>("a"));
  EXPECT_TRUE(reactor->markedForDeletion());
  EXPECT_FALSE(reactor->hasNotificationActive());
}

TEST_F(MachineTest, AZombieReactorThatIsToldDoesNothing) {
  shelf_->potIs("a");
  start();
  machine_->kivDoZombieReactors(true);
  // As if the framework called them nevertheless.
  machine_->shelfReactor()->onTitle();
  machine_->pot()["a"]->onColour();
  EXPECT_THAT(happened(), IsEmpty());
}

// The single reactor

TEST_F(MachineTest, ASingleReactorForwardsItsScalarNotifications) {
  start();
  shelf_->titleIs("x");
  EXPECT_THAT(delivered(), ElementsAre("handleTitle"));
}

TEST_F(MachineTest, AnotherEntityRepointsTheReactorAndResynchronisesAtOnce) {
  shelf_->potIs("a");
  shelf_->potIs("both");
  start();
  const Ptr<ShelfSm::KivShelf> reactor(machine_->shelfReactor());
  const auto second = make<Shelf>();
  second->potIs("both");
  second->potIs("b");
  machine_->shelfIs(second);
  EXPECT_EQ(machine_->shelfReactor(), reactor.get());
  EXPECT_EQ(machine_->shelf(), second);
  EXPECT_EQ(machine_->pot().size(), 2U);
  EXPECT_EQ(machine_->pot()["both"]->entity().get(), second->pot()["both"]);
  EXPECT_THAT(happened(),
              UnorderedElementsAre("handlePot b there", "handleColour both", "handlePot both there",
                                   "handlePot a gone", "handleTitle"));
  EXPECT_EQ(shelf_->references(), 1U);

  second->titleIs("x");
  shelf_->titleIs("y");
  EXPECT_THAT(delivered(), ElementsAre("handleTitle"));
}

TEST_F(MachineTest, TheSameEntityAgainDoesNothing) {
  shelf_->potIs("a");
  start();
  machine_->shelfIs(shelf_);
  machine_->shelfReactor()->notifierIs(shelf_);
  EXPECT_THAT(happened(), IsEmpty());
  shelf_->titleIs("x");
  EXPECT_THAT(delivered(), ElementsAre("handleTitle"));
}

TEST_F(MachineTest, ANullEntityDisconnectsAReactorThatCanBeConnectedAgain) {
  shelf_->potIs("a");
  start();
  machine_->shelfReactor()->notifierIs(nullptr);
  EXPECT_EQ(machine_->shelf(), nullptr);
  EXPECT_EQ(shelf_->references(), 1U);
  EXPECT_EQ(machine_->pot().size(), 1U) << "without an entity nothing is resynchronised";
  (void)happened();
  shelf_->titleIs("x");
  shelf_->potDel("a");
  EXPECT_THAT(delivered(), IsEmpty());

  machine_->shelfReactor()->notifierIs(shelf_);
  EXPECT_THAT(happened(), ElementsAre("handlePot a gone", "handleTitle"));
  shelf_->titleIs("y");
  EXPECT_THAT(delivered(), ElementsAre("handleTitle"));
}

TEST_F(MachineTest, AReactorOfAnotherTypeOfEntityThrows) {
  start();
  EXPECT_THROW(machine_->shelfReactor()->notifierIs(Ptr<const Kiv::PtrInterface>(ledger_)),
               Kiv::RangeException);
  EXPECT_EQ(machine_->shelf(), shelf_);
}

TEST_F(MachineTest, ADroppedReactorHearsNothingAndANewOneIsMadeActive) {
  start();
  const Ptr<ShelfSm::KivShelf> dropped(machine_->shelfReactor());
  shelf_->titleIs("waits when the reactor is dropped");
  machine_->shelfDel();
  EXPECT_EQ(machine_->shelfReactor(), nullptr);
  EXPECT_EQ(machine_->shelf(), nullptr);
  EXPECT_FALSE(dropped->isRegisteredNotifiee());
  EXPECT_FALSE(dropped->hasNotificationActive());
  shelf_->titleIs("x");
  EXPECT_THAT(delivered(), IsEmpty());
  dropped->hasNotificationActiveIs(true);
  dropped->onTitle();
  dropped->onPotkivImmediate();
  EXPECT_THAT(happened(), IsEmpty()) << "it has lost its machine";
  machine_->shelfDel();

  machine_->shelfIs(shelf_);
  ASSERT_NE(machine_->shelfReactor(), nullptr);
  EXPECT_NE(machine_->shelfReactor(), dropped.get());
  EXPECT_THAT(happened(), ElementsAre("handleTitle")) << "as when a reactor is re-pointed";
  shelf_->titleIs("y");
  EXPECT_THAT(delivered(), ElementsAre("handleTitle"));
}

TEST_F(MachineTest, AChildThatIsAskedForWhileItIsMadeIsTheOneThatIsMade) {
  start();
  Ptr<PotSm> inner;
  PotSm::onInitialize = [&](const Kiv::String& id) {
    if (!inner) inner = machine_->potSmIs(id, nullptr, ledger_, "me", 30);
  };
  const auto outer = machine_->potSmIs("a", nullptr, ledger_, "me", 30);
  PotSm::onInitialize = nullptr;
  EXPECT_EQ(outer, inner);
  EXPECT_EQ(machine_->potSm().size(), 1U);
}

TEST_F(MachineTest, AChildWhoseStartThrowsIsNoMember) {
  start();
  PotSm::onInitialize = [](const Kiv::String&) { throw std::runtime_error("no"); };
  EXPECT_THROW((void)potSm("a"), std::runtime_error);
  PotSm::onInitialize = nullptr;
  EXPECT_TRUE(machine_->potSm().empty());
  EXPECT_EQ(potSm("a")->fwkKey(), "a");
}

TEST_F(MachineTest, AnExistingChildIsSwitchedOnWhenItIsAskedFor) {
  start();
  const auto pot = make<Marble>("a");
  const auto child = machine_->potSmIs("a", pot, ledger_, "me", 30);
  child->hasNotificationActiveIs(false);
  EXPECT_EQ(machine_->potSmIs("a", pot, ledger_, "me", 30), child);
  EXPECT_TRUE(child->hasNotificationActive());
  EXPECT_TRUE(child->potReactor()->hasNotificationActive());
}

TEST_F(MachineTest, ANullEntityDropsTheReactor) {
  start();
  machine_->shelfIs(nullptr);
  EXPECT_EQ(machine_->shelfReactor(), nullptr);
  EXPECT_EQ(shelf_->references(), 1U);
}

// Child machines

TEST_F(MachineTest, AChildIsMadeActiveWithItsArguments) {
  start();
  const auto pot = make<Marble>("a");
  const auto child = machine_->potSmIs("a", pot, ledger_, "me", 30);
  EXPECT_THAT(happened(), ElementsAre("new PotSm a"));
  EXPECT_EQ(machine_->potSm()["a"], child.get());
  EXPECT_TRUE(child->hasNotificationActive());
  EXPECT_EQ(child->pot(), pot);
  EXPECT_EQ(child->ledger(), ledger_);
  EXPECT_EQ(child->patience(), 30);
  pot->colourIs("red");
  EXPECT_THAT(delivered(), ElementsAre("PotSm::handleColour a"));
}

TEST_F(MachineTest, TheSameArgumentsAgainReturnTheChild) {
  start();
  const auto pot = make<Marble>("a");
  const auto child = machine_->potSmIs("a", pot, ledger_, "me", 30);
  (void)happened();
  EXPECT_EQ(machine_->potSmIs("a", pot, ledger_, "me", 30), child);
  EXPECT_THAT(happened(), IsEmpty());
  EXPECT_EQ(machine_->potSm().size(), 1U);
}

TEST_F(MachineTest, AnArgumentThatMayChangeIsWrittenIntoTheChild) {
  start();
  const auto pot = make<Marble>("a");
  const auto child = machine_->potSmIs("a", pot, ledger_, "me", 30);
  EXPECT_EQ(machine_->potSmIs("a", pot, ledger_, "me", 45), child);
  EXPECT_EQ(child->patience(), 45);
}

std::string shown(const std::string& type, const void* pointer) {
  std::ostringstream text;
  text << type << '(' << pointer << ')';
  return text.str();
}

TEST_F(MachineTest, AnotherPointerThrowsNameInUseAndTheChildStays) {
  start();
  const auto pot = make<Marble>("a");
  const auto other = make<Marble>("a");
  const auto child = machine_->potSmIs("a", pot, ledger_, "me", 30);
  try {
    (void)machine_->potSmIs("a", other, ledger_, "me", 45);
    FAIL() << "nothing was thrown";
  } catch (const Kiv::NameInUseException& e) {
    EXPECT_EQ(e.what(),
              "Reinstantiating the pointer interface where constructor parameter attribute _pot "
              "has a different value of " +
                  shown("Toys::Marble", other.get()) + " than the current value of " +
                  shown("Toys::Marble", pot.get()) + " not allowed");
  }
  EXPECT_EQ(machine_->potSm()["a"], child.get());
  EXPECT_EQ(child->pot(), pot);
  EXPECT_EQ(child->patience(), 30) << "nothing after the difference is written";
}

TEST_F(MachineTest, ANullPointerIsADifferenceLikeAnyOther) {
  start();
  const auto pot = make<Marble>("a");
  (void)machine_->potSmIs("a", pot, ledger_, "me", 30);
  try {
    (void)machine_->potSmIs("a", nullptr, ledger_, "me", 30);
    FAIL() << "nothing was thrown";
  } catch (const Kiv::NameInUseException& e) {
    EXPECT_THAT(e.what(), testing::HasSubstr("_pot has a different value of Toys::Marble(null) "
                                             "than the current value of Toys::Marble(0x"));
  }
}

TEST_F(MachineTest, TheFirstDifferenceIsTheOneThatIsTold) {
  start();
  const auto pot = make<Marble>("a");
  (void)machine_->potSmIs("a", pot, ledger_, "me", 30);
  const auto textOf = [&](const Ptr<Marble>& p, const Ptr<Ledger>& l, const Kiv::Name& keeper) {
    try {
      (void)machine_->potSmIs("a", p, l, keeper, 30);
    } catch (const Kiv::NameInUseException& e) {
      return std::string(e.what());
    }
    return std::string("nothing");
  };
  using testing::HasSubstr;
  EXPECT_THAT(textOf(make<Marble>("a"), make<Ledger>(), "you"), HasSubstr("attribute _pot has"));
  EXPECT_THAT(textOf(pot, make<Ledger>(), "you"), HasSubstr("attribute _ledger has"));
  EXPECT_EQ(textOf(pot, ledger_, "you"),
            "Reinstantiating the pointer interface where constructor parameter attribute _keeper "
            "has a different value of you than the current value of me not allowed");
  EXPECT_EQ(textOf(pot, ledger_, "me"), "nothing");
}

TEST_F(MachineTest, ADeletedChildIsHandedOverAndGoesWithItsLastPointer) {
  start();
  auto child = potSm("a");
  (void)happened();
  EXPECT_EQ(machine_->potSmDel("nobody"), nullptr);
  EXPECT_EQ(machine_->potSmDel("a"), child);
  EXPECT_EQ(machine_->potSm()["a"], nullptr);
  EXPECT_THAT(happened(), IsEmpty()) << "deleting runs no cleanup";
  EXPECT_FALSE(child->markedForDeletion());
  child = nullptr;
  EXPECT_THAT(happened(), ElementsAre("end of PotSm a", "cleanup of pot a"));
}

TEST_F(MachineTest, AllChildrenAreDeletedInOrder) {
  start();
  for (const char* id : {"a", "b", "c"}) (void)potSm(id);
  std::vector<std::string> expected;
  for (const auto& child : machine_->potSm()) {
    expected.push_back("end of PotSm " + child->fwkKey().str());
    expected.push_back("cleanup of pot " + child->fwkKey().str());
  }
  (void)happened();
  machine_->potSmDelAll();
  EXPECT_TRUE(machine_->potSm().empty());
  EXPECT_EQ(happened(), expected);
}

TEST_F(MachineTest, AChildThatIsMadeAnewIsAnotherOne) {
  start();
  const auto first = potSm("a");
  (void)machine_->potSmDel("a");
  const auto second = potSm("a");
  EXPECT_NE(first, second);
}

}  // namespace
