// A machine's collections of reactors: is, del, and staying synchronised with the input.
#include "framework/ReactorMap.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/framework/keys.h"
#include "tests/framework/toy_machine.h"

namespace {

using Kiv::make;
using Kiv::Ptr;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
using Toys::happened;
using Toys::Marble;
using Toys::Shelf;
using Toys::ShelfSm;

class ReactorMapTest : public Toys::MachineTest {
 protected:
  ReactorMapTest() { start(); }
};

// is

TEST_F(ReactorMapTest, ANewMemberGetsAnActiveReactorAndThenTheHookRuns) {
  const auto pot = make<Marble>("a");
  const auto reactor = machine_->potIs(pot);
  EXPECT_EQ(machine_->pot()["a"], reactor.get());
  EXPECT_EQ(reactor->entity(), pot);
  EXPECT_EQ(reactor->fwkKey(), "a");
  EXPECT_TRUE(reactor->hasNotificationActive());
  EXPECT_TRUE(reactor->isRegisteredNotifiee());
  EXPECT_FALSE(reactor->markedForDeletion());
  EXPECT_THAT(happened(), ElementsAre("handlePot a there"));
  pot->colourIs("red");
  EXPECT_THAT(delivered(), ElementsAre("handleColour a"));
}

TEST_F(ReactorMapTest, APassiveReactorIsRegisteredAndInNoListOfItsEntity) {
  const auto jar = make<Marble>("a");
  const auto reactor = make<ShelfSm::KivJar>(Ptr<const Marble>(jar), nullptr);
  EXPECT_EQ(reactor->entity(), jar);
  EXPECT_TRUE(reactor->isRegisteredNotifiee());
  EXPECT_TRUE(jar->notifieeList()->empty());

  const auto other = make<Marble>("b");
  reactor->notifierIs(other);
  EXPECT_EQ(reactor->entity(), other);
  EXPECT_TRUE(reactor->isRegisteredNotifiee());
  EXPECT_TRUE(other->notifieeList()->empty());
  reactor->notifierIs(nullptr);
  EXPECT_FALSE(reactor->isRegisteredNotifiee());

  // Nor does registering it by hand put it there.
  reactor->notifierIs(jar);
  reactor->isRegisteredNotifieeIs(false);
  EXPECT_FALSE(reactor->isRegisteredNotifiee());
  reactor->isRegisteredNotifieeIs(true);
  EXPECT_TRUE(reactor->isRegisteredNotifiee());
  EXPECT_TRUE(jar->notifieeList()->empty());
}

TEST_F(ReactorMapTest, TheSameEntityAgainReturnsTheReactorAndRunsNoHook) {
  const auto pot = make<Marble>("a");
  const auto reactor = machine_->potIs(pot);
  (void)happened();
  EXPECT_EQ(machine_->potIs(pot), reactor);
  EXPECT_THAT(happened(), IsEmpty());
}

TEST_F(ReactorMapTest, AnotherEntityOfTheKeyRepointsTheReactorAndRunsTheHook) {
  const auto pot = make<Marble>("a");
  const auto other = make<Marble>("a");
  const auto reactor = machine_->potIs(pot);
  (void)happened();
  EXPECT_EQ(machine_->potIs(other), reactor);
  EXPECT_EQ(reactor->entity(), other);
  EXPECT_EQ(machine_->pot().size(), 1U);
  EXPECT_THAT(happened(), ElementsAre("handleColour a", "handlePot a there"));
  EXPECT_EQ(pot->references(), 1U);
  pot->colourIs("red");
  EXPECT_THAT(delivered(), IsEmpty());
  other->colourIs("red");
  EXPECT_THAT(delivered(), ElementsAre("handleColour a"));
}

TEST_F(ReactorMapTest, ANullEntityThrowsTheFixedTextOfItsCollection) {
  const auto textOf = [](const std::function<void()>& call) {
    try {
      call();
    } catch (const Kiv::RangeException& e) {
      return std::string(e.what());
    }
    return std::string("nothing");
  };
  EXPECT_EQ(textOf([&] { machine_->potIs(nullptr); }),
            "null _pot parameter to mutator for Toys::ShelfSm::pot not allowed\"");
  EXPECT_EQ(textOf([&] { machine_->jarIs(nullptr); }),
            "null _jar parameter to mutator for Toys::ShelfSm::jar not allowed\"");
  ShelfSm::PotMap loose;
  EXPECT_EQ(textOf([&] { loose.is(*machine_, nullptr); }),
            "null _ parameter to mutator for Toys::ShelfSm:: not allowed\"");
  EXPECT_THAT(happened(), IsEmpty());
}

TEST_F(ReactorMapTest, AZombieReactorComesBackWhenItIsRepointed) {
  const auto reactor = machine_->jarIs(make<Marble>("a"));
  reactor->kivDoZombieReactors(true);
  (void)happened();
  const auto other = make<Marble>("a");
  EXPECT_EQ(machine_->jarIs(other), reactor);
  EXPECT_FALSE(reactor->markedForDeletion());
  EXPECT_TRUE(reactor->hasNotificationActive());
}

// del

TEST_F(ReactorMapTest, TheDeletionOfNobodyReturnsNullAndRunsNoHook) {
  EXPECT_EQ(machine_->potDel("a"), nullptr);
  machine_->potDelAll();
  EXPECT_THAT(happened(), IsEmpty());
}

TEST_F(ReactorMapTest, ADeletedReactorIsASilentZombieWithoutAMachine) {
  const auto pot = make<Marble>("a");
  const auto reactor = machine_->potIs(pot);
  (void)happened();
  EXPECT_EQ(machine_->potDel("a"), pot);
  EXPECT_EQ(machine_->pot()["a"], nullptr);
  EXPECT_THAT(happened(), ElementsAre("handlePot a gone"));
  EXPECT_TRUE(reactor->markedForDeletion());
  EXPECT_FALSE(reactor->hasNotificationActive());
  EXPECT_EQ(reactor->references(), 1U);
  // Not even when it is brought back to life: the machine is out of its reach.
  reactor->kivMarkedForDeletionIs(false);
  reactor->onColour();
  EXPECT_THAT(happened(), IsEmpty());
}

TEST_F(ReactorMapTest, ADeletedReactorIsAZombieThatHasItsMachineWhileTheHookRuns) {
  const auto reactor = machine_->potIs(make<Marble>("a"));
  bool seen = false;
  machine_->onHandlePot = [&](const Kiv::String&) {
    seen = true;
    EXPECT_TRUE(reactor->markedForDeletion());
    EXPECT_FALSE(reactor->hasNotificationActive());
    EXPECT_TRUE(reactor->hasMachine());
  };
  (void)machine_->potDel("a");
  EXPECT_TRUE(seen);
  EXPECT_FALSE(reactor->hasMachine());
}

TEST_F(ReactorMapTest, ADeletedReactorIsInactiveEvenIfItWasAnActiveZombie) {
  const auto reactor = machine_->potIs(make<Marble>("a"));
  reactor->kivDoZombieReactors(true);
  reactor->hasNotificationActiveIs(true);
  (void)machine_->potDel("a");
  EXPECT_FALSE(reactor->hasNotificationActive());
}

TEST_F(ReactorMapTest, WhatWaitsForADeletedReactorIsSkipped) {
  const auto pot = make<Marble>("a");
  (void)machine_->potIs(pot);
  pot->colourIs("red");
  (void)machine_->potDel("a");
  (void)happened();
  EXPECT_THAT(delivered(), IsEmpty());
}

TEST_F(ReactorMapTest, ACleanupRunsWhileTheReactorIsStillAMemberAndNoZombie) {
  (void)machine_->jarIs(make<Marble>("j"));
  ledger_->entryIs("jar j");
  (void)happened();
  (void)machine_->jarDel("j");
  EXPECT_THAT(happened(), ElementsAre("cleanup of jar j, member"));
  EXPECT_EQ(machine_->jar()["j"], nullptr);
  EXPECT_THAT(entries(), IsEmpty());
}

TEST_F(ReactorMapTest, ACleanupRunsOnEachChangeOfTheZombieStateAndOnNoOther) {
  const auto reactor = machine_->jarIs(make<Marble>("j"));
  reactor->kivDoZombieReactors(true);
  EXPECT_THAT(happened(), ElementsAre("cleanup of jar j, member"));
  EXPECT_FALSE(reactor->hasNotificationActive());
  reactor->kivDoZombieReactors(true);
  EXPECT_THAT(happened(), IsEmpty());
  reactor->kivDoZombieReactors(false);
  EXPECT_THAT(happened(), ElementsAre("cleanup of jar j, member, zombie, active"));
  EXPECT_TRUE(reactor->hasNotificationActive());
  reactor->kivDoZombieReactors(false);
  EXPECT_THAT(happened(), IsEmpty());
}

TEST_F(ReactorMapTest, ADisconnectedReactorLeavesItsNotificationsAsTheyAre) {
  const auto reactor = Ptr<ShelfSm::KivShelf>(machine_->shelfReactor());
  reactor->notifierIs(nullptr);
  reactor->kivDoZombieReactors(true);
  EXPECT_TRUE(reactor->markedForDeletion());
  EXPECT_TRUE(reactor->hasNotificationActive());
}

TEST_F(ReactorMapTest, TheMemberUnderAnIteratorMayBeDeleted) {
  for (const char* id : {"a", "b", "c", "d", "e", "f"}) (void)machine_->potIs(make<Marble>(id));
  (void)happened();
  int met = 0;
  for (auto at = machine_->pot().begin(); at != machine_->pot().end(); ++at) {
    ++met;
    const Kiv::String key = at.key();
    const auto observed = (*at)->entity();
    EXPECT_EQ(machine_->potDel(at), observed);
    EXPECT_EQ(machine_->pot()[key], nullptr);
  }
  EXPECT_EQ(met, 6);
  EXPECT_TRUE(machine_->pot().empty());
  EXPECT_EQ(happened().size(), 6U);
}

TEST_F(ReactorMapTest, AllAreDeletedInTheOrderOfIteration) {
  for (const char* id : {"a", "b", "c", "d", "e", "f"}) (void)machine_->jarIs(make<Marble>(id));
  std::vector<std::string> expected;
  for (const auto& reactor : machine_->jar()) {
    expected.push_back("cleanup of jar " + reactor->fwkKey().str() + ", member");
  }
  (void)happened();
  machine_->jarDelAll();
  EXPECT_TRUE(machine_->jar().empty());
  EXPECT_EQ(happened(), expected);
}

TEST_F(ReactorMapTest, AHookMayDeleteTheMemberThatHasJustCome) {
  machine_->onHandlePot = [&](const Kiv::String& id) {
    if (machine_->pot().contains(id)) machine_->potDel(id);
  };
  (void)machine_->potIs(make<Marble>("a"));
  EXPECT_TRUE(machine_->pot().empty());
  EXPECT_THAT(happened(), ElementsAre("handlePot a there", "handlePot a gone"));
}

// Staying synchronised with the input

TEST_F(ReactorMapTest, AChangeOfTheInputIsMirroredAtOnce) {
  const auto pot = shelf_->potIs("a");
  EXPECT_THAT(happened(), ElementsAre("handlePot a there"));
  EXPECT_EQ(machine_->pot()["a"]->entity(), pot);
  const auto other = make<Marble>("a");
  shelf_->potIs(other);
  EXPECT_EQ(machine_->pot()["a"]->entity(), other);
  EXPECT_THAT(happened(), ElementsAre("handleColour a", "handlePot a there"));
  shelf_->potDel("a");
  EXPECT_TRUE(machine_->pot().empty());
  EXPECT_THAT(happened(), ElementsAre("handlePot a gone"));
  EXPECT_THAT(delivered(), IsEmpty()) << "the keyed notification finds all in line";
}

TEST_F(ReactorMapTest, AKeyedNotificationHandlesItsKeyAlone) {
  shelf_->potIs("gone");
  shelf_->potIs("stays");
  machine_->hasNotificationActiveIs(false);
  shelf_->potIs("a");
  shelf_->potIs("b");
  shelf_->potDel("gone");
  shelf_->potDel("stays");
  machine_->hasNotificationActiveIs(true);
  (void)happened();
  machine_->shelfReactor()->onPot("a");
  EXPECT_THAT(happened(), ElementsAre("handlePot a there"));
  machine_->shelfReactor()->onPot("gone");
  EXPECT_THAT(happened(), ElementsAre("handlePot gone gone"));
  EXPECT_TRUE(machine_->pot().contains("stays"));
  EXPECT_FALSE(machine_->pot().contains("b"));
  machine_->shelfReactor()->onPot("a");
  machine_->shelfReactor()->onPot("nobody");
  EXPECT_THAT(happened(), IsEmpty());
}

TEST_F(ReactorMapTest, ADisconnectedReactorIsFoundIteratedAndDeleted) {
  for (const char* id : {"a", "b"}) {
    (void)machine_->potIs(make<Marble>(id));
    (void)machine_->jarIs(make<Marble>(id));
  }
  machine_->pot()["a"]->notifierIs(nullptr);
  machine_->jar()["a"]->notifierIs(nullptr);
  EXPECT_EQ(machine_->pot()["a"]->fwkKey(), "a");
  EXPECT_EQ(machine_->jar()["a"]->fwkKey(), "a");
  std::vector<std::string> pots;
  for (const auto& pot : machine_->pot()) pots.push_back(pot->fwkKey().str());
  EXPECT_THAT(pots, testing::UnorderedElementsAre("a", "b"));
  EXPECT_EQ(machine_->potDel("a"), nullptr);
  EXPECT_EQ(machine_->jarDel("a"), nullptr);
  EXPECT_EQ(machine_->pot().size(), 1U);
  EXPECT_EQ(machine_->jar().size(), 1U);
}

TEST_F(ReactorMapTest, ADisconnectedReactorIsConnectedAgainByItsMember) {
  (void)machine_->potIs(make<Marble>("a"));
  const Ptr<ShelfSm::KivPot> reactor(machine_->pot()["a"]);
  reactor->notifierIs(nullptr);
  const auto again = make<Marble>("a");
  EXPECT_EQ(machine_->potIs(again), reactor);
  EXPECT_EQ(reactor->entity(), again);
}

// Whether a change was looked at alone is seen by what it leaves alone: a reactor that the test
// has put in, which the input does not have, goes only when all members are looked at.
class SynchronisedTest : public ReactorMapTest {
 protected:
  // Inserts a reactor without a member of the input.
  void putStray(const char* id) {
    machine_->pot().insert(*machine_, make<ShelfSm::KivPot>(make<Marble>(id), machine_.get()));
  }
  bool strayIsThere(const char* id) { return machine_->pot().contains(id); }
};

TEST_F(SynchronisedTest, AReactorInsertedByHandIsDeletedAtTheNextChange) {
  shelf_->potIs("a");
  putStray("stray");
  shelf_->potIs("b");
  EXPECT_FALSE(strayIsThere("stray"));
  EXPECT_EQ(machine_->pot().size(), 2U);
}

TEST_F(SynchronisedTest, AReactorThatIsDeletedByHandIsMadeAgainAtTheNextChange) {
  shelf_->potIs("a");
  (void)machine_->potDel("a");
  shelf_->potIs("b");
  EXPECT_NE(machine_->pot()["a"], nullptr);
  EXPECT_NE(machine_->pot()["b"], nullptr);
}

TEST_F(SynchronisedTest, AReactorMadeByHandIsDeletedAtTheNextChange) {
  shelf_->potIs("a");
  (void)machine_->potIs(make<Marble>("stray"));
  shelf_->potDel("a");
  EXPECT_TRUE(machine_->pot().empty());
}

TEST_F(SynchronisedTest, ChangesMissedWhileInactiveAreFoundAtTheNextChange) {
  shelf_->potIs("a");
  machine_->hasNotificationActiveIs(false);
  shelf_->potDel("a");
  shelf_->potIs("b");
  machine_->hasNotificationActiveIs(true);
  EXPECT_NE(machine_->pot()["a"], nullptr);
  shelf_->potIs("c");
  EXPECT_EQ(machine_->pot()["a"], nullptr);
  EXPECT_NE(machine_->pot()["b"], nullptr);
  EXPECT_NE(machine_->pot()["c"], nullptr);
}

TEST_F(SynchronisedTest, AfterAHandlerThrewTheNextChangeSynchronises) {
  machine_->onHandlePot = [](const Kiv::String& id) {
    if (id == "a") throw std::runtime_error("no");
  };
  EXPECT_THROW(shelf_->potIs("a"), std::runtime_error);
  machine_->onHandlePot = nullptr;
  EXPECT_NE(shelf_->pot()["a"], nullptr);
  (void)machine_->potDel("a");
  shelf_->potIs("b");
  EXPECT_NE(machine_->pot()["a"], nullptr);
  EXPECT_NE(machine_->pot()["b"], nullptr);
}

TEST_F(SynchronisedTest, AChangeWithinAHookIsMirroredToo) {
  machine_->onHandlePot = [&](const Kiv::String& id) {
    if (id == "outer" && machine_->pot().contains(id)) {
      shelf_->potIs("inner");
      shelf_->potDel("outer");
    }
  };
  shelf_->potIs("outer");
  EXPECT_EQ(machine_->pot()["outer"], nullptr);
  EXPECT_NE(machine_->pot()["inner"], nullptr);
  machine_->onHandlePot = nullptr;
  shelf_->potIs("after");
  EXPECT_EQ(machine_->pot().size(), 2U);
  (void)delivered();
  EXPECT_EQ(machine_->pot().size(), 2U);
}

// Counts how often members are looked up, to see how much of the input is looked at.
class CountingInput {
 public:
  explicit CountingInput(const Shelf& shelf) : shelf_(shelf) {}
  const Marble* operator[](const Kiv::String& key) const {
    ++looks;
    return shelf_.pot()[key];
  }
  bool contains(const Kiv::String& key) const {
    ++looks;
    return shelf_.pot().contains(key);
  }
  auto begin() const {
    walks++;
    return shelf_.pot().begin();
  }
  auto end() const { return shelf_.pot().end(); }
  std::size_t size() const { return shelf_.pot().size(); }
  Kiv::U32 changes() const { return shelf_.pot().changes(); }
  const Kiv::String* singleChangeSince(Kiv::U32 version) const {
    return static_cast<const Kiv::String*>(Kiv::detail::SingleChange::keySince(this, version));
  }
  mutable int looks = 0;
  mutable int walks = 0;

 private:
  const Shelf& shelf_;
};

// Mirrors the input as a machine would do from a change of one member.
class FollowTest : public ReactorMapTest {
 protected:
  FollowTest() : input_(*shelf_) { machine_->shelfDel(); }

  void follow(const void* collection, const Kiv::String& key, Kiv::U32 before) {
    const Kiv::detail::SingleChange change(collection, before, &key);
    machine_->pot().follow(*machine_, input_);
  }

  CountingInput input_;
};

TEST_F(FollowTest, LooksAtTheChangedMemberOnlyWhenSynchronisedBefore) {
  for (const char* id : {"a", "b", "c"}) shelf_->potIs(id);
  machine_->pot().follow(*machine_, input_);
  EXPECT_EQ(input_.walks, 1);
  EXPECT_EQ(machine_->pot().size(), 3U);

  const Kiv::U32 before = input_.changes();
  shelf_->potIs("d");
  input_.looks = 0;
  follow(&input_, "d", before);
  EXPECT_EQ(input_.walks, 1);
  EXPECT_EQ(input_.looks, 1);
  EXPECT_EQ(machine_->pot().size(), 4U);

  const Kiv::U32 again = input_.changes();
  shelf_->potDel("a");
  follow(&input_, "a", again);
  EXPECT_EQ(input_.walks, 1);
  EXPECT_EQ(machine_->pot().size(), 3U);
}

TEST_F(FollowTest, LooksAtAllWhenStale) {
  shelf_->potIs("a");
  machine_->pot().follow(*machine_, input_);
  shelf_->potIs("missed");
  const Kiv::U32 before = input_.changes();
  shelf_->potIs("b");
  follow(&input_, "b", before);
  EXPECT_EQ(input_.walks, 2);
  EXPECT_EQ(machine_->pot().size(), 3U);
}

TEST_F(FollowTest, EqualSizesMayHideDifferentMembers) {
  shelf_->potIs("stays");
  shelf_->potIs("goes");
  machine_->pot().follow(*machine_, input_);
  shelf_->potDel("goes");
  shelf_->potIs("comes");
  machine_->pot().follow(*machine_, input_);
  EXPECT_EQ(machine_->pot().size(), 2U);
  EXPECT_NE(machine_->pot()["stays"], nullptr);
  EXPECT_NE(machine_->pot()["comes"], nullptr);
}

TEST_F(FollowTest, AReactorDeletedByAHookDoesNotHideALeftoverOne) {
  machine_->potIs(make<Marble>("left over"));
  for (const char* id : {"a", "b"}) shelf_->potIs(id);
  machine_->onHandlePot = [&](const Kiv::String& id) {
    const Kiv::String other = id == "a" ? "b" : "a";
    if (machine_->pot().contains(other)) machine_->potDel(other);
  };
  machine_->pot().follow(*machine_, input_, ShelfSm::PotHook{*machine_});
  EXPECT_EQ(machine_->pot()["left over"], nullptr);
}

TEST_F(FollowTest, MembersAddedByAHookAreMirroredAtTheNextChange) {
  machine_->potIs(make<Marble>("left over"));
  shelf_->potIs("a");
  machine_->onHandlePot = [&](const Kiv::String& id) {
    if (id != "a") return;
    for (int i = 0; i < 20; ++i) shelf_->potIs(Keys::keyOf<Kiv::String>(i));
  };
  machine_->pot().follow(*machine_, input_, ShelfSm::PotHook{*machine_});
  EXPECT_EQ(machine_->pot()["left over"], nullptr);

  const Kiv::U32 before = input_.changes();
  shelf_->potIs("b");
  follow(&input_, "b", before);
  EXPECT_EQ(machine_->pot().size(), 22U);
}

TEST_F(FollowTest, LooksAtAllWhenTheChangeIsThatOfAnotherCollection) {
  shelf_->potIs("a");
  machine_->pot().follow(*machine_, input_);
  const Kiv::U32 before = input_.changes();
  shelf_->potIs("b");
  follow(&shelf_->jar(), "x", before);
  EXPECT_EQ(input_.walks, 2);
  EXPECT_EQ(machine_->pot().size(), 2U);
}

TEST_F(FollowTest, LooksAtAllWithoutAChangeUnderWay) {
  machine_->pot().follow(*machine_, input_);
  machine_->pot().follow(*machine_, input_);
  EXPECT_EQ(input_.walks, 2);
}

TEST_F(SynchronisedTest, ARepointedReactorLooksAtAllEvenInTheMiddleOfAChange) {
  // Both shelves have changed equally often, so that counting alone would not tell them apart.
  shelf_->potIs("a");
  const auto second = make<Shelf>();
  second->potIs("b");

  class Repoint final : public Shelf::NotifieeConst {
   public:
    explicit Repoint(const std::string&) {}
    void onPotkivImmediate() override {
      if (then) then();
    }
    std::function<void()> then;
  };
  const auto repoint = Toys::watch<Repoint>(second);
  repoint->then = [&] { machine_->shelfIs(second); };
  second->potIs("c");
  EXPECT_EQ(machine_->pot()["a"], nullptr);
  EXPECT_NE(machine_->pot()["b"], nullptr);
  EXPECT_NE(machine_->pot()["c"], nullptr);
}

TEST_F(SynchronisedTest, ANewReactorOnAnotherEntitySynchronisesAtOnce) {
  shelf_->potIs("a");
  const auto second = make<Shelf>();
  second->potIs("b");
  machine_->shelfDel();
  machine_->shelfIs(second);
  EXPECT_EQ(machine_->pot()["a"], nullptr);
  EXPECT_NE(machine_->pot()["b"], nullptr);
  second->potIs("c");
  EXPECT_NE(machine_->pot()["c"], nullptr);
}

}  // namespace
