// What the machine of a port behind a switch interface publishes for its segments, under both
// answers of the feature toggle.
#include "tests/OpenStackSm/MachineTest.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kInitialized = "PortToSwitchInterfaceBindingSm::handleInitialized()";
constexpr const char* kSegment = "PortToSwitchInterfaceBindingSm::handleSegment(U8)";
constexpr const char* kSegmentCleanup = "PortToSwitchInterfaceBindingSm::KivSegment::doCleanup()";

class SwitchSegmentTest : public SwitchTest {
 protected:
  void SetUp() override {
    world.start(
        "region R; segment vl vlan 10; segment vm vlan 20; segment vx vxlan 5000; "
        "segment vy vxlan 6000; segment ot 7 99; port n native; bind p; bind n");
    world.traces.take();
  }
  void bind(const std::string& levels, const std::string& port = "p") {
    world.apply("switch " + port + " sw e1 h1 " + levels);
    world.traces.take();
  }
  const OpenStack::PortToSwitchInterfaceBindingSm* sm(const char* port = "p") {
    return world.switchSm(port).get();
  }
  // The lines of VLANs and native VLANs, from " vlan" or " native" on; all must be where they
  // belong.
  Lines vlans() {
    Lines kept;
    for (const std::string& line : world.published()) {
      if (line.find(" vlan ") == std::string::npos && line.find(" native ") == std::string::npos) {
        continue;
      }
      EXPECT_TRUE(line.starts_with(at() + " ")) << line;
      kept.push_back(line.substr(at().size() + 1));
    }
    return kept;
  }
  std::string entry(const char* port = "p") {
    return said(9, sm(port), kSegment, std::string(port) + " is on sw:e1");
  }
  std::string bound(const std::string& what, const char* port = "p") {
    return said(2, sm(port), kSegment, "Port on sw:e1 bound to segment " + what);
  }
  std::string adding(const std::string& vlan, const std::string& references,
                     const char* port = "p") {
    return said(2, sm(port), kSegment, "Adding VLAN " + vlan + " on switchport sw : e1") + "|" +
           said(2, sm(port), kSegment,
                "VLAN " + vlan + " on switchport sw : e1 now host " + references +
                    " references to it.");
  }
  static std::string joined(const Lines& lines) {
    std::string text;
    for (const std::string& line : lines) text += (text.empty() ? "" : "|") + line;
    return text;
  }
};
class SwitchSegmentDeathTest : public SwitchSegmentTest {};
// With the toggle off.
class ElementSegmentDeathTest : public SwitchSegmentTest {};

TEST_P(SwitchSegmentTest, AVlanAtTheTopIsPublishedForThePort) {
  bind("");
  world.apply("switch p sw e1 h1 0=vl");
  EXPECT_THAT(vlans(), ElementsAre("vlan 10: p"));
  EXPECT_EQ(joined(world.traces.take()),
            joined({entry(), bound("vl : vlan : 10 at level : 0"), adding("10", "1")}));
  expectRebuiltIsReached();
}

TEST_P(SwitchSegmentTest, ConstructionHandlesEverySegmentInTheOrderOfLevels) {
  world.apply("switch p sw e1 h1 0=vx 1=vl");
  auto lines = world.traces.take();
  ASSERT_GE(lines.size(), 8U);
  lines.erase(lines.begin(), lines.end() - 8);
  EXPECT_EQ(
      joined(lines),
      joined({said(9, sm(), kInitialized, ""), entry(), bound("vx : vxlan : 5000 at level : 0"),
              said(2, sm(), kSegment, "Establishing a VNI to VLAN mapping from 5000 to 10"),
              entry(), bound("vl : vlan : 10 at level : 1"), adding("10", "1")}));
  EXPECT_THAT(vlans(), ElementsAre("vlan 10 vni 5000: p", "vlan 10: p"));
}

TEST_P(SwitchSegmentTest, ANativePortMakesItsVlanNative) {
  bind("", "n");
  world.apply("switch n sw e1 h1 0=vl");
  EXPECT_THAT(vlans(), ElementsAre("native 10", "vlan 10: n"));
  EXPECT_EQ(joined(world.traces.take()),
            joined({entry("n"), bound("vl : vlan : 10 at level : 0", "n"), adding("10", "1", "n"),
                    said(3, sm("n"), kSegment, "Adding native vlan 10")}));
}

TEST_P(SwitchSegmentTest, OtherVlanTypesAreTagged) {
  world.port("n")->vlanTypeIs(static_cast<OpenStack::VlanType>(2));
  bind("0=vl", "n");
  EXPECT_THAT(vlans(), ElementsAre("vlan 10: n"));
}

TEST_P(SwitchSegmentTest, TheLastVlanHandledForANativePortIsTheNativeOne) {
  bind("0=vl 1=vm", "n");
  EXPECT_THAT(vlans(), ElementsAre("native 20", "vlan 10: n", "vlan 20: n"));
  world.switchSm("n")->handleSegment(0);
  EXPECT_THAT(vlans(), ElementsAre("native 10", "vlan 10: n", "vlan 20: n"));
}

TEST_P(SwitchSegmentTest, AVxlanOfANativePortTouchesNoNativeVlan) {
  bind("0=vx 1=vl", "n");
  world.apply("switch n sw e1 h1 1=-");
  EXPECT_THAT(vlans(), IsEmpty());
  world.apply("switch n sw e1 h1 0=vy");
  EXPECT_THAT(vlans(), IsEmpty());
}

TEST_P(SwitchSegmentTest, AVxlanOverAVlanMapsAndLeavesTheVlansOwnReferrer) {
  bind("0=vx", "n");
  const auto machine = world.switchSm("n");
  machine->hasNotificationActiveIs(false);
  world.apply("switch n sw e1 h1 1=vl");
  world.traces.take();
  machine->handleSegment(0);
  EXPECT_THAT(vlans(), ElementsAre("vlan 10 vni 5000: n", "vlan 10:"));
  EXPECT_EQ(
      joined(world.traces.take()),
      joined({entry("n"), bound("vx : vxlan : 5000 at level : 0", "n"),
              said(2, sm("n"), kSegment, "Establishing a VNI to VLAN mapping from 5000 to 10")}));
  machine->hasNotificationActiveIs(true);
  machine->segmentIs(1, world.segment("vl"));
  machine->handleSegment(1);
  EXPECT_THAT(vlans(), ElementsAre("native 10", "vlan 10 vni 5000: n", "vlan 10: n"));
}

TEST_P(SwitchSegmentTest, AVlanUnderAVxlanIsMappedWithoutATraceLine) {
  bind("");
  world.apply("switch p sw e1 h1 0=vx");
  world.traces.take();
  world.apply("switch p sw e1 h1 1=vl");
  EXPECT_EQ(joined(world.traces.take()),
            joined({entry(), bound("vl : vlan : 10 at level : 1"), adding("10", "1")}));
  EXPECT_THAT(vlans(), ElementsAre("vlan 10 vni 5000: p", "vlan 10: p"));
}

TEST_P(SwitchSegmentTest, WritesFollowTheirOrder) {
  bind("0=vx", "n");
  OutputWatch watch(world.statuses, world.resources, world.elements);
  world.apply("switch n sw e1 h1 1=vl");
  EXPECT_THAT(watch.take(),
              ElementsAre(at() + " vlan 10", at() + " vlan 10 for n", at() + " native 10",
                          at() + " vlan 10 vni 5000", at() + " vlan 10 vni 5000 for n"));
}

TEST_P(SwitchSegmentTest, OtherNeighboursCarryNoVni) {
  bind("0=vl 1=vm 2=vx 3=vy 4=ot 5=vl");
  EXPECT_THAT(vlans(), ElementsAre("vlan 10: p", "vlan 20: p"));
}

TEST_P(SwitchSegmentTest, AnotherTypeIsTracedAndPublishesNothing) {
  bind("");
  world.apply("switch p sw e1 h1 2=ot");
  EXPECT_EQ(joined(world.traces.take()), joined({entry(), bound("ot : 7 : 99 at level : 2")}));
  EXPECT_THAT(vlans(), IsEmpty());
}

TEST_P(SwitchSegmentTest, ALevelWithoutASegmentTracesTheEntryOnly) {
  bind("0=vl");
  world.change("switch p sw e1 h1 0=-");
  world.traces.take();
  world.run();
  EXPECT_THAT(world.traces.take(), ElementsAre(entry()));
}

TEST_P(SwitchSegmentTest, TheLevelIsPrintedAsOneByte) {
  bind("");
  const std::vector<std::pair<std::string, char>> bytes = {
      {"1", '1'}, {"9", '9'}, {"10", ':'}, {"12", '<'}, {"255", '/'}};
  for (const auto& [level, byte] : bytes) {
    world.apply("switch p sw e1 h1 " + level + "=ot");
    EXPECT_EQ(joined(world.traces.take()),
              joined({entry(), bound(std::string("ot : 7 : 99 at level : ") + byte)}));
    world.apply("switch p sw e1 h1 " + level + "=-");
    world.traces.take();
  }
}

TEST_P(SwitchSegmentTest, PortsAreCounted) {
  world.apply("switch p sw e1 h1 0=vl");
  bind("", "n");
  world.apply("switch n sw e1 h1 0=vl");
  EXPECT_EQ(joined(world.traces.take()),
            joined({entry("n"), bound("vl : vlan : 10 at level : 0", "n"), adding("10", "2", "n"),
                    said(3, sm("n"), kSegment, "Adding native vlan 10")}));
  EXPECT_THAT(vlans(), ElementsAre("native 10", "vlan 10: n p"));
}

TEST_P(SwitchSegmentTest, HandlingASegmentAgainAddsNothing) {
  bind("0=vx 1=vl");
  OutputWatch watch(world.statuses, world.resources, world.elements);
  world.switchSm("p")->handleInitialized();
  world.run();
  EXPECT_EQ(watch.changes(), 0);
  EXPECT_THAT(watch.take(), IsEmpty());
}

TEST_P(SwitchSegmentTest, BeforeInitializationSegmentsAreMirroredOnly) {
  bind("");
  world.switchSm("p")->initializedIs(false);
  world.apply("switch p sw e1 h1 0=vl");
  EXPECT_THAT(world.traces.take(), IsEmpty());
  EXPECT_THAT(vlans(), IsEmpty());
  EXPECT_TRUE(sm()->segment().contains(0));
  world.switchSm("p")->handleInitialized();
  EXPECT_THAT(vlans(), ElementsAre("vlan 10: p"));
}

TEST_P(SwitchSegmentTest, AReplacedSegmentIsWithdrawnBeforeTheNewOneIsPublished) {
  bind("0=vx 1=vl");
  const void* gone = sm()->segment()[1];
  world.change("switch p sw e1 h1 1=vm");
  EXPECT_THAT(vlans(), IsEmpty());
  EXPECT_EQ(world.traces.take().front(), said(9, gone, kSegmentCleanup, "p : vl"));
  world.run();
  EXPECT_THAT(vlans(), ElementsAre("vlan 20 vni 5000: p", "vlan 20: p"));
  expectRebuiltIsReached();
}

TEST_P(SwitchSegmentTest, AnEmptyInterfaceOrSwitchNamePublishesNoSegments) {
  for (const auto& [name, printed] :
       std::vector<std::pair<std::string, std::string>>{{"sw -", "sw:"}, {"- e1", ":e1"}}) {
    world.apply("switch p " + name + " h1");
    const auto machine = world.switchSm("p");
    world.traces.take();
    world.apply("switch p " + name + " h1 0=vl");
    EXPECT_THAT(world.traces.take(),
                ElementsAre(said(9, machine.get(), kSegment, "p is on " + printed),
                            said(1, machine.get(), kSegment, "Map is empty!!!")));
    machine->handleSegment(4);
    EXPECT_THAT(world.traces.take(),
                ElementsAre(said(9, machine.get(), kSegment, "p is on " + printed),
                            said(1, machine.get(), kSegment, "Map is empty!!!")));
    for (const std::string& line : world.published()) {
      EXPECT_EQ(line.find(" vlan "), std::string::npos) << line;
    }
    world.apply("-bind p; bind p");
  }
}

TEST_P(SwitchSegmentTest, TheOtherCollectionIsNotWritten) {
  bind("0=vx 1=vl", "n");
  EXPECT_THAT(world.resources->resourcesForHostname(), IsEmpty());
  EXPECT_EQ(world.resources->resourcesForSwitchport().empty(), !on());
  EXPECT_EQ(world.elements->networkElement().empty(), on());
}

TEST_P(SwitchSegmentTest, ANewBindingIsMirroredAndTheOldSegmentsWithdrawn) {
  bind("0=vl 1=vm");
  const auto machine = world.switchSm("p");
  const auto other = Kiv::make<OpenStack::PortToSwitchInterfaceBinding>(
      VirtualNetwork::SwitchInterface("sw", "e1"));
  other->hostIs("h1");
  other->segmentIs(1, world.segment("vm"));
  machine->portToSwitchInterfaceBindingIs(other);
  EXPECT_EQ(machine->portToSwitchInterfaceBinding(), other);
  EXPECT_THAT(vlans(), ElementsAre("vlan 20: p"));
  other->segmentIs(2, world.segment("vl"));
  world.run();
  EXPECT_THAT(vlans(), ElementsAre("vlan 10: p", "vlan 20: p"));
  other->segmentDelAll();
  EXPECT_THAT(vlans(), IsEmpty());
  machine->portToSwitchInterfaceBindingDel();
  EXPECT_FALSE(machine->portToSwitchInterfaceBinding());
  // A new reactor mirrors at once.
  machine->portToSwitchInterfaceBindingIs(world.switchBinding("p"));
  EXPECT_THAT(machine->segment(), testing::SizeIs(2));
  world.apply("switch p sw e1 h1 0=-");
  EXPECT_FALSE(machine->segment().contains(0));
  EXPECT_TRUE(machine->segment().contains(1));
}

// What stops the process: the owner has not published what the segments need.

TEST_P(SwitchSegmentDeathTest, AMissingSwitchPortOrSwitchElement) {
  bind("");
  if (on()) {
    world.resources->resourcesForSwitchportDel({"sw", "e1"});
  } else {
    world.elements->networkElementDel("sw");
  }
  EXPECT_DEATH(world.apply("switch p sw e1 h1 0=vl"),
               stops(on() ? "switchPort" : "switchElement", "handleSegment"));
}

TEST_P(ElementSegmentDeathTest, AMissingHostElement) {
  bind("");
  world.elements->networkElementDel("h1");
  EXPECT_DEATH(world.apply("switch p sw e1 h1 0=vx"), stops("hostElement", "handleSegment"));
}

TEST_P(ElementSegmentDeathTest, AMissingInterface) {
  bind("");
  world.elements->networkElement()["sw"]->physicalInterfaceDel("e1");
  EXPECT_DEATH(world.apply("switch p sw e1 h1 0=ot"), stops("interface", "handleSegment"));
}

TEST_P(SwitchSegmentDeathTest, AMachineMadeByHandWithoutAnythingPublished) {
  const auto binding = Kiv::make<OpenStack::PortToSwitchInterfaceBinding>(
      VirtualNetwork::SwitchInterface("sw", "e1"));
  binding->segmentIs(0, world.segment("vl"));
  EXPECT_DEATH(static_cast<void>(OpenStack::portToSwitchInterfaceBindingSmFactory(
                   {"sw", "e1"}, "R", world.port("p"), binding, world.resources, world.elements)),
               stops(on() ? "switchPort" : "switchElement", "handleSegment"));
}

TEST_P(SwitchSegmentTest, ALevelWithoutASegmentNeedsNothingPublished) {
  bind("");
  world.resources->resourcesForSwitchportDel({"sw", "e1"});
  world.elements->networkElementDelAll();
  world.switchSm("p")->handleSegment(0);
  EXPECT_THAT(world.traces.take(), ElementsAre(entry()));
}

INSTANTIATE_TEST_SUITE_P(Toggles, SwitchSegmentTest, bothToggles(), toggleName);
INSTANTIATE_TEST_SUITE_P(Toggles, SwitchSegmentDeathTest, bothToggles(), toggleName);
INSTANTIATE_TEST_SUITE_P(Off, ElementSegmentDeathTest, testing::Values(false), toggleName);

}  // namespace
