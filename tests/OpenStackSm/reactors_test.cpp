// Reactors that have lost their machine, or are marked for deletion: they react to nothing.
#include "tests/OpenStackSm/MachineTest.h"

namespace {

using testing::IsEmpty;

class ReactorsTest : public MachineTest {
 protected:
  void SetUp() override {
    world.change(R"(region R; segment vl vlan 10; host p h1 0=vl; switch q sw e1 h2
                    assign R 10)");
    world.run();
  }

  // A reactor on an entity whose machine has gone.
  template <class R, class Entity>
  static Kiv::Ptr<R> orphan(const Kiv::Ptr<Entity>& entity) {
    const auto reactor = Kiv::make<R>(Kiv::Ptr<const Entity>(entity), nullptr);
    reactor->hasNotificationActiveIs(true);
    return reactor;
  }
  // Delivers what waits, of which there is something, and expects that nothing comes of it.
  void expectSilence() {
    EXPECT_FALSE(world.loop.idle());
    world.run();
    EXPECT_THAT(world.traces.take(), IsEmpty());
    EXPECT_THAT(world.published(), IsEmpty());
    EXPECT_THAT(world.statuses->regionStatus(), IsEmpty());
  }
};

TEST_F(ReactorsTest, WithoutTheRootMachineTheConfigurationsReactorsDoNothing) {
  const auto regions = orphan<OpenStack::OpenStackSm::KivOpenstackConfig>(world.cloud);
  const auto config = orphan<OpenStack::OpenStackSm::KivConfig>(world.config);
  world.change("region S; -region S; region R; assign R 20; assign S 5; driver 1");
  expectSilence();
}

TEST_F(ReactorsTest, WithoutTheRegionMachineItsReactorDoesNothing) {
  const auto reactor = orphan<OpenStack::RegionConfigSm::KivRegionConfig>(world.region());
  world.change("segment vx vxlan 7; bind r; sync progress; heartbeat; lock a 1");
  expectSilence();
  EXPECT_EQ(world.loop.nextTimer(), Kiv::Clock::kNever);
}

TEST_F(ReactorsTest, ARegionReactorThatIsDisconnectedHandlesNothing) {
  world.start("sync progress; lock a 1");
  const auto sm = world.regionSm();
  const auto reactor = Kiv::make<OpenStack::RegionConfigSm::KivRegionConfig>(
      Kiv::Ptr<const OpenStack::Region>(world.region()), sm.get());
  const std::string before = world.status();
  world.traces.take();
  reactor->notifierIs(nullptr);
  world.run();
  EXPECT_THAT(world.traces.take(), IsEmpty());
  EXPECT_EQ(world.status(), before);
  reactor->machineDel();
}

TEST_F(ReactorsTest, WithoutTheRegionMachineItsTimerDoesNothing) {
  const auto timer = Kiv::make<OpenStack::RegionConfigSm::KivSyncHeartbeatClock>(
      Kiv::Ptr<const Kiv::Clock>(world.loop.clock()), nullptr);
  timer->hasNotificationActiveIs(true);
  timer->timeMinIs(world.time.now() + 1);
  world.passes(1);
  EXPECT_EQ(world.loop.nextTimer(), Kiv::Clock::kNever);
  EXPECT_THAT(world.traces.take(), IsEmpty());
}

TEST_F(ReactorsTest, WithoutThePortMachineItsReactorDoesNothing) {
  const auto host = orphan<OpenStack::PortBindingSm::KivPortBinding>(world.binding("p"));
  const auto interface = orphan<OpenStack::PortBindingSm::KivPortBinding>(world.binding("q"));
  world.change("host p h3; -host p h1; switch q sw e2 h2; -switch q sw e1");
  expectSilence();
}

TEST_F(ReactorsTest, WithoutThePublishingMachineItsReactorDoesNothing) {
  const auto host =
      orphan<OpenStack::PortToHostBindingSm::KivBinding>(world.hostBinding("p", "h1"));
  const auto interface =
      orphan<OpenStack::PortToSwitchInterfaceBindingSm::KivBinding>(world.switchBinding("q"));
  world.change("segment vx vxlan 7; host p h1 0=vx 1=vl; switch q sw e1 h2 0=vl");
  expectSilence();
}

TEST_F(ReactorsTest, AZombieReactorThatIsGivenAnotherRegionHandlesNothing) {
  world.start();
  const auto sm = world.regionSm();
  const std::string before = world.status();
  sm->kivDoZombieReactors(true);
  world.traces.take();
  const auto other = Kiv::make<OpenStack::Region>("R");
  other->syncStatusIs(OpenStack::SyncStatus::syncInProgress);
  other->requestIdIs("1");
  sm->regionConfigIs(other);
  world.run();
  EXPECT_EQ(world.status(), before);
  EXPECT_THAT(world.traces.takeMessages(9), IsEmpty());
  sm->regionConfigIs(world.region());
  sm->kivDoZombieReactors(false);
}

TEST_F(ReactorsTest, AConfigurationReactorThatIsDisconnectedHandlesNothing) {
  world.start();
  const auto reactor = Kiv::make<OpenStack::OpenStackSm::KivConfig>(
      Kiv::Ptr<const OpenStack::Config>(world.config), world.root.get());
  const std::string before = world.vlans();
  world.traces.take();
  reactor->notifierIs(nullptr);
  world.run();
  EXPECT_THAT(world.traces.take(), IsEmpty());
  EXPECT_EQ(world.vlans(), before);
  reactor->machineDel();
}

// One with a handler would never be called.
TEST_F(ReactorsTest, PassiveReactorsOverrideNoHandler) {
  if (!Kiv::detail::PackedHandler::kPacks) GTEST_SKIP() << "what is overridden is not known";
  world.start();
  const auto sm = world.regionSm();
  const auto leavesEmpty = [](const auto& reactor, auto... handlers) {
    EXPECT_TRUE(reactor.isRegisteredNotifiee());
    return (!Kiv::NotifieeBase::overrides(reactor, handlers) && ...);
  };
  using OfSegment = OpenStack::Segment::NotifieeConst;
  const auto noneOfSegment = [&](const OfSegment& reactor) {
    return leavesEmpty(reactor, &OfSegment::onSegmentationType, &OfSegment::onSegmentationId);
  };
  using OfPort = OpenStack::PortBinding::NotifieeConst;
  const auto noneOfPort = [&](const OfPort& reactor) {
    using Interface = VirtualNetwork::SwitchInterface;
    return leavesEmpty(
        reactor, static_cast<void (OfPort::*)(const Kiv::Name&)>(&OfPort::onPortToHostBinding),
        &OfPort::onPortToHostBindingkivImmediate,
        static_cast<void (OfPort::*)()>(&OfPort::onPortToHostBinding),
        static_cast<void (OfPort::*)(const Interface&)>(&OfPort::onPortToSwitchInterfaceBinding),
        &OfPort::onPortToSwitchInterfaceBindingkivImmediate,
        static_cast<void (OfPort::*)()>(&OfPort::onPortToSwitchInterfaceBinding), &OfPort::onPort);
  };
  const auto noneOfBinding = [&]<class N>(const N& reactor) {
    return leavesEmpty(reactor, static_cast<void (N::*)(Kiv::U8)>(&N::onSegment),
                       &N::onSegmentkivImmediate, static_cast<void (N::*)()>(&N::onSegment));
  };
  EXPECT_TRUE(noneOfSegment(*sm->segment()["vl"]));
  EXPECT_TRUE(noneOfPort(*sm->portBinding()["p"]));
  const auto& p = *sm->portBindingSm()["p"];
  const OpenStack::PortToHostBinding::NotifieeConst& host = *p.portToHostBinding()["h1"];
  EXPECT_TRUE(noneOfBinding(host));
  EXPECT_TRUE(noneOfSegment(*p.portToHostBindingSm()["h1"]->segment()[0]));
  const auto& q = *sm->portBindingSm()["q"];
  using OfInterface = OpenStack::PortToSwitchInterfaceBinding::NotifieeConst;
  const OfInterface& interface = **q.portToSwitchInterfaceBinding().begin();
  EXPECT_TRUE(noneOfBinding(interface));
  EXPECT_TRUE(leavesEmpty(interface, &OfInterface::onHost));

  // One with handlers is recognised as such.
  const auto listening = Kiv::make<OpenStack::PortBindingSm::KivPortBinding>(
      Kiv::Ptr<const OpenStack::PortBinding>(world.binding("p")), nullptr);
  EXPECT_FALSE(noneOfPort(*listening));
}

TEST_F(ReactorsTest, AReactorThatIsDeletedByHandIsMadeAgainWithTheNextChange) {
  world.start();
  world.apply("segment vm vlan 20; bind s");
  const auto sm = world.regionSm();
  sm->segmentDel("vl");
  sm->portBindingDel("p");
  EXPECT_FALSE(sm->segment().contains("vl"));
  EXPECT_FALSE(sm->portBinding().contains("p"));
  world.apply("segment vx vxlan 7; bind r");
  EXPECT_TRUE(sm->segment().contains("vl"));
  EXPECT_TRUE(sm->segment().contains("vx"));
  EXPECT_TRUE(sm->portBinding().contains("p"));
}

TEST_F(ReactorsTest, AReactorThatIsDeletedByHandBeforeTheLoopRunsIsMadeAgainByIt) {
  world.start("segment vm vlan 20");
  world.change("assign S 7; host p h1 1=vm; host p h2; switch q sw e2 h2");
  const auto onHost = world.hostSm("p", "h1");
  const auto p = world.portSm("p");
  const auto q = world.portSm("q");
  world.root->vlanAssignmentDel("S");
  onHost->segmentDel(1);
  p->portToHostBindingDel("h2");
  q->portToSwitchInterfaceBindingDel({"sw", "e2"});
  world.run();
  EXPECT_TRUE(world.root->vlanAssignment().contains("S"));
  EXPECT_TRUE(onHost->segment().contains(1));
  EXPECT_TRUE(p->portToHostBinding().contains("h2"));
  EXPECT_TRUE(q->portToSwitchInterfaceBinding().contains({"sw", "e2"}));
}

}  // namespace
