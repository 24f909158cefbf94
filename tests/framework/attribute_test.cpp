// The kinds of attributes: what each stores, whom it tells, of what, and in which order.
#include "framework/Attribute.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <initializer_list>
#include <stdexcept>
#include <string>

#include "tests/framework/toys.h"

namespace {

using Kiv::make;
using Kiv::Ptr;
using testing::ElementsAre;
using testing::IsEmpty;
using Toys::Box;
using Toys::BoxWatcher;
using Toys::happened;
using Toys::Marble;
using Toys::watch;

class AttributeTest : public Toys::LoopTest {
 protected:
  Ptr<Box> box_ = make<Box>();
  Ptr<BoxWatcher> watcher_ = watch<BoxWatcher>(box_);
};

// Scalars

TEST_F(AttributeTest, AScalarIsEmptyAtFirstAndHoldsWhatWasWrittenLast) {
  EXPECT_EQ(box_->label(), "");
  box_->labelIs("one");
  box_->labelIs("two");
  EXPECT_EQ(box_->label(), "two");
}

TEST_F(AttributeTest, AWriteOfAScalarIsToldFromTheLoopAndNotBefore) {
  box_->labelIs("one");
  EXPECT_THAT(happened(), IsEmpty());
  EXPECT_EQ(loop_.waiting(), 1U);
  EXPECT_THAT(delivered(), ElementsAre("label"));
  EXPECT_THAT(delivered(), IsEmpty());
}

TEST_F(AttributeTest, AWriteOfAnUnchangedScalarIsToldToo) {
  box_->labelIs("one");
  (void)delivered();
  box_->labelIs("one");
  EXPECT_THAT(delivered(), ElementsAre("label"));
}

TEST_F(AttributeTest, NothingWaitsForANotifieeThatLeftTheHandlerEmpty) {
  class ColourBlind final : public Box::NotifieeConst {
    void onMarble(const Kiv::String& id) override { Toys::journal.push_back("marble " + id.str()); }
  };
  const auto box = make<Box>();
  const auto blind = make<ColourBlind>();
  blind->notifierIs(box);
  blind->isRegisteredNotifieeIs(true);
  blind->hasNotificationActiveIs(true);
  box->labelIs("one");
  box->lentIs(1, make<Marble>("a"));
  EXPECT_TRUE(loop_.idle());
  box->marbleIs("b");
  EXPECT_EQ(loop_.waiting(), 1U);
  EXPECT_THAT(delivered(), ElementsAre("marble b"));
}

// Collections

TEST_F(AttributeTest, AMemberIsMadeOnceAndReturnedFromThenOn) {
  const auto marble = box_->marbleIs("a");
  EXPECT_EQ(marble->fwkKey(), "a");
  EXPECT_EQ(box_->marble()["a"], marble.get());
  (void)delivered();
  EXPECT_EQ(box_->marbleIs("a"), marble);
  EXPECT_EQ(box_->marble().size(), 1U);
  EXPECT_THAT(delivered(), IsEmpty());
}

TEST_F(AttributeTest, AnAddedMemberIsToldAtOnceThenByKeyThenAsAWhole) {
  box_->marbleIs("a");
  EXPECT_THAT(happened(), ElementsAre("marble!"));
  EXPECT_THAT(delivered(), ElementsAre("marble a", "marble"));
}

TEST_F(AttributeTest, ARemovedMemberIsReturnedAndToldLikewise) {
  const auto marble = box_->marbleIs("a");
  (void)delivered();
  EXPECT_EQ(box_->marbleDel("a"), marble);
  EXPECT_EQ(box_->marble()["a"], nullptr);
  EXPECT_THAT(happened(), ElementsAre("marble!"));
  EXPECT_THAT(delivered(), ElementsAre("marble a", "marble"));
}

TEST_F(AttributeTest, TheRemovalOfNobodyReturnsNullAndTellsNobody) {
  EXPECT_EQ(box_->marbleDel("a"), nullptr);
  box_->marbleDelAll();
  EXPECT_THAT(delivered(), IsEmpty());
}

TEST_F(AttributeTest, AMemberMadeElsewhereIsTakenIn) {
  const auto marble = make<Marble>("a");
  EXPECT_EQ(box_->marbleIs(marble), marble);
  EXPECT_EQ(box_->marble()["a"], marble.get());
  EXPECT_THAT(happened(), ElementsAre("marble!"));
  EXPECT_THAT(delivered(), ElementsAre("marble a", "marble"));
}

TEST_F(AttributeTest, AMemberThatReplacesAnotherIsToldOnce) {
  const auto old = box_->marbleIs("a");
  (void)delivered();
  const auto fresh = make<Marble>("a");
  EXPECT_EQ(box_->marbleIs(fresh), fresh);
  EXPECT_EQ(box_->marble()["a"], fresh.get());
  EXPECT_EQ(box_->marble().size(), 1U);
  EXPECT_EQ(old->references(), 1U);
  EXPECT_THAT(happened(), ElementsAre("marble!"));
  EXPECT_THAT(delivered(), ElementsAre("marble a", "marble"));
}

TEST_F(AttributeTest, AMemberThatIsInAlreadyChangesNothing) {
  const auto marble = box_->marbleIs("a");
  (void)delivered();
  EXPECT_EQ(box_->marbleIs(marble), marble);
  EXPECT_THAT(delivered(), IsEmpty());
}

TEST_F(AttributeTest, ANullMemberThrowsAndTellsNobody) {
  EXPECT_THROW(box_->marbleIs(Ptr<Marble>()), Kiv::RangeException);
  EXPECT_TRUE(box_->marble().empty());
  EXPECT_THAT(delivered(), IsEmpty());
}

TEST_F(AttributeTest, AMemberOfAnotherCollectionThrowsAndLeavesBothAsTheyWere) {
  const auto other = make<Box>();
  const auto theirs = other->marbleIs("a");
  const auto mine = box_->marbleIs("a");
  (void)delivered();
  EXPECT_THROW(box_->marbleIs(theirs), Kiv::RangeException);
  EXPECT_EQ(box_->marble()["a"], mine.get());
  EXPECT_EQ(other->marble()["a"], theirs.get());
  EXPECT_THAT(delivered(), IsEmpty());

  (void)other->marbleDel("a");
  EXPECT_EQ(box_->marbleIs(theirs), theirs);
}

TEST_F(AttributeTest, TheRemovalOfAllIsToldMemberByMemberInOrder) {
  box_->marbleIs("a");
  box_->marbleIs("b");
  std::vector<std::string> expected;
  for (const auto& marble : box_->marble()) expected.push_back("marble " + marble->fwkKey().str());
  ASSERT_EQ(expected.size(), 2U);
  expected.insert(expected.begin() + 1, "marble");
  (void)delivered();

  box_->marbleDelAll();
  EXPECT_TRUE(box_->marble().empty());
  EXPECT_THAT(happened(), ElementsAre("marble!", "marble!"));
  EXPECT_EQ(delivered(), expected);
}

TEST_F(AttributeTest, TheChangeStandsWhenItIsToldAtOnce) {
  std::vector<std::size_t> sizes;
  watcher_->then = [&](const std::string& what) {
    if (what == "marble!") sizes.push_back(box_->marble().size());
  };
  box_->marbleIs("a");
  box_->marbleIs("b");
  box_->marbleDel("a");
  EXPECT_THAT(sizes, ElementsAre(1U, 2U, 1U));
}

TEST_F(AttributeTest, AMutatorMayBeGivenTheKeyOfTheMemberThatItRemoves) {
  box_->marbleIs("a");
  (void)delivered();
  box_->marbleDel(box_->marble()["a"]->fwkKey());
  EXPECT_THAT(delivered(), ElementsAre("marble!", "marble a", "marble"));
}

// References

TEST_F(AttributeTest, AReferenceIsHeldAndTold) {
  const auto marble = make<Marble>("m");
  box_->lentIs(0, marble);
  EXPECT_EQ(box_->lent()[0].get(), marble.get());
  EXPECT_EQ(marble->references(), 2U);
  EXPECT_THAT(happened(), ElementsAre("lent!"));
  EXPECT_THAT(delivered(), ElementsAre("lent 0", "lent"));
}

TEST_F(AttributeTest, TheSameReferenceAgainChangesNothing) {
  const auto marble = make<Marble>("m");
  box_->lentIs(0, marble);
  (void)delivered();
  box_->lentIs(0, marble);
  EXPECT_THAT(delivered(), IsEmpty());
}

TEST_F(AttributeTest, AnotherReferenceTakesThePlaceOfTheFirstAndIsTold) {
  const auto first = make<Marble>("m");
  const auto second = make<Marble>("m");
  box_->lentIs(7, first);
  (void)delivered();
  box_->lentIs(7, second);
  EXPECT_EQ(box_->lent()[7].get(), second.get());
  EXPECT_EQ(first->references(), 1U);
  EXPECT_THAT(delivered(), ElementsAre("lent!", "lent 7", "lent"));
}

TEST_F(AttributeTest, ADroppedReferenceIsToldAndADroppedNoneIsNot) {
  const auto marble = make<Marble>("m");
  box_->lentIs(7, marble);
  (void)delivered();
  box_->lentDel(8);
  EXPECT_THAT(delivered(), IsEmpty());
  box_->lentDel(7);
  EXPECT_EQ(box_->lent()[7], nullptr);
  EXPECT_EQ(marble->references(), 1U);
  EXPECT_THAT(delivered(), ElementsAre("lent!", "lent 7", "lent"));
}

TEST_F(AttributeTest, OneEntityMayBeReferredToByManyKeysAndCollections) {
  const auto marble = box_->marbleIs("m");
  const auto other = make<Box>();
  box_->lentIs(1, marble);
  box_->lentIs(2, marble);
  other->lentIs(1, marble);
  EXPECT_EQ(box_->lent().size(), 2U);
  EXPECT_EQ(other->lent()[1].get(), marble.get());
}

TEST_F(AttributeTest, ANullReferenceThrowsAndKeepsTheOldOne) {
  const auto marble = make<Marble>("m");
  box_->lentIs(7, marble);
  (void)delivered();
  EXPECT_THROW(box_->lentIs(7, nullptr), Kiv::RangeException);
  EXPECT_EQ(box_->lent()[7].get(), marble.get());
  EXPECT_THAT(delivered(), IsEmpty());
}

TEST_F(AttributeTest, AllReferencesAreDroppedInOrder) {
  const auto marble = make<Marble>("m");
  for (const auto number : std::initializer_list<Kiv::U8>{9, 0, 255, 3})
    box_->lentIs(number, marble);
  (void)delivered();
  box_->lentDelAll();
  EXPECT_TRUE(box_->lent().empty());
  EXPECT_THAT(happened(), ElementsAre("lent!", "lent!", "lent!", "lent!"));
  EXPECT_THAT(delivered(), ElementsAre("lent 0", "lent", "lent 3", "lent 9", "lent 255"));
}

// Value sets

TEST_F(AttributeTest, AnEntryIsToldWhenItIsAddedChangedAndRemoved) {
  box_->slotIs(5, false);
  EXPECT_THAT(happened(), ElementsAre("slot!"));
  EXPECT_THAT(delivered(), ElementsAre("slot 5", "slot"));
  box_->slotIs(5, true);
  EXPECT_TRUE(box_->slot()[5]);
  EXPECT_THAT(delivered(), ElementsAre("slot!", "slot 5", "slot"));
  box_->slotDel(5);
  EXPECT_FALSE(box_->slot().contains(5));
  EXPECT_THAT(delivered(), ElementsAre("slot!", "slot 5", "slot"));
}

TEST_F(AttributeTest, AnEntryThatStaysAsItWasIsNotTold) {
  box_->slotIs(5, true);
  (void)delivered();
  box_->slotIs(5, true);
  box_->slotDel(6);
  EXPECT_THAT(delivered(), IsEmpty());
}

TEST_F(AttributeTest, AllEntriesAreRemovedInOrder) {
  for (const auto slot : std::initializer_list<Kiv::U16>{1, 2, 3}) box_->slotIs(slot, true);
  (void)delivered();
  box_->slotDelAll();
  EXPECT_TRUE(box_->slot().empty());
  EXPECT_THAT(happened(), ElementsAre("slot!", "slot!", "slot!"));
  EXPECT_THAT(delivered(), ElementsAre("slot 2", "slot", "slot 1", "slot 3"));
}

// Across attributes

TEST_F(AttributeTest, WhatIsWrittenInOneGoIsToldInTheOrderOfTheWrites) {
  box_->slotIs(1, true);
  box_->labelIs("x");
  box_->marbleIs("a");
  box_->slotIs(2, true);
  EXPECT_THAT(happened(), ElementsAre("slot!", "marble!", "slot!"));
  EXPECT_THAT(delivered(), ElementsAre("slot 1", "slot", "label", "marble a", "marble", "slot 2"));
}

TEST_F(AttributeTest, EveryNotifieeIsToldTheKeyBeforeAnyIsToldOfTheWhole) {
  watcher_->hasNotificationActiveIs(false);
  const auto first = watch<BoxWatcher>(box_, "1:");
  const auto second = watch<BoxWatcher>(box_, "2:");
  box_->marbleIs("a");
  EXPECT_THAT(happened(), ElementsAre("1:marble!", "2:marble!"));
  EXPECT_THAT(delivered(), ElementsAre("1:marble a", "2:marble a", "1:marble", "2:marble"));
}

TEST_F(AttributeTest, NothingWaitsForAnEntityThatNobodyObserves) {
  const auto other = make<Box>();
  other->labelIs("x");
  other->marbleIs("a");
  other->slotIs(1, true);
  EXPECT_TRUE(loop_.idle());
}

// Immediate handlers that throw

TEST_F(AttributeTest, WhatAnImmediateHandlerThrowsLeavesTheMutatorAndTheChangeStands) {
  watcher_->then = [](const std::string& what) {
    if (what == "marble!") throw std::runtime_error("first");
  };
  const auto second = watch<BoxWatcher>(box_, "2:");
  second->then = [](const std::string& what) {
    if (what == "marble!") throw std::runtime_error("second");
  };
  const auto third = watch<BoxWatcher>(box_, "3:");
  try {
    box_->marbleIs("a");
    FAIL() << "nothing was thrown";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "first");
  }
  EXPECT_NE(box_->marble()["a"], nullptr);
  EXPECT_THAT(happened(), ElementsAre("marble!", "2:marble!", "3:marble!"));
  EXPECT_THAT(delivered(), ElementsAre("marble a", "2:marble a", "3:marble a", "marble", "2:marble",
                                       "3:marble"));
}

TEST_F(AttributeTest, AThrowingHandlerSparesTheChangesThatFollow) {
  watcher_->then = [](const std::string& what) {
    if (what == "slot!") throw std::runtime_error("no");
  };
  EXPECT_THROW(box_->slotIs(1, true), std::runtime_error);
  EXPECT_THROW(box_->slotDel(1), std::runtime_error);
  EXPECT_FALSE(box_->slot().contains(1));
  watcher_->then = nullptr;
  box_->slotIs(2, true);
  EXPECT_TRUE(box_->slot()[2]);
}

// Changes under way

TEST_F(AttributeTest, TheChangeUnderWayIsKnownWhileItIsToldAndOnlyThen) {
  const auto* none = Kiv::ChangeUnderWay::innermost();
  EXPECT_EQ(none, nullptr);
  bool seen = false;
  watcher_->then = [&](const std::string& what) {
    const Kiv::ChangeUnderWay* change = Kiv::ChangeUnderWay::innermost();
    if (what != "marble!") {
      EXPECT_EQ(change, nullptr);
      return;
    }
    seen = true;
    ASSERT_NE(change, nullptr);
    EXPECT_EQ(change->collection, &box_->marble());
    EXPECT_EQ(*static_cast<const Kiv::String*>(change->key), "a");
    EXPECT_EQ(change->before, 0U);
  };
  box_->marbleIs("a");
  EXPECT_TRUE(seen);
  EXPECT_EQ(Kiv::ChangeUnderWay::innermost(), nullptr);
  (void)delivered();
}

TEST_F(AttributeTest, AChangeWithinAChangeHidesTheOuterOneForItsTime) {
  std::vector<std::string> keys;
  const auto innermostKey = [] {
    return static_cast<const Kiv::String*>(Kiv::ChangeUnderWay::innermost()->key)->str();
  };
  watcher_->then = [&](const std::string& what) {
    if (what != "marble!") return;
    keys.push_back(innermostKey());
    if (box_->marble().size() == 1) {
      box_->marbleIs("inner");
      keys.push_back(innermostKey());
    }
  };
  box_->marbleIs("outer");
  EXPECT_THAT(keys, ElementsAre("outer", "inner", "outer"));
  EXPECT_EQ(Kiv::ChangeUnderWay::innermost(), nullptr);
}

}  // namespace
