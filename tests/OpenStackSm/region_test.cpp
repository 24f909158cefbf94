// The region machine: its inventory, children, reactors and end.
#include <cmath>

#include "tests/OpenStackSm/MachineTest.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

constexpr const char* kInitialized = "RegionConfigSm::handleInitialized()";
constexpr const char* kSegment = "RegionConfigSm::handleSegment(Kiv::String)";
constexpr const char* kSegmentCleanup = "RegionConfigSm::KivSegment::handleCleanup()";
constexpr const char* kPortBinding = "RegionConfigSm::handlePortBinding(Kiv::String)";
constexpr const char* kSyncStatus = "RegionConfigSm::handleSyncStatus()";
constexpr const char* kHeartbeat = "RegionConfigSm::handleHeartbeat()";
constexpr const char* kTimedOut = "RegionConfigSm::handleSyncHeartbeatTimeout()";
constexpr const char* kLock = "RegionConfigSm::handleLockRequest()";
constexpr const char* kPortInitialized = "PortBindingSm::handleInitialized()";

// One region machine made by hand over the world's region R.
class RegionTest : public MachineTest {
 protected:
  Kiv::Ptr<OpenStack::RegionConfigSm> make() {
    status = world.statuses->regionStatusIs("R");
    status->vlanPoolIs("R");
    return OpenStack::regionConfigSmFactory("R", world.region(), status, world.resources,
                                            World::kTimeout, world.elements);
  }

  Kiv::Ptr<OpenStack::RegionStatus> status;
};

TEST_F(RegionTest, AnEmptyRegionIsCountedItsTimerDisarmedItsSyncStatusApplied) {
  world.change("region R");
  const auto sm = make();
  EXPECT_TRUE(sm->initialized());
  EXPECT_TRUE(sm->hasNotificationActive());
  ASSERT_NE(sm->syncHeartbeatClock(), nullptr);
  EXPECT_EQ(sm->syncHeartbeatClock()->entity(), world.loop.clock());
  EXPECT_EQ(sm->syncHeartbeatClock()->timeMin(), Kiv::Clock::kNever);
  EXPECT_EQ(world.loop.nextTimer(), Kiv::Clock::kNever);
  EXPECT_THAT(
      world.traces.take(),
      ElementsAre(
          said(9, sm.get(), kInitialized, "void OpenStack::RegionConfigSm::handleInitialized()"),
          said(2, sm.get(), kInitialized, "VMs: 0"), said(2, sm.get(), kInitialized, "DHCPs: 0"),
          said(2, sm.get(), kInitialized, "Baremetals: 0"),
          said(2, sm.get(), kInitialized, "Networks: 0"),
          said(9, sm.get(), kSyncStatus, " Sync region R changed to syncUnknown")));
  EXPECT_EQ(sm->fwkType().name(), "OpenStack::RegionConfigSm");
  EXPECT_EQ(sm->kivFwkActivity(), nullptr);
  EXPECT_EQ(sm->fwkKey(), "R");
}

TEST_F(RegionTest, ItIsInitializedBeforeItHandlesTheSyncStatus) {
  world.change("region R");
  const auto sm = make();
  sm->initializedIs(false);
  std::vector<bool> initialized;
  Kiv::_defaultTraceHandle().sinkIs([&](const Kiv::TraceLine& line) {
    if (line.function == "handleSyncStatus") initialized.push_back(sm->initialized());
  });
  sm->handleInitialized();
  Kiv::_defaultTraceHandle().sinkIs(nullptr);
  EXPECT_THAT(initialized, ElementsAre(true));
}

TEST_F(RegionTest, TheInventoryIsCountedThenSegmentsThenPortBindingsThenSyncStatus) {
  world.change(R"(region R; vm v1; vm v2; vm v3; vm v4; dhcp d1; dhcp d2; dhcp d3
                  baremetal b1; baremetal b2; network n1; segment vl vlan 10; bind p)");
  world.region()->routerInstanceIs("r");
  const auto sm = make();
  const auto* child = sm->portBindingSm()["p"];
  ASSERT_NE(child, nullptr);
  EXPECT_TRUE(child->hasNotificationActive());
  EXPECT_THAT(
      world.traces.take(),
      ElementsAre(
          said(9, sm.get(), kInitialized, "void OpenStack::RegionConfigSm::handleInitialized()"),
          said(2, sm.get(), kInitialized, "VMs: 4"), said(2, sm.get(), kInitialized, "DHCPs: 3"),
          said(2, sm.get(), kInitialized, "Baremetals: 2"),
          said(2, sm.get(), kInitialized, "Networks: 1"),
          said(2, sm.get(), kInitialized, "Segment id: vl"), said(9, sm.get(), kSegment, "vl"),
          said(2, sm.get(), kSegment, "Segment vl created"),
          said(2, sm.get(), kInitialized, "Port: p"), said(9, sm.get(), kPortBinding, "p"),
          said(9, child, kPortInitialized, ""),
          said(9, sm.get(), kSyncStatus, " Sync region R changed to syncUnknown")));
  EXPECT_EQ(sm->segment().size(), 1U);
  EXPECT_EQ(sm->portBinding().size(), 1U);
  EXPECT_TRUE(sm->segment()["vl"]->hasNotificationActive());
  EXPECT_TRUE(sm->portBinding()["p"]->hasNotificationActive());
}

TEST_F(RegionTest, ARegionThatIsSyncingAlreadyArmsTheTimer) {
  world.change("region R; sync progress");
  const auto sm = make();
  EXPECT_EQ(sm->syncHeartbeatClock()->timeMin(), 1000 + World::kTimeout);
  EXPECT_EQ(world.loop.nextTimer(), 1000 + World::kTimeout);
  EXPECT_EQ(textOf(*status), "sync syncInProgress old syncUnknown owner  request ");
}

TEST_F(RegionTest, ALockRequestThatWaitsIsNotHandledAtConstruction) {
  world.change("region R; lock a 1");
  const auto sm = make();
  world.run();
  EXPECT_EQ(textOf(*status), "sync syncUnknown old syncUnknown owner  request ");
}

TEST_F(RegionTest, InitializingItAgainOnlyTraces) {
  world.change("region R; sync progress");
  const auto sm = make();
  const auto* clock = sm->syncHeartbeatClock();
  world.traces.take();
  sm->handleInitialized();
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(9, sm.get(), kInitialized,
                               "void OpenStack::RegionConfigSm::handleInitialized()"),
                          said(1, sm.get(), kInitialized, "R already initialized")));
  EXPECT_EQ(sm->syncHeartbeatClock(), clock);
  EXPECT_EQ(clock->timeMin(), 1000 + World::kTimeout);
}

TEST_F(RegionTest, InitializingItAgainWithTheFlagClearedStartsOver) {
  world.change("region R; segment vl vlan 10; bind p");
  const auto sm = make();
  world.apply("sync progress");
  const Kiv::Ptr<OpenStack::PortBindingSm> child(sm->portBindingSm()["p"]);
  const auto* clock = sm->syncHeartbeatClock();
  world.apply("sync timedout");
  ASSERT_EQ(clock->timeMin(), 1000 + World::kTimeout);
  sm->initializedIs(false);
  sm->handleInitialized();
  EXPECT_TRUE(sm->initialized());
  EXPECT_EQ(sm->syncHeartbeatClock(), clock);
  EXPECT_EQ(clock->timeMin(), Kiv::Clock::kNever);
  EXPECT_EQ(sm->portBindingSm()["p"], child.get());
}

TEST_F(RegionTest, AMachineWithoutARegionIsInitializedAndHoldsNothing) {
  status = world.statuses->regionStatusIs("R");
  const auto sm =
      OpenStack::regionConfigSmFactory("R", nullptr, status, world.resources, 1, world.elements);
  EXPECT_TRUE(sm->initialized());
  EXPECT_FALSE(sm->regionConfig());
  EXPECT_THAT(sm->segment(), IsEmpty());
  EXPECT_THAT(sm->portBindingSm(), IsEmpty());
  EXPECT_NE(sm->syncHeartbeatClock(), nullptr);
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(9, sm.get(), kInitialized,
                               "void OpenStack::RegionConfigSm::handleInitialized()"),
                          said(1, sm.get(), kInitialized, "R has no region")));
  sm->handleSyncStatus();
  sm->handleLockRequest();
  EXPECT_THAT(world.traces.take(), ElementsAre(said(1, sm.get(), kSyncStatus, "R has no region"),
                                               said(1, sm.get(), kLock, "R has no region")));
  sm->handleSegment("s");
  sm->handlePortBinding("p");
  EXPECT_EQ(textOf(*status), "sync syncUnknown old syncUnknown owner  request ");
}

TEST_F(RegionTest, TheTimerOfAMachineWithoutARegionFiresAllTheSame) {
  status = world.statuses->regionStatusIs("R");
  const auto sm =
      OpenStack::regionConfigSmFactory("R", nullptr, status, world.resources, 1, world.elements);
  sm->handleHeartbeat();
  world.traces.take();
  world.passes(1);
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(9, sm.get(), kTimedOut, "R"),
                          said(3, sm.get(), kTimedOut, "Releasing the lock from ")));
  EXPECT_EQ(textOf(*status), "sync syncTimedOut old syncUnknown owner  request ");
}

TEST_F(RegionTest, AHeartbeatWithoutATimerIsSkipped) {
  world.change("region R");
  const auto sm = make();
  sm->syncHeartbeatClockDel();
  world.traces.take();
  sm->handleHeartbeat();
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(9, sm.get(), kHeartbeat, ""),
                          said(1, sm.get(), kHeartbeat, "No clock for the heartbeat")));
}

TEST_F(RegionTest, ACompletionWithoutATimerIsApplied) {
  world.change("region R; sync progress");
  const auto sm = make();
  sm->syncHeartbeatClockDel();
  world.apply("sync complete");
  EXPECT_EQ(textOf(*status), "sync syncComplete old syncInProgress owner  request ");
  EXPECT_EQ(world.loop.nextTimer(), Kiv::Clock::kNever);
}

TEST_F(RegionTest, MakingAndReleasingItOverAnEmptyRegionPublishesNothing) {
  world.change("region R");
  auto sm = make();
  world.run();
  OutputWatch watch(world.statuses, world.resources, world.elements);
  sm = nullptr;
  world.run();
  EXPECT_THAT(watch.take(), IsEmpty());
}

TEST_F(RegionTest, TheSameArgumentsReturnTheSameChildAndCreateNothing) {
  world.start("region R; bind p");
  const auto sm = world.regionSm();
  const auto child = world.portSm("p");
  world.traces.take();
  EXPECT_EQ(sm->portBindingSmIs("R", "p", world.port("p"), world.binding("p"), world.resources,
                                world.elements),
            child);
  EXPECT_THAT(world.traces.take(), IsEmpty());
}

TEST_F(RegionTest, AnotherNotificationForABindingKeepsItsMachine) {
  world.start("region R; segment vl vlan 10; host p h1 0=vl");
  const auto sm = world.regionSm();
  const auto child = world.portSm("p");
  const auto host = world.hostSm("p", "h1");
  OutputWatch watch(world.statuses, world.resources, world.elements);
  world.traces.take();
  sm->handlePortBinding("p");
  world.run();
  EXPECT_EQ(world.portSm("p"), child);
  EXPECT_EQ(world.hostSm("p", "h1"), host);
  EXPECT_THAT(world.traces.take(), ElementsAre(said(9, sm.get(), kPortBinding, "p")));
  EXPECT_THAT(watch.take(), IsEmpty());
}

TEST_F(RegionTest, ItsEndReleasesTheChildrenWithoutTheirCleanup) {
  world.change("region R; segment vl vlan 10; bind p; host q h1");
  auto sm = make();
  world.run();
  const Kiv::Ptr<OpenStack::RegionConfigSm::KivPortBinding> reactor(sm->portBinding()["p"]);
  const Kiv::Ptr<OpenStack::RegionConfigSm::KivSegment> segment(sm->segment()["vl"]);
  OutputWatch watch(world.statuses, world.resources, world.elements);
  world.traces.take();
  sm = nullptr;
  world.run();
  EXPECT_THAT(world.traces.take(), IsEmpty());
  EXPECT_THAT(watch.take(), IsEmpty());
  EXPECT_EQ(textOf(*status->vlanPool()), "assigned allocated 10 available");
  EXPECT_TRUE(segment->markedForDeletion());
  EXPECT_TRUE(reactor->markedForDeletion());
  EXPECT_FALSE(reactor->hasNotificationActive());
  world.apply("-bind p; -segment vl; sync progress; heartbeat; lock a 1");
  EXPECT_THAT(watch.take(), IsEmpty());
  EXPECT_EQ(world.loop.nextTimer(), Kiv::Clock::kNever);
  leaves({"host h1 domain R: q"});
}

TEST_F(RegionTest, ItsEndDisarmsTheTimer) {
  world.change("region R; sync progress");
  auto sm = make();
  EXPECT_NE(world.loop.nextTimer(), Kiv::Clock::kNever);
  sm = nullptr;
  EXPECT_EQ(world.loop.nextTimer(), Kiv::Clock::kNever);
}

TEST_F(RegionTest, NotificationsSwitchedOffReachNoReactorAndNoChild) {
  world.start("region R; segment vl vlan 10; host p h1 0=vl");
  const auto sm = world.regionSm();
  sm->hasNotificationActiveIs(false);
  EXPECT_FALSE(world.portSm("p")->hasNotificationActive());
  EXPECT_FALSE(world.hostSm("p", "h1")->hasNotificationActive());
  EXPECT_FALSE(world.hostSm("p", "h1")->segment()[0]->hasNotificationActive());
  EXPECT_FALSE(sm->segment()["vl"]->hasNotificationActive());
  EXPECT_FALSE(sm->portBinding()["p"]->hasNotificationActive());
  EXPECT_FALSE(sm->syncHeartbeatClock()->hasNotificationActive());
  world.traces.take();
  world.apply("sync progress; segment w vlan 11; host p h2; host p h1 0=-");
  EXPECT_THAT(world.traces.take(), IsEmpty());
  sm->hasNotificationActiveIs(true);
  EXPECT_TRUE(world.hostSm("p", "h1")->segment()[0]->hasNotificationActive());
  EXPECT_TRUE(sm->syncHeartbeatClock()->hasNotificationActive());
  world.apply("sync timedout");
  EXPECT_EQ(world.regionStatus()->syncStatus(), OpenStack::SyncStatus::syncTimedOut);
}

TEST_F(RegionTest, SwitchingNotificationsToWhatTheyAreTouchesNoChild) {
  world.start("region R; bind p");
  world.portSm("p")->hasNotificationActiveIs(false);
  world.regionSm()->hasNotificationActiveIs(true);
  EXPECT_FALSE(world.portSm("p")->hasNotificationActive());
  world.portSm("p")->hasNotificationActiveIs(true);
}

// Whole-collection changes.

TEST_F(RegionTest, AnAddedSegmentGetsItsReactorAtOnceAndItsVlanFromTheLoop) {
  world.start("region R");
  const auto sm = world.regionSm();
  world.traces.take();
  world.change("segment vl vlan 10");
  ASSERT_TRUE(sm->segment().contains("vl"));
  EXPECT_EQ(sm->segment()["vl"]->entity(), world.segment("vl"));
  EXPECT_EQ(world.vlans(), "assigned allocated available");
  EXPECT_THAT(world.traces.take(), IsEmpty());
  world.run();
  EXPECT_EQ(world.vlans(), "assigned allocated 10 available");
}

TEST_F(RegionTest, AnAddedBindingGetsItsReactorAtOnceAndItsMachineFromTheLoop) {
  world.start("region R");
  world.traces.take();
  world.change("bind p");
  EXPECT_TRUE(world.regionSm()->portBinding().contains("p"));
  EXPECT_FALSE(world.portSm("p"));
  EXPECT_THAT(world.traces.take(), IsEmpty());
  world.run();
  EXPECT_TRUE(world.portSm("p"));
}

TEST_F(RegionTest, ARemovedSegmentReturnsItsVlanAtOnceAndIsTracedByTheLoop) {
  world.start("region R; segment vl vlan 10");
  const auto sm = world.regionSm();
  const void* reactor = sm->segment()["vl"];
  world.traces.take();
  world.change("-segment vl");
  EXPECT_EQ(world.vlans(), "assigned allocated available");
  EXPECT_FALSE(sm->segment().contains("vl"));
  EXPECT_THAT(world.traces.take(), ElementsAre(said(9, reactor, kSegmentCleanup, "vl")));
  world.run();
  EXPECT_THAT(world.traces.take(), ElementsAre(said(9, sm.get(), kSegment, "vl"),
                                               said(2, sm.get(), kSegment, "Segment vl deleted")));
}

// Another region under the same machine.

TEST_F(RegionTest, ANewRegionIsMirroredThenSyncHeartbeatAndLockAreHandled) {
  world.start("region R; segment old vlan 10; segment both vlan 20; bind p; bind q");
  const auto sm = world.regionSm();
  const auto other = Kiv::make<OpenStack::Region>("R");
  other->segmentIs("both")->segmentationIdIs(21);
  other->segmentIs("new")->segmentationIdIs(30);
  other->portBindingIs("q");
  other->portBindingIs("s");
  other->syncStatusIs(OpenStack::SyncStatus::syncTimedOut);
  other->requesterIs("a");
  other->requestIdIs("1");
  const void* oldSegment = sm->segment()["old"];
  const auto* both = sm->segment()["both"];
  const auto* q = sm->portBinding()["q"];
  world.traces.take();
  sm->regionConfigIs(other);
  EXPECT_EQ(sm->regionConfig(), other);
  EXPECT_EQ(sm->segment()["both"], both);
  EXPECT_EQ(both->notifier(), other->segment()["both"]);
  EXPECT_EQ(sm->portBinding()["q"], q);
  EXPECT_EQ(q->notifier(), other->portBinding()["q"]);
  EXPECT_TRUE(sm->segment().contains("new"));
  EXPECT_FALSE(sm->segment().contains("old"));
  EXPECT_TRUE(sm->portBinding().contains("s"));
  EXPECT_FALSE(sm->portBinding().contains("p"));
  // Neither handleSegment() nor handlePortBinding() runs.
  EXPECT_EQ(world.vlans(), "assigned allocated 20 available");
  EXPECT_FALSE(sm->portBindingSm().contains("s"));
  EXPECT_FALSE(sm->portBindingSm().contains("p"));
  EXPECT_EQ(sm->syncHeartbeatClock()->timeMin(), 1000 + World::kTimeout);
  EXPECT_EQ(world.status(), "sync syncTimedOut old syncUnknown owner a request 1");
  const auto lines = world.traces.take();
  ASSERT_EQ(lines.size(), 7U);
  EXPECT_EQ(lines[0], said(9, oldSegment, kSegmentCleanup, "old"));
  EXPECT_THAT(lines[1], StartsWith("9 OpenStackSm handleCleanup: "));
  EXPECT_THAT(lines[2], StartsWith("9 OpenStackSm doCleanup: "));
  EXPECT_EQ(lines[3], said(9, sm.get(), kSyncStatus, " Sync region R changed to syncTimedOut"));
  EXPECT_EQ(lines[4], said(9, sm.get(), kHeartbeat, ""));
  EXPECT_EQ(lines[5], said(9, sm.get(), kLock, "R Received lock request from a with id 1"));
  EXPECT_EQ(lines[6], said(3, sm.get(), kLock, "Granted lock to a"));
  world.traces.take();
  world.apply("sync progress; segment x vlan 44");
  EXPECT_THAT(world.traces.take(), IsEmpty());
  other->segmentIs("y")->segmentationIdIs(55);
  world.run();
  EXPECT_EQ(world.vlans(), "assigned allocated 20 55 available");
}

TEST_F(RegionTest, TheSameRegionAgainDoesNothing) {
  world.start("region R; segment vl vlan 10");
  world.traces.take();
  world.regionSm()->regionConfigIs(world.region());
  EXPECT_THAT(world.traces.take(), IsEmpty());
}

TEST_F(RegionTest, ADroppedRegionIsNotObservedAndKeepsWhatWasMirrored) {
  world.start("region R; segment vl vlan 10");
  const auto sm = world.regionSm();
  sm->regionConfigDel();
  EXPECT_FALSE(sm->regionConfig());
  world.apply("-segment vl; sync progress");
  EXPECT_TRUE(sm->segment().contains("vl"));
  EXPECT_EQ(world.vlans(), "assigned allocated 10 available");
  EXPECT_EQ(world.regionStatus()->syncStatus(), OpenStack::SyncStatus::syncUnknown);
  sm->regionConfigIs(world.region());
  world.apply("sync timedout");
  EXPECT_EQ(world.regionStatus()->syncStatus(), OpenStack::SyncStatus::syncTimedOut);
}

// The clock.

TEST_F(RegionTest, TheSameClockKeepsTheReactorAndItsTime) {
  world.start("region R; sync progress");
  const auto sm = world.regionSm();
  const auto* reactor = sm->syncHeartbeatClock();
  sm->syncHeartbeatClockIs(world.loop.clock());
  EXPECT_EQ(sm->syncHeartbeatClock(), reactor);
  EXPECT_EQ(reactor->timeMin(), 1000 + World::kTimeout);
}

TEST_F(RegionTest, AnotherClockRebindsTheReactor) {
  world.start("region R; sync progress");
  const auto sm = world.regionSm();
  const auto* reactor = sm->syncHeartbeatClock();
  const auto other = Kiv::make<Kiv::Clock>();
  sm->syncHeartbeatClockIs(other);
  EXPECT_EQ(sm->syncHeartbeatClock(), reactor);
  EXPECT_EQ(reactor->notifier(), other.get());
  EXPECT_EQ(world.loop.nextTimer(), Kiv::Clock::kNever);
  EXPECT_EQ(other->nextTime(), 1000 + World::kTimeout);
  sm->syncHeartbeatClockIs(world.loop.clock());
}

TEST_F(RegionTest, ANullClockDropsTheReactorAndAnotherMakesAnActiveOne) {
  world.start("region R; sync progress");
  const auto sm = world.regionSm();
  sm->syncHeartbeatClockIs(nullptr);
  EXPECT_EQ(sm->syncHeartbeatClock(), nullptr);
  EXPECT_EQ(world.loop.nextTimer(), Kiv::Clock::kNever);
  sm->syncHeartbeatClockIs(world.loop.clock());
  ASSERT_NE(sm->syncHeartbeatClock(), nullptr);
  EXPECT_TRUE(sm->syncHeartbeatClock()->hasNotificationActive());
  world.apply("heartbeat");
  world.passes(World::kTimeout);
  EXPECT_EQ(world.regionStatus()->syncStatus(), OpenStack::SyncStatus::syncTimedOut);
}

TEST_F(RegionTest, WithoutAClockHeartbeatsAndSyncsArmNothing) {
  world.start("region R");
  world.regionSm()->syncHeartbeatClockDel();
  world.apply("heartbeat; sync progress");
  EXPECT_EQ(world.status(), "sync syncInProgress old syncUnknown owner  request ");
  world.apply("sync complete");
  EXPECT_EQ(world.status(), "sync syncComplete old syncInProgress owner  request ");
}

TEST_F(RegionTest, ReactorsDeletedByHandRunTheirCleanup) {
  world.start("region R; segment a vlan 10; segment b vlan 20; segment c vlan 30; bind p; bind q");
  const auto sm = world.regionSm();
  EXPECT_FALSE(sm->segmentDel("x"));
  EXPECT_EQ(sm->segmentDel("a"), world.segment("a"));
  EXPECT_EQ(world.vlans(), "assigned allocated 20 30 available");
  EXPECT_EQ(sm->segmentDel(sm->segment().iteratorAt("b")), world.segment("b"));
  EXPECT_EQ(world.vlans(), "assigned allocated 30 available");
  sm->segmentDelAll();
  EXPECT_EQ(world.vlans(), "assigned allocated available");
  EXPECT_FALSE(sm->portBindingDel("x"));
  EXPECT_EQ(sm->portBindingDel(sm->portBinding().iteratorAt("p")), world.binding("p"));
  EXPECT_FALSE(world.portSm("p"));
  sm->portBindingDelAll();
  EXPECT_FALSE(world.portSm("q"));
  sm->segmentNotify("a");
  sm->portBindingNotify("p");
  sm->portBindingSmNotify("p");
}

TEST_F(RegionTest, DeletingChildrenByHandRunsNoCleanup) {
  world.start("region R; host p h1; host q h2");
  const auto sm = world.regionSm();
  world.traces.take();
  const auto child = world.portSm("p");
  EXPECT_EQ(sm->portBindingSmDel("x"), nullptr);
  EXPECT_EQ(sm->portBindingSmDel("p"), child);
  sm->portBindingSmDelAll();
  EXPECT_THAT(sm->portBindingSm(), IsEmpty());
  EXPECT_THAT(world.traces.take(), IsEmpty());
  leaves({"host h1 domain R: p", "host h2 domain R: q"});
}

TEST_F(RegionTest, OtherAttributesOfTheRegionAreNotHandled) {
  world.start("region R");
  world.traces.take();
  world.region()->serviceEndPointIs("e");
  world.region()->tenantIs("t");
  world.region()->routerInstanceIs("r");
  world.region()->syncIntervalIs(4);
  world.apply("network n; vm v; dhcp d; baremetal b; port p");
  EXPECT_THAT(world.traces.take(), IsEmpty());
}

}  // namespace
