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

TEST_F(ReactorsTest, WithoutTheRootMachineChangesOfTheConfigurationMeanNothing) {
  const auto regions = orphan<OpenStack::OpenStackSm::KivOpenstackConfig>(world.cloud);
  const auto config = orphan<OpenStack::OpenStackSm::KivConfig>(world.config);
  world.change("region S; -region S; region R; assign R 20; assign S 5; driver 1");
  expectSilence();
}

TEST_F(ReactorsTest, WithoutTheRegionMachineWhatTheDriverWritesMeansNothing) {
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

TEST_F(ReactorsTest, WithoutTheRegionMachineItsTimerMeansNothing) {
  const auto timer = Kiv::make<OpenStack::RegionConfigSm::KivSyncHeartbeatClock>(
      Kiv::Ptr<const Kiv::Clock>(world.loop.clock()), nullptr);
  timer->hasNotificationActiveIs(true);
  timer->timeMinIs(world.time.now() + 1);
  world.passes(1);
  EXPECT_EQ(world.loop.nextTimer(), Kiv::Clock::kNever);
  EXPECT_THAT(world.traces.take(), IsEmpty());
}

TEST_F(ReactorsTest, WithoutThePortMachineBindingsMeanNothing) {
  const auto host = orphan<OpenStack::PortBindingSm::KivPortBinding>(world.binding("p"));
  const auto interface = orphan<OpenStack::PortBindingSm::KivPortBinding>(world.binding("q"));
  world.change("host p h3; -host p h1; switch q sw e2 h2; -switch q sw e1");
  expectSilence();
}

TEST_F(ReactorsTest, WithoutThePublishingMachineSegmentsMeanNothing) {
  const auto host =
      orphan<OpenStack::PortToHostBindingSm::KivBinding>(world.hostBinding("p", "h1"));
  const auto interface =
      orphan<OpenStack::PortToSwitchInterfaceBindingSm::KivBinding>(world.switchBinding("q"));
  world.change("segment vx vxlan 7; host p h1 0=vx 1=vl; switch q sw e1 h2 0=vl");
  expectSilence();
}

}  // namespace
