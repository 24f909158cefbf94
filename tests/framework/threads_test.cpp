// Counting, allocating and tracking on several threads at once. Says most in a build with
// -fsanitize=thread.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "framework/Ptr.h"
#include "framework/Text.h"
#include "tests/support/live_objects.h"

namespace {

using Kiv::make;
using Kiv::Ptr;

constexpr int kThreads = 4;
constexpr int kRounds = 5000;

class Shared final : public Kiv::PtrInterface {
 public:
  static constexpr std::string_view kTypeName = "Test::Shared";
  explicit Shared(Kiv::Name name) : name_(std::move(name)) {}
  const Kiv::Name& name() const { return name_; }
  const Kiv::Type& fwkType() const override { return Kiv::typeRecord<Shared>; }

 private:
  const Kiv::Name name_;
};

class ThreadsTest : public testing::Test {
 protected:
  ThreadsTest() { Kiv::enableThreadSafePointers = true; }
  ~ThreadsTest() override { Kiv::enableThreadSafePointers = false; }

  // Runs `work(thread)` on several threads that start together, and `here()` beside them.
  template <class Work, class Here>
  void together(Work work, Here here) {
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([&go, work, i] {
        while (!go) std::this_thread::yield();
        work(i);
      });
    }
    go = true;
    here();
    for (std::thread& thread : threads) thread.join();
  }

 private:
  Support::LiveObjects nothingIsLeft_;
};

TEST_F(ThreadsTest, ReadersMayHoldAndDropReferencesWhileTheOwnerSetsFlags) {
  const Ptr<Shared> thing = make<Shared>("shared");
  together(
      [thing](int) {
        for (int i = 0; i < kRounds; ++i) {
          const Ptr<const Shared> mine = thing;
          const Ptr<const Shared> again = mine;
        }
      },
      [&thing] {
        for (int i = 0; i < kRounds; ++i) {
          thing->hasNotificationActiveIs(i % 2 == 0);
          thing->kivMarkedForDeletionIs(i % 2 != 0);
        }
      });
  EXPECT_EQ(thing->references(), 1U);
  EXPECT_FALSE(thing->hasNotificationActive());
  EXPECT_TRUE(thing->markedForDeletion());
}

TEST_F(ThreadsTest, WhicheverThreadIsLastFreesTheObjectAfterAllOthersAreDone) {
  for (int round = 0; round < 50; ++round) {
    Ptr<Shared> thing = make<Shared>("short-lived");
    std::vector<Ptr<Shared>> held(kThreads, thing);
    std::atomic<std::size_t> length{0};
    together(
        [&held, &length](int thread) {
          Ptr<Shared>& mine = held[static_cast<std::size_t>(thread)];
          length += mine->name().size();
          mine = nullptr;
        },
        [&thing] { thing = nullptr; });
    EXPECT_EQ(length, kThreads * 11U);
  }
}

TEST_F(ThreadsTest, EachThreadMayMakeAndFreeObjectsOfItsOwn) {
  together(
      [](int thread) {
        std::vector<Ptr<Shared>> mine;
        for (int i = 0; i < kRounds / 10; ++i) {
          mine.push_back(make<Shared>(Kiv::Name(std::to_string(thread * kRounds + i))));
          if (i % 3 == 0) mine.erase(mine.begin());
        }
        for (const auto& thing : mine) EXPECT_EQ(thing->references(), 1U);
      },
      [] {});
}

TEST_F(ThreadsTest, OneStringMayBeCopiedAndDroppedByManyThreads) {
  const Kiv::String text = "a text that many share";
  together(
      [text](int) {
        for (int i = 0; i < kRounds; ++i) {
          Kiv::String mine = text;
          const Kiv::Name converted{mine};
          mine = Kiv::String("another");
          EXPECT_EQ(converted, "a text that many share");
        }
      },
      [] {});
  EXPECT_EQ(text, "a text that many share");
}

TEST_F(ThreadsTest, TheTrackerMayBeReadWhileObjectsComeAndGo) {
  const Ptr<Shared> one = make<Shared>("one");
  Kiv::U64 most = 0;
  together(
      [](int) {
        for (int i = 0; i < kRounds / 10; ++i) (void)make<Shared>("passing");
      },
      [&most] {
        for (int i = 0; i < 200; ++i) {
          for (const Kiv::AllocTrackRecord& record : Kiv::AllocTrackTypeInfo::report()) {
            if (record.typeName != Shared::kTypeName) continue;
            EXPECT_GE(record.liveCount, 1U);
            most = std::max(most, record.liveCount);
          }
        }
      });
  EXPECT_GE(most, 1U);
  EXPECT_LE(most, 1U + kThreads);
}

}  // namespace
