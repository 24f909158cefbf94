// Bindings of ports to switch interfaces: the switch port or the network elements, under both
// answers of the feature toggle, and the rules that stop the process.
#include "tests/OpenStackSm/MachineTest.h"

namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

constexpr const char* kSwitch =
    "PortBindingSm::handlePortToSwitchInterfaceBinding(const VirtualNetwork::SwitchInterface&)";
constexpr const char* kDoCleanup =
    "PortBindingSm::doCleanupPortToSwitchInterfaceBinding(const VirtualNetwork::SwitchInterface&)";
constexpr const char* kReactorCleanup =
    "PortBindingSm::KivPortToSwitchInterfaceBinding::doCleanup()";
constexpr const char* kChildInitialized = "PortToSwitchInterfaceBindingSm::handleInitialized()";
constexpr const char* kChildDoCleanup = "PortToSwitchInterfaceBindingSm::doCleanup()";

class SwitchBindingTest : public SwitchTest {
 protected:
  void SetUp() override {
    world.start("region R; segment vl vlan 10");
    world.traces.take();
  }
};
class SwitchBindingDeathTest : public SwitchBindingTest {};
// With the toggle off, and on.
class ElementBindingDeathTest : public SwitchBindingTest {};
class SwitchPortBindingTest : public SwitchBindingTest {};

TEST_P(SwitchBindingTest, ABoundInterfaceIsPublishedWithItsHost) {
  world.apply("switch p sw e1 h1");
  if (on()) {
    EXPECT_THAT(world.published(), ElementsAre("port sw:e1 remote: h1", "port sw:e1: bm-p"));
  } else {
    EXPECT_THAT(world.published(),
                ElementsAre("element h1 domain R: p", "element h1 hostname h1", "element h1: bm-p",
                            "element sw interface e1: h1", "element sw: bm-p"));
  }
  expectRebuiltIsReached();
}

TEST_P(SwitchBindingTest, WhatIsPublishedIsWrittenInOrderAndBeforeTheChildWrites) {
  OutputWatch watch(world.statuses, world.resources, world.elements);
  world.apply("switch p sw e1 h1 0=vl");
  if (on()) {
    EXPECT_THAT(watch.take(),
                ElementsAre("port sw:e1", "port sw:e1 remote h1", "port sw:e1 for bm-p",
                            "port sw:e1 vlan 10", "port sw:e1 vlan 10 for p"));
  } else {
    EXPECT_THAT(
        watch.take(),
        ElementsAre("element sw", "element sw for bm-p", "element h1", "element h1 for bm-p",
                    "element h1 hostname h1", "element h1 domain R", "element h1 domain R for p",
                    "element sw interface e1", "element sw interface e1 configured h1",
                    "element sw interface e1 vlan 10", "element sw interface e1 vlan 10 for p"));
  }
}

TEST_P(SwitchBindingTest, TheChildGetsTheMachinesArguments) {
  world.apply("switch p sw e1 h1");
  const auto sm = world.portSm("p");
  const auto child = world.switchSm("p");
  ASSERT_TRUE(child);
  EXPECT_EQ(child->switchInterface(), VirtualNetwork::SwitchInterface("sw", "e1"));
  EXPECT_EQ(child->fwkKey(), VirtualNetwork::SwitchInterface("sw", "e1"));
  EXPECT_EQ(child->regionName(), "R");
  EXPECT_EQ(child->port(), world.port("p"));
  EXPECT_EQ(child->portToSwitchInterfaceBinding(), world.switchBinding("p"));
  EXPECT_EQ(child->requestedResourcesCollection(), world.resources);
  EXPECT_EQ(child->networkElementCollection(), world.elements);
  EXPECT_TRUE(child->hasNotificationActive());
  EXPECT_TRUE(child->initialized());
  EXPECT_EQ(child->fwkType().name(), "OpenStack::PortToSwitchInterfaceBindingSm");
  EXPECT_EQ(child->kivFwkActivity(), nullptr);
}

TEST_P(SwitchBindingTest, BindingTracesItsEntryAndThePort) {
  world.apply("bind p");
  const auto sm = world.portSm("p");
  world.traces.take();
  world.change("switch p sw e1 h1");
  EXPECT_TRUE(sm->portToSwitchInterfaceBinding().contains({"sw", "e1"}));
  EXPECT_FALSE(world.switchSm("p"));
  EXPECT_THAT(world.traces.take(), IsEmpty());
  world.run();
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(9, sm.get(), kSwitch, "sw:e1"),
                          said(2, sm.get(), kSwitch, "Port bm-p bound"),
                          said(9, world.switchSm("p").get(), kChildInitialized, "")));
}

TEST_P(SwitchBindingTest, UnbindingWithdrawsAtOnceAndDeletesFromTheLoop) {
  world.apply("switch p sw e1 h1");
  const auto sm = world.portSm("p");
  const auto child = world.switchSm("p");
  const void* reactor = sm->portToSwitchInterfaceBinding()[{"sw", "e1"}];
  world.traces.take();
  world.change("-switch p sw e1");
  EXPECT_TRUE(world.switchSm("p"));
  EXPECT_THAT(withoutHistory(world.published()), IsEmpty());
  auto lines = world.traces.take();
  ASSERT_EQ(lines.size(), on() ? 2U : 4U);
  EXPECT_EQ(lines[0], said(9, reactor, kReactorCleanup, ""));
  EXPECT_EQ(lines[1], said(9, child.get(), kChildDoCleanup, "Removing port p from sw : e1"));
  if (!on()) {
    EXPECT_EQ(lines[2], said(2, child.get(), kChildDoCleanup, "Deleting region R from host h1"));
    EXPECT_EQ(lines[3], said(2, child.get(), kChildDoCleanup, "Removing interface : e1 from sw"));
  }
  OutputWatch watch(world.statuses, world.resources, world.elements);
  world.run();
  EXPECT_FALSE(world.switchSm("p"));
  EXPECT_THAT(world.traces.take(), ElementsAre(said(9, sm.get(), kSwitch, "sw:e1"),
                                               said(2, sm.get(), kSwitch, "Port unbound"),
                                               said(9, sm.get(), kDoCleanup, "sw:e1")));
  EXPECT_EQ(watch.changes(), 0);
}

TEST_P(SwitchBindingTest, UnbindingAnInterfaceThatWasNeverBoundOnlyTraces) {
  world.apply("bind p");
  const auto sm = world.portSm("p");
  world.traces.take();
  sm->handlePortToSwitchInterfaceBinding({"sw", "e9"});
  EXPECT_THAT(world.traces.take(), ElementsAre(said(9, sm.get(), kSwitch, "sw:e9"),
                                               said(2, sm.get(), kSwitch, "Port unbound"),
                                               said(9, sm.get(), kDoCleanup, "sw:e9")));
  EXPECT_THAT(world.published(), IsEmpty());
}

TEST_P(SwitchBindingTest, HandlingABindingAgainChangesNothing) {
  world.apply("switch p sw e1 h1 0=vl");
  const auto sm = world.portSm("p");
  const auto child = world.switchSm("p");
  OutputWatch watch(world.statuses, world.resources, world.elements);
  world.traces.take();
  sm->handlePortToSwitchInterfaceBinding({"sw", "e1"});
  EXPECT_THAT(world.traces.take(), ElementsAre(said(9, sm.get(), kSwitch, "sw:e1"),
                                               said(2, sm.get(), kSwitch, "Port bm-p bound")));
  EXPECT_EQ(world.switchSm("p"), child);
  world.run();
  EXPECT_EQ(watch.changes(), 0);
}

TEST_P(SwitchBindingTest, ARemovedReactorWithoutAChildIsSkipped) {
  world.apply("bind p");
  world.change("switch p sw e1 h1");
  const void* reactor = world.portSm("p")->portToSwitchInterfaceBinding()[{"sw", "e1"}];
  world.traces.take();
  world.change("-switch p sw e1");
  const auto lines = world.traces.take();
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines[0], said(9, reactor, kReactorCleanup, ""));
  EXPECT_EQ(lines[1], said(1, reactor, kReactorCleanup, "No machine for sw:e1"));
  world.run();
  EXPECT_THAT(world.published(), IsEmpty());
}

TEST_P(SwitchBindingTest, AReplacedBindingIsRefusedAndTheOldChildStays) {
  world.apply("switch p sw e1 h1 0=vl");
  const auto child = world.switchSm("p");
  const auto other = Kiv::make<OpenStack::PortToSwitchInterfaceBinding>(
      VirtualNetwork::SwitchInterface("sw", "e1"));
  other->hostIs("h1");
  world.binding("p")->portToSwitchInterfaceBindingIs(other);
  EXPECT_THAT(thrown<Kiv::NameInUseException>([&] { world.run(); }),
              StartsWith("Reinstantiating the pointer interface where constructor parameter "
                         "attribute _portToSwitchInterfaceBinding has a different value of "));
  EXPECT_EQ(world.switchSm("p"), child);
  world.apply("-switch p sw e1");
  EXPECT_FALSE(world.switchSm("p"));
}

TEST_P(SwitchBindingTest, OnePortBehindTwoInterfacesOfOneHost) {
  world.apply("switch p sw e1 h1; switch p sw e2 h1");
  if (on()) {
    EXPECT_THAT(world.published(), ElementsAre("port sw:e1 remote: h1", "port sw:e1: bm-p",
                                               "port sw:e2 remote: h1", "port sw:e2: bm-p"));
  } else {
    EXPECT_THAT(world.published(), ElementsAre("element h1 domain R: p", "element h1 hostname h1",
                                               "element h1: bm-p", "element sw interface e1: h1",
                                               "element sw interface e2: h1", "element sw: bm-p"));
  }
  expectRebuiltIsReached();
  world.apply("-bind p");
  EXPECT_THAT(withoutHistory(world.published()), IsEmpty());
}

TEST_P(SwitchBindingTest, ReactorsDeletedByHandRunTheChildsCleanup) {
  world.apply("switch p sw e1 h1; switch p sw e2 h2; switch p sw e3 h3");
  const auto sm = world.portSm("p");
  EXPECT_FALSE(sm->portToSwitchInterfaceBindingDel({"sw", "e9"}));
  EXPECT_TRUE(sm->portToSwitchInterfaceBindingDel({"sw", "e1"}));
  const VirtualNetwork::SwitchInterface e2("sw", "e2");
  EXPECT_TRUE(
      sm->portToSwitchInterfaceBindingDel(sm->portToSwitchInterfaceBinding().iteratorAt(e2)));
  sm->portToSwitchInterfaceBindingDelAll();
  EXPECT_THAT(sm->portToSwitchInterfaceBinding(), IsEmpty());
  EXPECT_EQ(sm->portToSwitchInterfaceBindingSm().size(), 3U);
  EXPECT_THAT(withoutHistory(world.published()), IsEmpty());
}

TEST_P(SwitchBindingTest, ANewPortBindingIsOnlyMirrored) {
  world.apply("switch p sw e1 h1; switch p sw e2 h1");
  const auto sm = world.portSm("p");
  const auto other = Kiv::make<OpenStack::PortBinding>("p");
  other->portToSwitchInterfaceBindingIs(VirtualNetwork::SwitchInterface("sw", "e2"))->hostIs("h1");
  other->portToSwitchInterfaceBindingIs(VirtualNetwork::SwitchInterface("sw", "e3"))->hostIs("h1");
  sm->portBindingIs(other);
  EXPECT_FALSE(sm->portToSwitchInterfaceBinding().contains({"sw", "e1"}));
  EXPECT_TRUE(sm->portToSwitchInterfaceBinding().contains({"sw", "e2"}));
  EXPECT_TRUE(sm->portToSwitchInterfaceBinding().contains({"sw", "e3"}));
  EXPECT_EQ(sm->portToSwitchInterfaceBindingSm().size(), 2U);
}

// What stops the process.

TEST_P(SwitchBindingDeathTest, ASwitchInterfaceBesideHosts) {
  world.apply("host p h1; host p h2");
  EXPECT_DEATH(
      {
        world.traces.toStandardErrorIs(true);
        world.apply("switch p sw e1 h3");
      },
      AllOf(HasSubstr("SwitchInterface&) ] Port p is already bound to the following hosts: \n"),
            HasSubstr("SwitchInterface&) ] h1\n"), HasSubstr("SwitchInterface&) ] h2\n"),
            stops("false", "handlePortToSwitchInterfaceBinding")));
}

TEST_P(SwitchBindingDeathTest, TheLinesOfAConflictHaveTheLevelsZeroAndTwo) {
  world.apply("host p h1");
  EXPECT_DEATH(
      {
        world.traces.toStandardErrorIs(true);
        world.apply("switch p sw e1 h3");
      },
      testing::ContainsRegex(
          "9 0x[0-9a-f]+ . void "
          "OpenStack::PortBindingSm::handlePortToSwitchInterfaceBinding.const "
          "VirtualNetwork::SwitchInterface&. . sw:e1\n"
          "0 0x[0-9a-f]+ . [^\n]* . Port p is already bound to the following hosts: \n"
          "2 0x[0-9a-f]+ . [^\n]* . h1\n"
          "Assertion \"false\" failed: OpenStackSm: handlePortToSwitchInterfaceBinding\n"));
}

TEST_P(SwitchBindingDeathTest, ARemovedInterfaceBesideAHost) {
  world.apply("host p h1");
  EXPECT_DEATH(world.portSm("p")->handlePortToSwitchInterfaceBinding({"sw", "e1"}),
               stops("false", "handlePortToSwitchInterfaceBinding"));
}

TEST_P(ElementBindingDeathTest, AHostElementOfASecondRegion) {
  world.apply("switch p sw e1 h1");
  EXPECT_DEATH(world.apply("region S; switch q sw e2 h1"),
               stops("hostElement->domains() == 1", "handlePortToSwitchInterfaceBinding"));
}

TEST_P(SwitchPortBindingTest, AHostMayServeTwoRegions) {
  world.apply("switch p sw e1 h1");
  world.apply("region S; switch q sw e2 h1");
  EXPECT_THAT(world.published(), ElementsAre("port sw:e1 remote: h1", "port sw:e1: bm-p",
                                             "port sw:e2 remote: h1", "port sw:e2: bm-q"));
}

TEST_P(SwitchBindingTest, TheReactorsCleanupIsTracedBeforeThatOfItsMachine) {
  world.apply("switch p sw e1 h1 0=vl");
  const auto sm = world.portSm("p");
  world.traces.take();
  sm->doCleanupPortToSwitchInterfaceBinding({"sw", "e1"});
  EXPECT_THAT(sm->portToSwitchInterfaceBindingSm(), IsEmpty());
  const auto lines = world.traces.take();
  ASSERT_GT(lines.size(), 1U);
  EXPECT_EQ(lines[0], said(9, sm.get(), kDoCleanup, "sw:e1"));
  // What the port published for the interface as such is withdrawn by the interface's machine.
  leaves(on() ? Lines{"port sw:e1: bm-p"}
              : Lines{"element h1 domain R: p", "element h1: bm-p", "element sw interface e1: h1",
                      "element sw: bm-p"});
}

TEST_P(SwitchBindingTest, AHostAndTheHostBehindAnInterfaceAreIndependent) {
  world.apply("host q h1");
  world.apply("region S; switch p sw e1 h1");
  EXPECT_THAT(world.published(), testing::IsSupersetOf({"host h1 domain R: q"}));
}

INSTANTIATE_TEST_SUITE_P(Toggles, SwitchBindingTest, bothToggles(), toggleName);
INSTANTIATE_TEST_SUITE_P(Toggles, SwitchBindingDeathTest, bothToggles(), toggleName);
INSTANTIATE_TEST_SUITE_P(Off, ElementBindingDeathTest, testing::Values(false), toggleName);
INSTANTIATE_TEST_SUITE_P(On, SwitchPortBindingTest, testing::Values(true), toggleName);

}  // namespace
