// VLAN assignments, the VLAN type driver and what they make of the regions' pools.
#include "tests/OpenStackSm/MachineTest.h"

#include <set>

#include "OpenStackSm/Uuid.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

constexpr const char* kAssignment = "OpenStackSm::handleRegionVlanAssignment(Kiv::Name)";
constexpr const char* kVlan = "OpenStackSm::KivVlanAssignment::handleVlanAssignment(U16)";
constexpr const char* kDriver = "OpenStackSm::handleVlanTypeDriver()";

class PoolTest : public MachineTest {
 protected:
  std::string uuid() { return world.regionStatus()->vlanAssignmentUuid().str(); }
  std::string stamp() { return "VLAN assignment UUID: " + uuid(); }
  const void* root() { return world.root.get(); }
  const void* reactor() { return world.root->vlanAssignment()["R"]; }
};

TEST_F(PoolTest, AnAssignedVlanIsAvailableUnlessASegmentUsesIt) {
  world.start("region R; segment vl vlan 20; assign R 10 20");
  EXPECT_EQ(world.vlans(), "assigned 10 20 allocated 20 available 10");
  EXPECT_EQ(world.rebuiltVlans(), world.vlans());
}

TEST_F(PoolTest, ANewAssignmentRebuildsThePoolUnderANewUuid) {
  world.start("region R");
  const std::string before = uuid();
  world.traces.take();
  world.apply("assign R");
  EXPECT_NE(uuid(), before);
  EXPECT_EQ(world.vlans(), "assigned allocated available");
  EXPECT_THAT(world.traces.take(), ElementsAre(said(9, root(), kAssignment, "R"),
                                               said(3, root(), kAssignment, stamp())));
}

TEST_F(PoolTest, ANewAssignmentWithVlansRebuildsAtOnce) {
  world.start("region R");
  const auto assignment = Kiv::make<OpenStack::VlanAssignment>("R");
  assignment->vlanIs(10, true);
  assignment->vlanIs(20, false);
  world.traces.take();
  world.config->vlanAssignmentIs(assignment);
  EXPECT_EQ(world.vlans(), "assigned 10 allocated available 10");
  EXPECT_THAT(world.traces.take(), ElementsAre(said(9, root(), kAssignment, "R"),
                                               said(3, root(), kAssignment, stamp())));
  world.run();
  EXPECT_THAT(world.traces.take(), IsEmpty());
}

TEST_F(PoolTest, AnAddedVlanIsPatchedInUnderANewUuid) {
  world.start("region R; assign R 10");
  const std::string before = uuid();
  world.traces.take();
  world.change("assign R 30");
  EXPECT_EQ(world.vlans(), "assigned 10 allocated available 10");
  world.run();
  EXPECT_EQ(world.vlans(), "assigned 10 30 allocated available 10 30");
  EXPECT_NE(uuid(), before);
  EXPECT_THAT(world.traces.take(), ElementsAre(said(3, reactor(), kVlan, stamp())));
}

TEST_F(PoolTest, AnAddedVlanThatASegmentUsesIsAssignedOnly) {
  world.start("region R; segment vl vlan 30; assign R 10");
  world.apply("assign R 30");
  EXPECT_EQ(world.vlans(), "assigned 10 30 allocated 30 available 10");
  EXPECT_EQ(world.rebuiltVlans(), world.vlans());
}

TEST_F(PoolTest, AnEntryOfAllocatedThatIsFalseDoesNotKeepAVlanFromBeingAvailable) {
  world.start("region R; assign R 10");
  world.pool()->allocatedVlanIs(30, false);
  world.apply("assign R 30");
  EXPECT_EQ(world.vlans(), "assigned 10 30 allocated !30 available 10 30");
  world.root->handleRegionVlanAssignment("R");
  EXPECT_EQ(world.vlans(), "assigned 10 30 allocated !30 available 10 30");
}

TEST_F(PoolTest, ARemovedVlanLeavesAssignedAndAvailable) {
  world.start("region R; assign R 10 20");
  const std::string before = uuid();
  world.traces.take();
  world.apply("assign R -10");
  EXPECT_EQ(world.vlans(), "assigned 20 allocated available 20");
  EXPECT_NE(uuid(), before);
  EXPECT_THAT(world.traces.take(), ElementsAre(said(3, reactor(), kVlan, stamp())));
}

TEST_F(PoolTest, ARemovedVlanThatASegmentUsesStaysAllocated) {
  world.start("region R; segment vl vlan 20; assign R 20");
  world.apply("assign R -20");
  EXPECT_EQ(world.vlans(), "assigned allocated 20 available");
  world.apply("-segment vl");
  EXPECT_EQ(world.vlans(), "assigned allocated available");
}

TEST_F(PoolTest, AVlanThatTurnsFalseCountsAsRemoved) {
  world.start("region R; assign R 10 20");
  world.apply("assign R !10");
  EXPECT_EQ(world.vlans(), "assigned 20 allocated available 20");
  world.apply("assign R 10");
  EXPECT_EQ(world.vlans(), "assigned 10 20 allocated available 10 20");
}

TEST_F(PoolTest, AFalseEntryIsNotAssignedInARebuildEither) {
  world.start("region R; assign R 10 !20");
  EXPECT_EQ(world.vlans(), "assigned 10 allocated available 10");
  world.apply("driver 0");
  EXPECT_EQ(world.vlans(), "assigned 10 allocated available 10");
}

TEST_F(PoolTest, ARemovedVlanLeavesAvailableBeforeAssigned) {
  world.start("region R; assign R 10");
  OutputWatch watch(world.statuses, world.resources, world.elements);
  world.apply("assign R -10");
  EXPECT_THAT(watch.take(), ElementsAre("status R uuid", "status R pool available 10 gone",
                                        "status R pool assigned 10 gone"));
}

TEST_F(PoolTest, AnAddedVlanIsAssignedBeforeItIsAvailable) {
  world.start("region R; assign R");
  OutputWatch watch(world.statuses, world.resources, world.elements);
  world.apply("assign R 10");
  EXPECT_THAT(watch.take(), ElementsAre("status R uuid", "status R pool assigned 10",
                                        "status R pool available 10"));
}

TEST_F(PoolTest, ARebuildStampsThenEmptiesThenFills) {
  world.start("region R; assign R 10");
  OutputWatch watch(world.statuses, world.resources, world.elements);
  std::vector<std::string> writes;
  watch.immediate = [&](const std::string& path) { writes.push_back(path); };
  world.root->handleRegionVlanAssignment("R");
  EXPECT_THAT(writes, ElementsAre("status R pool assigned", "status R pool available",
                                  "status R pool assigned", "status R pool available"));
  watch.immediate = nullptr;
  world.run();
  EXPECT_THAT(watch.take().front(), "status R uuid");
}

TEST_F(PoolTest, AnAssignmentOfARegionThatIsNotConfiguredWaitsForIt) {
  world.start("assign R 10 20");
  EXPECT_THAT(world.statuses->regionStatus(), IsEmpty());
  world.traces.take();
  world.apply("assign R 30");
  EXPECT_THAT(world.traces.take(), IsEmpty());
  world.root->handleRegionVlanAssignment("R");
  EXPECT_THAT(world.traces.take(), ElementsAre(said(9, root(), kAssignment, "R")));
  EXPECT_THAT(world.statuses->regionStatus(), IsEmpty());
  world.apply("region R");
  EXPECT_EQ(world.vlans(), "assigned 10 20 30 allocated available 10 20 30");
}

TEST_F(PoolTest, ARemovedAssignmentEmptiesThePoolUnderANewUuid) {
  world.start("region R; segment vl vlan 20; assign R 10 20");
  const std::string before = uuid();
  world.traces.take();
  world.change("-assign R");
  EXPECT_EQ(world.vlans(), "assigned allocated 20 available");
  EXPECT_NE(uuid(), before);
  EXPECT_THAT(world.traces.take(), ElementsAre(said(9, root(), kAssignment, "R"),
                                               said(3, root(), kAssignment, stamp())));
  world.run();
  EXPECT_THAT(world.traces.take(), IsEmpty());
  EXPECT_THAT(world.root->vlanAssignment(), IsEmpty());
}

TEST_F(PoolTest, DriverOneEmptiesThePoolsOfRegionsWithAnAssignmentOnly) {
  world.start("region R; segment vl vlan 20; assign R 10 20");
  world.apply("region S");
  world.pool()->assignedVlanIs(77, true);
  world.pool()->availableVlanIs(78, true);
  world.change("region R");
  const std::string before = uuid();
  world.traces.take();
  world.apply("driver 1");
  EXPECT_EQ(world.vlans(), "assigned allocated 20 available");
  EXPECT_EQ(uuid(), before);
  EXPECT_THAT(world.traces.take(), ElementsAre(said(9, root(), kDriver, "")));
  world.change("region S");
  EXPECT_EQ(world.vlans(), "assigned 77 allocated available 78");
}

TEST_F(PoolTest, DriverOneEmptiesAssignedThenAvailable) {
  world.start("region R; assign R 10");
  OutputWatch watch(world.statuses, world.resources, world.elements);
  world.apply("driver 1");
  EXPECT_THAT(watch.take(),
              ElementsAre("status R pool assigned 10 gone", "status R pool available 10 gone"));
}

TEST_F(PoolTest, DriverBackToZeroRebuildsUnderANewUuid) {
  world.start("region R; assign R 10 20; assign X 5");
  const std::string before = uuid();
  world.apply("driver 1");
  world.traces.take();
  world.apply("driver 0");
  EXPECT_EQ(world.vlans(), "assigned 10 20 allocated available 10 20");
  EXPECT_NE(uuid(), before);
  EXPECT_THAT(world.traces.take(),
              testing::UnorderedElementsAre(
                  said(9, root(), kDriver, ""), said(9, root(), kAssignment, "R"),
                  said(3, root(), kAssignment, stamp()), said(9, root(), kAssignment, "X")));
}

TEST_F(PoolTest, AnyOtherDriverChangesNothing) {
  world.start("region R; assign R 10");
  const std::string before = uuid();
  world.traces.take();
  world.apply("driver 2");
  EXPECT_EQ(world.vlans(), "assigned 10 allocated available 10");
  EXPECT_EQ(uuid(), before);
  EXPECT_THAT(world.traces.take(), ElementsAre(said(9, root(), kDriver, "")));
}

TEST_F(PoolTest, UnderAnotherDriverChangesOfAssignmentsAreOnlyMirrored) {
  world.start("region R; assign R 10; driver 1");
  const std::string before = uuid();
  world.traces.take();
  world.apply("assign R 20");
  EXPECT_THAT(world.traces.take(), IsEmpty());
  world.apply("assign S 5; -assign R");
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(9, root(), kAssignment, "S"), said(9, root(), kAssignment, "R")));
  EXPECT_EQ(uuid(), before);
  EXPECT_EQ(world.vlans(), "assigned allocated available");
  EXPECT_TRUE(world.root->vlanAssignment().contains("S"));
  EXPECT_FALSE(world.root->vlanAssignment().contains("R"));
}

TEST_F(PoolTest, DriverOneSkipsAStatusWithoutAPool) {
  world.start("assign R 10");
  world.statuses->regionStatusIs("R");
  world.traces.take();
  world.apply("driver 1");
  EXPECT_THAT(world.traces.take(), ElementsAre(said(9, root(), kDriver, "")));
}

TEST_F(PoolTest, AStatusWithoutAPoolIsStampedAndSkipped) {
  world.start("assign R 10");
  const auto status = world.statuses->regionStatusIs("R");
  world.traces.take();
  world.root->handleRegionVlanAssignment("R");
  auto lines = world.traces.take();
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_EQ(lines[2], said(1, root(), kAssignment, "No VLAN pool in region R"));
  EXPECT_FALSE(status->vlanAssignmentUuid().empty());
  world.apply("assign R 20");
  lines = world.traces.take();
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines[1],
            said(1, world.root->vlanAssignment()["R"], kVlan, "No VLAN pool in region R"));
  EXPECT_FALSE(status->vlanPool());
}

TEST_F(PoolTest, EveryRebuildAndEveryChangedVlanStampsAnotherUuid) {
  world.start("region R");
  std::set<std::string> seen{uuid()};
  const std::vector<std::string> changes = {"assign R",     "assign R 10", "assign R 20",
                                            "assign R -10", "driver 0",    "-assign R"};
  for (const std::string& change : changes) {
    world.apply(change);
    EXPECT_TRUE(seen.insert(uuid()).second) << change;
    EXPECT_THAT(uuid(),
                MatchesRegex("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}"))
        << change;
  }
}

TEST_F(PoolTest, AnUnchangedEntryStampsNothing) {
  world.start("region R; assign R 10");
  const std::string before = uuid();
  world.traces.take();
  world.apply("assign R 10");
  EXPECT_EQ(uuid(), before);
  EXPECT_THAT(world.traces.take(), IsEmpty());
}

TEST(UuidTest, EveryUuidIsRandomOfVersionFour) {
  std::set<std::string> seen;
  std::set<char> variants;
  for (int i = 0; i < 200; ++i) {
    const std::string uuid = OpenStack::uuid().str();
    ASSERT_EQ(uuid.size(), 36U);
    ASSERT_THAT(
        uuid, MatchesRegex("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}"));
    EXPECT_TRUE(seen.insert(uuid).second);
    variants.insert(uuid[19]);
  }
  EXPECT_EQ(variants.size(), 4U);
}

// What the machine mirrors.

TEST_F(PoolTest, OneReactorAnAssignmentThatObservesIt) {
  world.start("assign R 10; assign S 20");
  ASSERT_EQ(world.root->vlanAssignment().size(), 2U);
  const auto* r = world.root->vlanAssignment()["R"];
  EXPECT_EQ(r->notifier(), world.config->vlanAssignment()["R"]);
  EXPECT_TRUE(r->hasNotificationActive());
  EXPECT_TRUE(r->isRegisteredNotifiee());
}

TEST_F(PoolTest, MirroringAnAssignmentTwiceDoesNothing) {
  world.start("region R; assign R 10");
  const Kiv::Ptr<OpenStack::VlanAssignment> assignment(world.config->vlanAssignment()["R"]);
  world.traces.take();
  EXPECT_EQ(world.root->vlanAssignmentIs(assignment).get(), reactor());
  EXPECT_THAT(world.traces.take(), IsEmpty());
}

TEST_F(PoolTest, AReplacedAssignmentRepointsTheReactorAndRebuilds) {
  world.start("region R; assign R 10");
  const Kiv::Ptr<OpenStack::VlanAssignment> old(world.config->vlanAssignment()["R"]);
  const Kiv::Ptr<OpenStack::OpenStackSm::KivVlanAssignment> before(
      world.root->vlanAssignment()["R"]);
  const auto other = Kiv::make<OpenStack::VlanAssignment>("R");
  other->vlanIs(50, true);
  world.traces.take();
  world.config->vlanAssignmentIs(other);
  EXPECT_EQ(world.vlans(), "assigned 50 allocated available 50");
  EXPECT_EQ(world.root->vlanAssignment()["R"], before.get());
  EXPECT_EQ(before->notifier(), other.get());
  EXPECT_THAT(world.traces.take(), ElementsAre(said(9, root(), kAssignment, "R"),
                                               said(3, root(), kAssignment, stamp())));
  old->vlanIs(60, true);
  world.run();
  EXPECT_EQ(world.vlans(), "assigned 50 allocated available 50");
  other->vlanIs(70, true);
  world.run();
  EXPECT_EQ(world.vlans(), "assigned 50 70 allocated available 50 70");
}

TEST_F(PoolTest, DeletingAReactorByHandReturnsItsAssignmentAndSilencesIt) {
  world.start("region R; assign R 10; assign S 20");
  const Kiv::Ptr<OpenStack::OpenStackSm::KivVlanAssignment> held(world.root->vlanAssignment()["R"]);
  EXPECT_FALSE(world.root->vlanAssignmentDel("X"));
  world.traces.take();
  EXPECT_EQ(world.root->vlanAssignmentDel("R").get(), world.config->vlanAssignment()["R"]);
  EXPECT_THAT(world.traces.take(), ElementsAre(said(9, root(), kAssignment, "R"),
                                               said(3, root(), kAssignment, stamp())));
  EXPECT_TRUE(held->markedForDeletion());
  EXPECT_FALSE(held->hasNotificationActive());
  world.apply("assign R 30");
  EXPECT_EQ(world.vlans(), "assigned 10 allocated available 10");
  held->onVlan(30);
  EXPECT_EQ(world.vlans(), "assigned 10 allocated available 10");
  world.root->vlanAssignmentDel(world.root->vlanAssignment().iteratorAt("S"));
  EXPECT_THAT(world.root->vlanAssignment(), IsEmpty());
}

TEST_F(PoolTest, DeletingAllReactorsHandlesEveryRegion) {
  world.start("region R; assign R 10; assign S 20");
  world.traces.take();
  world.root->vlanAssignmentDelAll();
  EXPECT_THAT(world.root->vlanAssignment(), IsEmpty());
  EXPECT_THAT(world.traces.take(),
              testing::UnorderedElementsAre(said(9, root(), kAssignment, "R"),
                                            said(3, root(), kAssignment, stamp()),
                                            said(9, root(), kAssignment, "S")));
}

TEST_F(PoolTest, ANewConfigurationIsMirroredThenItsDriverApplied) {
  world.start("region R; assign R 10; assign S 20");
  const auto other = Kiv::make<OpenStack::Config>();
  other->vlanAssignmentIs("R")->vlanIs(50, true);
  world.traces.take();
  world.root->configIs(other);
  EXPECT_EQ(world.root->vlanAssignment().size(), 1U);
  EXPECT_EQ(world.root->vlanAssignment()["R"]->notifier(), other->vlanAssignment()["R"]);
  EXPECT_EQ(world.vlans(), "assigned 50 allocated available 50");
  const auto lines = world.traces.take();
  ASSERT_EQ(lines.size(), 6U);
  EXPECT_EQ(lines[0], said(9, root(), kAssignment, "R"));
  EXPECT_EQ(lines[2], said(9, root(), kAssignment, "S"));
  EXPECT_EQ(lines[3], said(9, root(), kDriver, ""));
  EXPECT_EQ(lines[4], said(9, root(), kAssignment, "R"));
  EXPECT_EQ(lines[5], said(3, root(), kAssignment, stamp()));
  world.apply("assign R 60; driver 1");
  EXPECT_EQ(world.vlans(), "assigned 50 allocated available 50");
  other->vlanAssignmentIs("R")->vlanIs(70, true);
  world.run();
  EXPECT_EQ(world.vlans(), "assigned 50 70 allocated available 50 70");
}

TEST_F(PoolTest, ANewConfigurationWithDriverOneEmptiesThePools) {
  world.start("region R; assign R 10");
  const auto other = Kiv::make<OpenStack::Config>();
  other->vlanTypeDriverIs(OpenStack::VlanTypeDriver::external);
  other->vlanAssignmentIs("R")->vlanIs(50, true);
  world.root->configIs(other);
  EXPECT_EQ(world.vlans(), "assigned allocated available");
}

TEST_F(PoolTest, TheSameConfigurationAgainDoesNothing) {
  world.start("region R; assign R 10");
  world.traces.take();
  world.root->configIs(world.config);
  EXPECT_THAT(world.traces.take(), IsEmpty());
}

TEST_F(PoolTest, ADroppedConfigurationIsNotObserved) {
  world.start("region R; assign R 10");
  const std::string before = uuid();
  world.root->configDel();
  EXPECT_FALSE(world.root->config());
  world.apply("driver 1; assign R 20; assign S 5");
  EXPECT_EQ(world.vlans(), "assigned 10 allocated available 10");
  EXPECT_EQ(uuid(), before);
  world.traces.take();
  world.root->handleVlanTypeDriver();
  world.root->handleRegionVlanAssignment("R");
  const auto lines = world.traces.take();
  ASSERT_EQ(lines.size(), 4U);
  EXPECT_EQ(lines[1], said(1, root(), kDriver, "No agent configuration"));
  EXPECT_EQ(lines[3], said(1, root(), kAssignment, "No agent configuration"));
}

TEST_F(PoolTest, AChangedVlanThatArrivesAfterItsConfigurationWasDroppedIsSkipped) {
  world.start("region R; assign R 10");
  const std::string before = uuid();
  const auto* found = world.root->vlanAssignment()["R"];
  ASSERT_NE(found, nullptr);
  const Kiv::Ptr<OpenStack::OpenStackSm::KivVlanAssignment> reactor(
      world.root->vlanAssignmentIs(Kiv::Ptr<const OpenStack::VlanAssignment>(found->notifier())));
  world.root->configDel();
  world.traces.take();
  reactor->handleVlanAssignment(10);
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(1, reactor.get(), kVlan, "No agent configuration")));
  EXPECT_EQ(uuid(), before);
}

TEST_F(PoolTest, WatchersOfTheConfigurationSeeNoOtherAttributeHandled) {
  world.start("region R; assign R 10");
  world.traces.take();
  world.config->enabledIs(true);
  world.config->mandatoryRegionIs("R");
  world.config->credentialsIs("c");
  world.config->defaultVlanTypeDriverIs(OpenStack::VlanTypeDriver::external);
  world.config->gracePeriodIs(3);
  world.config->agentModeIs("x");
  world.config->authRoleIs("y");
  world.run();
  EXPECT_THAT(world.traces.take(), IsEmpty());
}

}  // namespace
