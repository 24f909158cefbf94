// The sync lock: the decision table row by row.
#include "tests/OpenStackSm/MachineTest.h"

namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

constexpr const char* kLock = "RegionConfigSm::handleLockRequest()";

class LockTest : public MachineTest {
 protected:
  void SetUp() override { world.start("region R"); }

  // Sets the status as an outside writer would.
  void held(const std::string& owner, const std::string& requestId) {
    world.regionStatus()->ownerIs(owner);
    world.regionStatus()->requestIdIs(requestId);
    world.run();
  }
  // Writes a request and checks its lines: the received one and those of level 3.
  void request(const std::string& requester, const std::string& id,
               const std::vector<std::string>& level3) {
    world.traces.take();
    world.apply("lock " + (requester.empty() ? "-" : requester) + " " + (id.empty() ? "-" : id));
    // Both attributes were written: the decision runs for each.
    std::vector<std::string> expected;
    expected.push_back(said(9, world.regionSm().get(), kLock,
                            "R Received lock request from " + requester + " with id " + id));
    for (const std::string& line : level3) {
      expected.push_back(said(3, world.regionSm().get(), kLock, line));
    }
    std::vector<std::string> lines = world.traces.take();
    ASSERT_GE(lines.size(), expected.size());
    lines.resize(expected.size());
    EXPECT_THAT(lines, ElementsAreArray(expected));
  }
  std::string lock() {
    return world.regionStatus()->owner().str() + "/" + world.regionStatus()->requestId().str();
  }
};

TEST_F(LockTest, AnEmptyRequestClearsTheLockWhoeverHoldsIt) {
  for (const auto& [owner, id] : std::vector<std::pair<std::string, std::string>>{
           {"", ""}, {"a", ""}, {"a", "1"}, {"", "1"}}) {
    held(owner, id);
    request("", "", {"Request id not set. Ignoring the request.", "Clearing the lock"});
    EXPECT_EQ(lock(), "/");
  }
}

TEST_F(LockTest, ClearingIsAllThatAnEmptyRequestDoes) {
  held("a", "1");
  world.traces.take();
  world.region()->requesterIs("");
  world.run();
  const auto* sm = world.regionSm().get();
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(9, sm, kLock, "R Received lock request from  with id "),
                          said(3, sm, kLock, "Request id not set. Ignoring the request."),
                          said(3, sm, kLock, "Clearing the lock")));
}

TEST_F(LockTest, ClearingWritesTheRequestIdThenTheOwner) {
  held("a", "1");
  OutputWatch watch(world.statuses, world.resources, world.elements);
  world.apply("lock - -");
  EXPECT_THAT(watch.take(), ElementsAre("status R request ", "status R owner "));
}

TEST_F(LockTest, ARequesterWithoutARequestIdIsIgnored) {
  for (const auto& [owner, id] : std::vector<std::pair<std::string, std::string>>{
           {"", ""}, {"a", ""}, {"a", "1"}, {"b", "1"}}) {
    held(owner, id);
    OutputWatch watch(world.statuses, world.resources, world.elements);
    request("a", "", {"Request id not set. Ignoring the request."});
    EXPECT_EQ(lock(), owner + "/" + id);
    EXPECT_THAT(watch.take(), IsEmpty());
  }
}

TEST_F(LockTest, AFreeLockIsGranted) {
  OutputWatch watch(world.statuses, world.resources, world.elements);
  request("a", "1", {"Granted lock to a"});
  EXPECT_EQ(lock(), "a/1");
  EXPECT_THAT(watch.take(), ElementsAre("status R owner a", "status R request 1"));
}

TEST_F(LockTest, ARequestWithoutARequesterIsGrantedToNobody) {
  request("", "1", {"Granted lock to "});
  EXPECT_EQ(lock(), "/1");
}

TEST_F(LockTest, AnOwnerWithoutARequestIdIsGrantedItsOwnRequest) {
  held("a", "");
  request("a", "1", {"Granted lock to a"});
  EXPECT_EQ(lock(), "a/1");
}

TEST_F(LockTest, AnOwnerWithoutARequestIdKeepsOthersOut) {
  held("a", "");
  request("b", "1", {"Did not grant a lock request"});
  EXPECT_EQ(lock(), "a/");
  request("", "1", {"Did not grant a lock request"});
  EXPECT_EQ(lock(), "a/");
}

TEST_F(LockTest, AHeldLockIsRefusedToEverybody) {
  for (const auto& [requester, id] : std::vector<std::pair<std::string, std::string>>{
           {"b", "2"}, {"a", "3"}, {"a", "1"}, {"", "4"}}) {
    held("a", "1");
    OutputWatch watch(world.statuses, world.resources, world.elements);
    request(requester, id, {"Did not grant a lock request"});
    EXPECT_EQ(lock(), "a/1");
    EXPECT_THAT(watch.take(), IsEmpty());
  }
}

TEST_F(LockTest, ARequestIdWithoutAnOwnerHoldsTheLock) {
  held("", "1");
  request("a", "2", {"Did not grant a lock request"});
  EXPECT_EQ(lock(), "/1");
}

TEST_F(LockTest, BothAttributesWrittenTogetherAreSeenTogether) {
  world.traces.take();
  world.apply("lock a 1");
  const auto* sm = world.regionSm().get();
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(9, sm, kLock, "R Received lock request from a with id 1"),
                          said(3, sm, kLock, "Granted lock to a"),
                          said(9, sm, kLock, "R Received lock request from a with id 1"),
                          said(3, sm, kLock, "Did not grant a lock request")));
}

TEST_F(LockTest, EachAttributeAloneRunsTheDecision) {
  world.region()->requesterIs("a");
  world.traces.take();
  world.run();
  const auto* sm = world.regionSm().get();
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(9, sm, kLock, "R Received lock request from a with id "),
                          said(3, sm, kLock, "Request id not set. Ignoring the request.")));
  world.region()->requestIdIs("1");
  world.run();
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(9, sm, kLock, "R Received lock request from a with id 1"),
                          said(3, sm, kLock, "Granted lock to a")));
  EXPECT_EQ(lock(), "a/1");
}

TEST_F(LockTest, TwoDriversTakeTurns) {
  world.apply("lock a 1");
  EXPECT_EQ(lock(), "a/1");
  world.apply("lock b 2");
  EXPECT_EQ(lock(), "a/1");
  world.apply("lock a 3");
  EXPECT_EQ(lock(), "a/1");
  world.apply("lock - -");
  EXPECT_EQ(lock(), "/");
  world.apply("lock b -");
  EXPECT_EQ(lock(), "/");
  world.apply("lock b 4");
  EXPECT_EQ(lock(), "b/4");
}

TEST_F(LockTest, ClearingOnlyTheRequestIdLeavesTheLockHeld) {
  world.apply("lock a 1");
  world.apply("lock a -");
  EXPECT_EQ(lock(), "a/1");
}

TEST_F(LockTest, ClearingTheRequesterAloneLeavesTheLockHeld) {
  world.apply("lock a 1");
  world.apply("lock - 1");
  EXPECT_EQ(lock(), "a/1");
}

TEST_F(LockTest, AReleaseGrantsNothingToWhoWaits) {
  world.apply("lock a 1; sync progress");
  world.apply("lock b 2");
  world.apply("sync complete");
  EXPECT_EQ(lock(), "/");
  world.apply("lock b 2");
  EXPECT_EQ(lock(), "b/2");
}

TEST_F(LockTest, ATimeoutReleasesTheLockForTheNextRequest) {
  world.apply("lock a 1; sync progress");
  world.passes(World::kTimeout);
  EXPECT_EQ(lock(), "/");
  world.apply("lock b 2");
  EXPECT_EQ(lock(), "b/2");
}

TEST_F(LockTest, GrantingLeavesTheSyncStatusAlone) {
  world.apply("sync timedout");
  world.apply("lock a 1");
  EXPECT_EQ(world.status(), "sync syncTimedOut old syncUnknown owner a request 1");
}

TEST_F(LockTest, LocksOfRegionsAreIndependent) {
  world.apply("lock a 1");
  world.apply("region S");
  world.apply("lock b 2");
  EXPECT_EQ(lock(), "b/2");
  world.change("region R");
  EXPECT_EQ(lock(), "a/1");
}

}  // namespace
