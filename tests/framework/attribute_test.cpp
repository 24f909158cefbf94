// The kinds of attributes: what each stores, whom it notifies, of what, and in which order.
#include "framework/Attribute.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <initializer_list>
#include <new>
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

TEST_F(AttributeTest, AWriteOfAScalarIsNotifiedFromTheLoopAndNotBefore) {
  box_->labelIs("one");
  EXPECT_THAT(happened(), IsEmpty());
  EXPECT_EQ(loop_.waiting(), 1U);
  EXPECT_THAT(delivered(), ElementsAre("label"));
  EXPECT_THAT(delivered(), IsEmpty());
}

TEST_F(AttributeTest, AWriteOfAnUnchangedScalarIsNotifiedToo) {
  box_->labelIs("one");
  (void)delivered();
  box_->labelIs("one");
  EXPECT_THAT(delivered(), ElementsAre("label"));
}

TEST_F(AttributeTest, NothingWaitsForANotifieeThatLeftTheHandlerEmpty) {
  if (!Kiv::detail::PackedHandler::kPacks)
    GTEST_SKIP() << "whether a handler is overridden is not known";
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

TEST_F(AttributeTest, AnAddedMemberIsNotifiedAtOnceThenByKeyThenWithoutArguments) {
  box_->marbleIs("a");
  EXPECT_THAT(happened(), ElementsAre("marble!"));
  EXPECT_THAT(delivered(), ElementsAre("marble a", "marble"));
}

TEST_F(AttributeTest, ARemovedMemberIsReturnedAndNotifiedLikewise) {
  const auto marble = box_->marbleIs("a");
  (void)delivered();
  EXPECT_EQ(box_->marbleDel("a"), marble);
  EXPECT_EQ(box_->marble()["a"], nullptr);
  EXPECT_THAT(happened(), ElementsAre("marble!"));
  EXPECT_THAT(delivered(), ElementsAre("marble a", "marble"));
}

TEST_F(AttributeTest, TheRemovalOfAnAbsentMemberReturnsNullAndNotifiesNobody) {
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

TEST_F(AttributeTest, AMemberThatReplacesAnotherIsNotifiedOnce) {
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

TEST_F(AttributeTest, ANullMemberThrowsAndNotifiesNobody) {
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

TEST_F(AttributeTest, TheRemovalOfAllIsNotifiedMemberByMemberInOrder) {
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

TEST_F(AttributeTest, TheChangeIsMadeWhenItIsNotifiedAtOnce) {
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

TEST_F(AttributeTest, AReferenceIsHeldAndNotified) {
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

TEST_F(AttributeTest, AnotherReferenceReplacesTheFirstAndIsNotified) {
  const auto first = make<Marble>("m");
  const auto second = make<Marble>("m");
  box_->lentIs(7, first);
  (void)delivered();
  box_->lentIs(7, second);
  EXPECT_EQ(box_->lent()[7].get(), second.get());
  EXPECT_EQ(first->references(), 1U);
  EXPECT_THAT(delivered(), ElementsAre("lent!", "lent 7", "lent"));
}

TEST_F(AttributeTest, ARemovedReferenceIsNotifiedAndAnAbsentOneIsNot) {
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

TEST_F(AttributeTest, AllReferencesAreRemovedInOrder) {
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

TEST_F(AttributeTest, AnEntryIsNotifiedWhenItIsAddedChangedAndRemoved) {
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

TEST_F(AttributeTest, AnEntryThatDoesNotChangeIsNotNotified) {
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

// Single changes

TEST_F(AttributeTest, TheKeyOfASingleChangeIsKnownWhileItIsNotified) {
  int seen = 0;
  watcher_->then = [&](const std::string& what) {
    const Kiv::String* changed = box_->marble().singleChangeSince(0);
    if (what != "marble!") {
      EXPECT_EQ(changed, nullptr) << what;
      return;
    }
    ++seen;
    ASSERT_NE(changed, nullptr);
    EXPECT_EQ(*changed, "a");
    EXPECT_EQ(box_->marble().singleChangeSince(box_->marble().changes()), nullptr);
  };
  box_->marbleIs("a");
  EXPECT_EQ(seen, 1);
  EXPECT_EQ(box_->marble().singleChangeSince(0), nullptr);
  (void)delivered();
}

TEST_F(AttributeTest, AChangeOfAnotherCollectionIsNoneOfThisOne) {
  const auto other = make<Box>();
  watcher_->then = [&](const std::string& what) {
    if (what == "marble!") {
      EXPECT_EQ(other->marble().singleChangeSince(0), nullptr);
    }
  };
  box_->marbleIs("a");
}

TEST_F(AttributeTest, AfterANestedChangeTheOuterOneIsNotTheOnlyOne) {
  std::vector<std::string> keys;
  const auto keyOf = [&](Kiv::U32 version) {
    const Kiv::String* key = box_->marble().singleChangeSince(version);
    return key == nullptr ? std::string("none") : key->str();
  };
  watcher_->then = [&](const std::string& what) {
    if (what != "marble!") return;
    if (box_->marble().size() == 1) {
      const Kiv::U32 version = box_->marble().changes();
      keys.push_back(keyOf(0));
      box_->marbleIs("inner");
      keys.push_back(keyOf(0));
      keys.push_back(keyOf(version));
    } else {
      keys.push_back(keyOf(0));
      keys.push_back(keyOf(box_->marble().changes() - 1));
    }
  };
  box_->marbleIs("outer");
  EXPECT_THAT(keys, ElementsAre("outer", "none", "inner", "none", "none"));
}

// Changes made while a change is notified

TEST_F(AttributeTest, ANotifieeThatRegistersInAnImmediateHandlerIsNotNotifiedOfThatChange) {
  Ptr<BoxWatcher> late;
  watcher_->then = [&](const std::string& what) {
    if (what == "marble!" && !late) late = watch<BoxWatcher>(box_, "late:");
  };
  box_->marbleIs("a");
  ASSERT_TRUE(late);
  EXPECT_THAT(delivered(), ElementsAre("marble!", "marble a", "marble"));
  box_->marbleIs("b");
  EXPECT_THAT(delivered(), ElementsAre("marble!", "late:marble!", "marble b", "late:marble b",
                                       "marble", "late:marble"));
}

TEST_F(AttributeTest, ANotifieeThatIsActivatedInAnImmediateHandlerIsNotQueuedForThatChange) {
  const auto late = watch<BoxWatcher>(box_, "late:");
  late->hasNotificationActiveIs(false);
  watcher_->then = [&](const std::string& what) {
    if (what == "slot!") late->hasNotificationActiveIs(true);
  };
  box_->slotIs(1, true);
  EXPECT_THAT(happened(), ElementsAre("slot!", "late:slot!"));
  EXPECT_THAT(delivered(), ElementsAre("slot 1", "slot"));
}

TEST_F(AttributeTest, TheArgumentlessNotificationFollowsTheKeyedOneOfTheSameChange) {
  watcher_->then = [&](const std::string& what) {
    if (what == "marble!" && box_->marble().size() == 1) box_->marbleIs("inner");
  };
  box_->marbleIs("outer");
  EXPECT_THAT(happened(), ElementsAre("marble!", "marble!"));
  EXPECT_THAT(delivered(), ElementsAre("marble outer", "marble", "marble inner"));

  watcher_->then = [&](const std::string& what) {
    if (what == "lent!" && box_->lent().size() == 1) box_->lentIs(2, box_->marbleIs("outer"));
    if (what == "slot!" && box_->slot().contains(1)) box_->slotDel(1);
  };
  box_->lentIs(1, box_->marbleIs("outer"));
  box_->slotIs(1, true);
  (void)happened();
  EXPECT_THAT(delivered(), ElementsAre("lent 1", "lent", "lent 2", "slot 1", "slot"));
}

TEST_F(AttributeTest, ANotifieeThatUnregistersInAnImmediateHandlerIsNotNotifiedLater) {
  watcher_->then = [&](const std::string&) { watcher_->isRegisteredNotifieeIs(false); };
  box_->marbleIs("a");
  EXPECT_THAT(delivered(), ElementsAre("marble!"));
}

TEST_F(AttributeTest, AMutatorThatThrowsQueuesNothingAndKeepsWhatWaited) {
  const auto second = watch<BoxWatcher>(box_, "2:");
  box_->labelIs("x");
  const auto other = make<Box>();
  const auto theirs = other->marbleIs("a");
  EXPECT_THROW(box_->marbleIs(theirs), Kiv::RangeException);
  EXPECT_EQ(loop_.waiting(), 2U);
  EXPECT_THAT(delivered(), ElementsAre("label", "2:label"));
  EXPECT_EQ(watcher_->references(), 1U);
  EXPECT_EQ(second->references(), 1U);
}

TEST_F(AttributeTest, AMutatorThatFindsNothingToChangeLeavesTheQueueAsItWas) {
  const auto second = watch<BoxWatcher>(box_, "2:");
  for (int n = 0; n < 100; ++n) {
    box_->marbleIs(Kiv::String(std::to_string(n)));
    box_->marbleDel("none");
    box_->slotDel(static_cast<Kiv::U16>(n));
    box_->lentDel(static_cast<Kiv::U8>(n));
  }
  (void)happened();
  EXPECT_EQ(loop_.waiting(), 202U);
  std::vector<std::string> expected;
  for (int n = 0; n < 100; ++n) {
    expected.push_back("marble " + std::to_string(n));
    expected.push_back("2:" + expected.back());
    if (n == 0) expected.insert(expected.end(), {"marble", "2:marble"});
  }
  EXPECT_EQ(delivered(), expected);
  EXPECT_EQ(watcher_->references(), 1U);
  EXPECT_EQ(second->references(), 1U);
}

// Memory that runs out

// A key that takes a box while it waits, and of which a copy fails as it would without memory.
class ScarceKey {
 public:
  ScarceKey() = default;
  explicit ScarceKey(int number) : number_(number) {}
  ScarceKey(const ScarceKey& other) : number_(other.number_), wide_(other.wide_) {
    if (copiesLeft >= 0 && copiesLeft-- == 0) throw std::bad_alloc();
  }
  ScarceKey(ScarceKey&&) noexcept = default;
  ScarceKey& operator=(const ScarceKey&) = delete;
  ScarceKey& operator=(ScarceKey&&) noexcept = default;

  int number() const { return number_; }
  Kiv::U32 hash() const { return static_cast<Kiv::U32>(number_); }
  friend bool operator==(const ScarceKey& a, const ScarceKey& b) { return a.number_ == b.number_; }
  friend bool operator<(const ScarceKey& a, const ScarceKey& b) { return a.number_ < b.number_; }

  // How many copies succeed until one fails; below zero all do.
  inline static int copiesLeft = -1;

 private:
  int number_ = 0;
  std::string wide_;
};

class Tool final : public Kiv::Entity<Tool> {
 public:
  static constexpr std::string_view kTypeName = "Test::Tool";
  class NotifieeConst : public Kiv::Notifiee<Tool> {};

  explicit Tool(ScarceKey key) : key_(std::move(key)) {}
  const ScarceKey& fwkKey() const { return key_; }

 private:
  ScarceKey key_;
};

class Shed final : public Kiv::Entity<Shed> {
 public:
  static constexpr std::string_view kTypeName = "Test::Shed";

  class NotifieeConst : public Kiv::Notifiee<Shed> {
   public:
    virtual void onTool(const ScarceKey& /*key*/) {}
    virtual void onToolkivImmediate() {}
    virtual void onTool() {}
  };

  const auto& tool() const { return tool_; }
  Ptr<Tool> toolIs(const ScarceKey& key) { return tool_.is(*this, kOnTool, key); }
  Ptr<Tool> toolDel(const ScarceKey& key) { return tool_.del(*this, kOnTool, key); }

 private:
  static constexpr Kiv::On<NotifieeConst, ScarceKey> kOnTool{
      &NotifieeConst::onTool, &NotifieeConst::onToolkivImmediate, &NotifieeConst::onTool};
  Kiv::Collection<Tool, ScarceKey> tool_;
};

class ShedWatcher final : public Shed::NotifieeConst {
 public:
  explicit ShedWatcher(const std::string& tag) : tag_(tag) {}
  void onTool(const ScarceKey& key) override {
    Toys::journal.push_back(tag_ + "tool " + std::to_string(key.number()));
  }
  void onToolkivImmediate() override { Toys::journal.push_back(tag_ + "tool!"); }
  void onTool() override { Toys::journal.push_back(tag_ + "tool"); }

 private:
  const std::string tag_;
};

TEST_F(AttributeTest, WithoutMemoryAChangeIsEitherMadeAndNotifiedOrNotMade) {
  const auto shed = make<Shed>();
  const auto first = watch<ShedWatcher>(shed, "1:");
  const auto second = watch<ShedWatcher>(shed, "2:");
  const ScarceKey key(7);
  for (const bool adds : {true, false}) {
    int failures = 0;
    for (bool made = false; !made; ++failures) {
      ASSERT_LT(failures, 100);
      ScarceKey::copiesLeft = failures;
      try {
        adds ? shed->toolIs(key) : shed->toolDel(key);
        made = true;
      } catch (const std::bad_alloc&) {
      }
      ScarceKey::copiesLeft = -1;
      EXPECT_EQ(shed->tool().contains(key), made == adds);
      if (made) {
        EXPECT_THAT(delivered(),
                    ElementsAre("1:tool!", "2:tool!", "1:tool 7", "2:tool 7", "1:tool", "2:tool"));
      } else {
        EXPECT_TRUE(loop_.idle());
        EXPECT_THAT(happened(), IsEmpty());
      }
    }
    EXPECT_GT(failures, 3) << "a copy for each notifiee has failed";
  }
  EXPECT_EQ(first->references(), 1U);
  EXPECT_EQ(second->references(), 1U);
}

}  // namespace
