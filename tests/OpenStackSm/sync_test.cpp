// Sync status, heartbeats and the timer.
#include <limits>

#include "tests/OpenStackSm/MachineTest.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kSyncStatus = "RegionConfigSm::handleSyncStatus()";
constexpr const char* kHeartbeat = "RegionConfigSm::handleHeartbeat()";
constexpr const char* kTimedOut = "RegionConfigSm::handleSyncHeartbeatTimeout()";

class SyncTest : public MachineTest {
 protected:
  void SetUp() override {
    world.start("region R");
    world.traces.take();
  }
  const void* sm() { return world.regionSm().get(); }
  Kiv::Seconds deadline() { return world.regionSm()->syncHeartbeatClock()->timeMin(); }
  std::string changedTo(const std::string& status) {
    return said(9, sm(), kSyncStatus, " Sync region R changed to " + status);
  }
  std::string refusedFrom(const std::string& status) {
    return said(1, sm(), kSyncStatus,
                "Region R attempted to transition to syncComplete from " + status +
                    ". Not altering status.");
  }
  // Brings the status to a value whatever it was.
  void bring(const std::string& statement) {
    if (statement == "sync complete") world.apply("sync progress");
    world.apply(statement);
    world.traces.take();
  }
};

TEST_F(SyncTest, EveryRequestButCompletionIsAppliedFromEveryStatus) {
  const std::vector<std::pair<std::string, std::string>> all = {{"sync unknown", "syncUnknown"},
                                                                {"sync progress", "syncInProgress"},
                                                                {"sync timedout", "syncTimedOut"},
                                                                {"sync complete", "syncComplete"}};
  for (const auto& [from, current] : all) {
    for (const auto& [to, requested] : all) {
      if (to == "sync complete") continue;
      bring(from);
      world.apply(to);
      EXPECT_EQ(world.status(), "sync " + requested + " old " + current + " owner  request ");
      if (to == "sync progress") {
        EXPECT_THAT(world.traces.take(),
                    ElementsAre(changedTo(requested), said(9, sm(), kHeartbeat, "")));
      } else {
        EXPECT_THAT(world.traces.take(), ElementsAre(changedTo(requested)));
      }
    }
  }
}

TEST_F(SyncTest, CompletionIsRefusedUnlessASyncIsInProgress) {
  const std::vector<std::pair<std::string, std::string>> all = {{"sync unknown", "syncUnknown"},
                                                                {"sync timedout", "syncTimedOut"},
                                                                {"sync complete", "syncComplete"}};
  for (const auto& [from, current] : all) {
    bring(from);
    world.apply("lock a 1");
    const std::string before = world.status();
    world.traces.take();
    OutputWatch watch(world.statuses, world.resources, world.elements);
    world.apply("sync complete");
    EXPECT_EQ(world.status(), before);
    EXPECT_THAT(watch.take(), IsEmpty());
    EXPECT_THAT(world.traces.take(), ElementsAre(changedTo("syncComplete"), refusedFrom(current)));
  }
}

TEST_F(SyncTest, CompletionAfterProgressDisarmsTheTimerAndReleasesTheLockSilently) {
  world.apply("lock a 1; sync progress");
  EXPECT_EQ(world.status(), "sync syncInProgress old syncUnknown owner a request 1");
  world.traces.take();
  OutputWatch watch(world.statuses, world.resources, world.elements);
  world.apply("sync complete");
  EXPECT_EQ(world.status(), "sync syncComplete old syncInProgress owner  request ");
  EXPECT_THAT(world.traces.take(), ElementsAre(changedTo("syncComplete")));
  EXPECT_THAT(watch.take(), ElementsAre("status R old syncInProgress", "status R sync syncComplete",
                                        "status R owner ", "status R request "));
  EXPECT_EQ(deadline(), Kiv::Clock::kNever);
  EXPECT_EQ(world.loop.nextTimer(), Kiv::Clock::kNever);
  world.passes(1000);
  EXPECT_EQ(world.status(), "sync syncComplete old syncInProgress owner  request ");
}

TEST_F(SyncTest, CompletionTwiceIsRefusedTheSecondTime) {
  world.apply("sync progress");
  world.apply("sync complete");
  world.traces.take();
  world.apply("sync complete");
  EXPECT_EQ(world.status(), "sync syncComplete old syncInProgress owner  request ");
  EXPECT_THAT(world.traces.take(),
              ElementsAre(changedTo("syncComplete"), refusedFrom("syncComplete")));
}

TEST_F(SyncTest, ProgressTwiceIsAppliedTwice) {
  world.apply("sync progress");
  world.passes(10);
  world.apply("sync progress");
  EXPECT_EQ(world.status(), "sync syncInProgress old syncInProgress owner  request ");
  EXPECT_EQ(deadline(), 1010 + World::kTimeout);
}

TEST_F(SyncTest, ProgressArmsTheTimerForNowPlusTheTimeout) {
  EXPECT_EQ(deadline(), Kiv::Clock::kNever);
  world.apply("sync progress");
  EXPECT_EQ(deadline(), 1000 + World::kTimeout);
  EXPECT_EQ(world.loop.nextTimer(), 1000 + World::kTimeout);
}

TEST_F(SyncTest, UnknownAndTimedOutLeaveARunningTimerAlone) {
  world.apply("sync progress");
  world.passes(5);
  world.apply("sync unknown");
  EXPECT_EQ(deadline(), 1000 + World::kTimeout);
  world.apply("sync timedout");
  EXPECT_EQ(deadline(), 1000 + World::kTimeout);
  EXPECT_EQ(world.loop.nextTimer(), 1000 + World::kTimeout);
}

TEST_F(SyncTest, ARefusedCompletionLeavesARunningTimerAlone) {
  world.apply("sync progress");
  world.apply("sync unknown");
  world.apply("sync complete");
  EXPECT_EQ(world.loop.nextTimer(), 1000 + World::kTimeout);
}

TEST_F(SyncTest, SilenceForTheTimeoutTimesOutAndReleasesTheLock) {
  world.apply("lock a 1; sync progress");
  world.passes(World::kTimeout - 0.5);
  EXPECT_EQ(world.status(), "sync syncInProgress old syncUnknown owner a request 1");
  world.traces.take();
  OutputWatch watch(world.statuses, world.resources, world.elements);
  world.passes(0.5);
  EXPECT_EQ(world.status(), "sync syncTimedOut old syncInProgress owner  request ");
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(9, sm(), kTimedOut, "R"),
                          said(3, sm(), kTimedOut, "Releasing the lock from a")));
  EXPECT_THAT(watch.take(),
              ElementsAre("status R owner ", "status R request ", "status R old syncInProgress",
                          "status R sync syncTimedOut"));
}

TEST_F(SyncTest, ATimeoutTracesTheReleaseThoughNobodyHoldsTheLock) {
  world.apply("sync progress");
  world.traces.take();
  world.passes(World::kTimeout);
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(9, sm(), kTimedOut, "R"),
                          said(3, sm(), kTimedOut, "Releasing the lock from ")));
}

TEST_F(SyncTest, TheTimerFiresOnceForEachArming) {
  world.apply("sync progress");
  world.passes(World::kTimeout);
  EXPECT_EQ(deadline(), 1000 + World::kTimeout);
  EXPECT_EQ(world.loop.nextTimer(), Kiv::Clock::kNever);
  world.traces.take();
  world.passes(1000);
  EXPECT_THAT(world.traces.take(), IsEmpty());
  world.apply("heartbeat");
  EXPECT_EQ(world.loop.nextTimer(), world.time.now() + World::kTimeout);
  world.passes(World::kTimeout);
  EXPECT_EQ(world.status(), "sync syncTimedOut old syncTimedOut owner  request ");
}

TEST_F(SyncTest, CompletionAfterATimeoutNeedsANewSync) {
  world.apply("sync progress");
  world.passes(World::kTimeout);
  world.apply("sync complete");
  EXPECT_EQ(world.status(), "sync syncTimedOut old syncInProgress owner  request ");
  world.apply("sync progress");
  world.apply("sync complete");
  EXPECT_EQ(world.status(), "sync syncComplete old syncInProgress owner  request ");
}

TEST_F(SyncTest, AHeartbeatMovesTheDeadline) {
  world.apply("sync progress");
  world.passes(20);
  world.traces.take();
  OutputWatch watch(world.statuses, world.resources, world.elements);
  world.apply("heartbeat");
  EXPECT_EQ(deadline(), 1020 + World::kTimeout);
  EXPECT_THAT(world.traces.take(), ElementsAre(said(9, sm(), kHeartbeat, "")));
  EXPECT_THAT(watch.take(), IsEmpty());
  world.passes(World::kTimeout - 1);
  EXPECT_EQ(world.regionStatus()->syncStatus(), OpenStack::SyncStatus::syncInProgress);
  world.passes(1);
  EXPECT_EQ(world.regionStatus()->syncStatus(), OpenStack::SyncStatus::syncTimedOut);
}

TEST_F(SyncTest, HeartbeatsKeepASyncAlive) {
  world.apply("sync progress");
  for (int i = 0; i < 20; ++i) {
    world.passes(World::kTimeout - 1);
    world.apply("heartbeat");
  }
  EXPECT_EQ(world.regionStatus()->syncStatus(), OpenStack::SyncStatus::syncInProgress);
}

TEST_F(SyncTest, AHeartbeatWithAnUnchangedValueCounts) {
  world.apply("sync progress");
  world.passes(20);
  world.region()->syncHeartbeatIs(world.region()->syncHeartbeat());
  world.run();
  EXPECT_EQ(deadline(), 1020 + World::kTimeout);
}

TEST_F(SyncTest, AHeartbeatArmsTheTimerInEveryStatus) {
  const std::vector<std::pair<std::string, std::string>> all = {{"sync unknown", "syncUnknown"},
                                                                {"sync timedout", "syncTimedOut"},
                                                                {"sync complete", "syncComplete"}};
  for (const auto& [from, current] : all) {
    bring(from);
    world.apply("heartbeat");
    EXPECT_EQ(world.loop.nextTimer(), world.time.now() + World::kTimeout);
    world.passes(World::kTimeout);
    EXPECT_EQ(world.status(), "sync syncTimedOut old " + current + " owner  request ");
  }
}

TEST_F(SyncTest, ANewTimeoutCountsFromTheNextHeartbeat) {
  world.apply("sync progress");
  world.root->regionSyncTimeoutIs(7);
  EXPECT_EQ(deadline(), 1000 + World::kTimeout);
  EXPECT_EQ(world.loop.nextTimer(), 1000 + World::kTimeout);
  world.passes(5);
  world.apply("heartbeat");
  EXPECT_EQ(deadline(), 1012);
}

TEST_F(SyncTest, ATimeoutThatIsNoFiniteNumberNeverFires) {
  for (const double timeout :
       {std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity()}) {
    world.root->regionSyncTimeoutIs(timeout);
    world.apply("sync progress; heartbeat");
    EXPECT_EQ(world.loop.nextTimer(), Kiv::Clock::kNever);
    world.passes(1e9);
    EXPECT_EQ(world.regionStatus()->syncStatus(), OpenStack::SyncStatus::syncInProgress);
  }
  world.root->regionSyncTimeoutIs(5);
  world.apply("heartbeat");
  world.passes(5);
  EXPECT_EQ(world.regionStatus()->syncStatus(), OpenStack::SyncStatus::syncTimedOut);
}

TEST_F(SyncTest, ATimerThatFiresBeforeInitializationOnlyTraces) {
  world.apply("lock a 1; sync progress");
  world.regionSm()->initializedIs(false);
  world.traces.take();
  world.passes(World::kTimeout);
  EXPECT_EQ(world.status(), "sync syncInProgress old syncUnknown owner a request 1");
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(9, sm(), kTimedOut, "R"),
                          said(1, sm(), kTimedOut,
                               "Heartbeat timed out event though the region is not initialized!")));
}

TEST_F(SyncTest, AHeartbeatBeforeInitializationArmsTheTimer) {
  world.regionSm()->initializedIs(false);
  world.apply("heartbeat");
  EXPECT_EQ(deadline(), 1000 + World::kTimeout);
}

TEST_F(SyncTest, AHeartbeatAndACompletionWrittenTogetherAreHandledInTheirOrder) {
  world.apply("sync progress");
  world.apply("heartbeat; sync complete");
  EXPECT_EQ(world.loop.nextTimer(), Kiv::Clock::kNever);
  world.apply("sync progress");
  world.apply("sync complete; heartbeat");
  EXPECT_EQ(world.loop.nextTimer(), 1000 + World::kTimeout);
}

TEST_F(SyncTest, ProgressAndCompletionWrittenTogetherAreSeenAsCompletion) {
  world.apply("sync progress; sync complete");
  EXPECT_EQ(world.status(), "sync syncUnknown old syncUnknown owner  request ");
}

TEST_F(SyncTest, TimersOfRegionsAreIndependent) {
  world.apply("sync progress");
  world.passes(10);
  world.apply("region S; sync progress");
  world.passes(20);
  EXPECT_EQ(world.status(), "sync syncInProgress old syncUnknown owner  request ");
  world.change("region R");
  EXPECT_EQ(world.status(), "sync syncTimedOut old syncInProgress owner  request ");
}

TEST_F(SyncTest, AStatusWithoutANameIsPrintedAsItsNumberAndApplied) {
  world.region()->syncStatusIs(static_cast<OpenStack::SyncStatus>(9));
  world.run();
  EXPECT_THAT(world.traces.take(), ElementsAre(changedTo("9")));
  EXPECT_EQ(world.status(), "sync 9 old syncUnknown owner  request ");
}

}  // namespace
