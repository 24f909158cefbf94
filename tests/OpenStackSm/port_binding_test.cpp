// The port-binding machine: its children, reactors, cleanup and end.
#include "tests/OpenStackSm/MachineTest.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

constexpr const char* kInitialized = "PortBindingSm::handleInitialized()";
constexpr const char* kHost = "PortBindingSm::handlePortToHostBinding(Kiv::Name)";
constexpr const char* kDoCleanup = "PortBindingSm::doCleanup()";
constexpr const char* kHostDoCleanup = "PortBindingSm::doCleanupPortToHostBinding(Kiv::Name)";
constexpr const char* kHostReactorCleanup = "PortBindingSm::KivPortToHostBinding::doCleanup()";
constexpr const char* kSwitchDoCleanup =
    "PortBindingSm::doCleanupPortToSwitchInterfaceBinding(const VirtualNetwork::SwitchInterface&)";
constexpr const char* kChildInitialized = "PortToHostBindingSm::handleInitialized()";
constexpr const char* kChildDoCleanup = "PortToHostBindingSm::doCleanup()";
constexpr const char* kSwitchChildDoCleanup = "PortToSwitchInterfaceBindingSm::doCleanup()";

class PortBindingTest : public MachineTest {
 protected:
  Kiv::Ptr<OpenStack::PortBindingSm> make(const char* portId) {
    return OpenStack::portBindingSmFactory("R", portId, world.port(portId), world.binding(portId),
                                           world.resources, world.elements);
  }
};

TEST_F(PortBindingTest, AMachineWithoutAPortBindingOnlyTraces) {
  const auto port = Kiv::make<OpenStack::Port>("p");
  auto sm =
      OpenStack::portBindingSmFactory("R", "p", port, nullptr, world.resources, world.elements);
  EXPECT_FALSE(sm->portBinding());
  EXPECT_THAT(sm->portToHostBinding(), IsEmpty());
  EXPECT_THAT(sm->portToSwitchInterfaceBinding(), IsEmpty());
  EXPECT_THAT(sm->portToHostBindingSm(), IsEmpty());
  EXPECT_THAT(sm->portToSwitchInterfaceBindingSm(), IsEmpty());
  EXPECT_THAT(world.traces.take(), ElementsAre(said(9, sm.get(), kInitialized, "")));
  sm->handlePortToHostBinding("h1");
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(9, sm.get(), kHost, "h1"), said(9, sm.get(), kHostDoCleanup, "h1")));
  sm = nullptr;
  EXPECT_THAT(world.published(), IsEmpty());
}

TEST_F(PortBindingTest, ALevelOfARemovedHostBindingIsNeverPublished) {
  world.start("region R; segment vx vxlan 5000; segment vl vlan 10; host p h1 0=vx");
  world.change("host p h1 1=vl; -host p h1");
  OutputWatch watch(world.statuses, world.resources, world.elements);
  world.run();
  EXPECT_THAT(watch.take(), ElementsAre("host h1 domain R for p gone", "host h1 domain R gone"));
}

TEST_F(PortBindingTest, AllHostMachinesCanBeDropped) {
  world.start("region R; host p h1; host p h2");
  const auto sm = world.portSm("p");
  ASSERT_EQ(sm->portToHostBindingSm().size(), 2U);
  sm->portToHostBindingSmDelAll();
  EXPECT_THAT(sm->portToHostBindingSm(), IsEmpty());
  // Without a machine there is nobody who would withdraw the hosts' domains.
  leaves({"host h1 domain R: p", "host h2 domain R: p"});
}

TEST_F(PortBindingTest, TheMachineHoldsWhatItWasMadeWith) {
  world.change("region R; bind p");
  const auto sm = make("p");
  EXPECT_EQ(sm->regionName(), "R");
  EXPECT_EQ(sm->portId(), "p");
  EXPECT_EQ(sm->fwkKey(), "p");
  EXPECT_EQ(sm->port(), world.port("p"));
  EXPECT_EQ(sm->portBinding(), world.binding("p"));
  EXPECT_EQ(sm->requestedResourcesCollection(), world.resources);
  EXPECT_EQ(sm->networkElementCollection(), world.elements);
  EXPECT_TRUE(sm->hasNotificationActive());
  EXPECT_FALSE(sm->initialized());
  EXPECT_EQ(sm->fwkType().name(), "OpenStack::PortBindingSm");
  EXPECT_EQ(sm->kivFwkActivity(), nullptr);
}

TEST_F(PortBindingTest, BoundHostsGetTheirMachinesDuringConstruction) {
  world.change("region R; segment vl vlan 10; host p h1 0=vl; host p h2");
  const auto sm = make("p");
  ASSERT_EQ(sm->portToHostBindingSm().size(), 2U);
  const auto* h1 = sm->portToHostBindingSm()["h1"];
  EXPECT_EQ(h1->host(), "h1");
  EXPECT_EQ(h1->port(), world.port("p"));
  EXPECT_EQ(h1->portToHostBinding(), world.hostBinding("p", "h1"));
  EXPECT_EQ(h1->requestedResourcesCollection(), world.resources);
  EXPECT_TRUE(h1->hasNotificationActive());
  EXPECT_EQ(sm->portToHostBinding()["h1"]->entity(), world.hostBinding("p", "h1"));
  EXPECT_EQ(sm->portToHostBinding().size(), 2U);
  EXPECT_THAT(world.published(), ElementsAre("host h1", "host h1 domain R: p", "host h1 vlan 10: p",
                                             "host h2", "host h2 domain R: p"));
  sm->doCleanup();
}

TEST_F(PortBindingTest, InitializingItAgainHandlesEveryBindingAgain) {
  world.start("region R; host p h1");
  const auto sm = world.portSm("p");
  world.traces.take();
  OutputWatch watch(world.statuses, world.resources, world.elements);
  sm->handleInitialized();
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(9, sm.get(), kInitialized, ""), said(9, sm.get(), kHost, "h1")));
  EXPECT_FALSE(sm->initialized());
  sm->initializedIs(true);
  sm->handleInitialized();
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(9, sm.get(), kInitialized, ""), said(9, sm.get(), kHost, "h1")));
  world.run();
  EXPECT_THAT(watch.take(), IsEmpty());
}

TEST_F(PortBindingTest, AnAddedHostIsMirroredAtOnceAndServedByTheLoop) {
  world.start("region R; bind p");
  const auto sm = world.portSm("p");
  world.traces.take();
  world.change("host p h1");
  EXPECT_TRUE(sm->portToHostBinding().contains("h1"));
  EXPECT_THAT(sm->portToHostBindingSm(), IsEmpty());
  EXPECT_THAT(world.traces.take(), IsEmpty());
  world.run();
  ASSERT_TRUE(world.hostSm("p", "h1"));
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(9, sm.get(), kHost, "h1"),
                          said(9, world.hostSm("p", "h1").get(), kChildInitialized, "")));
}

TEST_F(PortBindingTest, TheWholeCleanupWithdrawsEveryHostAndKeepsTheReactors) {
  world.start("region R; host p h1; host p h2");
  const auto sm = world.portSm("p");
  const auto h1 = world.hostSm("p", "h1");
  const auto h2 = world.hostSm("p", "h2");
  const bool oneFirst = sm->portToHostBindingSm().begin()->host() == "h1";
  const auto& first = oneFirst ? h1 : h2;
  const auto& second = oneFirst ? h2 : h1;
  const std::string a = first->host().str();
  const std::string b = second->host().str();
  world.traces.take();
  sm->doCleanup();
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(9, sm.get(), kDoCleanup, ""),
                          said(2, sm.get(), kDoCleanup, "Cleaning up portToHostBindingSm for " + a),
                          said(9, first.get(), kChildDoCleanup, "Removing port p from " + a),
                          said(9, sm.get(), kHostDoCleanup, a),
                          said(2, sm.get(), kHostDoCleanup, "Deleting region R from host " + a),
                          said(2, sm.get(), kDoCleanup, "Cleaning up portToHostBindingSm for " + b),
                          said(9, second.get(), kChildDoCleanup, "Removing port p from " + b),
                          said(9, sm.get(), kHostDoCleanup, b),
                          said(2, sm.get(), kHostDoCleanup, "Deleting region R from host " + b)));
  EXPECT_THAT(sm->portToHostBindingSm(), IsEmpty());
  EXPECT_EQ(sm->portToHostBinding().size(), 2U);
  EXPECT_THAT(world.published(), ElementsAre("host h1", "host h2"));
}

TEST_F(PortBindingTest, TheWholeCleanupTakesHostsBeforeSwitchInterfaces) {
  world.start("region R; bind p; bind q");
  const auto sm = world.portSm("p");
  const VirtualNetwork::SwitchInterface si("sw", "e1");
  // Children of both kinds, which a port binding itself cannot ask for.
  const auto hostBinding = Kiv::make<OpenStack::PortToHostBinding>("h1");
  const auto switchBinding = Kiv::make<OpenStack::PortToSwitchInterfaceBinding>(si);
  const auto host = sm->portToHostBindingSmIs("h1", world.port("p"), hostBinding, world.resources);
  const auto other = sm->portToSwitchInterfaceBindingSmIs(si, "R", world.port("p"), switchBinding,
                                                          world.resources, world.elements);
  world.traces.take();
  sm->doCleanup();
  EXPECT_THAT(
      world.traces.take(),
      ElementsAre(
          said(9, sm.get(), kDoCleanup, ""),
          said(2, sm.get(), kDoCleanup, "Cleaning up portToHostBindingSm for h1"),
          said(9, host.get(), kChildDoCleanup, "Removing port p from h1"),
          said(9, sm.get(), kHostDoCleanup, "h1"),
          said(2, sm.get(), kDoCleanup, "Cleaning up portToSwitchIterfaceBindingSm for sw:e1"),
          said(9, other.get(), kSwitchChildDoCleanup, "Removing port p from sw : e1"),
          said(9, sm.get(), kSwitchDoCleanup, "sw:e1")));
  EXPECT_THAT(sm->portToHostBindingSm(), IsEmpty());
  EXPECT_THAT(sm->portToSwitchInterfaceBindingSm(), IsEmpty());
}

TEST_F(PortBindingTest, ItsEndRunsNoCleanupOfItsOwn) {
  world.change("region R; host p h1; host p h2");
  auto sm = make("p");
  world.run();
  const Kiv::Ptr<OpenStack::PortBindingSm::KivPortToHostBinding> reactor(
      sm->portToHostBinding()["h1"]);
  OutputWatch watch(world.statuses, world.resources, world.elements);
  world.traces.take();
  sm = nullptr;
  world.run();
  EXPECT_THAT(world.traces.take(), IsEmpty());
  EXPECT_THAT(watch.take(), IsEmpty());
  EXPECT_TRUE(reactor->markedForDeletion());
  world.apply("-host p h1");
  EXPECT_THAT(watch.take(), IsEmpty());
  leaves({"host h1 domain R: p", "host h2 domain R: p"});
}

TEST_F(PortBindingTest, TheSameArgumentsReturnTheSameChild) {
  world.start("region R; host p h1; switch q sw e1 h2");
  const auto p = world.portSm("p");
  const auto q = world.portSm("q");
  world.traces.take();
  EXPECT_EQ(p->portToHostBindingSmIs("h1", world.port("p"), world.hostBinding("p", "h1"),
                                     world.resources),
            world.hostSm("p", "h1"));
  EXPECT_EQ(q->portToSwitchInterfaceBindingSmIs({"sw", "e1"}, "R", world.port("q"),
                                                world.switchBinding("q"), world.resources,
                                                world.elements),
            world.switchSm("q"));
  EXPECT_THAT(world.traces.take(), IsEmpty());
}

TEST_F(PortBindingTest, AReplacedHostBindingIsRefusedAndTheOldChildStays) {
  world.start("region R; segment vl vlan 10; host p h1 0=vl");
  const auto child = world.hostSm("p", "h1");
  const auto old = world.hostBinding("p", "h1");
  world.binding("p")->portToHostBindingIs(Kiv::make<OpenStack::PortToHostBinding>("h1"));
  EXPECT_EQ(world.portSm("p")->portToHostBinding()["h1"]->entity(), world.hostBinding("p", "h1"));
  EXPECT_THAT(thrown<Kiv::NameInUseException>([&] { world.run(); }),
              StartsWith("Reinstantiating the pointer interface where constructor parameter "
                         "attribute _portToHostBinding has a different value of "));
  EXPECT_EQ(world.hostSm("p", "h1"), child);
  EXPECT_EQ(child->portToHostBinding(), old);
  EXPECT_THAT(world.published(), testing::Contains("host h1 domain R: p"));
}

TEST_F(PortBindingTest, AHostRemovedAndAddedBeforeTheLoopMeetsItsOldChild) {
  world.start("region R; segment vl vlan 10; host p h1 0=vl");
  const auto child = world.hostSm("p", "h1");
  world.change("-host p h1; host p h1 0=vl");
  EXPECT_THAT(thrown<Kiv::NameInUseException>([&] { world.run(); }),
              StartsWith("Reinstantiating the pointer interface where constructor parameter "
                         "attribute _portToHostBinding has a different value of "));
  EXPECT_EQ(world.hostSm("p", "h1"), child);
  world.apply("-host p h1");
  EXPECT_FALSE(world.hostSm("p", "h1"));
  EXPECT_THAT(world.published(), ElementsAre("host h1"));
}

TEST_F(PortBindingTest, ReactorsDeletedByHandRunTheChildsCleanup) {
  world.start("region R; segment vl vlan 10; host p h1 0=vl; host p h2 0=vl; host p h3 0=vl");
  const auto sm = world.portSm("p");
  EXPECT_FALSE(sm->portToHostBindingDel("x"));
  const void* reactor = sm->portToHostBinding()["h1"];
  world.traces.take();
  EXPECT_EQ(sm->portToHostBindingDel("h1"), world.hostBinding("p", "h1"));
  const auto lines = world.traces.take();
  ASSERT_GE(lines.size(), 2U);
  EXPECT_EQ(lines[0], said(9, reactor, kHostReactorCleanup, ""));
  EXPECT_EQ(lines[1],
            said(9, world.hostSm("p", "h1").get(), kChildDoCleanup, "Removing port p from h1"));
  EXPECT_THAT(world.published(), testing::Not(testing::Contains("host h1 vlan 10: p")));
  EXPECT_TRUE(world.hostSm("p", "h1"));
  sm->portToHostBindingDel(sm->portToHostBinding().iteratorAt("h2"));
  sm->portToHostBindingDelAll();
  EXPECT_THAT(sm->portToHostBinding(), IsEmpty());
  EXPECT_THAT(world.published(),
              ElementsAre("host h1", "host h1 domain R: p", "host h2", "host h2 domain R: p",
                          "host h3", "host h3 domain R: p"));
}

TEST_F(PortBindingTest, ChildrenDeletedByHandRunNoCleanupOfTheMachine) {
  world.start("region R; host p h1; host p h2; switch q sw e1 h3; switch q sw e2 h3");
  const auto p = world.portSm("p");
  const auto q = world.portSm("q");
  const auto child = world.hostSm("p", "h1");
  world.traces.take();
  EXPECT_EQ(p->portToHostBindingSmDel("x"), nullptr);
  EXPECT_EQ(p->portToHostBindingSmDel("h1"), child);
  p->portToHostBindingSmDelAll();
  EXPECT_EQ(q->portToSwitchInterfaceBindingSmDel({"sw", "e9"}), nullptr);
  EXPECT_TRUE(q->portToSwitchInterfaceBindingSmDel({"sw", "e1"}));
  q->portToSwitchInterfaceBindingSmDelAll();
  EXPECT_THAT(q->portToSwitchInterfaceBindingSm(), IsEmpty());
  EXPECT_THAT(world.traces.take(), IsEmpty());
  p->portToHostBindingNotify("h1");
  p->portToHostBindingSmNotify("h1");
  q->portToSwitchInterfaceBindingNotify({"sw", "e1"});
  q->portToSwitchInterfaceBindingSmNotify({"sw", "e1"});
  p->handleInitialized();
  q->handleInitialized();
}

// Another port binding under the same machine.

TEST_F(PortBindingTest, ANewPortBindingIsOnlyMirrored) {
  world.start("region R; segment vl vlan 10; host p h1 0=vl; host p h2 0=vl");
  const auto sm = world.portSm("p");
  const auto other = Kiv::make<OpenStack::PortBinding>("p");
  other->portToHostBindingIs("h2");
  other->portToHostBindingIs("h3");
  world.traces.take();
  sm->portBindingIs(other);
  EXPECT_EQ(sm->portBinding(), other);
  EXPECT_FALSE(sm->portToHostBinding().contains("h1"));
  EXPECT_EQ(sm->portToHostBinding()["h2"]->notifier(), other->portToHostBinding()["h2"]);
  EXPECT_TRUE(sm->portToHostBinding().contains("h3"));
  EXPECT_FALSE(sm->portToHostBindingSm().contains("h3"));
  EXPECT_THAT(world.published(), ElementsAre("host h1", "host h1 domain R: p", "host h2",
                                             "host h2 domain R: p", "host h2 vlan 10: p"));
  world.traces.take();
  world.apply("host p h4");
  EXPECT_THAT(world.traces.take(), IsEmpty());
  other->portToHostBindingIs("h5");
  world.run();
  EXPECT_TRUE(sm->portToHostBindingSm().contains("h5"));
}

TEST_F(PortBindingTest, ADroppedPortBindingIsNotObserved) {
  world.start("region R; segment vl vlan 10; host p h1 0=vl");
  const auto sm = world.portSm("p");
  sm->portBindingDel();
  EXPECT_FALSE(sm->portBinding());
  world.apply("host p h2; -host p h1");
  EXPECT_TRUE(sm->portToHostBinding().contains("h1"));
  EXPECT_FALSE(sm->portToHostBinding().contains("h2"));
  sm->handlePortToHostBinding("h1");
  EXPECT_FALSE(sm->portToHostBindingSm().contains("h1"));
  EXPECT_THAT(world.published(), ElementsAre("host h1"));
}

}  // namespace
