// Segments and port bindings of a region.
#include "tests/OpenStackSm/MachineTest.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

constexpr const char* kSegment = "RegionConfigSm::handleSegment(Kiv::String)";
constexpr const char* kSegmentCleanup = "RegionConfigSm::KivSegment::handleCleanup()";
constexpr const char* kPortBinding = "RegionConfigSm::handlePortBinding(Kiv::String)";
constexpr const char* kPortCleanup = "RegionConfigSm::KivPortBinding::handleCleanup()";
constexpr const char* kPortInitialized = "PortBindingSm::handleInitialized()";
constexpr const char* kPortDoCleanup = "PortBindingSm::doCleanup()";

class SegmentTest : public MachineTest {
 protected:
  const void* sm() { return world.regionSm().get(); }
  const void* reactor(const char* id) { return world.regionSm()->segment()[id]; }
};

TEST_F(SegmentTest, AnAssignedVlanIsAllocatedAndReturned) {
  world.start("region R; assign R 10 20");
  world.traces.take();
  world.apply("segment vl vlan 10");
  EXPECT_EQ(world.vlans(), "assigned 10 20 allocated 10 available 20");
  EXPECT_EQ(world.rebuiltVlans(), world.vlans());
  EXPECT_THAT(world.traces.take(), ElementsAre(said(9, sm(), kSegment, "vl"),
                                               said(2, sm(), kSegment, "Segment vl created")));
  const void* gone = reactor("vl");
  world.apply("-segment vl");
  EXPECT_EQ(world.vlans(), "assigned 10 20 allocated available 10 20");
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(9, gone, kSegmentCleanup, "vl"), said(9, sm(), kSegment, "vl"),
                          said(2, sm(), kSegment, "Segment vl deleted")));
}

TEST_F(SegmentTest, AVlanOutsideTheAssignmentIsAllocatedAndNotMadeAvailable) {
  world.start("region R; assign R 20");
  world.apply("segment vl vlan 10");
  EXPECT_EQ(world.vlans(), "assigned 20 allocated 10 available 20");
  world.apply("-segment vl");
  EXPECT_EQ(world.vlans(), "assigned 20 allocated available 20");
}

TEST_F(SegmentTest, AFalseEntryOfAssignedCountsAsNotAssigned) {
  world.start("region R");
  world.pool()->assignedVlanIs(10, false);
  world.pool()->availableVlanIs(10, true);
  world.apply("segment vl vlan 10");
  EXPECT_EQ(world.vlans(), "assigned !10 allocated 10 available 10");
  world.pool()->availableVlanDel(10);
  world.apply("-segment vl");
  EXPECT_EQ(world.vlans(), "assigned !10 allocated available");
}

TEST_F(SegmentTest, TwoSegmentsOfOneVlanAreNotCounted) {
  world.start("region R; assign R 10; segment a vlan 10; segment b vlan 10");
  EXPECT_EQ(world.vlans(), "assigned 10 allocated 10 available");
  world.apply("-segment a");
  EXPECT_EQ(world.vlans(), "assigned 10 allocated available 10");
  world.apply("-segment b");
  EXPECT_EQ(world.vlans(), "assigned 10 allocated available 10");
}

TEST_F(SegmentTest, OtherSegmentsChangeNothingInThePool) {
  world.start("region R; assign R 10");
  OutputWatch watch(world.statuses, world.resources, world.elements);
  world.traces.take();
  world.apply("segment vx vxlan 10");
  EXPECT_THAT(world.traces.take(), ElementsAre(said(9, sm(), kSegment, "vx"),
                                               said(2, sm(), kSegment, "Segment vx created"),
                                               said(2, sm(), kSegment, "Ignoring vxlan segment")));
  world.apply("segment x 7 10");
  EXPECT_THAT(world.traces.take(), ElementsAre(said(9, sm(), kSegment, "x"),
                                               said(2, sm(), kSegment, "Segment x created"),
                                               said(2, sm(), kSegment, "Ignoring 7 segment")));
  const void* gone = reactor("vx");
  world.apply("-segment vx");
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(9, gone, kSegmentCleanup, "vx"), said(9, sm(), kSegment, "vx"),
                          said(2, sm(), kSegment, "Segment vx deleted")));
  world.apply("-segment x");
  EXPECT_THAT(watch.take(), IsEmpty());
}

TEST_F(SegmentTest, ThePoolTakesTheLowSixteenBits) {
  world.start("region R; assign R 10");
  world.apply("segment vl vlan 65546");
  EXPECT_EQ(world.vlans(), "assigned 10 allocated 10 available");
  world.apply("-segment vl");
  EXPECT_EQ(world.vlans(), "assigned 10 allocated available 10");
}

TEST_F(SegmentTest, HandlingASegmentAgainWritesNothing) {
  world.start("region R; assign R 10; segment vl vlan 10");
  OutputWatch watch(world.statuses, world.resources, world.elements);
  world.regionSm()->handleSegment("vl");
  world.run();
  EXPECT_EQ(watch.changes(), 0);
  EXPECT_THAT(watch.take(), IsEmpty());
}

TEST_F(SegmentTest, AllocationLeavesAvailableFirst) {
  world.start("region R; assign R 10");
  OutputWatch watch(world.statuses, world.resources, world.elements);
  world.apply("segment vl vlan 10");
  EXPECT_THAT(watch.take(),
              ElementsAre("status R pool available 10 gone", "status R pool allocated 10"));
  world.apply("-segment vl");
  EXPECT_THAT(watch.take(),
              ElementsAre("status R pool allocated 10 gone", "status R pool available 10"));
}

TEST_F(SegmentTest, ASegmentAddedAndRemovedBeforeTheLoopRunsIsTracedAsDeletedOnly) {
  world.start("region R; assign R 10");
  world.traces.take();
  world.change("segment vl vlan 10");
  const void* gone = reactor("vl");
  world.apply("-segment vl");
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(9, gone, kSegmentCleanup, "vl"), said(9, sm(), kSegment, "vl"),
                          said(2, sm(), kSegment, "Segment vl deleted")));
  EXPECT_EQ(world.vlans(), "assigned 10 allocated available 10");
}

TEST_F(SegmentTest, AReplacedSegmentRepointsItsReactorAndKeepsTheOldVlan) {
  world.start("region R; assign R 10 11; segment vl vlan 10");
  const void* before = reactor("vl");
  const auto other = Kiv::make<OpenStack::Segment>("vl");
  other->segmentationIdIs(11);
  world.traces.take();
  world.region()->segmentIs(other);
  EXPECT_THAT(world.traces.take(), IsEmpty());
  EXPECT_EQ(reactor("vl"), before);
  world.run();
  EXPECT_EQ(world.vlans(), "assigned 10 11 allocated 10 11 available");
  world.apply("-segment vl");
  EXPECT_EQ(world.vlans(), "assigned 10 11 allocated 10 available 11");
}

TEST_F(SegmentTest, AChangedAttributeOfASegmentIsNotObserved) {
  world.start("region R; segment vl vlan 10");
  world.traces.take();
  world.segment("vl")->segmentationIdIs(11);
  world.run();
  EXPECT_THAT(world.traces.take(), IsEmpty());
  EXPECT_EQ(world.vlans(), "assigned allocated 10 available");
}

TEST_F(SegmentTest, WithoutAPoolASegmentIsSkipped) {
  world.start("region R");
  world.regionStatus()->vlanPoolDel();
  world.traces.take();
  world.apply("segment vl vlan 10");
  auto lines = world.traces.take();
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_EQ(lines[2], said(1, world.regionSm().get(), kSegment, "No VLAN pool in region R"));
  const void* reactor = world.regionSm()->segment()["vl"];
  world.change("-segment vl");
  lines = world.traces.take();
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines[1], said(1, reactor, kSegmentCleanup, "No VLAN pool in region R"));
}

TEST_F(SegmentTest, PoolsOfRegionsAreIndependent) {
  world.start("region R; assign R 10; assign S 10; segment vl vlan 10; region S");
  EXPECT_EQ(world.vlans(), "assigned 10 allocated available 10");
  world.change("region R");
  EXPECT_EQ(world.vlans(), "assigned 10 allocated 10 available");
}

// Port bindings.

TEST_F(SegmentTest, AnAddedBindingGetsAMachineWithTheRegionsArguments) {
  world.start("region R");
  world.traces.take();
  world.apply("bind p");
  const auto child = world.portSm("p");
  ASSERT_TRUE(child);
  EXPECT_EQ(child->regionName(), "R");
  EXPECT_EQ(child->portId(), "p");
  EXPECT_EQ(child->port(), world.port("p"));
  EXPECT_EQ(child->portBinding(), world.binding("p"));
  EXPECT_EQ(child->requestedResourcesCollection(), world.resources);
  EXPECT_EQ(child->networkElementCollection(), world.elements);
  EXPECT_TRUE(child->hasNotificationActive());
  EXPECT_THAT(world.traces.take(), ElementsAre(said(9, sm(), kPortBinding, "p"),
                                               said(9, child.get(), kPortInitialized, "")));
}

TEST_F(SegmentTest, ARemovedBindingsMachineIsCleanedUpThenDeletedAtOnce) {
  world.start("region R; bind p");
  const void* reactor = world.regionSm()->portBinding()["p"];
  const void* child = world.portSm("p").get();
  world.traces.take();
  world.change("-bind p");
  EXPECT_FALSE(world.portSm("p"));
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(9, reactor, kPortCleanup, "p"), said(9, child, kPortDoCleanup, "")));
  world.run();
  EXPECT_THAT(world.traces.take(), ElementsAre(said(9, sm(), kPortBinding, "p")));
}

TEST_F(SegmentTest, ABindingRemovedBeforeItsMachineIsMadeIsSkipped) {
  world.start("region R");
  world.change("bind p");
  const void* reactor = world.regionSm()->portBinding()["p"];
  world.traces.take();
  world.change("-bind p");
  const auto lines = world.traces.take();
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines[0], said(9, reactor, kPortCleanup, "p"));
  EXPECT_EQ(lines[1], said(1, reactor, kPortCleanup, "No port binding machine for p"));
  world.run();
  EXPECT_FALSE(world.portSm("p"));
}

TEST_F(SegmentTest, AReplacedBindingIsRefusedAndTheOldMachineStays) {
  world.start("region R; segment vl vlan 10; host p h1 0=vl");
  const auto child = world.portSm("p");
  const auto old = world.binding("p");
  const auto other = Kiv::make<OpenStack::PortBinding>("p");
  other->portIs(world.port("p"));
  world.region()->portBindingIs(other);
  EXPECT_THAT(thrown<Kiv::NameInUseException>([&] { world.run(); }),
              StartsWith("Reinstantiating the pointer interface where constructor parameter "
                         "attribute _portBinding has a different value of "));
  EXPECT_EQ(world.portSm("p"), child);
  EXPECT_EQ(child->portBinding(), old);
  world.apply("-bind p");
  EXPECT_FALSE(world.portSm("p"));
}

TEST_F(SegmentTest, ABindingThatIsRemovedAndAddedBeforeTheLoopGetsANewMachine) {
  world.start("region R; segment vl vlan 10; host p h1 0=vl");
  const auto child = world.portSm("p");
  world.change("-bind p");
  world.apply("host p h2 0=vl");
  EXPECT_NE(world.portSm("p"), child);
  EXPECT_THAT(world.published(),
              ElementsAre("host h1", "host h2", "host h2 domain R: p", "host h2 vlan 10: p"));
  expectRebuiltIsReached();
}

}  // namespace
