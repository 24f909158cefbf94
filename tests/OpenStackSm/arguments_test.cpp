// Misuse of the machines: null members, and children that are there with other arguments.
#include "framework/Exceptions.h"
#include "tests/OpenStackSm/MachineTest.h"

namespace {

using Kiv::Ptr;

// The fixed text for a null member of a collection.
std::string nullText(const std::string& machine, const std::string& collection) {
  return "null _" + collection + " parameter to mutator for OpenStack::" + machine +
         "::" + collection + " not allowed\"";
}

// The text for an argument that differs; the values are of the implementation's making.
template <class Type>
std::string differsText(const std::string& attribute, const void* given, const void* current) {
  const auto& type = Kiv::typeRecord<Type>;
  return "Reinstantiating the pointer interface where constructor parameter attribute _" +
         attribute + " has a different value of " + Kiv::valueToStrepOfRawPtr(given, type) +
         " than the current value of " + Kiv::valueToStrepOfRawPtr(current, type) + " not allowed";
}

class ArgumentsTest : public MachineTest {
 protected:
  void SetUp() override {
    world.start("region R; segment vl vlan 10; host p h1 0=vl; switch q sw e1 h1 0=vl");
    world.traces.take();
  }
  Ptr<VirtualNetwork::RequestedResourcesCollection> otherResources =
      Kiv::make<VirtualNetwork::RequestedResourcesCollection>();
  Ptr<VirtualNetwork::NetworkElementCollection> otherElements =
      Kiv::make<VirtualNetwork::NetworkElementCollection>();
};

TEST_F(ArgumentsTest, ANullMemberIsRefusedWithTheCollectionsFixedText) {
  const auto region = world.regionSm();
  const auto p = world.portSm("p");
  const auto host = world.hostSm("p", "h1");
  const auto si = world.switchSm("q");
  using Kiv::RangeException;
  EXPECT_EQ(thrown<RangeException>([&] { world.root->vlanAssignmentIs(nullptr); }),
            nullText("OpenStackSm", "vlanAssignment"));
  EXPECT_EQ(thrown<RangeException>([&] { region->segmentIs(nullptr); }),
            nullText("RegionConfigSm", "segment"));
  EXPECT_EQ(thrown<RangeException>([&] { region->portBindingIs(nullptr); }),
            nullText("RegionConfigSm", "portBinding"));
  EXPECT_EQ(thrown<RangeException>([&] { p->portToHostBindingIs(nullptr); }),
            nullText("PortBindingSm", "portToHostBinding"));
  EXPECT_EQ(thrown<RangeException>([&] { p->portToSwitchInterfaceBindingIs(nullptr); }),
            nullText("PortBindingSm", "portToSwitchInterfaceBinding"));
  EXPECT_EQ(thrown<RangeException>([&] { host->segmentIs(0, nullptr); }),
            nullText("PortToHostBindingSm", "segment"));
  EXPECT_EQ(thrown<RangeException>([&] { si->segmentIs(0, nullptr); }),
            nullText("PortToSwitchInterfaceBindingSm", "segment"));
  EXPECT_EQ(host->segment().size(), 1U);
}

TEST_F(ArgumentsTest, ARegionMachineIsNotMadeAgainWithOtherEntities) {
  const auto sm = world.regionSm();
  const auto region = world.region();
  const auto status = world.regionStatus();
  const auto otherRegion = Kiv::make<OpenStack::Region>("R");
  const auto otherStatus = Kiv::make<OpenStack::RegionStatus>("R");
  const auto again = [&](const auto& r, const auto& s, const auto& resources, Kiv::Seconds timeout,
                         const auto& elements) {
    return thrown<Kiv::NameInUseException>(
        [&] { world.root->regionConfigSmIs("R", r, s, resources, timeout, elements); });
  };
  // In the order of the arguments; the timeout is written on the way.
  EXPECT_EQ(again(otherRegion, otherStatus, otherResources, 1, otherElements),
            differsText<OpenStack::Region>("regionConfig", otherRegion.get(), region.get()));
  EXPECT_EQ(again(region, otherStatus, otherResources, 1, otherElements),
            differsText<OpenStack::RegionStatus>("regionStatus", otherStatus.get(), status.get()));
  EXPECT_EQ(again(region, status, otherResources, 1, otherElements),
            differsText<VirtualNetwork::RequestedResourcesCollection>(
                "requestedResourcesCollection", otherResources.get(), world.resources.get()));
  EXPECT_EQ(sm->regionSyncTimeout(), World::kTimeout);
  EXPECT_EQ(again(region, status, world.resources, 2, otherElements),
            differsText<VirtualNetwork::NetworkElementCollection>(
                "networkElementCollection", otherElements.get(), world.elements.get()));
  EXPECT_EQ(sm->regionSyncTimeout(), 2);
  EXPECT_EQ(world.regionSm(), sm);
  EXPECT_EQ(world.root->regionConfigSmIs("R", region, status, world.resources, 3, world.elements),
            sm);
  EXPECT_EQ(sm->regionSyncTimeout(), 3);
}

TEST_F(ArgumentsTest, APortMachineIsNotMadeAgainWithOtherArguments) {
  const auto sm = world.portSm("p");
  const auto port = world.port("p");
  const auto binding = world.binding("p");
  const auto otherPort = Kiv::make<OpenStack::Port>("p");
  const auto otherBinding = Kiv::make<OpenStack::PortBinding>("p");
  const auto again = [&](const Kiv::Name& name, const auto& aPort, const auto& aBinding,
                         const auto& resources, const auto& elements) {
    return thrown<Kiv::NameInUseException>([&] {
      world.regionSm()->portBindingSmIs(name, "p", aPort, aBinding, resources, elements);
    });
  };
  const std::string prefix =
      "Reinstantiating the pointer interface where constructor parameter attribute ";
  const std::string name = again("S", otherPort, otherBinding, otherResources, otherElements);
  EXPECT_THAT(name, testing::StartsWith(prefix + "_regionName has a different value of "));
  EXPECT_THAT(name, testing::HasSubstr("S"));
  EXPECT_THAT(name, testing::HasSubstr(" than the current value of "));
  EXPECT_THAT(name, testing::EndsWith(" not allowed"));
  EXPECT_EQ(again("R", otherPort, otherBinding, otherResources, otherElements),
            differsText<OpenStack::Port>("port", otherPort.get(), port.get()));
  EXPECT_EQ(again("R", port, otherBinding, otherResources, otherElements),
            differsText<OpenStack::PortBinding>("portBinding", otherBinding.get(), binding.get()));
  EXPECT_EQ(again("R", port, binding, otherResources, otherElements),
            differsText<VirtualNetwork::RequestedResourcesCollection>(
                "requestedResourcesCollection", otherResources.get(), world.resources.get()));
  EXPECT_EQ(again("R", port, binding, world.resources, otherElements),
            differsText<VirtualNetwork::NetworkElementCollection>(
                "networkElementCollection", otherElements.get(), world.elements.get()));
  EXPECT_EQ(again("R", port, binding, world.resources, world.elements), "nothing was thrown");
  EXPECT_EQ(world.portSm("p"), sm);
}

TEST_F(ArgumentsTest, AHostMachineIsNotMadeAgainWithOtherArguments) {
  const auto sm = world.hostSm("p", "h1");
  const auto port = world.port("p");
  const auto binding = world.hostBinding("p", "h1");
  const auto otherPort = Kiv::make<OpenStack::Port>("p");
  const auto otherBinding = Kiv::make<OpenStack::PortToHostBinding>("h1");
  const auto again = [&](const auto& aPort, const auto& aBinding, const auto& resources) {
    return thrown<Kiv::NameInUseException>(
        [&] { world.portSm("p")->portToHostBindingSmIs("h1", aPort, aBinding, resources); });
  };
  EXPECT_EQ(again(otherPort, otherBinding, otherResources),
            differsText<OpenStack::Port>("port", otherPort.get(), port.get()));
  EXPECT_EQ(again(port, otherBinding, otherResources),
            differsText<OpenStack::PortToHostBinding>("portToHostBinding", otherBinding.get(),
                                                      binding.get()));
  EXPECT_EQ(again(port, binding, otherResources),
            differsText<VirtualNetwork::RequestedResourcesCollection>(
                "requestedResourcesCollection", otherResources.get(), world.resources.get()));
  EXPECT_EQ(again(port, binding, world.resources), "nothing was thrown");
  EXPECT_EQ(world.hostSm("p", "h1"), sm);
}

TEST_F(ArgumentsTest, ASwitchInterfaceMachineIsNotMadeAgainWithOtherArguments) {
  const auto sm = world.switchSm("q");
  const auto port = world.port("q");
  const auto binding = world.switchBinding("q");
  const VirtualNetwork::SwitchInterface si("sw", "e1");
  const auto otherPort = Kiv::make<OpenStack::Port>("q");
  const auto otherBinding = Kiv::make<OpenStack::PortToSwitchInterfaceBinding>(si);
  const auto again = [&](const Kiv::Name& name, const auto& aPort, const auto& aBinding,
                         const auto& resources, const auto& elements) {
    return thrown<Kiv::NameInUseException>([&] {
      world.portSm("q")->portToSwitchInterfaceBindingSmIs(si, name, aPort, aBinding, resources,
                                                          elements);
    });
  };
  EXPECT_THAT(again("S", otherPort, otherBinding, otherResources, otherElements),
              testing::StartsWith("Reinstantiating the pointer interface where constructor "
                                  "parameter attribute _regionName has a different value of "));
  EXPECT_EQ(again("R", otherPort, otherBinding, otherResources, otherElements),
            differsText<OpenStack::Port>("port", otherPort.get(), port.get()));
  EXPECT_EQ(again("R", port, otherBinding, otherResources, otherElements),
            differsText<OpenStack::PortToSwitchInterfaceBinding>(
                "portToSwitchInterfaceBinding", otherBinding.get(), binding.get()));
  EXPECT_EQ(again("R", port, binding, otherResources, otherElements),
            differsText<VirtualNetwork::RequestedResourcesCollection>(
                "requestedResourcesCollection", otherResources.get(), world.resources.get()));
  EXPECT_EQ(again("R", port, binding, world.resources, otherElements),
            differsText<VirtualNetwork::NetworkElementCollection>(
                "networkElementCollection", otherElements.get(), world.elements.get()));
  EXPECT_EQ(again("R", port, binding, world.resources, world.elements), "nothing was thrown");
  EXPECT_EQ(world.switchSm("q"), sm);
}

TEST_F(ArgumentsTest, ANullArgumentDiffersToo) {
  EXPECT_EQ(thrown<Kiv::NameInUseException>([&] {
              world.portSm("p")->portToHostBindingSmIs("h1", nullptr, world.hostBinding("p", "h1"),
                                                       world.resources);
            }),
            differsText<OpenStack::Port>("port", nullptr, world.port("p").get()));
}

TEST_F(ArgumentsTest, AReplacedRegionIsRefusedByTheLoopAndTheOldMachineStays) {
  const auto sm = world.regionSm();
  const auto old = world.region();
  world.cloud->regionIs(Kiv::make<OpenStack::Region>("R"));
  EXPECT_EQ(thrown<Kiv::NameInUseException>([&] { world.run(); }),
            differsText<OpenStack::Region>("regionConfig", world.region().get(), old.get()));
  EXPECT_EQ(world.regionSm(), sm);
  EXPECT_EQ(sm->regionConfig(), old);
  // Removed and added with a turn of the loop between, it is taken.
  world.apply("-region R");
  EXPECT_FALSE(world.regionSm());
  world.apply("region R");
  EXPECT_TRUE(world.regionSm());
  leaves({"host h1 domain R: p", "port sw:e1: bm-q"});
}

// The factories, over empty outputs.

TEST_F(ArgumentsTest, AMachineMadeByAFactoryOverEmptyInputsPublishesNothing) {
  const auto port = Kiv::make<OpenStack::Port>("p");
  const auto binding = Kiv::make<OpenStack::PortToHostBinding>("h9");
  const auto switchBinding = Kiv::make<OpenStack::PortToSwitchInterfaceBinding>(
      VirtualNetwork::SwitchInterface("sw", "e9"));
  OutputWatch watch(world.statuses, otherResources, otherElements);
  {
    const auto host = OpenStack::portToHostBindingSmFactory("h9", port, binding, otherResources);
    EXPECT_EQ(host->host(), "h9");
    EXPECT_EQ(host->fwkKey(), "h9");
    EXPECT_TRUE(host->hasNotificationActive());
    const auto si = OpenStack::portToSwitchInterfaceBindingSmFactory(
        {"sw", "e9"}, "R", port, switchBinding, otherResources, otherElements);
    EXPECT_TRUE(si->hasNotificationActive());
    const auto portSm = OpenStack::portBindingSmFactory(
        "R", "p", port, Kiv::make<OpenStack::PortBinding>("p"), otherResources, otherElements);
    EXPECT_TRUE(portSm->hasNotificationActive());
  }
  world.run();
  EXPECT_EQ(watch.changes(), 0);
}

TEST_F(ArgumentsTest, APublicationMachineWithoutABindingPublishesNothing) {
  const auto port = Kiv::make<OpenStack::Port>("p");
  const auto host = OpenStack::portToHostBindingSmFactory("h9", port, nullptr, otherResources);
  EXPECT_FALSE(host->portToHostBinding());
  EXPECT_TRUE(host->initialized());
  host->handleSegment(0);
  host->doCleanup();
  const auto si = OpenStack::portToSwitchInterfaceBindingSmFactory({"sw", "e9"}, "R", port, nullptr,
                                                                   otherResources, otherElements);
  EXPECT_FALSE(si->portToSwitchInterfaceBinding());
  si->handleSegment(0);
  si->doCleanup();
  EXPECT_EQ(linesOf(*otherResources, *otherElements), Lines{});
}

// Outputs and ports may not be null, whatever the inputs hold.

class NullOutputsTest : public SwitchTest {
 protected:
  NullOutputsTest() {
    world.start("region R; segment vl vlan 10; port p");
    hostBinding->segmentIs(0, world.segment("vl"));
    switchBinding->segmentIs(0, world.segment("vl"));
    hosts->portToHostBindingIs("h");
    switches->portToSwitchInterfaceBindingIs({"sw", "e"});
  }

  // Makes a machine, which must fail for want of an entity.
  template <class Make>
  static void expectRefused(Make make) {
    EXPECT_EQ(thrown<Kiv::RangeException>([&] { (void)make(); }), "null ValidPtr");
  }

  const Ptr<OpenStack::PortToHostBinding> hostBinding =
      Kiv::make<OpenStack::PortToHostBinding>("h");
  const Ptr<OpenStack::PortToSwitchInterfaceBinding> switchBinding =
      Kiv::make<OpenStack::PortToSwitchInterfaceBinding>(
          VirtualNetwork::SwitchInterface("sw", "e"));
  const Ptr<OpenStack::PortBinding> hosts = Kiv::make<OpenStack::PortBinding>("p");
  const Ptr<OpenStack::PortBinding> switches = Kiv::make<OpenStack::PortBinding>("p");
};

TEST_P(NullOutputsTest, APublishingMachineIsNotMadeWithoutWhatItNeeds) {
  const auto port = world.port("p");
  expectRefused([&] {
    return OpenStack::portToHostBindingSmFactory("h", nullptr, hostBinding, world.resources);
  });
  expectRefused(
      [&] { return OpenStack::portToHostBindingSmFactory("h", port, hostBinding, nullptr); });
  expectRefused([&] {
    return OpenStack::portToSwitchInterfaceBindingSmFactory(
        {"sw", "e"}, "R", nullptr, switchBinding, world.resources, world.elements);
  });
  expectRefused([&] {
    return OpenStack::portToSwitchInterfaceBindingSmFactory({"sw", "e"}, "R", port, switchBinding,
                                                            nullptr, nullptr);
  });
  for (const auto& binding : {hosts, switches}) {
    expectRefused([&] {
      return OpenStack::portBindingSmFactory("R", "p", nullptr, binding, world.resources,
                                             world.elements);
    });
    expectRefused(
        [&] { return OpenStack::portBindingSmFactory("R", "p", port, binding, nullptr, nullptr); });
  }
  EXPECT_EQ(world.published(), Lines{});
}

INSTANTIATE_TEST_SUITE_P(BothToggles, NullOutputsTest, bothToggles(), toggleName);

}  // namespace
