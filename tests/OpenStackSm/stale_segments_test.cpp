// A segment that is replaced while the machine of its binding is not notified: the machine's mirror
// of the levels is stale at the next change.
#include "tests/OpenStackSm/MachineTest.h"

namespace {

using testing::Contains;
using testing::Not;

class StaleSegmentsTest : public MachineTest {
 protected:
  void SetUp() override {
    world.start(
        "region R; segment vl vlan 10; segment vm vlan 20; segment vx vxlan 5000; "
        "segment vy vxlan 6000; host p h1 0=vx 1=vl");
    machine_ = world.hostSm("p", "h1");
    machine_->hasNotificationActiveIs(false);
    world.apply("host p h1 1=vm");
    machine_->hasNotificationActiveIs(true);
  }

  void TearDown() override {
    machine_ = nullptr;
    MachineTest::TearDown();
  }

  Kiv::Ptr<OpenStack::PortToHostBindingSm> machine_;
};

TEST_F(StaleSegmentsTest, TheNextChangeOfAnotherLevelWithdrawsTheOldVlanAndObservesTheNewSegment) {
  EXPECT_THAT(world.published(), Contains("host h1 vlan 10: p"));
  world.apply("host p h1 0=vy");
  EXPECT_EQ(machine_->segment()[1]->entity(), world.segment("vm"));
  EXPECT_THAT(world.published(), Not(Contains("host h1 vlan 10: p")));
}

TEST_F(StaleSegmentsTest, TheRemovalOfTheLevelWithdrawsWhatWasPublished) {
  world.apply("host p h1 1=-");
  EXPECT_EQ(machine_->segment()[1], nullptr);
  EXPECT_THAT(world.published(), Not(Contains("host h1 vlan 10: p")));
  EXPECT_THAT(world.published(), Not(Contains("host h1 vlan 20: p")));
}

TEST_F(StaleSegmentsTest, TheEndOfTheBindingLeavesNothing) {
  world.apply("-bind p");
  EXPECT_EQ(world.published(), Lines{"host h1"});
}

}  // namespace
