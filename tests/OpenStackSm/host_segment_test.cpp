// What the machine of a port on a host publishes for its segments, and withdraws.
#include "tests/OpenStackSm/MachineTest.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kInitialized = "PortToHostBindingSm::handleInitialized()";
constexpr const char* kSegment = "PortToHostBindingSm::handleSegment(U8)";
constexpr const char* kDoCleanup = "PortToHostBindingSm::doCleanup()";
constexpr const char* kSegmentCleanup = "PortToHostBindingSm::KivSegment::doCleanup()";

// One machine of the port p on the host h1, with the world's root beside it or made by hand.
class HostSegmentTest : public MachineTest {
 protected:
  void SetUp() override {
    world.start(
        "region R; segment vl vlan 10; segment vm vlan 20; segment vx vxlan 5000; "
        "segment vy vxlan 6000; segment ot 7 99; bind p");
    world.traces.take();
  }
  // Binds p to h1 and forgets what was traced.
  void bind(const std::string& levels) {
    world.apply("host p h1 " + levels);
    world.traces.take();
  }
  const OpenStack::PortToHostBindingSm* sm() { return world.hostSm("p", "h1").get(); }
  const void* reactor(Kiv::U8 level) { return sm()->segment()[level]; }
  // The lines without those of the host and its domain.
  Lines vlans() {
    Lines kept;
    for (const std::string& line : world.published()) {
      if (line.find(" vlan ") != std::string::npos) kept.push_back(line);
    }
    return kept;
  }
};
class HostSegmentDeathTest : public HostSegmentTest {};

TEST_F(HostSegmentTest, AVlanAtTheTopIsPublishedForThePort) {
  bind("");
  world.apply("host p h1 0=vl");
  EXPECT_THAT(vlans(), ElementsAre("host h1 vlan 10: p"));
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(2, sm(), kSegment,
                               "Port on h1 bound to segment vl : vlan : 10 at level : 0")));
  expectRebuiltIsReached();
}

TEST_F(HostSegmentTest, ConstructionHandlesEverySegmentInTheOrderOfLevels) {
  world.apply("host p h1 0=vx 1=vl");
  EXPECT_TRUE(sm()->initialized());
  EXPECT_EQ(sm()->fwkType().name(), "OpenStack::PortToHostBindingSm");
  EXPECT_EQ(sm()->kivFwkActivity(), nullptr);
  auto lines = world.traces.take();
  ASSERT_GE(lines.size(), 5U);
  lines.erase(lines.begin(), lines.end() - 5);
  EXPECT_THAT(
      lines,
      ElementsAre(
          said(9, sm(), kInitialized, ""),
          said(2, sm(), kSegment, "Port on h1 bound to segment vx : vxlan : 5000 at level : 0"),
          said(2, sm(), kSegment, "Establishing a VNI to VLAN mapping from 5000 to 10"),
          said(2, sm(), kSegment, "Port on h1 bound to segment vl : vlan : 10 at level : 1"),
          said(2, sm(), kSegment, "Establishing a VLAN to VNI mapping from 10 to 5000")));
  EXPECT_THAT(vlans(), ElementsAre("host h1 vlan 10 vni 5000: p", "host h1 vlan 10: p"));
  EXPECT_EQ(sm()->segment().size(), 2U);
  EXPECT_EQ(sm()->segment()[1]->level(), 1);
  EXPECT_EQ(sm()->segment()[1]->entity(), world.segment("vl"));
  EXPECT_TRUE(sm()->segment()[1]->hasNotificationActive());
}

TEST_F(HostSegmentTest, AVlanUnderAVlanOrAnotherTypeCarriesNoVni) {
  bind("0=vl 1=vm");
  EXPECT_THAT(vlans(), ElementsAre("host h1 vlan 10: p", "host h1 vlan 20: p"));
  world.apply("host p h1 0=ot");
  EXPECT_THAT(vlans(), ElementsAre("host h1 vlan 20: p"));
}

TEST_F(HostSegmentTest, AVxlanAboveAVxlanOrNothingPublishesNothing) {
  bind("");
  world.apply("host p h1 3=vx");
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(2, sm(), kSegment,
                               "Port on h1 bound to segment vx : vxlan : 5000 at level : 3")));
  world.apply("host p h1 4=vy");
  world.apply("host p h1 5=ot");
  EXPECT_THAT(vlans(), IsEmpty());
}

TEST_F(HostSegmentTest, AnotherTypeIsTracedAndPublishesNothing) {
  bind("0=vx");
  world.apply("host p h1 1=ot");
  EXPECT_THAT(
      world.traces.take(),
      ElementsAre(said(2, sm(), kSegment, "Port on h1 bound to segment ot : 7 : 99 at level : 1")));
  EXPECT_THAT(vlans(), IsEmpty());
  const void* gone = reactor(1);
  world.apply("host p h1 1=-");
  EXPECT_THAT(
      world.traces.take(),
      ElementsAre(said(9, gone, kSegmentCleanup, "p : ot"),
                  said(2, sm(), kSegment, std::string("Port on h1 unbound at level \x01"))));
}

TEST_F(HostSegmentTest, AVxlanOverAVlanMapsAndLeavesTheVlansOwnReferrer) {
  const auto binding = Kiv::make<OpenStack::PortToHostBinding>("h2");
  binding->segmentIs(0, world.segment("vx"));
  const auto machine =
      OpenStack::portToHostBindingSmFactory("h2", world.port("p"), binding, world.resources);
  // Only the upper segment is notified of, though both are there.
  machine->hasNotificationActiveIs(false);
  binding->segmentIs(1, world.segment("vl"));
  world.traces.take();
  machine->handleSegment(0);
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(2, machine.get(), kSegment,
                               "Port on h2 bound to segment vx : vxlan : 5000 at level : 0"),
                          said(2, machine.get(), kSegment,
                               "Establishing a VNI to VLAN mapping from 5000 to 10")));
  EXPECT_THAT(vlans(), ElementsAre("host h2 vlan 10 vni 5000: p", "host h2 vlan 10:"));
  machine->hasNotificationActiveIs(true);
  machine->segmentIs(1, world.segment("vl"));
  machine->handleSegment(1);
  EXPECT_THAT(vlans(), ElementsAre("host h2 vlan 10 vni 5000: p", "host h2 vlan 10: p"));
  machine->doCleanup();
  EXPECT_THAT(vlans(), IsEmpty());
}

TEST_F(HostSegmentTest, TheLevelIsPrintedAsOneByte) {
  bind("");
  const std::vector<std::pair<std::string, char>> bytes = {
      {"3", '3'}, {"9", '9'}, {"10", ':'}, {"12", '<'}, {"255", '/'}};
  for (const auto& [level, byte] : bytes) {
    world.apply("host p h1 " + level + "=vl");
    EXPECT_THAT(world.traces.take(),
                ElementsAre(said(
                    2, sm(), kSegment,
                    std::string("Port on h1 bound to segment vl : vlan : 10 at level : ") + byte)));
    world.change("host p h1 " + level + "=-");
    world.traces.take();
    world.run();
    EXPECT_THAT(world.traces.take(), ElementsAre(said(2, sm(), kSegment,
                                                      std::string("Port on h1 unbound at level ") +
                                                          static_cast<char>(std::stoi(level)))));
  }
}

TEST_F(HostSegmentTest, TheTopLevelsByteIsTheZeroByte) {
  bind("0=vl");
  world.change("host p h1 0=-");
  world.traces.take();
  world.run();
  EXPECT_THAT(world.traces.take(), ElementsAre(said(2, sm(), kSegment,
                                                    std::string("Port on h1 unbound at level ") +
                                                        std::string(1, '\0'))));
}

TEST_F(HostSegmentTest, ARemovedVlanIsWithdrawnAtOnceAndTracedByTheLoop) {
  bind("1=vl");
  const void* gone = reactor(1);
  world.change("host p h1 1=-");
  EXPECT_THAT(vlans(), IsEmpty());
  EXPECT_THAT(sm()->segment(), IsEmpty());
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(9, gone, kSegmentCleanup, "p : vl"),
                          said(2, gone, kSegmentCleanup,
                               "Removing a reference to VLAN 10 on host h1 which now has 0 "
                               "references to it."),
                          said(3, gone, kSegmentCleanup, "Removing vlan 10 from h1")));
  world.run();
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(2, sm(), kSegment, "Port on h1 unbound at level \x01")));
}

TEST_F(HostSegmentTest, ARemovedVlansVniIsRemovedFirst) {
  bind("0=vx 1=vl");
  const void* gone = reactor(1);
  OutputWatch watch(world.statuses, world.resources, world.elements);
  world.change("host p h1 1=-");
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(9, gone, kSegmentCleanup, "p : vl"),
                          said(3, gone, kSegmentCleanup, "Removing VNI 5000 from h1"),
                          said(2, gone, kSegmentCleanup,
                               "Removing a reference to VLAN 10 on host h1 which now has 0 "
                               "references to it."),
                          said(3, gone, kSegmentCleanup, "Removing vlan 10 from h1")));
  world.run();
  EXPECT_THAT(watch.take(),
              ElementsAre("host h1 vlan 10 vni 5000 for p gone", "host h1 vlan 10 vni 5000 gone",
                          "host h1 vlan 10 for p gone", "host h1 vlan 10 gone"));
}

TEST_F(HostSegmentTest, RemovingOnlyTheVxlanWithdrawsNothing) {
  bind("0=vx 1=vl");
  const void* gone = reactor(0);
  OutputWatch watch(world.statuses, world.resources, world.elements);
  world.apply("host p h1 0=-");
  EXPECT_THAT(vlans(), ElementsAre("host h1 vlan 10 vni 5000: p", "host h1 vlan 10: p"));
  EXPECT_THAT(watch.take(), IsEmpty());
  EXPECT_THAT(world.traces.take(), ElementsAre(said(9, gone, kSegmentCleanup, "p : vx"),
                                               said(2, sm(), kSegment,
                                                    std::string("Port on h1 unbound at level ") +
                                                        std::string(1, '\0'))));
  world.apply("host p h1 1=-");
  EXPECT_THAT(vlans(), IsEmpty());
}

TEST_F(HostSegmentTest, TwoPortsOfOneVlanAreCounted) {
  world.apply("host p h1 0=vl; host q h1 0=vl");
  EXPECT_THAT(vlans(), ElementsAre("host h1 vlan 10: p q"));
  const void* p = reactor(0);
  const void* q = world.hostSm("q", "h1")->segment()[0];
  world.traces.take();
  world.change("host p h1 0=-");
  EXPECT_THAT(vlans(), ElementsAre("host h1 vlan 10: q"));
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(9, p, kSegmentCleanup, "p : vl"),
                          said(2, p, kSegmentCleanup,
                               "Removing a reference to VLAN 10 on host h1 which now has 1 "
                               "references to it.")));
  world.change("host q h1 0=-");
  EXPECT_THAT(vlans(), IsEmpty());
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(9, q, kSegmentCleanup, "q : vl"),
                          said(2, q, kSegmentCleanup,
                               "Removing a reference to VLAN 10 on host h1 which now has 0 "
                               "references to it."),
                          said(3, q, kSegmentCleanup, "Removing vlan 10 from h1")));
}

TEST_F(HostSegmentTest, TwoPortsOfOneVniAreCounted) {
  world.apply("host p h1 0=vx 1=vl; host q h1 0=vx 1=vl");
  EXPECT_THAT(vlans(), ElementsAre("host h1 vlan 10 vni 5000: p q", "host h1 vlan 10: p q"));
  const void* p = reactor(1);
  world.traces.take();
  world.change("host p h1 1=-");
  EXPECT_THAT(vlans(), ElementsAre("host h1 vlan 10 vni 5000: q", "host h1 vlan 10: q"));
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(9, p, kSegmentCleanup, "p : vl"),
                          said(2, p, kSegmentCleanup,
                               "Removing a reference to VLAN 10 on host h1 which now has 1 "
                               "references to it.")));
  world.run();
  expectRebuiltIsReached();
}

TEST_F(HostSegmentTest, OneVlanMayCarryTheVnisOfTwoPorts) {
  world.apply("host p h1 0=vx 1=vl; host q h1 0=vy 1=vl");
  EXPECT_THAT(vlans(), ElementsAre("host h1 vlan 10 vni 5000: p", "host h1 vlan 10 vni 6000: q",
                                   "host h1 vlan 10: p q"));
  world.apply("host p h1 1=-");
  EXPECT_THAT(vlans(), ElementsAre("host h1 vlan 10 vni 6000: q", "host h1 vlan 10: q"));
  expectRebuiltIsReached();
}

TEST_F(HostSegmentTest, AReplacedVlanIsWithdrawnBeforeTheNewOneIsPublished) {
  bind("0=vx 1=vl");
  const Kiv::Ptr<const OpenStack::PortToHostBindingSm::KivSegment> held(sm()->segment()[1]);
  const void* gone = held.get();
  world.change("host p h1 1=vm");
  EXPECT_THAT(vlans(), IsEmpty());
  EXPECT_EQ(sm()->segment()[1]->entity(), world.segment("vm"));
  EXPECT_NE(reactor(1), gone);
  EXPECT_EQ(world.traces.take().front(), said(9, gone, kSegmentCleanup, "p : vl"));
  world.run();
  EXPECT_THAT(vlans(), ElementsAre("host h1 vlan 20 vni 5000: p", "host h1 vlan 20: p"));
  EXPECT_THAT(
      world.traces.take(),
      ElementsAre(
          said(2, sm(), kSegment, "Port on h1 bound to segment vm : vlan : 20 at level : 1"),
          said(2, sm(), kSegment, "Establishing a VLAN to VNI mapping from 20 to 5000")));
  expectRebuiltIsReached();
}

TEST_F(HostSegmentTest, AReplacedVxlanAddsItsVniBesideTheOld) {
  bind("0=vx 1=vl");
  world.apply("host p h1 0=vy");
  EXPECT_THAT(vlans(), ElementsAre("host h1 vlan 10 vni 5000: p", "host h1 vlan 10 vni 6000: p",
                                   "host h1 vlan 10: p"));
  world.apply("host p h1 1=-");
  EXPECT_THAT(vlans(), IsEmpty());
}

TEST_F(HostSegmentTest, TheWholeCleanupTakesEveryLevelOfTheBindingAndKeepsTheReactors) {
  bind("0=vx 1=vl");
  const auto machine = world.hostSm("p", "h1");
  machine->doCleanup();
  EXPECT_THAT(vlans(), IsEmpty());
  EXPECT_EQ(machine->segment().size(), 2U);
  EXPECT_THAT(
      world.traces.take(),
      ElementsAre(said(9, sm(), kDoCleanup, "Removing port p from h1"),
                  said(9, sm(), kDoCleanup, "Port connected to segment : vxlan5000"),
                  said(9, reactor(0), kSegmentCleanup, "p : vx"),
                  said(9, sm(), kDoCleanup, "Port connected to segment : vlan10"),
                  said(9, reactor(1), kSegmentCleanup, "p : vl"),
                  said(3, reactor(1), kSegmentCleanup, "Removing VNI 5000 from h1"),
                  said(2, reactor(1), kSegmentCleanup,
                       "Removing a reference to VLAN 10 on host h1 which now has 0 references to "
                       "it."),
                  said(3, reactor(1), kSegmentCleanup, "Removing vlan 10 from h1")));
  // Again: what is withdrawn stays so, silently but for the entries.
  OutputWatch watch(world.statuses, world.resources, world.elements);
  machine->doCleanup();
  world.run();
  EXPECT_THAT(watch.take(), IsEmpty());
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(9, sm(), kDoCleanup, "Removing port p from h1"),
                          said(9, sm(), kDoCleanup, "Port connected to segment : vxlan5000"),
                          said(9, reactor(0), kSegmentCleanup, "p : vx"),
                          said(9, sm(), kDoCleanup, "Port connected to segment : vlan10"),
                          said(9, reactor(1), kSegmentCleanup, "p : vl")));
}

TEST_F(HostSegmentTest, TheWholeCleanupSkipsALevelWithoutAReactor) {
  bind("0=vl 1=vm");
  const auto machine = world.hostSm("p", "h1");
  machine->segmentDel(0);
  world.traces.take();
  machine->doCleanup();
  const auto lines = world.traces.take();
  ASSERT_GE(lines.size(), 4U);
  EXPECT_EQ(lines[1], said(9, sm(), kDoCleanup, "Port connected to segment : vlan10"));
  EXPECT_EQ(lines[2], said(1, sm(), kDoCleanup, "No reactor at level 0"));
  EXPECT_EQ(lines[3], said(9, sm(), kDoCleanup, "Port connected to segment : vlan20"));
  EXPECT_THAT(vlans(), IsEmpty());
}

TEST_F(HostSegmentTest, TheEndRunsTheCleanupOfEachSegment) {
  const auto binding = Kiv::make<OpenStack::PortToHostBinding>("h2");
  binding->segmentIs(0, world.segment("vx"));
  binding->segmentIs(1, world.segment("vl"));
  auto machine =
      OpenStack::portToHostBindingSmFactory("h2", world.port("p"), binding, world.resources);
  EXPECT_THAT(vlans(), ElementsAre("host h2 vlan 10 vni 5000: p", "host h2 vlan 10: p"));
  const Kiv::Ptr<OpenStack::PortToHostBindingSm::KivSegment> upper(machine->segment()[0]);
  const Kiv::Ptr<OpenStack::PortToHostBindingSm::KivSegment> lower(machine->segment()[1]);
  world.traces.take();
  machine = nullptr;
  EXPECT_THAT(vlans(), IsEmpty());
  EXPECT_TRUE(lower->markedForDeletion());
  EXPECT_FALSE(lower->hasNotificationActive());
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(9, upper.get(), kSegmentCleanup, "p : vx"),
                          said(9, lower.get(), kSegmentCleanup, "p : vl"),
                          said(3, lower.get(), kSegmentCleanup, "Removing VNI 5000 from h2"),
                          said(2, lower.get(), kSegmentCleanup,
                               "Removing a reference to VLAN 10 on host h2 which now has 0 "
                               "references to it."),
                          said(3, lower.get(), kSegmentCleanup, "Removing vlan 10 from h2")));
}

TEST_F(HostSegmentTest, BeforeInitializationSegmentsAreMirroredOnly) {
  bind("");
  world.hostSm("p", "h1")->initializedIs(false);
  world.apply("host p h1 0=vl");
  EXPECT_THAT(world.traces.take(), IsEmpty());
  EXPECT_THAT(vlans(), IsEmpty());
  EXPECT_TRUE(sm()->segment().contains(0));
  world.hostSm("p", "h1")->handleInitialized();
  EXPECT_THAT(vlans(), ElementsAre("host h1 vlan 10: p"));
  EXPECT_TRUE(sm()->initialized());
}

TEST_F(HostSegmentTest, InitializingItAgainHandlesEverySegmentAgainAndWritesNothing) {
  bind("0=vx 1=vl");
  OutputWatch watch(world.statuses, world.resources, world.elements);
  world.hostSm("p", "h1")->handleInitialized();
  EXPECT_EQ(world.traces.take().size(), 5U);
  world.run();
  EXPECT_EQ(watch.changes(), 0);
  EXPECT_THAT(watch.take(), IsEmpty());
}

TEST_F(HostSegmentTest, TheSameSegmentAgainKeepsItsReactor) {
  bind("0=vl");
  const void* before = reactor(0);
  EXPECT_EQ(world.hostSm("p", "h1")->segmentIs(0, world.segment("vl")).get(), before);
  EXPECT_THAT(world.traces.take(), IsEmpty());
}

TEST_F(HostSegmentTest, ReactorsDeletedByHandWithdraw) {
  bind("0=vl 1=vm 2=vx");
  const auto machine = world.hostSm("p", "h1");
  EXPECT_FALSE(machine->segmentDel(9));
  EXPECT_EQ(machine->segmentDel(0), world.segment("vl"));
  EXPECT_THAT(vlans(), ElementsAre("host h1 vlan 20: p"));
  EXPECT_EQ(machine->segmentDel(machine->segment().iteratorAt(2)), world.segment("vx"));
  machine->segmentDelAll();
  EXPECT_THAT(vlans(), IsEmpty());
  machine->segmentNotify(0);
}

TEST_F(HostSegmentTest, ACleanupWithoutTheHostsEntryOrTheVlanChangesNothing) {
  bind("0=vl 1=vm");
  const auto machine = world.hostSm("p", "h1");
  const void* gone = reactor(0);
  world.resources->resourcesForHostname()["h1"]->vlanDel(10);
  machine->segmentDel(0);
  EXPECT_THAT(world.traces.take(), ElementsAre(said(9, gone, kSegmentCleanup, "p : vl")));
  EXPECT_THAT(vlans(), ElementsAre("host h1 vlan 20: p"));
  world.resources->resourcesForHostnameDel("h1");
  machine->segmentDel(1);
  EXPECT_THAT(world.published(), IsEmpty());
}

TEST_F(HostSegmentTest, ACleanupWithoutTheVniWithdrawsTheVlan) {
  bind("0=vx 1=vl");
  world.resources->resourcesForHostname()["h1"]->vlan()[10]->mappedVniDel(5000);
  const void* gone = reactor(1);
  world.change("host p h1 1=-");
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(9, gone, kSegmentCleanup, "p : vl"),
                          said(2, gone, kSegmentCleanup,
                               "Removing a reference to VLAN 10 on host h1 which now has 0 "
                               "references to it."),
                          said(3, gone, kSegmentCleanup, "Removing vlan 10 from h1")));
}

TEST_F(HostSegmentTest, ANewBindingIsMirroredAndTheOldSegmentsWithdrawn) {
  bind("0=vl 1=vm");
  const auto machine = world.hostSm("p", "h1");
  const auto other = Kiv::make<OpenStack::PortToHostBinding>("h1");
  other->segmentIs(1, world.segment("vm"));
  other->segmentIs(2, world.segment("vl"));
  const void* kept = reactor(1);
  machine->portToHostBindingIs(other);
  EXPECT_EQ(machine->portToHostBinding(), other);
  EXPECT_EQ(reactor(1), kept);
  EXPECT_FALSE(machine->segment().contains(0));
  EXPECT_TRUE(machine->segment().contains(2));
  EXPECT_THAT(vlans(), ElementsAre("host h1 vlan 20: p"));
  other->segmentDel(1);
  EXPECT_THAT(vlans(), IsEmpty());
  machine->portToHostBindingDel();
  EXPECT_FALSE(machine->portToHostBinding());
}

TEST_F(HostSegmentDeathTest, AReactorOfAnotherMachine) {
  world.apply("host p h1 0=vl; host q h1 0=vm");
  const auto machine = world.hostSm("p", "h1");
  const auto other = world.hostSm("q", "h1");
  EXPECT_DEATH(machine->withdrawSegment(*other->segment()[0]), stops("found", "doCleanup"));
}

TEST_F(HostSegmentTest, AReactorOfAnotherMachineWithoutAHostsEntryIsNotLookedFor) {
  world.apply("host p h1 0=vl; host q h1 0=vm");
  world.resources->resourcesForHostnameDel("h1");
  world.hostSm("p", "h1")->withdrawSegment(*world.hostSm("q", "h1")->segment()[0]);
  EXPECT_THAT(world.published(), IsEmpty());
}

}  // namespace
