// The root machine: regions come and go, the sync timeout.
#include "tests/OpenStackSm/MachineTest.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kInitialized = "OpenStackSm::handleInitialized()";
constexpr const char* kRegion = "OpenStackSm::handleRegion(Kiv::Name)";
constexpr const char* kAssignment = "OpenStackSm::handleRegionVlanAssignment(Kiv::Name)";
constexpr const char* kTimeout = "OpenStackSm::handleRegionSyncTimeout()";
constexpr const char* kRegionInitialized = "RegionConfigSm::handleInitialized()";
constexpr const char* kSyncStatus = "RegionConfigSm::handleSyncStatus()";

class RootTest : public MachineTest {
 protected:
  std::string stamped(const std::string& uuid) {
    return said(3, world.root.get(), kAssignment, "VLAN assignment UUID: " + uuid);
  }
  std::string uuid() { return world.regionStatus()->vlanAssignmentUuid().str(); }
};

TEST_F(RootTest, ARegionAtConstructionGetsStatusPoolAndMachine) {
  world.start("region R");
  const auto* root = world.root.get();
  const auto sm = world.regionSm();
  ASSERT_TRUE(sm);
  EXPECT_TRUE(root->initialized());
  EXPECT_EQ(sm->regionName(), "R");
  EXPECT_EQ(sm->regionConfig(), world.region());
  EXPECT_EQ(sm->regionStatus(), world.regionStatus());
  EXPECT_EQ(sm->requestedResourcesCollection(), world.resources);
  EXPECT_EQ(sm->regionSyncTimeout(), World::kTimeout);
  EXPECT_EQ(sm->networkElementCollection(), world.elements);
  EXPECT_TRUE(sm->hasNotificationActive());
  EXPECT_EQ(world.pool()->name(), "R");
  EXPECT_THAT(
      world.traces.take(),
      ElementsAre(said(9, root, kInitialized, "void OpenStack::OpenStackSm::handleInitialized()"),
                  said(9, root, kRegion, "void OpenStack::OpenStackSm::handleRegion(Kiv::Name) R"),
                  said(9, root, kAssignment, "R"), stamped(uuid()),
                  said(9, sm.get(), kRegionInitialized,
                       "void OpenStack::RegionConfigSm::handleInitialized()"),
                  said(2, sm.get(), kRegionInitialized, "VMs: 0"),
                  said(2, sm.get(), kRegionInitialized, "DHCPs: 0"),
                  said(2, sm.get(), kRegionInitialized, "Baremetals: 0"),
                  said(2, sm.get(), kRegionInitialized, "Networks: 0"),
                  said(9, sm.get(), kSyncStatus, " Sync region R changed to syncUnknown")));
}

TEST_F(RootTest, EveryRegionAtConstructionIsHandled) {
  world.start("region A; region B; region C");
  EXPECT_EQ(world.root->regionConfigSm().size(), 3U);
  EXPECT_EQ(world.statuses->regionStatus().size(), 3U);
}

TEST_F(RootTest, WithoutConfiguredRegionsItIsInitializedAllTheSame) {
  const auto root =
      OpenStack::openStackSmFactory(nullptr, world.statuses, world.nameConfig, world.nameStatus,
                                    world.resources, 1, world.config, world.elements);
  EXPECT_TRUE(root->initialized());
  EXPECT_FALSE(root->openstackConfig());
  EXPECT_THAT(root->regionConfigSm(), IsEmpty());
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(9, root.get(), kInitialized,
                               "void OpenStack::OpenStackSm::handleInitialized()")));
  EXPECT_THAT(world.statuses->regionStatus(), IsEmpty());
}

TEST_F(RootTest, WithoutAnAgentConfigurationARegionIsServedWithAnEmptyPool) {
  world.change("region R; assign R 10");
  world.root =
      OpenStack::openStackSmFactory(world.cloud, world.statuses, world.nameConfig, world.nameStatus,
                                    world.resources, 1, nullptr, world.elements);
  EXPECT_FALSE(world.root->config());
  EXPECT_THAT(world.root->vlanAssignment(), IsEmpty());
  ASSERT_TRUE(world.regionSm());
  EXPECT_EQ(world.vlans(), "assigned allocated available");
  EXPECT_EQ(uuid(), "");
  const auto lines = world.traces.take();
  ASSERT_GT(lines.size(), 4U);
  EXPECT_EQ(lines[2], said(9, world.root.get(), kAssignment, "R"));
  EXPECT_EQ(lines[3], said(1, world.root.get(), kAssignment, "No agent configuration"));
}

TEST_F(RootTest, TheMachineHoldsWhatItWasMadeWith) {
  world.start();
  const auto& root = *world.root;
  EXPECT_EQ(root.openstackConfig(), world.cloud);
  EXPECT_EQ(root.openstackStatus(), world.statuses);
  EXPECT_EQ(root.nameResolutionConfig(), world.nameConfig);
  EXPECT_EQ(root.nameResolutionStatus(), world.nameStatus);
  EXPECT_EQ(root.requestedResourcesCollection(), world.resources);
  EXPECT_EQ(root.regionSyncTimeout(), World::kTimeout);
  EXPECT_EQ(root.config(), world.config);
  EXPECT_EQ(root.networkElementCollection(), world.elements);
  EXPECT_EQ(root.fwkType().name(), "OpenStack::OpenStackSm");
  EXPECT_EQ(root.kivFwkActivity(), nullptr);
  EXPECT_TRUE(root.hasNotificationActive());
}

TEST_F(RootTest, MakingAndReleasingItOverAnEmptyCloudPublishesNothing) {
  OutputWatch watch(world.statuses, world.resources, world.elements);
  world.start();
  world.rootDel();
  world.run();
  EXPECT_THAT(watch.take(), IsEmpty());
}

TEST_F(RootTest, AnAddedRegionWaitsForItsKeyedNotification) {
  world.start();
  world.traces.take();
  world.change("region R");
  EXPECT_THAT(world.root->regionConfigSm(), IsEmpty());
  EXPECT_THAT(world.traces.take(), IsEmpty());
  world.run();
  EXPECT_TRUE(world.regionSm());
  EXPECT_TRUE(world.regionStatus()->vlanPool());
}

TEST_F(RootTest, ARemovedRegionLosesItsMachineAndItsStatus) {
  world.start("region R; segment vl vlan 10");
  const void* sm = world.regionSm().get();
  world.traces.take();
  world.apply("-region R");
  EXPECT_THAT(world.root->regionConfigSm(), IsEmpty());
  EXPECT_THAT(world.statuses->regionStatus(), IsEmpty());
  std::ostringstream address;
  address << sm;
  EXPECT_THAT(
      world.traces.take(),
      ElementsAre(said(9, world.root.get(), kRegion,
                       "void OpenStack::OpenStackSm::handleRegion(Kiv::Name) R"),
                  said(2, world.root.get(), kRegion, "Region config sm: " + address.str())));
}

TEST_F(RootTest, RemovingARegionThatWasNeverThereTracesANullMachine) {
  world.start();
  world.traces.take();
  world.root->handleRegion("X");
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(9, world.root.get(), kRegion,
                               "void OpenStack::OpenStackSm::handleRegion(Kiv::Name) X"),
                          said(2, world.root.get(), kRegion, "Region config sm: 0")));
  EXPECT_THAT(world.statuses->regionStatus(), IsEmpty());
}

TEST_F(RootTest, AReaddedRegionStartsAfresh) {
  world.start("region R; lock a 1; sync progress");
  const auto oldStatus = world.regionStatus();
  const auto oldPool = world.pool();
  const auto oldSm = world.regionSm();
  world.apply("-region R");
  world.apply("region R");
  EXPECT_NE(world.regionStatus(), oldStatus);
  EXPECT_NE(world.pool(), oldPool);
  EXPECT_NE(world.regionSm(), oldSm);
  EXPECT_EQ(world.status(), "sync syncUnknown old syncUnknown owner  request ");
}

TEST_F(RootTest, ARegionAddedAndRemovedBeforeTheLoopRunsLeavesNothing) {
  world.start();
  world.change("region R");
  world.apply("-region R");
  EXPECT_THAT(world.root->regionConfigSm(), IsEmpty());
  EXPECT_THAT(world.statuses->regionStatus(), IsEmpty());
}

TEST_F(RootTest, AnExistingStatusIsKeptAndItsPoolRefilled) {
  world.change("region R; assign R 10 20");
  const auto status = world.statuses->regionStatusIs("R");
  const auto pool = status->vlanPoolIs("R");
  pool->assignedVlanIs(99, true);
  pool->availableVlanIs(98, true);
  pool->allocatedVlanIs(20, true);
  world.start();
  EXPECT_EQ(world.regionStatus(), status);
  EXPECT_EQ(world.pool(), pool);
  EXPECT_EQ(world.vlans(), "assigned 10 20 allocated 20 available 10");
}

TEST_F(RootTest, AnUnchangedRegionKeepsItsMachineAndGetsANewUuidAndTheTimeout) {
  world.start("region R; assign R 10");
  const auto sm = world.regionSm();
  const std::string before = uuid();
  sm->regionSyncTimeoutIs(7);
  world.pool()->assignedVlanDelAll();
  world.pool()->availableVlanDelAll();
  world.traces.take();
  world.root->handleRegion("R");
  EXPECT_EQ(world.regionSm(), sm);
  EXPECT_EQ(sm->regionSyncTimeout(), World::kTimeout);
  EXPECT_NE(uuid(), before);
  EXPECT_EQ(world.vlans(), "assigned 10 allocated available 10");
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(9, world.root.get(), kRegion,
                               "void OpenStack::OpenStackSm::handleRegion(Kiv::Name) R"),
                          said(9, world.root.get(), kAssignment, "R"), stamped(uuid())));
}

TEST_F(RootTest, StatusPoolAndUuidAreWrittenBeforeTheRegionMachineWrites) {
  world.start("assign R 10");
  world.statuses->regionStatusIs("R")->vlanPoolIs("R");
  OutputWatch watch(world.statuses, world.resources, world.elements);
  world.apply("region R; segment vl vlan 20");
  EXPECT_THAT(watch.take(), ElementsAre("status R uuid", "status R pool assigned 10",
                                        "status R pool available 10", "status R pool allocated 20",
                                        "status R old syncUnknown", "status R sync syncUnknown"));
}

TEST_F(RootTest, InitializingItAgainOnlyTraces) {
  world.start("region R");
  const std::string before = uuid();
  world.traces.take();
  world.root->handleInitialized();
  EXPECT_THAT(
      world.traces.take(),
      ElementsAre(said(9, world.root.get(), kInitialized,
                       "void OpenStack::OpenStackSm::handleInitialized()"),
                  said(1, world.root.get(), kInitialized, "OpenStackSM already initialized")));
  EXPECT_EQ(uuid(), before);
}

TEST_F(RootTest, InitializingItAgainWithTheFlagClearedHandlesEveryRegion) {
  world.start("region R");
  const std::string before = uuid();
  world.root->initializedIs(false);
  world.root->handleInitialized();
  EXPECT_NE(uuid(), before);
  EXPECT_TRUE(world.root->initialized());
}

TEST_F(RootTest, TheEndOfTheRootKeepsTheStatuses) {
  world.start("region R; segment vl vlan 10; lock a 1; sync progress");
  const std::string before = world.status();
  const std::string vlans = world.vlans();
  world.traces.take();
  world.rootDel();
  EXPECT_THAT(world.traces.take(), IsEmpty());
  EXPECT_EQ(world.status(), before);
  EXPECT_EQ(world.vlans(), vlans);
}

TEST_F(RootTest, ANewCloudIsOnlyObserved) {
  world.start("region R");
  const auto other = Kiv::make<OpenStack::OpenStackConfig>();
  other->regionIs("S");
  world.traces.take();
  world.root->openstackConfigIs(other);
  world.run();
  EXPECT_THAT(world.traces.take(), IsEmpty());
  EXPECT_TRUE(world.root->regionConfigSm().contains("R"));
  EXPECT_FALSE(world.root->regionConfigSm().contains("S"));
  other->regionIs("T");
  world.apply("region U");
  EXPECT_TRUE(world.root->regionConfigSm().contains("T"));
  EXPECT_FALSE(world.root->regionConfigSm().contains("U"));
  EXPECT_FALSE(world.root->regionConfigSm().contains("S"));
}

TEST_F(RootTest, WithoutACloudRegionsCountAsRemoved) {
  world.start("region R");
  world.root->openstackConfigDel();
  EXPECT_FALSE(world.root->openstackConfig());
  world.apply("region S");
  EXPECT_FALSE(world.root->regionConfigSm().contains("S"));
  EXPECT_TRUE(world.root->regionConfigSm().contains("R"));
  world.root->handleRegion("R");
  EXPECT_THAT(world.root->regionConfigSm(), IsEmpty());
  world.root->openstackConfigIs(world.cloud);
  world.apply("region T");
  EXPECT_TRUE(world.root->regionConfigSm().contains("T"));
}

TEST_F(RootTest, ANullCloudDropsTheReactor) {
  world.start("region R");
  world.root->openstackConfigIs(nullptr);
  EXPECT_FALSE(world.root->openstackConfig());
}

TEST_F(RootTest, ARegionRemovedWithBoundPortsWithdrawsVlansButNotDomains) {
  world.start("region R; segment vl vlan 10; host p h1 0=vl");
  world.apply("-region R");
  EXPECT_THAT(world.published(), ElementsAre("host h1", "host h1 domain R: p"));
  leaves({"host h1 domain R: p"});
}

TEST_F(RootTest, ANewTimeoutReachesEveryRegionOnce) {
  world.start("region A; region B");
  const auto a = Kiv::Ptr<OpenStack::RegionConfigSm>(world.root->regionConfigSm()["A"]);
  const auto b = Kiv::Ptr<OpenStack::RegionConfigSm>(world.root->regionConfigSm()["B"]);
  world.traces.take();
  world.root->regionSyncTimeoutIs(12.5);
  EXPECT_EQ(a->regionSyncTimeout(), 12.5);
  EXPECT_EQ(b->regionSyncTimeout(), 12.5);
  EXPECT_EQ(world.root->regionSyncTimeout(), 12.5);
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(9, world.root.get(), kTimeout, "Region sync timeout: 12.5")));
}

TEST_F(RootTest, TheSameTimeoutTouchesNoChild) {
  world.start("region R");
  world.root->regionSyncTimeoutIs(12.5);
  world.traces.take();
  world.regionSm()->regionSyncTimeoutIs(3);
  world.root->regionSyncTimeoutIs(12.5);
  EXPECT_THAT(world.traces.take(), IsEmpty());
  EXPECT_EQ(world.regionSm()->regionSyncTimeout(), 3);
}

TEST_F(RootTest, WithoutRegionsANewTimeoutOnlyTraces) {
  world.start();
  world.traces.take();
  world.root->regionSyncTimeoutIs(5);
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(9, world.root.get(), kTimeout, "Region sync timeout: 5")));
}

TEST_F(RootTest, ALaterRegionGetsTheCurrentTimeout) {
  world.start();
  world.root->regionSyncTimeoutIs(5);
  world.apply("region R");
  EXPECT_EQ(world.regionSm()->regionSyncTimeout(), 5);
}

TEST_F(RootTest, TheTimeoutOfTheConfigurationIsNotRead) {
  world.start("region R");
  world.config->regionSyncTimeoutIs(1);
  world.config->defaultRegionSyncTimeoutIs(2);
  world.traces.take();
  world.run();
  EXPECT_EQ(world.root->regionSyncTimeout(), World::kTimeout);
  EXPECT_THAT(world.traces.take(), IsEmpty());
}

TEST_F(RootTest, DeletingAChildByHandReturnsItOrNull) {
  world.start("region R");
  const auto sm = world.regionSm();
  EXPECT_EQ(world.root->regionConfigSmDel("X"), nullptr);
  EXPECT_EQ(world.root->regionConfigSmDel("R"), sm);
  EXPECT_FALSE(world.regionSm());
  world.root->handleRegion("R");
  EXPECT_TRUE(world.regionSm());
  world.root->regionConfigSmNotify("R");
  world.root->regionConfigSmDelAll();
  EXPECT_THAT(world.root->regionConfigSm(), IsEmpty());
}

}  // namespace
