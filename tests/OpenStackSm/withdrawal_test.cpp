// What is withdrawn where a machine ends early: bindings that go, or are cleaned up, while the
// machines over them are being started, and starts that throw.
#include <functional>
#include <stdexcept>

#include "tests/OpenStackSm/MachineTest.h"

namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr const char* kCloud = "region R; segment vl vlan 10; bind p; bind q";
constexpr const char* kHost = "host p h1 0=vl";
constexpr const char* kSwitch = "switch q sw e1 h2 0=vl";

class WithdrawalTest : public SwitchTest {
 protected:
  void SetUp() override { world.start(kCloud); }

  // Changes the inputs and delivers; `react` runs once, inside the first write to `path`.
  void applyMeeting(const std::string& text, const std::string& path, std::function<void()> react) {
    OutputWatch watch(world.statuses, world.resources, world.elements);
    bool met = false;
    watch.immediate = [&](const std::string& written) {
      if (met || written != path) return;
      met = true;
      react();
    };
    try {
      world.apply(text);
    } catch (...) {
      EXPECT_TRUE(met);
      throw;
    }
    EXPECT_TRUE(met);
  }
  // The writes that a machine makes while it is being started.
  static std::string hostVlan() { return "host h1 vlan"; }
  static std::string switchVlan() { return at() + " vlan"; }

  Lines left() const { return withoutHistory(world.published()); }
};

TEST_P(WithdrawalTest, ABindingAddedAndRemovedBeforeTheLoopRunsLeavesNothing) {
  world.apply("host p h1 0=vl; -host p h1; switch q sw e1 h2 0=vl; -switch q sw e1");
  EXPECT_THAT(left(), IsEmpty());
  EXPECT_FALSE(world.hostSm("p", "h1"));
  EXPECT_THAT(world.portSm("q")->portToSwitchInterfaceBindingSm(), IsEmpty());
}

TEST_P(WithdrawalTest, AReactorDisconnectedBeforeItIsDeletedLeavesTheOutputsAlone) {
  world.apply(kHost);
  world.apply(kSwitch);
  const Lines before = world.published();
  const auto p = world.portSm("p");
  const auto q = world.portSm("q");
  const VirtualNetwork::SwitchInterface si = world.switchBinding("q")->switchInterface();
  p->portToHostBinding()["h1"]->notifierIs(nullptr);
  q->portToSwitchInterfaceBinding()[si]->notifierIs(nullptr);
  EXPECT_FALSE(p->portToHostBindingDel("h1"));
  EXPECT_FALSE(q->portToSwitchInterfaceBindingDel(si));
  EXPECT_EQ(world.published(), before);
}

TEST_P(WithdrawalTest, WithoutItsPortBindingAMachineDropsTheInterfaceThatItIsAskedAbout) {
  world.apply(kSwitch);
  const auto q = world.portSm("q");
  const VirtualNetwork::SwitchInterface si = world.switchBinding("q")->switchInterface();
  q->portBindingDel();
  q->handlePortToSwitchInterfaceBinding(si);
  EXPECT_THAT(q->portToSwitchInterfaceBindingSm(), IsEmpty());
  // Its machine is gone without a cleanup; binding anew brings one that withdraws.
  q->portBindingIs(world.binding("q"));
  q->handlePortToSwitchInterfaceBinding(si);
  expectRebuiltIsReached();
}

TEST_P(WithdrawalTest, AHostBindingRemovedWhileItsMachineStartsLeavesNothing) {
  applyMeeting(kHost, hostVlan(), [&] { world.change("-host p h1"); });
  EXPECT_THAT(left(), IsEmpty());
  EXPECT_FALSE(world.hostSm("p", "h1"));
}

TEST_P(WithdrawalTest, ASwitchInterfaceBindingRemovedWhileItsMachineStartsLeavesNothing) {
  applyMeeting(kSwitch, switchVlan(), [&] { world.change("-switch q sw e1"); });
  EXPECT_THAT(left(), IsEmpty());
  EXPECT_THAT(world.portSm("q")->portToSwitchInterfaceBindingSm(), IsEmpty());
}

TEST_P(WithdrawalTest, APortUnboundWhileItsHostsMachineStartsLeavesNothing) {
  applyMeeting(kHost, hostVlan(), [&] { world.change("-bind p"); });
  EXPECT_THAT(left(), IsEmpty());
  EXPECT_FALSE(world.portSm("p"));
}

TEST_P(WithdrawalTest, APortUnboundWhileItsInterfacesMachineStartsLeavesNothing) {
  applyMeeting(kSwitch, switchVlan(), [&] { world.change("-bind q"); });
  EXPECT_THAT(left(), IsEmpty());
  EXPECT_FALSE(world.portSm("q"));
}

TEST_P(WithdrawalTest, ACleanupWhileAMachineStartsLeavesNothingUntilTheBindingIsHandledAgain) {
  applyMeeting(kHost, hostVlan(), [&] { world.portSm("p")->doCleanup(); });
  applyMeeting(kSwitch, switchVlan(), [&] { world.portSm("q")->doCleanup(); });
  EXPECT_THAT(left(), IsEmpty());
  world.portSm("p")->handlePortToHostBinding("h1");
  world.portSm("q")->handlePortToSwitchInterfaceBinding(
      world.switchBinding("q")->switchInterface());
  expectRebuiltIsReached();
}

TEST_P(WithdrawalTest, AStartThatThrowsAfterItsPortWasUnboundLeavesNothing) {
  const auto unbindAndThrow = [&](const char* text) {
    return [this, text] {
      world.change(text);
      throw std::runtime_error("from a watcher");
    };
  };
  EXPECT_THROW(applyMeeting(kHost, hostVlan(), unbindAndThrow("-bind p")), std::runtime_error);
  EXPECT_THROW(applyMeeting(kSwitch, switchVlan(), unbindAndThrow("-bind q")), std::runtime_error);
  world.run();
  EXPECT_THAT(left(), IsEmpty());
  EXPECT_FALSE(world.portSm("p"));
  EXPECT_FALSE(world.portSm("q"));
}

TEST_P(WithdrawalTest, ABindingHandledAndRemovedWhileItsMachineStartsLeavesNothing) {
  OutputWatch watch(world.statuses, world.resources, world.elements);
  const VirtualNetwork::SwitchInterface si("sw", "e1");
  int depth = 0;
  watch.immediate = [&](const std::string& path) {
    if (depth == 0 && path == switchVlan()) {
      // Takes away what the handler has published, so that it publishes again.
      depth = 1;
      if (on()) {
        world.resources->resourcesForSwitchport()[si]->referrerDelAll();
      } else {
        world.elements->networkElement()["sw"]->referrerDelAll();
      }
      depth = 2;
      world.portSm("q")->handlePortToSwitchInterfaceBinding(si);
    } else if (depth == 2) {
      depth = 3;
      world.change("-switch q sw e1");
    }
  };
  world.apply(kSwitch);
  EXPECT_EQ(depth, 3);
  EXPECT_THAT(left(), IsEmpty());
  EXPECT_THAT(world.portSm("q")->portToSwitchInterfaceBindingSm(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Toggles, WithdrawalTest, bothToggles(), toggleName);

class WithdrawalOfRootTest : public SwitchTest {};

TEST_P(WithdrawalOfRootTest, ARootThatThrowsAtItsSecondRegionLeavesNothingOfTheFirst) {
  OutputWatch watch(world.statuses, world.resources, world.elements);
  int regions = 0;
  Lines published;
  watch.immediate = [&](const std::string& path) {
    if (path != "status" || ++regions != 2) return;
    published = world.published();
    throw std::runtime_error("from a watcher");
  };
  const auto start = [&] {
    world.start(
        "region A; segment va vlan 10; host p h1 0=va; switch q sw e1 h2 0=va; "
        "region B; segment vb vlan 20; host r h3 0=vb; switch s sw e1 h4 0=vb");
  };
  EXPECT_EQ(thrown<std::runtime_error>(start), "from a watcher");
  EXPECT_THAT(published, Contains(HasSubstr(" vlan ")));
  EXPECT_FALSE(world.root);
  EXPECT_THAT(withoutHistory(world.published()), IsEmpty());
  EXPECT_THAT(machinesAlive(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Toggles, WithdrawalOfRootTest, bothToggles(), toggleName);

}  // namespace
