// How machines are made, found again and ended: null arguments, machines that cannot be made, what
// observers of the outputs do meanwhile, reactors that were dropped or disconnected.
#include <stdexcept>

#include "OpenStackSm/Uuid.h"
#include "framework/FeatureToggle.h"
#include "tests/OpenStackSm/MachineTest.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class LifecycleTest : public SwitchTest {
 protected:
  // How many trace lines hold this text, since the last call of take().
  int lines(const std::string& text) {
    int count = 0;
    for (const std::string& line : world.traces.take()) {
      if (line.find(text) != std::string::npos) ++count;
    }
    return count;
  }
};

// Keys that belong to what a handler deletes

TEST_P(LifecycleTest, ARegionIsHandledByTheNameThatItsMachineOwns) {
  world.start("region R; segment vl vlan 10");
  world.change("-region R");
  world.root->handleRegion(world.regionSm()->regionName());
  EXPECT_FALSE(world.regionSm());
  EXPECT_THAT(world.statuses->regionStatus(), IsEmpty());
}

TEST_P(LifecycleTest, HandlersTakeTheKeysOfTheirOwnMachines) {
  world.start("region R; segment vl vlan 10; host p h1 0=vl; switch q sw e1 h2 0=vl");
  world.change("-host p h1; -switch q sw e1");
  world.portSm("p")->handlePortToHostBinding(world.hostSm("p", "h1")->host());
  world.portSm("q")->handlePortToSwitchInterfaceBinding(world.switchSm("q")->switchInterface());
  EXPECT_FALSE(world.hostSm("p", "h1"));
  EXPECT_FALSE(world.switchSm("q"));
  world.change("-bind p");
  world.regionSm()->handlePortBinding("p");
  EXPECT_FALSE(world.portSm("p"));
}

// The end of a machine after its cleanup

TEST_P(LifecycleTest, ANativeVlanThatAnotherPortSetsMeanwhileStays) {
  world.start("region R; segment va vlan 10; segment vb vlan 20; port p native; port q native");
  world.apply("switch p sw e1 h1 0=va");
  world.change("-switch p sw e1; switch q sw e1 h1 0=vb");
  world.run();
  EXPECT_THAT(world.published(), testing::Contains(at() + " native 20"));
}

TEST_P(LifecycleTest, TheEndAfterACleanupWritesOneLineForEachSegment) {
  world.start("region R; segment vx vxlan 5000; segment vl vlan 10");
  world.apply("host p h1 0=vx 1=vl; switch q sw e1 h2 0=vx 1=vl");
  world.traces.take();
  world.change("-host p h1; -switch q sw e1");
  world.traces.take();
  world.run();
  std::vector<std::string> cleanups;
  for (const std::string& line : world.traces.take()) {
    if (line.find("BindingSm::KivSegment::doCleanup()") != std::string::npos) {
      cleanups.push_back(line.substr(0, 2) + line.substr(line.find(" ] ") + 3));
    }
  }
  ASSERT_EQ(cleanups.size(), 4U);
  for (const std::string& line : cleanups) EXPECT_EQ(line[0], '9') << line;
}

TEST_P(LifecycleTest, ALevelThatIsPublishedAfterTheCleanupIsWithdrawnAtTheEnd) {
  world.start("region R; segment vl vlan 10; host p h1 0=vl; switch q sw e1 h2 0=vl");
  world.hostSm("p", "h1")->doCleanup();
  world.hostSm("p", "h1")->handleSegment(0);
  world.portSm("p")->portToHostBindingSmDel("h1");
  EXPECT_THAT(world.resources->resourcesForHostname()["h1"]->vlan(), IsEmpty());
  for (const auto& reactor : world.switchSm("q")->segment()) reactor->doCleanup();
  world.switchSm("q")->handleSegment(0);
  EXPECT_THAT(world.published(), testing::Contains(at() + " vlan 10: q"));
  world.portSm("q")->portToSwitchInterfaceBindingSmDel({"sw", "e1"});
  EXPECT_THAT(world.published(), testing::Not(testing::Contains(at() + " vlan 10: q")));
  world.root = nullptr;
  world.resources->resourcesForHostnameDelAll();
  world.resources->resourcesForSwitchportDelAll();
  world.elements->networkElementDelAll();
}

TEST_P(LifecycleTest, AVniThatIsPublishedAfterTheCleanupIsWithdrawnWithItsVlan) {
  world.start("region R; segment vx vxlan 5000; segment vl vlan 10; host p h1 0=vx 1=vl");
  world.hostSm("p", "h1")->doCleanup();
  world.hostSm("p", "h1")->handleSegment(0);
  world.portSm("p")->portToHostBindingSmDel("h1");
  EXPECT_THAT(world.resources->resourcesForHostname()["h1"]->vlan(), IsEmpty());
  world.portSm("p")->doCleanupPortToHostBinding("h1");
}

// Children that are found again

TEST_P(LifecycleTest, AMachineWhoseBindingLeftAndCameBackHearsItAgain) {
  world.start("region R; segment vl vlan 10; segment vm vlan 20; host p h1; switch q sw e1 h2");
  const auto host = world.hostBinding("p", "h1");
  const auto interface = world.switchBinding("q");
  const auto hostSm = world.hostSm("p", "h1");
  const auto interfaceSm = world.switchSm("q");
  world.change("-host p h1; -switch q sw e1");
  EXPECT_FALSE(hostSm->hasNotificationActive());
  world.binding("p")->portToHostBindingIs(host);
  world.binding("q")->portToSwitchInterfaceBindingIs(interface);
  world.run();
  EXPECT_EQ(world.hostSm("p", "h1"), hostSm);
  EXPECT_TRUE(hostSm->hasNotificationActive());
  EXPECT_TRUE(interfaceSm->hasNotificationActive());
  world.apply("host p h1 0=vm; switch q sw e1 h2 0=vm");
  expectRebuiltIsReached();
}

// Inputs that are dropped and given again

TEST_P(LifecycleTest, AConfigurationThatIsGivenAgainIsMirroredAndItsDriverApplied) {
  world.start("region R; assign R 10");
  world.root->configDel();
  world.change("assign R 20; region S; assign S 30");
  world.run();
  world.root->configIs(world.config);
  world.change("region R");
  EXPECT_EQ(world.vlans(), "assigned 10 20 allocated available 10 20");
  EXPECT_EQ(world.root->vlanAssignment().size(), 2U);
}

TEST_P(LifecycleTest, ARegionThatIsGivenAgainIsMirroredAndItsScalarsAreHandled) {
  world.start("region R; segment va vlan 10");
  const auto region = world.region();
  world.regionSm()->regionConfigDel();
  world.change("segment vb vlan 20; sync progress; lock driver id");
  world.run();
  EXPECT_EQ(world.regionStatus()->syncStatus(), OpenStack::SyncStatus::syncUnknown);
  world.regionSm()->regionConfigIs(region);
  EXPECT_EQ(world.regionSm()->segment().size(), 2U);
  EXPECT_EQ(world.regionStatus()->syncStatus(), OpenStack::SyncStatus::syncInProgress);
  EXPECT_EQ(world.regionStatus()->owner(), "driver");
}

TEST_P(LifecycleTest, BindingsThatAreGivenAgainAreMirrored) {
  world.start("region R; segment vl vlan 10; host p h1 0=vl; switch q sw e1 h3");
  const auto portBinding = world.binding("p");
  const auto hostBinding = world.hostBinding("p", "h1");
  const auto interfaceBinding = world.switchBinding("q");
  world.portSm("p")->portBindingDel();
  world.hostSm("p", "h1")->portToHostBindingDel();
  world.switchSm("q")->portToSwitchInterfaceBindingDel();
  world.apply("host p h1 1=vl; host p h2 0=vl; switch q sw e1 h3 0=vl");
  world.portSm("p")->portBindingIs(portBinding);
  EXPECT_EQ(world.portSm("p")->portToHostBinding().size(), 2U);
  world.hostSm("p", "h1")->portToHostBindingIs(hostBinding);
  EXPECT_EQ(world.hostSm("p", "h1")->segment().size(), 2U);
  world.switchSm("q")->portToSwitchInterfaceBindingIs(interfaceBinding);
  EXPECT_EQ(world.switchSm("q")->segment().size(), 1U);
  world.portSm("p")->handlePortToHostBinding("h2");
  world.hostSm("p", "h1")->handleSegment(1);
  world.switchSm("q")->handleSegment(0);
  expectRebuiltIsReached();
}

TEST_P(LifecycleTest, TheFirstChangeOfANewRegionLooksAtTheChangedMemberOnly) {
  world.start("region R; segment va vlan 10; bind p");
  const Kiv::Ptr<OpenStack::RegionConfigSm::KivSegment> segment(world.regionSm()->segment()["va"]);
  const Kiv::Ptr<OpenStack::RegionConfigSm::KivPortBinding> binding(
      world.regionSm()->portBinding()["p"]);
  // A look at all members would connect these again.
  segment->notifierIs(nullptr);
  binding->notifierIs(nullptr);
  world.change("segment vb vlan 20; bind q");
  EXPECT_FALSE(segment->entity());
  EXPECT_FALSE(binding->entity());
  EXPECT_EQ(world.regionSm()->segment().size(), 2U);
  EXPECT_EQ(world.regionSm()->portBinding().size(), 2U);
  segment->notifierIs(world.segment("va"));
  binding->notifierIs(world.binding("p"));
}

// Disconnected reactors

TEST_P(LifecycleTest, ACleanupWithoutAnEntityIsSkippedWithALine) {
  world.start("region R; segment vl vlan 10; host p h1 0=vl; switch q sw e1 h2 0=vl");
  const auto region = world.regionSm();
  const auto hosts = world.portSm("p");
  const auto interfaces = world.portSm("q");
  const auto host = world.hostSm("p", "h1");
  const auto interface = world.switchSm("q");
  for (const auto& reactor : host->segment()) reactor->notifierIs(nullptr);
  for (const auto& reactor : interface->segment()) reactor->notifierIs(nullptr);
  for (const auto& reactor : hosts->portToHostBinding()) reactor->notifierIs(nullptr);
  for (const auto& reactor : interfaces->portToSwitchInterfaceBinding()) {
    reactor->notifierIs(nullptr);
  }
  for (const auto& reactor : region->segment()) reactor->notifierIs(nullptr);
  for (const auto& reactor : region->portBinding()) reactor->notifierIs(nullptr);
  EXPECT_EQ(host->segment()[0]->fwkKey(), 0);
  EXPECT_EQ(region->segment()["vl"]->fwkKey(), "vl");
  EXPECT_EQ(hosts->portToHostBinding()["h1"]->fwkKey(), "h1");

  world.traces.take();
  const Lines before = world.published();
  EXPECT_EQ(host->segmentDel(0), nullptr);
  EXPECT_EQ(interface->segmentDel(0), nullptr);
  EXPECT_EQ(hosts->portToHostBindingDel("h1"), nullptr);
  EXPECT_EQ(interfaces->portToSwitchInterfaceBindingDel({"sw", "e1"}), nullptr);
  EXPECT_EQ(region->segmentDel("vl"), nullptr);
  EXPECT_EQ(region->portBindingDel("p"), nullptr);
  EXPECT_EQ(region->portBindingDel("q"), nullptr);
  EXPECT_THAT(
      world.traces.takeMessages(9),
      ElementsAre("No segment to clean up", "No segment to clean up", "No host binding to clean up",
                  "No switch-interface binding to clean up", "No segment to clean up",
                  "No port binding to clean up", "No port binding to clean up"));
  EXPECT_EQ(world.published(), before);
  EXPECT_THAT(host->segment(), IsEmpty());
  EXPECT_THAT(region->portBinding(), IsEmpty());
  host->handleSegment(0);
  EXPECT_EQ(region->portBindingSmDel("p"), hosts);
  EXPECT_EQ(region->portBindingSmDel("q"), interfaces);
  // What is left belongs to nobody any more.
  world.resources->resourcesForHostnameDelAll();
  world.resources->resourcesForSwitchportDelAll();
  world.elements->networkElementDelAll();
}

TEST_P(LifecycleTest, ADroppedReactorThatIsCleanedByHandSaysSo) {
  world.start("region R; segment vl vlan 10");
  const Kiv::Ptr<OpenStack::RegionConfigSm::KivSegment> reactor(world.regionSm()->segment()["vl"]);
  world.regionSm()->segmentDel("vl");
  world.traces.take();
  reactor->handleCleanup();
  EXPECT_THAT(world.traces.takeMessages(9), ElementsAre("No segment to clean up"));
}

// Machines that are asked for while they are made

TEST_P(LifecycleTest, AWatcherThatHandlesAKeyAgainMakesNoSecondMachine) {
  constexpr const char* kBound =
      "region R; segment vx vxlan 5000; segment vl vlan 10; host p h1 0=vx 1=vl; "
      "switch q sw e1 h2 0=vx 1=vl";
  bool reached = true;
  for (int write = 1; reached; ++write) {
    reached = false;
    world.start();
    OutputWatch watch(world.statuses, world.resources, world.elements);
    int writes = 0;
    watch.immediate = [&](const std::string&) {
      if (++writes != write) return;
      reached = true;
      world.root->handleRegion("R");
      const auto region = world.regionSm();
      if (!region) return;
      region->handlePortBinding("p");
      region->handlePortBinding("q");
      if (const auto p = world.portSm("p")) p->handlePortToHostBinding("h1");
      if (const auto q = world.portSm("q")) q->handlePortToSwitchInterfaceBinding({"sw", "e1"});
    };
    world.apply(kBound);
    watch.immediate = nullptr;
    EXPECT_EQ(world.root->regionConfigSm().size(), 1U) << write;
    EXPECT_EQ(world.regionSm()->portBindingSm().size(), 2U) << write;
    EXPECT_EQ(world.portSm("p")->portToHostBindingSm().size(), 1U) << write;
    EXPECT_EQ(world.portSm("q")->portToSwitchInterfaceBindingSm().size(), 1U) << write;
    EXPECT_TRUE(world.regionSm()->hasNotificationActive());
    expectRebuiltIsReached();
    world.unbindAll();
    EXPECT_THAT(withoutHistory(world.published()), IsEmpty()) << write;
    world.apply("-region R");
    world.rootDel();
    ASSERT_LT(write, 200);
  }
}

// Machines that cannot be made

TEST_P(LifecycleTest, APortWhosePublicationThrowsLeavesNothing) {
  world.start("region R; segment vx vxlan 5000; segment vl vlan 10; port q native");
  bool reached = true;
  for (int write = 1; reached; ++write) {
    reached = false;
    OutputWatch watch(world.statuses, world.resources, world.elements);
    int writes = 0;
    watch.immediate = [&](const std::string& path) {
      if (++writes != write) return;
      reached = true;
      throw std::runtime_error("from a watcher of " + path);
    };
    world.change("host p h1 0=vx 1=vl; switch q sw e1 h3 0=vx 1=vl");
    for (bool idle = false; !idle;) {
      try {
        world.run();
        idle = true;
      } catch (const std::runtime_error&) {
      }
    }
    watch.immediate = nullptr;
    world.apply("-bind p; -bind q");
    EXPECT_THAT(withoutHistory(world.published()), IsEmpty()) << write;
    ASSERT_LT(write, 200);
  }
}

TEST_P(LifecycleTest, ARootMachineThatCannotBeMadeLeavesNothing) {
  world.change("region R; segment vx vxlan 5000; segment vl vlan 10; port q native");
  world.change("host p h1 0=vx 1=vl; switch q sw e1 h3 0=vx 1=vl");
  bool reached = true;
  for (int write = 1; reached; ++write) {
    reached = false;
    OutputWatch watch(world.statuses, world.resources, world.elements);
    int writes = 0;
    watch.immediate = [&](const std::string& path) {
      if (++writes != write) return;
      reached = true;
      throw std::runtime_error("from a watcher of " + path);
    };
    if (thrown<std::runtime_error>([&] { world.start(); }) == "nothing was thrown") break;
    EXPECT_THAT(machinesAlive(), IsEmpty()) << write;
    EXPECT_THAT(withoutHistory(world.published()), IsEmpty()) << write;
    ASSERT_LT(write, 200);
  }
}

INSTANTIATE_TEST_SUITE_P(Toggles, LifecycleTest, bothToggles(), toggleName);

// Null arguments

class NullArgumentTest : public MachineTest {
 protected:
  const Kiv::Ptr<const OpenStack::Port> port = Kiv::make<OpenStack::Port>("p");
  const Kiv::Ptr<OpenStack::RegionStatus> status = Kiv::make<OpenStack::RegionStatus>("R");

  template <class Make>
  static void expectRefused(Make make) {
    EXPECT_EQ(thrown<Kiv::RangeException>([&] { (void)make(); }), "null ValidPtr");
    EXPECT_THAT(machinesAlive(), IsEmpty());
  }
};

TEST_F(NullArgumentTest, AnOutputAStatusOrAPortMayNotBeNull) {
  using namespace OpenStack;
  const auto& resources = world.resources;
  const auto& elements = world.elements;
  expectRefused([&] {
    return openStackSmFactory(nullptr, nullptr, nullptr, nullptr, resources, 60, nullptr, elements);
  });
  expectRefused([&] {
    return openStackSmFactory(nullptr, world.statuses, nullptr, nullptr, nullptr, 60, nullptr,
                              elements);
  });
  expectRefused([&] {
    return OpenStackSm::OpenStackSmIs(nullptr, world.statuses, nullptr, nullptr, resources, 60,
                                      nullptr, nullptr);
  });
  expectRefused(
      [&] { return regionConfigSmFactory("R", nullptr, nullptr, resources, 60, elements); });
  expectRefused([&] { return regionConfigSmFactory("R", nullptr, status, nullptr, 60, elements); });
  expectRefused([&] {
    return RegionConfigSm::RegionConfigSmIs("R", nullptr, status, resources, 60, nullptr);
  });
  expectRefused(
      [&] { return portBindingSmFactory("R", "p", nullptr, nullptr, resources, elements); });
  expectRefused([&] { return portBindingSmFactory("R", "p", port, nullptr, nullptr, elements); });
  expectRefused(
      [&] { return PortBindingSm::PortBindingSmIs("R", "p", port, nullptr, resources, nullptr); });
  expectRefused([&] { return portToHostBindingSmFactory("h", nullptr, nullptr, resources); });
  expectRefused(
      [&] { return PortToHostBindingSm::PortToHostBindingSmIs("h", port, nullptr, nullptr); });
  expectRefused([&] {
    return portToSwitchInterfaceBindingSmFactory({"sw", "e"}, "R", nullptr, nullptr, resources,
                                                 elements);
  });
  expectRefused([&] {
    return portToSwitchInterfaceBindingSmFactory({"sw", "e"}, "R", port, nullptr, nullptr,
                                                 elements);
  });
  expectRefused([&] {
    return PortToSwitchInterfaceBindingSm::PortToSwitchInterfaceBindingSmIs(
        {"sw", "e"}, "R", port, nullptr, resources, nullptr);
  });
}

TEST_F(NullArgumentTest, ObservedInputsAndNameResolutionMayBeNull) {
  using namespace OpenStack;
  const auto& resources = world.resources;
  const auto& elements = world.elements;
  EXPECT_TRUE(openStackSmFactory(nullptr, world.statuses, nullptr, nullptr, resources, 60, nullptr,
                                 elements));
  EXPECT_TRUE(regionConfigSmFactory("R", nullptr, status, resources, 60, elements));
  EXPECT_TRUE(portBindingSmFactory("R", "p", port, nullptr, resources, elements));
  EXPECT_TRUE(portToHostBindingSmFactory("h", port, nullptr, resources));
  EXPECT_TRUE(
      portToSwitchInterfaceBindingSmFactory({"sw", "e"}, "R", port, nullptr, resources, elements));
}

TEST_F(NullArgumentTest, APortBindingWithoutAPortIsRefusedByTheLoop) {
  world.start("region R");
  world.region()->portBindingIs("p");
  EXPECT_EQ(thrown<Kiv::RangeException>([&] { world.run(); }), "null ValidPtr");
  EXPECT_FALSE(world.portSm("p"));
}

// Broken invariants name what they are about

using InvariantDeathTest = NullArgumentTest;

TEST_F(InvariantDeathTest, NamesThePortAndTheHost) {
  world.start("region R; host p h1; region S; bind q");
  EXPECT_DEATH(world.apply("host q h1"),
               "Port q on host h1\nAssertion \"host->domains\\(\\) == 1\"");
}

TEST_F(InvariantDeathTest, NamesThePortAndTheSwitchInterface) {
  world.start("region R; segment vl vlan 10; switch p sw e1 h1");
  world.resources->resourcesForSwitchportDelAll();
  EXPECT_DEATH(world.apply("switch p sw e1 h1 0=vl"),
               "Port p on switch interface sw:e1\nAssertion \"switchPort\"");
}

TEST_F(InvariantDeathTest, AConflictNamesThePortAndWhereItIsBoundAlsoWithoutTraces) {
  world.start("region R; host p h1");
  Kiv::_defaultTraceHandle().levelIs(-1);
  EXPECT_DEATH(world.apply("switch p sw e1 h2"),
               "Port p on switch interface sw:e1\nAssertion \"false\"");
}

// Small things of the root

TEST_F(NullArgumentTest, TheRootHasANotifyHookForEachOfItsCollections) {
  world.start("region R; assign R 10");
  world.root->vlanAssignmentNotify("R");
  world.root->regionConfigSmNotify("R");
}

TEST(UuidSourceTest, AnInstalledSourceMakesEveryUuid) {
  int made = 0;
  OpenStack::uuidSourceIs([&] { return "uuid-" + std::to_string(++made); });
  EXPECT_EQ(OpenStack::uuid(), "uuid-1");
  EXPECT_EQ(OpenStack::uuid(), "uuid-2");
  EXPECT_EQ(OpenStack::uuidSource()(), "uuid-3");
  OpenStack::uuidSourceIs(nullptr);
  EXPECT_FALSE(OpenStack::uuidSource());
  EXPECT_EQ(OpenStack::uuid().str().size(), 36U);
}

}  // namespace
