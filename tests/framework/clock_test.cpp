// Time, and the timers that observe the clock.
#include "framework/Clock.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tests/framework/toys.h"

namespace {

using Kiv::Clock;
using Kiv::make;
using Kiv::Ptr;
using Kiv::Seconds;
using testing::ElementsAre;
using testing::IsEmpty;
using Toys::happened;
using Toys::watch;

// Writes its tag into the journal when it fires, and then does what the test asks for.
class Timer final : public Clock::NotifieeConst {
 public:
  explicit Timer(std::string tag) : tag_(std::move(tag)) {}
  void onTime() override {
    Toys::journal.push_back(tag_);
    if (then) then();
  }
  std::function<void()> then;

 private:
  const std::string tag_;
};

class ClockTest : public Toys::LoopTest {
 protected:
  Ptr<Timer> timer(const std::string& tag) { return watch<Timer>(loop_.clock(), tag); }
  Ptr<Timer> timer(const std::string& tag, Seconds at) {
    const auto made = timer(tag);
    made->timeMinIs(at);
    return made;
  }
  // Moves the time, fires what is due and returns who fired.
  std::vector<std::string> at(Seconds now) {
    time_.nowIs(now);
    loop_.runTimers();
    return happened();
  }
};

TEST_F(ClockTest, ATimerIsNotArmedAtFirst) {
  const auto idle = timer("idle");
  EXPECT_FALSE(idle->armed());
  EXPECT_EQ(idle->timeMin(), Clock::kNever);
  EXPECT_EQ(loop_.nextTimer(), Clock::kNever);
  EXPECT_FALSE(loop_.fireNextTimer());
  EXPECT_THAT(at(1e9), IsEmpty());
}

TEST_F(ClockTest, ATimerFiresWhenItsTimeIsReachedAndNotBefore) {
  const auto one = timer("one", 10);
  EXPECT_EQ(loop_.nextTimer(), 10);
  EXPECT_THAT(at(9.999), IsEmpty());
  EXPECT_TRUE(one->armed());
  EXPECT_THAT(at(10), ElementsAre("one"));
  EXPECT_FALSE(one->armed());
  EXPECT_EQ(one->timeMin(), 10) << "it stays as it was set";
}

TEST_F(ClockTest, ATimerFiresOnceForEachArming) {
  const auto one = timer("one", 10);
  EXPECT_THAT(at(10), ElementsAre("one"));
  EXPECT_EQ(loop_.nextTimer(), Clock::kNever);
  EXPECT_THAT(at(20), IsEmpty());
  one->timeMinIs(10);
  EXPECT_THAT(at(20), ElementsAre("one"));
  EXPECT_THAT(at(30), IsEmpty());
}

TEST_F(ClockTest, ATimerArmedInThePastFiresAtOnceButFromTheLoop) {
  time_.nowIs(100);
  const auto one = timer("one", 5);
  EXPECT_THAT(happened(), IsEmpty());
  EXPECT_EQ(loop_.nextTimer(), 5);
  EXPECT_THAT(at(100), ElementsAre("one"));
}

TEST_F(ClockTest, ArmingAnewReplacesTheOldTime) {
  const auto one = timer("one", 10);
  one->timeMinIs(20);
  EXPECT_EQ(loop_.nextTimer(), 20);
  EXPECT_THAT(at(15), IsEmpty());
  one->timeMinIs(16);
  EXPECT_THAT(at(17), ElementsAre("one"));
  EXPECT_THAT(at(25), IsEmpty());
}

TEST_F(ClockTest, InfinityDisarms) {
  const auto one = timer("one", 10);
  one->timeMinIs(Clock::kNever);
  EXPECT_EQ(one->timeMin(), Clock::kNever);
  EXPECT_EQ(loop_.nextTimer(), Clock::kNever);
  EXPECT_THAT(at(1e300), IsEmpty());
}

TEST_F(ClockTest, TimersFireInTheOrderOfTheirTimes) {
  const auto c = timer("c", 30);
  const auto a = timer("a", 10);
  const auto d = timer("d", 40);
  const auto b = timer("b", 20);
  EXPECT_EQ(loop_.nextTimer(), 10);
  EXPECT_THAT(at(35), ElementsAre("a", "b", "c"));
  EXPECT_EQ(loop_.nextTimer(), 40);
}

TEST_F(ClockTest, TimersOfOneTimeFireInTheOrderOfTheirArming) {
  const auto a = timer("a", 10);
  const auto b = timer("b", 10);
  const auto c = timer("c", 10);
  a->timeMinIs(10);
  EXPECT_THAT(at(10), ElementsAre("b", "c", "a"));
}

TEST_F(ClockTest, EachTimerIsDeliveredBeforeTheNextFires) {
  const auto b = timer("b", 20);
  const auto a = timer("a", 10);
  a->then = [&] { b->timeMinIs(Clock::kNever); };
  EXPECT_THAT(at(30), ElementsAre("a"));
}

TEST_F(ClockTest, ATimerMayArmItselfAnewWhenItFires) {
  const auto one = timer("one", 10);
  one->then = [&] { one->timeMinIs(one->timeMin() + 10); };
  EXPECT_THAT(at(45), ElementsAre("one", "one", "one", "one"));
  EXPECT_EQ(loop_.nextTimer(), 50);
}

TEST_F(ClockTest, FiringOneQueuesItAndLeavesTheOthersArmed) {
  const auto a = timer("a", 10);
  const auto b = timer("b", 10);
  time_.nowIs(10);
  EXPECT_TRUE(loop_.fireNextTimer());
  EXPECT_EQ(loop_.waiting(), 1U);
  EXPECT_THAT(happened(), IsEmpty());
  EXPECT_EQ(loop_.nextTimer(), 10);
  EXPECT_THAT(delivered(), ElementsAre("a"));
  EXPECT_TRUE(loop_.fireNextTimer());
  EXPECT_FALSE(loop_.fireNextTimer());
  EXPECT_THAT(delivered(), ElementsAre("b"));
}

TEST_F(ClockTest, ATimerThatIsDisarmedAfterItExpiredDoesNotFire) {
  const auto one = timer("one", 10);
  time_.nowIs(10);
  ASSERT_TRUE(loop_.fireNextTimer());
  one->timeMinIs(Clock::kNever);
  EXPECT_THAT(delivered(), IsEmpty());
  EXPECT_THAT(at(20), IsEmpty());
  one->timeMinIs(30);
  EXPECT_THAT(at(30), ElementsAre("one"));
}

TEST_F(ClockTest, ATimerThatIsSetToLaterAfterItExpiredFiresThen) {
  const auto one = timer("one", 10);
  time_.nowIs(10);
  ASSERT_TRUE(loop_.fireNextTimer());
  one->timeMinIs(20);
  EXPECT_THAT(delivered(), IsEmpty());
  EXPECT_EQ(loop_.nextTimer(), 20);
  EXPECT_THAT(at(19), IsEmpty());
  EXPECT_THAT(at(20), ElementsAre("one"));
  EXPECT_THAT(at(30), IsEmpty());
}

TEST_F(ClockTest, ATimerThatIsArmedAnewAfterItExpiredFiresOnce) {
  const auto one = timer("one", 10);
  time_.nowIs(10);
  ASSERT_TRUE(loop_.fireNextTimer());
  one->timeMinIs(5);
  ASSERT_TRUE(loop_.fireNextTimer()) << "it is due again";
  EXPECT_THAT(delivered(), ElementsAre("one"));
  EXPECT_THAT(at(20), IsEmpty());
}

TEST_F(ClockTest, AHandlerThatRunsBeforeATimerMayDisarmIt) {
  const auto box = make<Toys::Box>();
  const auto watcher = watch<Toys::BoxWatcher>(box);
  const auto one = timer("one", 10);
  watcher->then = [&](const std::string&) { one->timeMinIs(Clock::kNever); };
  box->labelIs("x");
  time_.nowIs(10);
  ASSERT_TRUE(loop_.fireNextTimer());
  EXPECT_THAT(delivered(), ElementsAre("label"));
}

TEST_F(ClockTest, AnExpiredTimerMayBeFreed) {
  auto one = timer("one", 10);
  time_.nowIs(10);
  ASSERT_TRUE(loop_.fireNextTimer());
  one->hasNotificationActiveIs(false);
  one = nullptr;
  EXPECT_THAT(delivered(), IsEmpty());
  EXPECT_EQ(loop_.nextTimer(), Clock::kNever);
}

TEST_F(ClockTest, AnArmedTimerThatIsFreedIsForgotten) {
  auto a = timer("a", 10);
  const auto b = timer("b", 20);
  auto c = timer("c", 30);
  a = nullptr;
  EXPECT_EQ(loop_.nextTimer(), 20);
  c = nullptr;
  EXPECT_THAT(at(40), ElementsAre("b"));
}

TEST_F(ClockTest, ATimerThatIsInactiveWhenItIsDueDoesNotFireLater) {
  const auto one = timer("one", 10);
  one->hasNotificationActiveIs(false);
  EXPECT_THAT(at(10), IsEmpty());
  EXPECT_EQ(loop_.nextTimer(), Clock::kNever);
  one->hasNotificationActiveIs(true);
  EXPECT_THAT(at(20), IsEmpty());
}

TEST_F(ClockTest, WithoutAClockArmingOnlySetsTheTime) {
  const auto one = make<Timer>("one");
  one->timeMinIs(10);
  EXPECT_EQ(one->timeMin(), 10);
  EXPECT_EQ(loop_.nextTimer(), Clock::kNever);
}

TEST_F(ClockTest, AnArmedTimerMovesToItsNewClock) {
  const auto another = make<Clock>();
  const auto one = timer("one", 10);
  one->notifierIs(another);
  EXPECT_EQ(loop_.nextTimer(), Clock::kNever);
  EXPECT_EQ(another->nextTime(), 10);
  one->isRegisteredNotifieeIs(true);
  EXPECT_FALSE(another->fireNext(9));
  EXPECT_TRUE(another->fireNext(10));
  EXPECT_THAT(delivered(), ElementsAre("one"));
}

TEST_F(ClockTest, ATimerThatIsNotArmedStaysSoOnItsNewClock) {
  const auto another = make<Clock>();
  const auto one = timer("one", 10);
  EXPECT_THAT(at(10), ElementsAre("one"));
  one->notifierIs(another);
  EXPECT_EQ(another->nextTime(), Clock::kNever);
}

TEST_F(ClockTest, ADisconnectedTimerIsNotArmed) {
  const auto one = timer("one", 10);
  one->notifierIs(nullptr);
  EXPECT_EQ(loop_.nextTimer(), Clock::kNever);
  EXPECT_THAT(at(20), IsEmpty());
}

TEST_F(ClockTest, AnArmedTimerStaysArmedWhenItIsConnectedToWhatIsNoClock) {
  const auto one = timer("one", 10);
  EXPECT_THROW(one->notifierIs(make<Toys::Box>()), Kiv::RangeException);
  EXPECT_EQ(loop_.nextTimer(), 10);
  EXPECT_THAT(at(10), ElementsAre("one"));
}

// Many timers under random arming, compared with a reference sorted by time and arming.
TEST_F(ClockTest, ManyTimersFireAsTheReferenceSays) {
  for (unsigned seed = 1; seed <= 20; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    std::vector<Ptr<Timer>> timers;
    for (int n = 0; n < 60; ++n) timers.push_back(timer(std::to_string(n)));
    // Armed timers by time and sequence of arming.
    std::map<std::pair<Seconds, int>, std::size_t> reference;
    std::vector<int> sequence(timers.size(), 0);
    int arming = 0;
    Seconds now = time_.now();
    for (int i = 0; i < 600; ++i) {
      const std::size_t who = random() % timers.size();
      const auto disarmed = [&] {
        std::erase_if(reference, [&](const auto& entry) { return entry.second == who; });
      };
      switch (random() % 8) {
        case 0:
          disarmed();
          timers[who]->timeMinIs(Clock::kNever);
          break;
        case 1:
          disarmed();
          timers[who] = timer(std::to_string(who));
          break;
        case 2: {
          now += static_cast<Seconds>(random() % 4);
          std::vector<std::string> expected;
          while (!reference.empty() && reference.begin()->first.first <= now) {
            expected.push_back(std::to_string(reference.begin()->second));
            reference.erase(reference.begin());
          }
          ASSERT_EQ(at(now), expected);
          break;
        }
        default: {
          const Seconds then = now + static_cast<Seconds>(random() % 30) - 2;
          disarmed();
          timers[who]->timeMinIs(then);
          reference[{then, ++arming}] = who;
          break;
        }
      }
      ASSERT_EQ(loop_.nextTimer(),
                reference.empty() ? Clock::kNever : reference.begin()->first.first);
    }
  }
}

// Time

TEST_F(ClockTest, TheTimeIsThatOfTheInstalledSource) {
  time_.nowIs(12.5);
  EXPECT_EQ(Kiv::System::currentTime(), 12.5);
  Kiv::VirtualTime another;
  another.nowIs(99);
  Kiv::System::timeSourceIs(&another);
  EXPECT_EQ(Kiv::System::currentTime(), 99);
  Kiv::System::timeSourceIs(&time_);
  EXPECT_EQ(Kiv::System::currentTime(), 12.5);
}

TEST_F(ClockTest, WithoutASourceTheTimeIsThatOfTheSteadyClock) {
  Kiv::System::timeSourceIs(nullptr);
  const Kiv::SteadyTime steady;
  const Seconds before = steady.now();
  const Seconds now = Kiv::System::currentTime();
  const Seconds after = steady.now();
  EXPECT_LE(before, now);
  EXPECT_LE(now, after);
}

TEST_F(ClockTest, TheTimeDoesNotAdvanceWithinATurn) {
  const auto box = make<Toys::Box>();
  const auto watcher = watch<Toys::BoxWatcher>(box);
  std::vector<Seconds> seen;
  watcher->then = [&](const std::string&) {
    time_.nowIs(time_.now() + 1);
    seen.push_back(Kiv::System::currentTime());
    if (seen.size() < 3) box->labelIs("again");
  };
  time_.nowIs(5);
  box->labelIs("x");
  loop_.run();
  EXPECT_THAT(seen, ElementsAre(5, 5, 5));
  EXPECT_EQ(Kiv::System::currentTime(), 8) << "it advances after the turn";
}

TEST_F(ClockTest, TheTimeAdvancesAfterATurnThatThrew) {
  const auto box = make<Toys::Box>();
  const auto watcher = watch<Toys::BoxWatcher>(box);
  watcher->then = [&](const std::string&) {
    time_.nowIs(7);
    throw std::runtime_error("no");
  };
  box->labelIs("x");
  EXPECT_THROW(loop_.run(), std::runtime_error);
  EXPECT_EQ(Kiv::System::currentTime(), 7);
  watcher->then = nullptr;
  box->labelIs("x");
  EXPECT_THAT(delivered(), ElementsAre("label", "label")) << "and the loop runs again";
}

}  // namespace
