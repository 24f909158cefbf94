// Counting, allocating and tracking on several threads at once. Says most in a build with
// -fsanitize=thread.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstring>
#include <deque>
#include <string>
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

// Holds up the thread that it is sent to, wherever that is, until the other one allocates.
std::atomic<bool> otherAllocates{false};
void holdUp(int /*signal*/) {
  while (!otherAllocates) std::this_thread::yield();
  for (int i = 0; i < 2; ++i) std::this_thread::yield();
}

TEST_F(ThreadsTest, AThreadThatIsHeldUpWhileItAllocatesMakesTheOthersWait) {
  const auto before = std::signal(SIGUSR1, holdUp);
  std::atomic<bool> stop{false};
  std::atomic<std::size_t> rounds{0};
  std::thread busy([&] {
    while (!stop) {
      void* memory = Kiv::kivMemAlloc(48);
      std::memset(memory, 0xa5, 48);
      Kiv::kivMemFree(memory, 48);
      ++rounds;
    }
  });
  while (rounds == 0) std::this_thread::yield();
  for (int i = 0; i < 20; ++i) {
    otherAllocates = false;
    pthread_kill(busy.native_handle(), SIGUSR1);
    std::this_thread::yield();
    otherAllocates = true;
    auto* memory = static_cast<unsigned char*>(Kiv::kivMemAlloc(48));
    std::memset(memory, 0x5a, 48);
    const std::size_t round = rounds;
    while (rounds == round) std::this_thread::yield();
    EXPECT_EQ(std::count(memory, memory + 48, 0x5a), 48);
    Kiv::kivMemFree(memory, 48);
  }
  stop = true;
  busy.join();
  std::signal(SIGUSR1, before);
}

TEST_F(ThreadsTest, TypesAreListedOnceThoughTwoThreadsAreTheFirstToMakeThem) {
  constexpr std::size_t kTypes = 400;
  static std::vector<std::string> names;  // as types are, of static storage
  static std::deque<Kiv::AllocTrackTypeInfo> types;
  for (std::size_t i = 0; i < kTypes; ++i) names.push_back("Test::First" + std::to_string(i));
  for (const std::string& name : names) types.emplace_back(name);
  std::atomic<std::size_t> arrived{0};
  // Both at the same time: the same type, or one its neighbour.
  const auto track = [&arrived](std::size_t thread) {
    for (std::size_t i = 0; i < kTypes; ++i) {
      ++arrived;
      while (arrived < 2 * (i + 1)) std::this_thread::yield();
      Kiv::AllocTrackTypeInfo::trackAllocation(types[i % 4 < 2 ? i : i ^ thread], 8);
    }
  };
  std::thread other(track, 1);
  track(0);
  other.join();
  std::size_t listed = 0;
  for (const Kiv::AllocTrackRecord& record : Kiv::AllocTrackTypeInfo::report()) {
    if (!record.typeName.starts_with("Test::First")) continue;
    EXPECT_EQ(record.liveCount, 2U) << record.typeName;
    ++listed;
  }
  EXPECT_EQ(listed, kTypes);
  for (Kiv::AllocTrackTypeInfo& type : types) {
    for (int thread = 0; thread < 2; ++thread) {
      Kiv::AllocTrackTypeInfo::trackDeallocation(type, 8);
    }
  }
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
