// Notifiees: registration, and what may happen to them while their entity notifies.
#include "framework/Notifiee.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <initializer_list>
#include <random>
#include <string>
#include <utility>
#include <vector>

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
using Toys::MarbleWatcher;
using Toys::watch;

class NotifieeTest : public Toys::LoopTest {
 protected:
  // Makes `count` watchers "1:", "2:", ...
  void watchers(int count) {
    for (int n = 1; n <= count; ++n) {
      all_.push_back(watch<BoxWatcher>(box_, std::to_string(n) + ":"));
    }
  }
  // Drops every watcher, and what still waits for them.
  void startAgain() {
    for (const auto& watcher : all_) watcher->then = nullptr;
    (void)delivered();
    all_.clear();
  }
  // Changes the box, and returns who was notified of it at once.
  std::vector<std::string> notified() {
    box_->slotIs(next_++, true);
    return happened();
  }
  // Calls the immediate handler of each notifiee of the box, and returns who was called. Nothing is
  // queued, so that no queue holds a notifiee.
  std::vector<std::string> called() {
    box_->notifieeList()->forEach([](Kiv::NotifieeBase& notifiee) {
      static_cast<Box::NotifieeConst&>(notifiee).onSlotkivImmediate();
    });
    return happened();
  }

  Ptr<Box> box_ = make<Box>();
  std::vector<Ptr<BoxWatcher>> all_;

 private:
  Kiv::U16 next_ = 0;
};

// Connecting

TEST_F(NotifieeTest, IsNotifiedOnlyWhenConnectedRegisteredAndActive) {
  const auto watcher = make<BoxWatcher>();
  EXPECT_EQ(watcher->notifier(), nullptr);
  EXPECT_FALSE(watcher->listens());
  EXPECT_THAT(notified(), IsEmpty());

  watcher->notifierIs(box_);
  EXPECT_EQ(watcher->notifier(), box_.get());
  EXPECT_FALSE(watcher->isRegisteredNotifiee());
  EXPECT_THAT(notified(), IsEmpty());

  watcher->isRegisteredNotifieeIs(true);
  EXPECT_TRUE(watcher->isRegisteredNotifiee());
  EXPECT_FALSE(watcher->listens());
  EXPECT_THAT(notified(), IsEmpty());

  watcher->hasNotificationActiveIs(true);
  EXPECT_TRUE(watcher->listens());
  EXPECT_THAT(notified(), ElementsAre("slot!"));
}

TEST_F(NotifieeTest, IsNotNotifiedWhileInactiveZombieOrUnregistered) {
  const auto watcher = watch<BoxWatcher>(box_);
  watcher->hasNotificationActiveIs(false);
  EXPECT_THAT(notified(), IsEmpty());
  watcher->hasNotificationActiveIs(true);
  watcher->kivMarkedForDeletionIs(true);
  EXPECT_THAT(notified(), IsEmpty());
  watcher->kivMarkedForDeletionIs(false);
  watcher->isRegisteredNotifieeIs(false);
  EXPECT_THAT(notified(), IsEmpty());
  EXPECT_TRUE(loop_.idle());
  watcher->isRegisteredNotifieeIs(true);
  EXPECT_THAT(notified(), ElementsAre("slot!"));
}

TEST_F(NotifieeTest, RegisteringTwiceIsTheSameAsOnce) {
  const auto watcher = watch<BoxWatcher>(box_);
  watcher->isRegisteredNotifieeIs(true);
  EXPECT_THAT(notified(), ElementsAre("slot!"));
  watcher->isRegisteredNotifieeIs(false);
  watcher->isRegisteredNotifieeIs(false);
  EXPECT_THAT(notified(), IsEmpty());
}

TEST_F(NotifieeTest, WithoutAnEntityItCannotBeRegistered) {
  const auto watcher = make<BoxWatcher>();
  watcher->isRegisteredNotifieeIs(true);
  EXPECT_FALSE(watcher->isRegisteredNotifiee());
}

TEST_F(NotifieeTest, HoldsItsEntityWhichDoesNotHoldIt) {
  auto watcher = watch<BoxWatcher>(box_);
  EXPECT_EQ(watcher->references(), 1U);
  EXPECT_EQ(box_->references(), 2U);
  EXPECT_FALSE(box_->notifieeList()->empty());
  watcher = nullptr;
  EXPECT_EQ(box_->references(), 1U);
  EXPECT_TRUE(box_->notifieeList()->empty());
  EXPECT_THAT(notified(), IsEmpty());
}

TEST_F(NotifieeTest, ConnectingToAnotherEntityUnregistersFromTheOldOneAndRegistersWithNone) {
  const auto watcher = watch<BoxWatcher>(box_);
  const auto other = make<Box>();
  watcher->notifierIs(other);
  EXPECT_EQ(watcher->notifier(), other.get());
  EXPECT_FALSE(watcher->isRegisteredNotifiee());
  EXPECT_TRUE(box_->notifieeList()->empty());
  EXPECT_EQ(box_->references(), 1U);
  watcher->isRegisteredNotifieeIs(true);
  other->slotIs(1, true);
  EXPECT_THAT(happened(), ElementsAre("slot!"));
  EXPECT_THAT(notified(), IsEmpty());
}

TEST_F(NotifieeTest, ANullEntityDisconnects) {
  const auto watcher = watch<BoxWatcher>(box_);
  watcher->notifierIs(nullptr);
  EXPECT_EQ(watcher->notifier(), nullptr);
  EXPECT_FALSE(watcher->isRegisteredNotifiee());
  EXPECT_EQ(box_->references(), 1U);
  EXPECT_THAT(notified(), IsEmpty());
}

TEST_F(NotifieeTest, AnEntityOfAnotherTypeThrowsAndTheConnectionStays) {
  const auto watcher = watch<BoxWatcher>(box_);
  try {
    watcher->notifierIs(Kiv::Ptr<const Kiv::PtrInterface>(make<Marble>("m")));
    FAIL() << "nothing was thrown";
  } catch (const Kiv::RangeException& e) {
    EXPECT_STREQ(e.what(), "a notifiee of Toys::Box cannot observe a Toys::Marble");
  }
  EXPECT_EQ(watcher->notifier(), box_.get());
  EXPECT_THAT(notified(), ElementsAre("slot!"));
}

TEST_F(NotifieeTest, KivReactorIsTheNotifieeItself) {
  const auto watcher = watch<BoxWatcher>(box_);
  EXPECT_EQ(watcher->kivReactor(), watcher.get());
}

TEST_F(NotifieeTest, HandlersThatAreNotOverriddenDoNothing) {
  class Silent final : public Box::NotifieeConst {};
  const auto silent = make<Silent>();
  silent->notifierIs(box_);
  silent->isRegisteredNotifieeIs(true);
  silent->hasNotificationActiveIs(true);
  box_->labelIs("x");
  box_->marbleIs("a");
  box_->lentIs(1, box_->marbleIs("a"));
  box_->slotIs(1, true);
  EXPECT_THAT(delivered(), IsEmpty());
}

TEST_F(NotifieeTest, OneEntityMayBeObservedThroughSeveralKindsOfNotifiee) {
  const auto marble = box_->marbleIs("a");
  const auto inside = watch<MarbleWatcher>(marble, "inside:");
  const auto outside = watch<BoxWatcher>(box_, "outside:");
  marble->colourIs("red");
  EXPECT_THAT(delivered(), ElementsAre("inside:colour"));
}

// While an entity notifies

TEST_F(NotifieeTest, AllAreCalledInTheOrderOfTheirRegistration) {
  watchers(3);
  EXPECT_THAT(notified(), ElementsAre("1:slot!", "2:slot!", "3:slot!"));
  all_[0]->isRegisteredNotifieeIs(false);
  all_[0]->isRegisteredNotifieeIs(true);
  EXPECT_THAT(notified(), ElementsAre("2:slot!", "3:slot!", "1:slot!"));
}

TEST_F(NotifieeTest, OneMayUnregisterItselfInItsHandler) {
  for (const std::size_t who : {0U, 1U, 2U}) {
    startAgain();
    watchers(3);
    all_[who]->then = [&](const std::string&) { all_[who]->isRegisteredNotifieeIs(false); };
    EXPECT_THAT(notified(), ElementsAre("1:slot!", "2:slot!", "3:slot!"));
    EXPECT_EQ(notified().size(), 2U);
  }
}

TEST_F(NotifieeTest, OneThatIsUnregisteredBeforeItsTurnIsNotCalled) {
  for (const std::size_t who : {1U, 2U}) {
    startAgain();
    watchers(3);
    all_[0]->then = [&](const std::string&) { all_[who]->isRegisteredNotifieeIs(false); };
    EXPECT_THAT(notified(), ElementsAre("1:slot!", who == 1 ? "3:slot!" : "2:slot!"));
  }
}

TEST_F(NotifieeTest, OneThatIsDeactivatedBeforeItsTurnIsNotCalled) {
  watchers(3);
  all_[0]->then = [&](const std::string&) { all_[1]->hasNotificationActiveIs(false); };
  EXPECT_THAT(notified(), ElementsAre("1:slot!", "3:slot!"));
}

TEST_F(NotifieeTest, OneThatWasCalledMayBeFreed) {
  watchers(3);
  all_[2]->then = [&](const std::string&) {
    all_[0] = nullptr;
    all_[1] = nullptr;
  };
  EXPECT_THAT(called(), ElementsAre("1:slot!", "2:slot!", "3:slot!"));
  EXPECT_THAT(called(), ElementsAre("3:slot!"));
}

TEST_F(NotifieeTest, AllMayBeUnregisteredAtOnce) {
  watchers(4);
  all_[1]->then = [&](const std::string&) {
    for (const auto& watcher : all_) watcher->isRegisteredNotifieeIs(false);
  };
  EXPECT_THAT(notified(), ElementsAre("1:slot!", "2:slot!"));
  EXPECT_TRUE(box_->notifieeList()->empty());
  EXPECT_THAT(delivered(), IsEmpty()) << "they are not registered any more";
}

TEST_F(NotifieeTest, OneThatRegistersIsCalledFromTheNextChangeOn) {
  watchers(2);
  all_[1]->then = [&](const std::string&) {
    all_[1]->then = nullptr;
    all_.push_back(watch<BoxWatcher>(box_, "new:"));
  };
  EXPECT_THAT(notified(), ElementsAre("1:slot!", "2:slot!"));
  EXPECT_THAT(notified(), ElementsAre("1:slot!", "2:slot!", "new:slot!"));
}

TEST_F(NotifieeTest, OneThatRegistersAnewBeforeItsTurnIsCalledFromTheNextChangeOn) {
  for (const std::size_t who : {1U, 2U}) {
    startAgain();
    watchers(3);
    all_[0]->then = [&](const std::string&) {
      all_[who]->isRegisteredNotifieeIs(false);
      all_[who]->isRegisteredNotifieeIs(true);
    };
    EXPECT_THAT(notified(), ElementsAre("1:slot!", who == 1 ? "3:slot!" : "2:slot!"));
    all_[0]->then = nullptr;
    EXPECT_EQ(notified().size(), 3U);
  }
}

TEST_F(NotifieeTest, OneThatRegistersAnewInItsHandlerIsCalledOnce) {
  watchers(2);
  all_[1]->then = [&](const std::string&) {
    all_[1]->isRegisteredNotifieeIs(false);
    all_[1]->isRegisteredNotifieeIs(true);
  };
  EXPECT_THAT(notified(), ElementsAre("1:slot!", "2:slot!"));
}

TEST_F(NotifieeTest, OneMayDropTheLastReferenceToItselfInItsHandler) {
  watchers(3);
  all_[1]->then = [&](const std::string&) { all_[1] = nullptr; };
  EXPECT_THAT(called(), ElementsAre("1:slot!", "2:slot!", "3:slot!"));
  EXPECT_THAT(called(), ElementsAre("1:slot!", "3:slot!"));
}

TEST_F(NotifieeTest, OneThatDropsTheLastReferenceToItselfLivesUntilItReturns) {
  watchers(2);
  bool listened = false;
  all_[0]->then = [&](const std::string&) {
    const BoxWatcher* self = all_[0].get();
    all_[0] = nullptr;
    listened = self->listens();
  };
  EXPECT_THAT(called(), ElementsAre("1:slot!", "2:slot!"));
  EXPECT_TRUE(listened);
  EXPECT_THAT(called(), ElementsAre("2:slot!"));
}

TEST_F(NotifieeTest, OneThatIsCalledInTwoIterationsLivesUntilTheOuterReturns) {
  watchers(2);
  int depth = 0;
  bool listened = false;
  const BoxWatcher* first = all_[0].get();
  all_[0]->then = [&](const std::string& what) {
    if (what != "slot!") return;
    if (++depth == 2) {
      all_[0] = nullptr;
      return;
    }
    box_->slotIs(1000, true);
    (void)delivered();
    listened = first->listens();
  };
  (void)notified();
  EXPECT_EQ(depth, 2);
  EXPECT_TRUE(listened);
  EXPECT_THAT(notified(), ElementsAre("2:slot!"));
}

TEST_F(NotifieeTest, OneThatConnectsToAnotherEntityAndLosesItsLastReferenceLivesUntilItReturns) {
  watchers(3);
  bool went = false;
  all_[1]->then = [&](const std::string&) {
    if (std::exchange(went, true)) return;
    BoxWatcher* self = all_[1].get();
    const auto other = make<Box>();
    self->notifierIs(other);
    self->isRegisteredNotifieeIs(true);
    all_[1] = nullptr;
    all_[2] = nullptr;
    other->slotIs(1, true);
  };
  EXPECT_THAT(called(), ElementsAre("1:slot!", "2:slot!", "2:slot!"));
  EXPECT_THAT(delivered(), ElementsAre("2:slot 1", "2:slot"));
  EXPECT_THAT(called(), ElementsAre("1:slot!"));
}

TEST_F(NotifieeTest, OneMayDropTheLastReferenceToTheNext) {
  watchers(3);
  all_[0]->then = [&](const std::string&) { all_[1] = nullptr; };
  EXPECT_THAT(called(), ElementsAre("1:slot!", "3:slot!"));
  EXPECT_THAT(called(), ElementsAre("1:slot!", "3:slot!"));
}

TEST_F(NotifieeTest, OneThatIsDroppedWhileItsNotificationWaitsIsCalledUntilTheLoopHasRun) {
  watchers(2);
  all_[0]->then = [&](const std::string&) { all_[1] = nullptr; };
  EXPECT_THAT(notified(), ElementsAre("1:slot!", "2:slot!"));
  EXPECT_THAT(delivered(), ElementsAre("1:slot 0", "2:slot 0", "1:slot", "2:slot"));
  EXPECT_THAT(notified(), ElementsAre("1:slot!"));
}

TEST_F(NotifieeTest, NestedIterationsKeepTheirPositions) {
  watchers(3);
  int depth = 0;
  all_[0]->then = [&](const std::string&) {
    if (depth++ > 0) return;
    box_->slotIs(1000, true);
  };
  all_[1]->then = [&](const std::string&) { all_[2]->isRegisteredNotifieeIs(false); };
  EXPECT_THAT(notified(), ElementsAre("1:slot!", "1:slot!", "2:slot!", "2:slot!"));
}

TEST_F(NotifieeTest, AnIterationIsNotAffectedByTheNotifieesOfAnotherEntity) {
  watchers(2);
  const auto other = make<Box>();
  auto elsewhere = watch<BoxWatcher>(other, "elsewhere:");
  all_[0]->then = [&](const std::string&) { elsewhere = nullptr; };
  EXPECT_THAT(notified(), ElementsAre("1:slot!", "2:slot!"));
}

// The end of an entity

TEST_F(NotifieeTest, AnEntityMayLoseItsLastReferenceWhileItNotifies) {
  const auto watcher = watch<BoxWatcher>(box_);
  const auto second = watch<BoxWatcher>(box_, "2:");
  watcher->then = [&](const std::string&) {
    watcher->notifierIs(nullptr);
    second->notifierIs(nullptr);
    box_ = nullptr;
  };
  box_->slotIs(1, true);
  EXPECT_EQ(box_, nullptr);
  EXPECT_THAT(happened(), ElementsAre("slot!"));
}

TEST_F(NotifieeTest, AnEntityMayLoseItsLastReferenceWhileItRemovesAll) {
  const auto marble = make<Marble>("m");
  using Change = std::function<void(Box&)>;
  for (const Change& removeAll :
       {Change([](Box& box) { box.marbleDelAll(); }), Change([](Box& box) { box.lentDelAll(); }),
        Change([](Box& box) { box.slotDelAll(); })}) {
    Ptr<Box> box = make<Box>();
    for (const char* id : {"a", "b", "c", "d", "e"}) box->marbleIs(id);
    for (const auto n : std::initializer_list<Kiv::U8>{1, 2, 3}) box->lentIs(n, marble);
    for (const auto n : std::initializer_list<Kiv::U16>{1, 2, 3}) box->slotIs(n, true);
    const auto watcher = watch<BoxWatcher>(box);
    watcher->then = [&](const std::string&) {
      watcher->notifierIs(nullptr);
      box = nullptr;
    };
    removeAll(*box);
    EXPECT_EQ(box, nullptr);
    EXPECT_EQ(happened().size(), 1U);
  }
  EXPECT_EQ(marble->references(), 1U);
}

TEST_F(NotifieeTest, ARemovedMemberIsGoneWhenItsRemovalIsNotified) {
  box_->marbleIs("a");
  const auto watcher = watch<BoxWatcher>(box_);
  watcher->then = [&](const std::string& what) {
    if (what == "marble!") {
      EXPECT_EQ(box_->marble()["a"], nullptr);
    }
  };
  box_->marbleDel("a");
  EXPECT_THAT(delivered(), ElementsAre("marble!", "marble a", "marble"));
}

// Random registrations, compared with a model: an iteration reaches those that were registered when
// it began and have not been unregistered since, in order.
TEST_F(NotifieeTest, AnIterationReachesWhoeverWasRegisteredAtItsBeginningAndStillIs) {
  for (unsigned seed = 1; seed <= 40; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    startAgain();
    watchers(8);
    std::vector<std::size_t> list{0, 1, 2, 3, 4, 5, 6, 7};
    std::vector<std::size_t> expected = list;  // of the current iteration, still to come
    for (std::size_t who = 0; who < all_.size(); ++who) {
      all_[who]->then = [&, who](const std::string& what) {
        if (what != "slot!") return;
        ASSERT_FALSE(expected.empty());
        ASSERT_EQ(expected.front(), who);
        expected.erase(expected.begin());
        for (auto times = random() % 4; times > 0; --times) {
          const std::size_t other = random() % all_.size();
          const bool joins = random() % 2 == 0;
          const bool was = all_[other]->isRegisteredNotifiee();
          all_[other]->isRegisteredNotifieeIs(joins);
          if (joins && !was) list.push_back(other);
          if (!joins) {
            std::erase(list, other);
            std::erase(expected, other);
          }
        }
      };
    }
    for (int rounds = 0; rounds < 20 && !HasFatalFailure(); ++rounds) {
      expected = list;
      (void)notified();
      EXPECT_THAT(expected, IsEmpty());
    }
  }
  startAgain();
}

TEST(NotifieeListTest, AnEntityThatNobodyObservesCallsNobody) {
  const auto box = make<Box>();
  const auto fail = [](Kiv::NotifieeBase&) { ADD_FAILURE(); };
  box->notifieeList()->forEach(fail);
  box->notifieeList()->forEachUnguarded(fail);
}

}  // namespace
