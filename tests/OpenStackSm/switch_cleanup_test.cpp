// What the machine of a port behind a switch interface withdraws, under both answers of the feature
// toggle.
#include "tests/OpenStackSm/MachineTest.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kDoCleanup = "PortToSwitchInterfaceBindingSm::doCleanup()";
constexpr const char* kSegmentCleanup = "PortToSwitchInterfaceBindingSm::KivSegment::doCleanup()";

class SwitchCleanupTest : public SwitchTest {
 protected:
  void SetUp() override {
    world.start(
        "region R; segment vl vlan 10; segment vm vlan 20; segment vx vxlan 5000; "
        "segment vy vxlan 6000; segment ot 7 99; port n native; port m native");
    world.traces.take();
  }
  void apply(const std::string& text) {
    world.apply(text);
    world.traces.take();
  }
  const void* reactor(const char* port, Kiv::U8 level) {
    return world.switchSm(port)->segment()[level];
  }
  Lines vlans() {
    Lines kept;
    for (const std::string& line : world.published()) {
      if (line.find(" vlan ") != std::string::npos || line.find(" native ") != std::string::npos) {
        kept.push_back(line.substr(at().size() + 1));
      }
    }
    return kept;
  }
  static std::string removed(const void* reactor, const char* vlan, int left) {
    return said(2, reactor, kSegmentCleanup,
                std::string("Removing a reference to VLAN ") + vlan +
                    " on switchport sw:e1 which now has " + std::to_string(left) +
                    " references to it.");
  }
  // The interface of the switch port or element; null when it is not there.
  VirtualNetwork::Interface* interface() {
    if (on()) return world.resources->resourcesForSwitchport()[{"sw", "e1"}];
    auto* element = world.elements->networkElement()["sw"];
    return element == nullptr ? nullptr : element->physicalInterface()["e1"];
  }
};
class SwitchCleanupDeathTest : public SwitchCleanupTest {};

TEST_P(SwitchCleanupTest, ARemovedVlanIsTracedAndItsVniRemovedFirst) {
  apply("switch p sw e1 h1 0=vx 1=vl");
  const void* gone = reactor("p", 1);
  OutputWatch watch(world.statuses, world.resources, world.elements);
  world.change("switch p sw e1 h1 1=-");
  EXPECT_THAT(vlans(), IsEmpty());
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(9, gone, kSegmentCleanup, "p : vl"), removed(gone, "10", 0),
                          said(3, gone, kSegmentCleanup, "Removing vlan 10")));
  world.run();
  EXPECT_THAT(watch.take(),
              ElementsAre(at() + " vlan 10 vni 5000 for p gone", at() + " vlan 10 vni 5000 gone",
                          at() + " vlan 10 for p gone", at() + " vlan 10 gone"));
}

TEST_P(SwitchCleanupTest, ANativeVlanIsResetAfterTheVlanIsDeleted) {
  apply("switch n sw e1 h1 0=vl");
  const void* gone = reactor("n", 0);
  OutputWatch watch(world.statuses, world.resources, world.elements);
  world.change("switch n sw e1 h1 0=-");
  EXPECT_THAT(vlans(), IsEmpty());
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(9, gone, kSegmentCleanup, "n : vl"), removed(gone, "10", 0),
                          said(3, gone, kSegmentCleanup, "Removing vlan 10"),
                          said(3, gone, kSegmentCleanup, "Removing native vlan 10")));
  world.run();
  EXPECT_THAT(watch.take(), ElementsAre(at() + " vlan 10 for n gone", at() + " vlan 10 gone",
                                        at() + " native 0"));
}

TEST_P(SwitchCleanupTest, TwoPortsOfOneVlanAreCounted) {
  apply("switch p sw e1 h1 0=vl; switch q sw e1 h1 0=vl");
  const void* p = reactor("p", 0);
  const void* q = reactor("q", 0);
  EXPECT_THAT(vlans(), ElementsAre("vlan 10: p q"));
  world.change("switch p sw e1 h1 0=-");
  EXPECT_THAT(vlans(), ElementsAre("vlan 10: q"));
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(9, p, kSegmentCleanup, "p : vl"), removed(p, "10", 1)));
  world.change("switch q sw e1 h1 0=-");
  EXPECT_THAT(vlans(), IsEmpty());
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(9, q, kSegmentCleanup, "q : vl"), removed(q, "10", 0),
                          said(3, q, kSegmentCleanup, "Removing vlan 10")));
}

TEST_P(SwitchCleanupTest, TwoPortsOfOneVniAreCounted) {
  apply("switch p sw e1 h1 0=vx 1=vl; switch q sw e1 h1 0=vx 1=vl");
  world.apply("switch p sw e1 h1 1=-");
  EXPECT_THAT(vlans(), ElementsAre("vlan 10 vni 5000: q", "vlan 10: q"));
  expectRebuiltIsReached();
}

TEST_P(SwitchCleanupTest, ANativePortResetsTheNativeVlanThoughOthersUseIt) {
  apply("switch n sw e1 h1 0=vl; switch m sw e1 h1 0=vl");
  EXPECT_THAT(vlans(), ElementsAre("native 10", "vlan 10: m n"));
  const void* gone = reactor("n", 0);
  world.change("switch n sw e1 h1 0=-");
  EXPECT_THAT(vlans(), ElementsAre("vlan 10: m"));
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(9, gone, kSegmentCleanup, "n : vl"), removed(gone, "10", 1),
                          said(3, gone, kSegmentCleanup, "Removing native vlan 10")));
}

TEST_P(SwitchCleanupTest, ATaggedPortLeavesTheNativeVlan) {
  apply("switch n sw e1 h1 0=vl; switch p sw e1 h1 0=vl");
  world.apply("switch p sw e1 h1 0=-");
  EXPECT_THAT(vlans(), ElementsAre("native 10", "vlan 10: n"));
}

TEST_P(SwitchCleanupTest, RemovingOnlyTheVxlanWithdrawsNothing) {
  apply("switch n sw e1 h1 0=vx 1=vl 2=ot");
  const void* vx = reactor("n", 0);
  const void* ot = reactor("n", 2);
  OutputWatch watch(world.statuses, world.resources, world.elements);
  world.change("switch n sw e1 h1 0=-");
  world.change("switch n sw e1 h1 2=-");
  EXPECT_THAT(world.traces.take(), ElementsAre(said(9, vx, kSegmentCleanup, "n : vx"),
                                               said(9, ot, kSegmentCleanup, "n : ot")));
  world.run();
  EXPECT_EQ(watch.changes(), 0);
  EXPECT_THAT(vlans(), ElementsAre("native 10", "vlan 10 vni 5000: n", "vlan 10: n"));
}

TEST_P(SwitchCleanupTest, ATopVlanConsultsLevel255) {
  apply("switch p sw e1 h1 0=vl 255=vx; switch q sw e1 h1 0=vl 255=vx");
  EXPECT_THAT(vlans(), ElementsAre("vlan 10 vni 5000: p q", "vlan 10: p q"));
  world.apply("switch p sw e1 h1 0=-");
  EXPECT_THAT(vlans(), ElementsAre("vlan 10 vni 5000: q", "vlan 10: q"));
}

TEST_P(SwitchCleanupTest, AMissingVlanIsMadeOnlyToGoAgain) {
  apply("switch n sw e1 h1 0=vl");
  interface()->vlanDel(10);
  const void* gone = reactor("n", 0);
  world.change("switch n sw e1 h1 0=-");
  EXPECT_THAT(vlans(), IsEmpty());
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(9, gone, kSegmentCleanup, "n : vl"), removed(gone, "10", 0),
                          said(3, gone, kSegmentCleanup, "Removing vlan 10"),
                          said(3, gone, kSegmentCleanup, "Removing native vlan 10")));
}

TEST_P(SwitchCleanupTest, WithoutASwitchPortOrInterfaceACleanupReturnsQuietly) {
  apply("switch n sw e1 h1 0=vl");
  const void* gone = reactor("n", 0);
  if (on()) {
    world.resources->resourcesForSwitchportDel({"sw", "e1"});
  } else {
    world.elements->networkElement()["sw"]->physicalInterfaceDel("e1");
  }
  world.change("switch n sw e1 h1 0=-");
  EXPECT_THAT(world.traces.take(), ElementsAre(said(9, gone, kSegmentCleanup, "n : vl")));
}

TEST_P(SwitchCleanupTest, WithoutASwitchElementACleanupReturnsQuietly) {
  apply("switch n sw e1 h1 0=vl");
  const auto machine = world.switchSm("n");
  const void* segment = reactor("n", 0);
  world.resources->resourcesForSwitchportDel({"sw", "e1"});
  world.elements->networkElementDel("sw");
  machine->doCleanup();
  auto lines = world.traces.take();
  if (!on()) {
    ASSERT_EQ(lines.size(), 4U);
    EXPECT_EQ(lines.back(), said(2, machine.get(), kDoCleanup, "Deleting region R from host h1"));
    lines.pop_back();
    EXPECT_THAT(withoutHistory(world.published()), IsEmpty());
  }
  EXPECT_THAT(lines,
              ElementsAre(said(9, machine.get(), kDoCleanup, "Removing port n from sw : e1"),
                          said(9, machine.get(), kDoCleanup, "Port connected to segment : vlan10"),
                          said(9, segment, kSegmentCleanup, "n : vl")));
}

TEST_P(SwitchCleanupTest, TheWholeCleanupTakesEveryLevelThenTheBinding) {
  apply("switch n sw e1 h1 0=vx 1=vl");
  const auto machine = world.switchSm("n");
  const void* vx = reactor("n", 0);
  const void* vl = reactor("n", 1);
  machine->doCleanup();
  Lines expected = {said(9, machine.get(), kDoCleanup, "Removing port n from sw : e1"),
                    said(9, machine.get(), kDoCleanup, "Port connected to segment : vxlan5000"),
                    said(9, vx, kSegmentCleanup, "n : vx"),
                    said(9, machine.get(), kDoCleanup, "Port connected to segment : vlan10"),
                    said(9, vl, kSegmentCleanup, "n : vl"),
                    removed(vl, "10", 0),
                    said(3, vl, kSegmentCleanup, "Removing vlan 10"),
                    said(3, vl, kSegmentCleanup, "Removing native vlan 10")};
  if (!on()) {
    expected.push_back(said(2, machine.get(), kDoCleanup, "Deleting region R from host h1"));
    expected.push_back(said(2, machine.get(), kDoCleanup, "Removing interface : e1 from sw"));
  }
  EXPECT_EQ(world.traces.take(), expected);
  EXPECT_THAT(withoutHistory(world.published()), IsEmpty());
  EXPECT_EQ(machine->segment().size(), 2U);
  OutputWatch watch(world.statuses, world.resources, world.elements);
  machine->doCleanup();
  world.run();
  EXPECT_EQ(watch.changes(), 0);
}

TEST_P(SwitchCleanupTest, TheWholeCleanupWritesInOrder) {
  apply("switch p sw e1 h1");
  OutputWatch watch(world.statuses, world.resources, world.elements);
  world.apply("-bind p");
  if (on()) {
    EXPECT_THAT(watch.take(), ElementsAre("port sw:e1 for bm-p gone", "port sw:e1 gone"));
  } else {
    EXPECT_THAT(
        watch.take(),
        ElementsAre("element h1 domain R for p gone", "element h1 domain R gone",
                    "element h1 for bm-p gone", "element sw for bm-p gone",
                    "element sw interface e1 configured h1 gone", "element sw interface e1 gone"));
  }
}

TEST_P(SwitchCleanupTest, TheWholeCleanupSkipsALevelWithoutAReactor) {
  apply("switch p sw e1 h1 0=vl 1=vm");
  const auto machine = world.switchSm("p");
  machine->segmentDel(0);
  world.traces.take();
  machine->doCleanup();
  const auto lines = world.traces.take();
  ASSERT_GE(lines.size(), 4U);
  EXPECT_EQ(lines[2], said(1, machine.get(), kDoCleanup, "No reactor at level 0"));
  EXPECT_EQ(lines[3], said(9, machine.get(), kDoCleanup, "Port connected to segment : vlan20"));
  EXPECT_THAT(withoutHistory(world.published()), IsEmpty());
}

TEST_P(SwitchCleanupTest, ASharedSwitchPortIsDeletedWithItsLastPort) {
  apply("switch p sw e1 h1 0=vl; switch q sw e1 h2 0=vl");
  if (on()) {
    EXPECT_THAT(world.published(), ElementsAre("port sw:e1 remote: h1 h2",
                                               "port sw:e1 vlan 10: p q", "port sw:e1: bm-p bm-q"));
  } else {
    EXPECT_THAT(world.published(), testing::Contains("element sw interface e1: h1 h2"));
  }
  apply("-bind p");
  if (on()) {
    EXPECT_THAT(world.published(), ElementsAre("port sw:e1 remote: h1 h2", "port sw:e1 vlan 10: q",
                                               "port sw:e1: bm-q"));
  } else {
    EXPECT_THAT(withoutHistory(world.published()),
                ElementsAre("element h2 domain R: q", "element h2: bm-q",
                            "element sw interface e1 vlan 10: q", "element sw interface e1: h2",
                            "element sw: bm-q"));
  }
  expectRebuiltIsReached();
  apply("-bind q");
  EXPECT_THAT(withoutHistory(world.published()), IsEmpty());
}

TEST_P(SwitchCleanupTest, TheEndRunsTheCleanupOfEachSegmentOnly) {
  apply("switch n sw e1 h1 0=vx 1=vl");
  const auto sm = world.portSm("n");
  const Kiv::Ptr<OpenStack::PortToSwitchInterfaceBindingSm::KivSegment> vx(
      world.switchSm("n")->segment()[0]);
  const Kiv::Ptr<OpenStack::PortToSwitchInterfaceBindingSm::KivSegment> vl(
      world.switchSm("n")->segment()[1]);
  sm->portToSwitchInterfaceBindingSmDelAll();
  EXPECT_THAT(vlans(), IsEmpty());
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(9, vx.get(), kSegmentCleanup, "n : vx"),
                          said(9, vl.get(), kSegmentCleanup, "n : vl"), removed(vl.get(), "10", 0),
                          said(3, vl.get(), kSegmentCleanup, "Removing vlan 10"),
                          said(3, vl.get(), kSegmentCleanup, "Removing native vlan 10")));
  if (on()) {
    EXPECT_THAT(world.published(), ElementsAre("port sw:e1 remote: h1", "port sw:e1: bm-n"));
  } else {
    EXPECT_THAT(world.published(), testing::Contains("element sw interface e1: h1"));
  }
  sm->handleInitialized();
}

// With the toggle off: when interfaces go.

class ElementCleanupTest : public SwitchCleanupTest {};

TEST_P(ElementCleanupTest, AHostWithAnotherPortOnTheSameInterfaceKeepsIt) {
  apply("switch p sw e1 h1; switch q sw e1 h1");
  const auto machine = world.switchSm("p");
  world.change("-switch p sw e1");
  EXPECT_THAT(world.published(),
              ElementsAre("element h1 domain R: q", "element h1 hostname h1", "element h1: bm-q",
                          "element sw interface e1: h1", "element sw: bm-q"));
  EXPECT_EQ(world.traces.take().back(),
            said(9, machine.get(), kDoCleanup, "Removing port p from sw : e1"));
  world.run();
  expectRebuiltIsReached();
}

TEST_P(ElementCleanupTest, AHostWithAPortOnAnotherInterfaceKeepsTheFirstInterfaceForGood) {
  apply("switch p sw e1 h1; switch q sw e2 h1");
  apply("-bind p");
  EXPECT_THAT(world.published(), ElementsAre("element h1 domain R: q", "element h1 hostname h1",
                                             "element h1: bm-q", "element sw interface e1: h1",
                                             "element sw interface e2: h1", "element sw: bm-q"));
  apply("-bind q");
  EXPECT_THAT(world.published(), ElementsAre("element h1 hostname h1", "element h1:",
                                             "element sw interface e1: h1", "element sw:"));
  leaves({"element sw interface e1: h1"});
}

TEST_P(ElementCleanupTest, AnInterfaceWithAVlanOrAnotherElementStays) {
  apply("switch p sw e1 h1");
  world.elements->networkElement()["sw"]->physicalInterface()["e1"]->vlanIs(77);
  apply("-bind p");
  EXPECT_THAT(world.published(), ElementsAre("element h1 hostname h1",
                                             "element h1:", "element sw interface e1 vlan 77:",
                                             "element sw interface e1:", "element sw:"));
  leaves({"element sw interface e1 vlan 77:", "element sw interface e1:"});
}

TEST_P(ElementCleanupTest, WithoutAHostElementTheInterfaceIsDeleted) {
  apply("switch p sw e1 h1");
  const auto machine = world.switchSm("p");
  world.elements->networkElementDel("h1");
  machine->doCleanup();
  EXPECT_THAT(world.published(), ElementsAre("element sw:"));
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(9, machine.get(), kDoCleanup, "Removing port p from sw : e1"),
                          said(2, machine.get(), kDoCleanup, "Removing interface : e1 from sw")));
}

TEST_P(ElementCleanupTest, WithoutADomainTheReferrersAreRemovedToo) {
  apply("switch p sw e1 h1");
  world.elements->networkElement()["h1"]->domainDel("R");
  const auto machine = world.switchSm("p");
  machine->doCleanup();
  EXPECT_THAT(world.published(),
              ElementsAre("element h1 hostname h1", "element h1:", "element sw:"));
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(9, machine.get(), kDoCleanup, "Removing port p from sw : e1"),
                          said(2, machine.get(), kDoCleanup, "Removing interface : e1 from sw")));
}

TEST_P(ElementCleanupTest, AHostThatIsTheSwitchItself) {
  apply("switch p h1 e1 h1 0=vl");
  EXPECT_THAT(world.published(), ElementsAre("element h1 domain R: p", "element h1 hostname h1",
                                             "element h1 interface e1 vlan 10: p",
                                             "element h1 interface e1: h1", "element h1: bm-p"));
  apply("-bind p");
  EXPECT_THAT(world.published(), ElementsAre("element h1 hostname h1", "element h1:"));
}

INSTANTIATE_TEST_SUITE_P(Off, ElementCleanupTest, testing::Values(false), toggleName);

TEST_P(SwitchCleanupDeathTest, AReactorOfAnotherMachine) {
  apply("switch p sw e1 h1 0=vl; switch q sw e1 h1 0=vm");
  const auto machine = world.switchSm("p");
  const auto other = world.switchSm("q");
  EXPECT_DEATH(machine->withdrawSegment(*other->segment()[0]), stops("found", "doCleanup"));
  // The level is looked for before the target.
  world.resources->resourcesForSwitchportDelAll();
  world.elements->networkElementDelAll();
  EXPECT_DEATH(machine->withdrawSegment(*other->segment()[0]), stops("found", "doCleanup"));
}

INSTANTIATE_TEST_SUITE_P(Toggles, SwitchCleanupTest, bothToggles(), toggleName);
INSTANTIATE_TEST_SUITE_P(Toggles, SwitchCleanupDeathTest, bothToggles(), toggleName);

}  // namespace
