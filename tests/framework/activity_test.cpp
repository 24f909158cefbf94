// The loop: what is pending, in which order it is delivered, and what is skipped.
#include "framework/Activity.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <functional>
#include <initializer_list>
#include <optional>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "tests/framework/keys.h"
#include "tests/framework/toys.h"

namespace {

using Kiv::make;
using Kiv::Ptr;
using testing::ElementsAre;
using testing::IsEmpty;
using Toys::Box;
using Toys::BoxWatcher;
using Toys::happened;
using Toys::watch;

class ActivityTest : public Toys::LoopTest {
 protected:
  Ptr<Box> box_ = make<Box>();
  Ptr<BoxWatcher> watcher_ = watch<BoxWatcher>(box_);
};

TEST_F(ActivityTest, IsIdleAtFirst) {
  EXPECT_TRUE(loop_.idle());
  EXPECT_EQ(loop_.waiting(), 0U);
  loop_.run();
  EXPECT_TRUE(loop_.idle());
}

TEST_F(ActivityTest, IsTheInstanceOfTheProcess) {
  EXPECT_EQ(&Kiv::ActivityManager::instance(), &loop_);
}

TEST_F(ActivityTest, DeliversFirstInFirstOut) {
  const auto other = make<Box>();
  const auto second = watch<BoxWatcher>(other, "2:");
  box_->labelIs("x");
  other->labelIs("x");
  box_->slotIs(9, true);
  other->slotIs(1, true);
  box_->slotIs(3, true);
  (void)happened();
  EXPECT_EQ(loop_.waiting(), 7U);
  EXPECT_THAT(delivered(),
              ElementsAre("label", "2:label", "slot 9", "slot", "2:slot 1", "2:slot", "slot 3"));
  EXPECT_TRUE(loop_.idle());
}

TEST_F(ActivityTest, APendingNotificationIsNotQueuedAgainAndKeepsItsPosition) {
  box_->slotIs(1, true);
  box_->labelIs("a");
  box_->slotIs(1, false);
  box_->labelIs("b");
  box_->slotDel(1);
  (void)happened();
  EXPECT_THAT(delivered(), ElementsAre("slot 1", "slot", "label"));
}

TEST_F(ActivityTest, CountsWhatWasQueuedDeliveredSkippedAndCoalesced) {
  const auto figures = [this] {
    const Kiv::ActivityFigures now = loop_.figures();
    return std::array{now.queued, now.delivered, now.skipped, now.coalesced};
  };
  EXPECT_EQ(figures(), (std::array<Kiv::U64, 4>{0, 0, 0, 0}));
  const auto other = make<Box>();
  const auto second = watch<BoxWatcher>(other, "2:");
  box_->labelIs("x");
  box_->labelIs("y");
  box_->labelIs("z");
  other->labelIs("x");
  EXPECT_EQ(figures(), (std::array<Kiv::U64, 4>{2, 0, 0, 2}));
  second->hasNotificationActiveIs(false);
  (void)delivered();
  EXPECT_EQ(figures(), (std::array<Kiv::U64, 4>{2, 1, 1, 2}));
  box_->labelIs("x");
  (void)delivered();
  EXPECT_EQ(figures(), (std::array<Kiv::U64, 4>{3, 2, 1, 2}));
}

TEST_F(ActivityTest, WhatIsRolledBackWasNotQueued) {
  {
    const Kiv::ActivityManager::TentativeQueueing tentative(loop_);
    box_->labelIs("x");
    EXPECT_EQ(loop_.figures().queued, 1U);
  }
  EXPECT_EQ(loop_.figures().queued, 0U);
}

TEST_F(ActivityTest, NotificationsWithOtherKeysArePendingBesideEachOther) {
  box_->slotIs(1, true);
  box_->slotIs(2, true);
  (void)happened();
  EXPECT_THAT(delivered(), ElementsAre("slot 1", "slot", "slot 2"));
}

TEST_F(ActivityTest, NotificationsOfOtherAttributesArePendingBesideEachOther) {
  const auto marble = make<Toys::Marble>("m");
  box_->slotIs(1, true);
  box_->lentIs(1, marble);
  (void)happened();
  EXPECT_THAT(delivered(), ElementsAre("slot 1", "slot", "lent 1", "lent"));
}

TEST_F(ActivityTest, NotificationsOfOtherNotifieesArePendingBesideEachOther) {
  box_->labelIs("a");
  const auto second = watch<BoxWatcher>(box_, "2:");
  box_->labelIs("b");
  EXPECT_THAT(delivered(), ElementsAre("label", "2:label"));
}

TEST_F(ActivityTest, OneThatIsBeingDeliveredMayBeQueuedAgain) {
  int times = 0;
  watcher_->then = [&](const std::string&) {
    if (++times < 3) box_->labelIs("again");
  };
  box_->labelIs("first");
  EXPECT_THAT(delivered(), ElementsAre("label", "label", "label"));
}

TEST_F(ActivityTest, WhatAHandlerQueuesIsDeliveredAfterAllThatIsPending) {
  watcher_->then = [&](const std::string& what) {
    if (what == "slot 1") box_->labelIs("added");
  };
  box_->slotIs(1, true);
  box_->slotIs(2, true);
  (void)happened();
  EXPECT_THAT(delivered(), ElementsAre("slot 1", "slot", "slot 2", "label"));
}

TEST_F(ActivityTest, AHandlerKeepsItsKeyWhileItQueuesMoreThanTheRingHolds) {
  std::vector<std::string> keys;
  class Grower final : public Box::NotifieeConst {
   public:
    std::function<void(const Kiv::String&)> grow;
    void onMarble(const Kiv::String& id) override { grow(id); }
  };
  const auto grower = make<Grower>();
  grower->grow = [&](const Kiv::String& id) {
    keys.push_back(id.str());
    if (keys.size() > 1) return;
    for (int n = 0; n < 5000; ++n) box_->marbleIs(Kiv::String(std::to_string(n)));
    keys.push_back(id.str());
  };
  grower->notifierIs(box_);
  grower->isRegisteredNotifieeIs(true);
  grower->hasNotificationActiveIs(true);
  watcher_->isRegisteredNotifieeIs(false);
  box_->marbleIs("a key of its own");
  box_->marbleDel("a key of its own");
  loop_.run();
  ASSERT_EQ(keys.size(), 5002U);
  EXPECT_EQ(keys[0], "a key of its own");
  EXPECT_EQ(keys[1], "a key of its own");
  for (int n = 0; n < 5000; ++n) {
    ASSERT_EQ(keys[static_cast<std::size_t>(n) + 2], std::to_string(n));
  }
  (void)happened();
}

TEST_F(ActivityTest, RunCalledFromAHandlerDoesNothing) {
  watcher_->then = [&](const std::string& what) {
    if (what != "label") return;
    const std::size_t waiting = loop_.waiting();
    EXPECT_EQ(waiting, 2U);
    loop_.run();
    EXPECT_EQ(loop_.waiting(), waiting);
    Toys::journal.push_back("end of label");
  };
  box_->labelIs("x");
  box_->slotIs(1, true);
  (void)happened();
  EXPECT_THAT(delivered(), ElementsAre("label", "end of label", "slot 1", "slot"));
}

TEST_F(ActivityTest, WhatAHandlerThrowsLeavesRunAndTheOthersStayPending) {
  watcher_->then = [](const std::string& what) {
    if (what == "slot 1") throw std::runtime_error("no");
  };
  box_->labelIs("x");
  box_->slotIs(1, true);
  (void)happened();
  EXPECT_THROW(loop_.run(), std::runtime_error);
  EXPECT_THAT(happened(), ElementsAre("label", "slot 1"));
  EXPECT_EQ(loop_.waiting(), 1U);
  EXPECT_THAT(delivered(), ElementsAre("slot"));
}

TEST_F(ActivityTest, ANotificationWhoseHandlerThrewMayBeQueuedAgain) {
  int times = 0;
  watcher_->then = [&](const std::string&) {
    if (++times == 1) throw std::runtime_error("no");
  };
  box_->labelIs("x");
  EXPECT_THROW(loop_.run(), std::runtime_error);
  EXPECT_TRUE(loop_.idle());
  box_->labelIs("x");
  EXPECT_THAT(delivered(), ElementsAre("label", "label"));
}

// Who is skipped

TEST_F(ActivityTest, SkipsANotifieeThatIsNotActiveAtDelivery) {
  box_->labelIs("x");
  watcher_->hasNotificationActiveIs(false);
  EXPECT_THAT(delivered(), IsEmpty());
  watcher_->hasNotificationActiveIs(true);
  EXPECT_THAT(delivered(), IsEmpty()) << "what was skipped is spent";
}

TEST_F(ActivityTest, SkipsAZombie) {
  box_->labelIs("x");
  watcher_->kivMarkedForDeletionIs(true);
  EXPECT_THAT(delivered(), IsEmpty());
}

TEST_F(ActivityTest, SkipsANotifieeThatIsNotRegisteredAnyMore) {
  box_->labelIs("x");
  watcher_->isRegisteredNotifieeIs(false);
  EXPECT_THAT(delivered(), IsEmpty());
}

TEST_F(ActivityTest, SkipsANotifieeThatIsDisconnected) {
  box_->labelIs("x");
  watcher_->notifierIs(nullptr);
  EXPECT_THAT(delivered(), IsEmpty());
}

TEST_F(ActivityTest, SkipsANotifieeThatWasDeactivatedInTheSameRun) {
  const auto second = watch<BoxWatcher>(box_, "2:");
  watcher_->then = [&](const std::string&) { second->hasNotificationActiveIs(false); };
  box_->labelIs("x");
  EXPECT_THAT(delivered(), ElementsAre("label"));
}

TEST_F(ActivityTest, AnEntryHoldsItsNotifieeUntilItIsDelivered) {
  box_->labelIs("x");
  EXPECT_EQ(watcher_->references(), 2U);
  watcher_ = nullptr;
  EXPECT_THAT(delivered(), ElementsAre("label"));
  box_->labelIs("y");
  EXPECT_TRUE(loop_.idle()) << "a notification is pending";
}

TEST_F(ActivityTest, EachOfSeveralEntriesHoldsItsNotifieeUntilTheLastIsDelivered) {
  const auto second = watch<BoxWatcher>(box_, "2:");
  for (const auto slot : std::initializer_list<Kiv::U16>{1, 2, 3}) box_->slotIs(slot, true);
  (void)happened();
  watcher_->then = [](const std::string& what) {
    if (what == "slot 2") throw std::runtime_error("no");
  };
  watcher_ = nullptr;
  EXPECT_THROW(loop_.run(), std::runtime_error);
  EXPECT_THAT(happened(), ElementsAre("slot 1", "2:slot 1", "slot", "2:slot", "slot 2"));
  EXPECT_THAT(delivered(), ElementsAre("2:slot 2", "slot 3", "2:slot 3"));
  EXPECT_EQ(second->references(), 1U);
  box_->labelIs("x");
  EXPECT_THAT(delivered(), ElementsAre("2:label")) << "the other was let go";
}

TEST_F(ActivityTest, ARunOfEntriesOfOneNotifieeHoldsItUntilTheLastIsDelivered) {
  const Ptr<BoxWatcher> watched = watcher_;
  std::vector<Kiv::U32> references;
  watcher_->then = [&](const std::string& what) {
    if (what.starts_with("slot ")) references.push_back(watched->references());
    if (what == "slot 2") throw std::runtime_error("no");
    if (what == "slot 3") box_->labelIs("queued when nothing else waits");
  };
  box_->slotIs(1, true);
  box_->slotIs(2, true);
  box_->slotIs(3, true);
  (void)happened();
  watcher_ = nullptr;
  EXPECT_GT(watched->references(), 1U);
  EXPECT_THROW(loop_.run(), std::runtime_error);
  EXPECT_GT(watched->references(), 1U) << "one waits";
  loop_.run();
  EXPECT_THAT(happened(), ElementsAre("slot 1", "slot", "slot 2", "slot 3", "label"));
  EXPECT_EQ(references.size(), 3U);
  EXPECT_EQ(std::ranges::count_if(references, [](Kiv::U32 r) { return r < 2; }), 0);
  EXPECT_EQ(watched->references(), 1U);
}

TEST_F(ActivityTest, ANotifieeThatIsSkippedIsReleased) {
  const auto second = watch<BoxWatcher>(box_, "2:");
  for (int round = 0; round < 3; ++round) {
    box_->labelIs("x");
    box_->marbleIs(Kiv::String(std::to_string(round)));
    (void)happened();
    (round == 0 ? watcher_ : second)->hasNotificationActiveIs(false);
    loop_.run();
    (void)happened();
    watcher_->hasNotificationActiveIs(true);
    second->hasNotificationActiveIs(true);
    EXPECT_EQ(watcher_->references(), 1U);
    EXPECT_EQ(second->references(), 1U);
  }
}

TEST_F(ActivityTest, ANotifieeMayBeFreedByItsOwnDelivery) {
  watcher_->then = [this](const std::string&) { watcher_ = nullptr; };
  box_->labelIs("x");
  box_->slotIs(1, true);
  loop_.run();
  EXPECT_EQ(watcher_, nullptr);
  EXPECT_TRUE(box_->notifieeList()->empty());
}

TEST_F(ActivityTest, AnEntityMayBeFreedByADelivery) {
  watcher_->then = [this](const std::string&) {
    watcher_->notifierIs(nullptr);
    box_ = nullptr;
  };
  box_->labelIs("x");
  box_->slotIs(1, true);
  (void)happened();
  EXPECT_EQ(box_, nullptr) << "the immediate handler lets it go";
  EXPECT_THAT(delivered(), IsEmpty());
}

// A set of keys that all hash alike.
class Drawer final : public Kiv::Entity<Drawer> {
 public:
  static constexpr std::string_view kTypeName = "Test::Drawer";
  using Key = Keys::AllAlike;

  class NotifieeConst : public Kiv::Notifiee<Drawer> {
   public:
    virtual void onSpoon(const Key& /*key*/) {}
    virtual void onSpoonkivImmediate() {}
    virtual void onSpoon() {}
  };

  void spoonIs(const Key& key) { spoon_.is(*this, kOnSpoon, key, true); }

 private:
  static constexpr Kiv::On<NotifieeConst, Key> kOnSpoon{
      &NotifieeConst::onSpoon, &NotifieeConst::onSpoonkivImmediate, &NotifieeConst::onSpoon};
  Kiv::ValueSet<Key> spoon_;
};

TEST_F(ActivityTest, KeysOfOneHashArePendingBesideEachOther) {
  class Watcher final : public Drawer::NotifieeConst {
   public:
    explicit Watcher(const std::string&) {}
    void onSpoon(const Drawer::Key& key) override {
      Toys::journal.push_back("spoon " + std::to_string(key.number));
    }
  };
  const auto drawer = make<Drawer>();
  const auto watcher = watch<Watcher>(drawer);
  for (const int number : {3, 1, 2}) drawer->spoonIs(Drawer::Key{number});
  EXPECT_THAT(delivered(), ElementsAre("spoon 3", "spoon 1", "spoon 2"));
}

// Handlers and keys of other shapes: not virtual, in a class with a second base, too wide for an
// entry.
struct WideKey {
  std::string text;
  int number = 0;
  Kiv::U32 hash() const { return static_cast<Kiv::U32>(number % 2); }
  friend bool operator==(const WideKey&, const WideKey&) = default;
};

class Other {
 public:
  virtual ~Other() = default;
  virtual void onOther() { Toys::journal.push_back("other"); }
};

class SpoonWatcher : public Drawer::NotifieeConst {
 public:
  void onSpoonkivImmediate() override { Toys::journal.push_back("spoon!"); }
};

class Odd final : public Other, public SpoonWatcher {
 public:
  void onPlain() { Toys::journal.push_back("plain"); }
  void onAnother() { Toys::journal.push_back("another"); }
  virtual void onNumber(Kiv::U64 number) {
    Toys::journal.push_back("number " + std::to_string(number));
  }
  void onText(const Kiv::Name& text) { Toys::journal.push_back("text " + text.str()); }
  virtual void onWide(const WideKey& key) {
    Toys::journal.push_back("wide " + key.text + std::to_string(key.number));
  }
};

class OddTest : public Toys::LoopTest {
 protected:
  OddTest() {
    odd_->notifierIs(drawer_);
    odd_->isRegisteredNotifieeIs(true);
    odd_->hasNotificationActiveIs(true);
  }
  void queueAll() {
    loop_.queue(*odd_, &Odd::onPlain);
    loop_.queue(*odd_, &Odd::onAnother);
    loop_.queue<Odd>(*odd_, &Odd::onOther);
    loop_.queue<Odd>(*odd_, &SpoonWatcher::onSpoonkivImmediate);
    for (const Kiv::U64 number : {Kiv::U64{1}, Kiv::U64{1} << 32, (Kiv::U64{1} << 32) + 1}) {
      loop_.queue<Odd, Kiv::U64>(*odd_, &Odd::onNumber, number);
    }
    loop_.queue<Odd, Kiv::Name>(*odd_, &Odd::onText, Kiv::Name("a"));
    loop_.queue<Odd, Kiv::Name>(*odd_, &Odd::onText, Kiv::Name("b"));
    for (const int number : {1, 2, 3}) {
      loop_.queue<Odd, WideKey>(*odd_, &Odd::onWide, WideKey{"w", number});
    }
  }

  Ptr<Drawer> drawer_ = make<Drawer>();
  Ptr<Odd> odd_ = make<Odd>();
};

TEST_F(OddTest, HandlersAndKeysOfAnyShapeArePendingOnceAndInOrder) {
  queueAll();
  queueAll();
  EXPECT_EQ(loop_.waiting(), 12U);
  EXPECT_THAT(delivered(), ElementsAre("plain", "another", "other", "spoon!", "number 1",
                                       "number 4294967296", "number 4294967297", "text a", "text b",
                                       "wide w1", "wide w2", "wide w3"));
  queueAll();
  EXPECT_EQ(delivered().size(), 12U);
}

TEST_F(OddTest, WhatIsSkippedOrDroppedIsFreed) {
  const Support::LiveObjects nothingIsLeft;
  queueAll();
  odd_->hasNotificationActiveIs(false);
  EXPECT_THAT(delivered(), IsEmpty());
  EXPECT_EQ(odd_->references(), 1U);
}

// Equal texts that are not the same object, and more than fit into the first ring.
TEST_F(ActivityTest, EqualTextsArePendingOnce) {
  for (int times = 0; times < 2; ++times) {
    for (int n = 0; n < 300; ++n) {
      const Kiv::String id(std::to_string(n));
      if (times == 0) {
        box_->marbleIs(id);
      } else {
        box_->marbleDel(id);
      }
    }
  }
  (void)happened();
  EXPECT_EQ(loop_.waiting(), 301U);
  const std::vector<std::string> told = delivered();
  ASSERT_EQ(told.size(), 301U);
  EXPECT_EQ(told[0], "marble 0");
  EXPECT_EQ(told[1], "marble");
  EXPECT_EQ(told[300], "marble 299");
}

// The ring wraps many times without growing, and grows in the middle of a turn.
TEST_F(ActivityTest, PendingNotificationsAreFoundHoweverOftenTheRingWraps) {
  std::mt19937 random(7);
  for (int turn = 0; turn < 400; ++turn) {
    std::vector<std::string> expected;
    std::set<unsigned> waits;
    const std::size_t many = turn % 50 == 49 ? 500 : random() % 40;
    for (std::size_t n = 0; n < many; ++n) {
      const auto slot = static_cast<Kiv::U16>(random() % (2 * many));
      box_->slotIs(slot, !box_->slot()[slot]);
      if (waits.insert(slot).second) expected.push_back("slot " + std::to_string(slot));
      if (n == 0) expected.push_back("slot");
    }
    (void)happened();
    EXPECT_EQ(delivered(), expected);
  }
}

// Many at once, against a reference: each notifiee, attribute and key is pending once, in the order
// of its first change.
TEST_F(ActivityTest, ManyPendingNotificationsAreDeliveredOnceAndInOrder) {
  for (unsigned seed = 1; seed <= 10; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    std::vector<Ptr<Box>> boxes;
    std::vector<Ptr<BoxWatcher>> watchers;
    for (int n = 0; n < 5; ++n) {
      boxes.push_back(make<Box>());
      for (int w = 0; w < 3; ++w) {
        watchers.push_back(watch<BoxWatcher>(boxes.back(), std::to_string(watchers.size()) + ":"));
      }
    }
    std::vector<std::string> expected;
    std::set<std::string> waits;
    const auto expect = [&](std::size_t box, const std::string& what) {
      for (std::size_t w = 3 * box; w < 3 * box + 3; ++w) {
        const std::string entry = std::to_string(w) + ":" + what;
        if (waits.insert(entry).second) expected.push_back(entry);
      }
    };
    for (int i = 0; i < 1500; ++i) {
      const std::size_t box = random() % boxes.size();
      const auto key = static_cast<Kiv::U16>(random() % 100);
      switch (random() % 3) {
        case 0:
          boxes[box]->labelIs("x");
          expect(box, "label");
          break;
        case 1:
          if (boxes[box]->slot().contains(key)) break;
          boxes[box]->slotIs(key, true);
          expect(box, "slot " + std::to_string(key));
          expect(box, "slot");
          break;
        default:
          if (!boxes[box]->slot().contains(key)) break;
          boxes[box]->slotDel(key);
          expect(box, "slot " + std::to_string(key));
          expect(box, "slot");
          break;
      }
    }
    (void)happened();
    EXPECT_EQ(loop_.waiting(), expected.size());
    EXPECT_EQ(delivered(), expected);
  }
}

// The end of the loop

TEST(ActivityEndTest, WhatIsPendingAtTheEndIsDroppedUndelivered) {
  const Support::LiveObjects nothingIsLeft;
  Toys::journal.clear();
  {
    auto loop = std::make_optional<Kiv::ActivityManager>();
    const auto box = make<Box>();
    const auto watcher = watch<BoxWatcher>(box);
    box->labelIs("x");
    box->marbleIs("a");
    EXPECT_EQ(loop->waiting(), 3U);
    EXPECT_EQ(watcher->references(), 2U);
    (void)happened();
    loop.reset();
    EXPECT_EQ(watcher->references(), 1U);
    EXPECT_THAT(happened(), IsEmpty());
  }
}

TEST(ActivityEndTest, AnotherLoopMayFollowTheFirst) {
  for (int i = 0; i < 2; ++i) {
    Kiv::ActivityManager loop;
    const auto box = make<Box>();
    const auto watcher = watch<BoxWatcher>(box);
    box->labelIs("x");
    (void)happened();
    loop.run();
    EXPECT_THAT(happened(), ElementsAre("label"));
  }
}

TEST(ActivityDeathTest, AProcessHasOneLoopAtATime) {
  const auto two = [] {
    const Kiv::ActivityManager first;
    const Kiv::ActivityManager second;
  };
  EXPECT_DEATH(two(), "Assertion \"theInstance == nullptr\" failed: Activity: ActivityManager");
}

TEST(ActivityDeathTest, WithoutALoopNobodyCanBeNotified) {
  EXPECT_DEATH((void)Kiv::ActivityManager::instance(),
               "Assertion \"theInstance != nullptr\" failed: Activity: instance");
}

}  // namespace
