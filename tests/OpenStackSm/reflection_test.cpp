// The machines through their reflection: what tools read, walk, make and call without knowing them.
// The tables of their attributes, row by row, are in reflection_table_test.cpp.
#include "OpenStackSm/Reflection.h"

#include <functional>
#include <initializer_list>

#include "model/OpenStack/Values.h"
#include "model/VirtualNetwork/Values.h"
#include "tests/OpenStackSm/MachineTest.h"

namespace {

using Kiv::GenericArguments;
using Kiv::GenericIf;
using Kiv::GenericOp;
using Kiv::GenericValue;
using Kiv::Name;
using Kiv::Ptr;
using Kiv::Seconds;
using Kiv::String;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::ThrowsMessage;

std::vector<std::string> argumentsOf(std::string_view type) {
  std::vector<std::string> rows;
  for (const auto& argument : OpenStack::machineReflection(type)->constructorArguments()) {
    rows.push_back(std::string(argument.name) + ": " + std::string(argument.typeName));
  }
  return rows;
}

class ReflectionTest : public MachineTest {
 protected:
  ReflectionTest() {
    world.start("region R; segment vx vxlan 5000; segment vl vlan 10; host p1 h1 0=vx 1=vl");
  }

  // Runs an operation by the attribute's name.
  static GenericValue op(const Kiv::PtrInterface& object, std::string_view name, Kiv::U8 operation,
                         const GenericArguments& arguments = {}, bool isConst = false) {
    const GenericIf& description = *object.genericIf();
    GenericValue result;
    bool notHandled = true;
    description.genericIfAttributeOp(const_cast<Kiv::PtrInterface&>(object), isConst,
                                     {description.attribute(name)->index, operation}, arguments,
                                     result, notHandled);
    EXPECT_FALSE(notHandled);
    return result;
  }

  static std::vector<std::string> keysOf(const Kiv::PtrInterface& object, std::string_view name) {
    std::vector<std::string> keys;
    const auto at = object.genericIf()->iterate(object, name);
    for (; at->iterNonnull(); at->iterInc()) keys.push_back(at->iterKey().text());
    std::sort(keys.begin(), keys.end());
    return keys;
  }
};

TEST_F(ReflectionTest, EveryMachineShowsTheArgumentsOfItsConstructor) {
  EXPECT_THAT(argumentsOf("OpenStack::OpenStackSm"),
              ElementsAre("openstackConfig: OpenStack::OpenStackConfig",
                          "openstackStatus: OpenStack::OpenStackStatus",
                          "nameResolutionConfig: OpenStack::NameResolution::Config",
                          "nameResolutionStatus: OpenStack::NameResolution::Status",
                          "requestedResourcesCollection: "
                          "VirtualNetwork::RequestedResourcesCollection",
                          "regionSyncTimeout: Kiv::Seconds", "config: OpenStack::Config",
                          "networkElementCollection: VirtualNetwork::NetworkElementCollection"));
  EXPECT_THAT(argumentsOf("OpenStack::RegionConfigSm"),
              ElementsAre("regionName: Kiv::Name", "regionConfig: OpenStack::Region",
                          "regionStatus: OpenStack::RegionStatus",
                          "requestedResourcesCollection: "
                          "VirtualNetwork::RequestedResourcesCollection",
                          "regionSyncTimeout: Kiv::Seconds",
                          "networkElementCollection: VirtualNetwork::NetworkElementCollection"));
  EXPECT_THAT(argumentsOf("OpenStack::PortBindingSm"),
              ElementsAre("regionName: Kiv::Name", "portId: Kiv::String", "port: OpenStack::Port",
                          "portBinding: OpenStack::PortBinding",
                          "requestedResourcesCollection: "
                          "VirtualNetwork::RequestedResourcesCollection",
                          "networkElementCollection: VirtualNetwork::NetworkElementCollection"));
  EXPECT_THAT(argumentsOf("OpenStack::PortToHostBindingSm"),
              ElementsAre("host: Kiv::Name", "port: OpenStack::Port",
                          "portToHostBinding: OpenStack::PortToHostBinding",
                          "requestedResourcesCollection: "
                          "VirtualNetwork::RequestedResourcesCollection"));
  EXPECT_THAT(argumentsOf("OpenStack::PortToSwitchInterfaceBindingSm"),
              ElementsAre("switchInterface: VirtualNetwork::SwitchInterface",
                          "regionName: Kiv::Name", "port: OpenStack::Port",
                          "portToSwitchInterfaceBinding: OpenStack::PortToSwitchInterfaceBinding",
                          "requestedResourcesCollection: "
                          "VirtualNetwork::RequestedResourcesCollection",
                          "networkElementCollection: VirtualNetwork::NetworkElementCollection"));
}

TEST_F(ReflectionTest, PlainAttributesAreRead) {
  EXPECT_EQ(op(*world.root, "openstackConfig", GenericOp::kRead).object(), world.cloud);
  EXPECT_EQ(op(*world.root, "regionSyncTimeout", GenericOp::kRead).as<Seconds>(), World::kTimeout);
  EXPECT_EQ(op(*world.regionSm(), "regionName", GenericOp::kRead).as<Name>(), "R");
  EXPECT_EQ(op(*world.regionSm(), "regionStatus", GenericOp::kRead).object(), world.regionStatus());
  EXPECT_EQ(op(*world.regionSm(), "syncHeartbeatClock", GenericOp::kRead).object(),
            world.loop.clock());
  EXPECT_EQ(op(*world.portSm("p1"), "portId", GenericOp::kRead).as<String>(), "p1");
  EXPECT_EQ(op(*world.hostSm("p1", "h1"), "hostname", GenericOp::kRead).text(), "h1");
  EXPECT_EQ(op(*world.hostSm("p1", "h1"), "initialized", GenericOp::kRead).text(), "true");
}

TEST_F(ReflectionTest, OnlyAttributesWithAMutatorAreWritten) {
  op(*world.root, "regionSyncTimeout", GenericOp::kWrite, {GenericValue::of(Seconds(7.5))});
  EXPECT_EQ(world.root->regionSyncTimeout(), 7.5);
  EXPECT_EQ(world.regionSm()->regionSyncTimeout(), 7.5);
  op(*world.root, "initialized", GenericOp::kWrite, {GenericValue::of(false)});
  EXPECT_FALSE(world.root->initialized());
  EXPECT_THROW(op(*world.root, "config", GenericOp::kWrite, {GenericValue::of(world.config)}),
               Kiv::UnsupportedOperationException);
  EXPECT_THROW(
      op(*world.root, "regionSyncTimeout", GenericOp::kWrite, {GenericValue::of(Seconds(9))}, true),
      Kiv::UnsupportedOperationException);
  EXPECT_EQ(world.root->regionSyncTimeout(), 7.5);
}

TEST_F(ReflectionTest, HandlersAreCalledWithAndWithoutAKey) {
  op(*world.regionSm(), "handleHeartbeat", GenericOp::kCall);
  EXPECT_EQ(world.regionSm()->syncHeartbeatClock()->timeMin(), world.time.now() + World::kTimeout);
  op(*world.regionSm(), "handleSegment", GenericOp::kCall, {GenericValue::of(String("vl"))});
  op(*world.hostSm("p1", "h1"), "handleSegment", GenericOp::kCall, {GenericValue::of(Kiv::U8{1})});
  op(*world.root, "handleRegion", GenericOp::kCall, {GenericValue::of(Name("R"))});
  EXPECT_THROW(op(*world.root, "handleRegion", GenericOp::kCall), Kiv::RangeException);
  EXPECT_THROW(op(*world.root, "handleRegion", GenericOp::kRead, {GenericValue::of(Name("R"))}),
               Kiv::UnsupportedOperationException);
  EXPECT_THROW(op(*world.root, "handleVlanTypeDriver", GenericOp::kCall, {}, true),
               Kiv::UnsupportedOperationException);
}

TEST_F(ReflectionTest, CollectionsAreLookedUpCountedChangedAndDeleted) {
  const GenericArguments region{GenericValue::of(Name("R"))};
  EXPECT_EQ(op(*world.root, "regionConfigSm", GenericOp::kLookup, region).object(),
            world.regionSm());
  EXPECT_EQ(
      op(*world.root, "regionConfigSm", GenericOp::kLookup, {GenericValue::of(Name("Q"))}).object(),
      nullptr);
  EXPECT_EQ(op(*world.root, "regionConfigSm", GenericOp::kSize).text(), "1");
  EXPECT_EQ(op(*world.root, "regionConfigSm", GenericOp::kBuckets).text(), "0");
  EXPECT_EQ(op(*world.root, "regionConfigSm", GenericOp::kContains, region).text(), "true");
  EXPECT_EQ(
      op(*world.root, "regionConfigSm", GenericOp::kContains, {GenericValue::of(Name("Q"))}).text(),
      "false");
  EXPECT_THROW(op(*world.root, "regionConfigSm", GenericOp::kCall, region),
               Kiv::UnsupportedOperationException);
  EXPECT_THROW(op(*world.root, "regionConfigSm", GenericOp::kDelete, region, true),
               Kiv::UnsupportedOperationException);

  const GenericArguments same{GenericValue::of(Name("R")),
                              GenericValue::of(Ptr<const OpenStack::Region>(world.region())),
                              GenericValue::of(world.regionStatus()),
                              GenericValue::of(world.resources),
                              GenericValue::of(Seconds(99)),
                              GenericValue::of(world.elements)};
  EXPECT_EQ(op(*world.root, "regionConfigSm", GenericOp::kCreate, same).object(), world.regionSm());
  EXPECT_EQ(world.regionSm()->regionSyncTimeout(), 99);

  const auto machine = world.regionSm();
  EXPECT_EQ(op(*world.root, "regionConfigSm", GenericOp::kDelete, region).object(), machine);
  EXPECT_EQ(op(*world.root, "regionConfigSm", GenericOp::kDelete, region).object(), nullptr);
  EXPECT_EQ(op(*world.root, "regionConfigSm", GenericOp::kSize).text(), "0");
  op(*world.root, "regionConfigSm", GenericOp::kCreate, same);
  world.run();
  EXPECT_NE(world.regionSm(), machine);
}

TEST_F(ReflectionTest, AnAssignmentIsMirroredThroughItsCollection) {
  const auto assignment = Kiv::make<OpenStack::VlanAssignment>(Name("R"));
  op(*world.root, "vlanAssignment", GenericOp::kCreate,
     {GenericValue::of(Ptr<const OpenStack::VlanAssignment>(assignment))});
  EXPECT_THAT(keysOf(*world.root, "vlanAssignment"), ElementsAre("R"));
  op(*world.root, "vlanAssignment", GenericOp::kDelete, {GenericValue::of(Name("R"))});
  EXPECT_THAT(keysOf(*world.root, "vlanAssignment"), ElementsAre());
}

TEST_F(ReflectionTest, IteratorsWalkFromTheStartOrFromAKeyAndOutliveDeletions) {
  world.apply("host p2 h1 1=vl; host p3 h1 1=vl");
  const auto machine = world.regionSm();
  EXPECT_THAT(keysOf(*machine, "portBindingSm"), ElementsAre("p1", "p2", "p3"));

  const GenericIf& description = *machine->genericIf();
  const Kiv::U16 index = description.attribute("portBindingSm")->index;
  const auto at = description.genericIfIterator(*machine, false, index);
  const std::string first = at->iterKey().text();
  EXPECT_EQ(at->iterObj().object(), world.portSm(first));
  world.portSm(first)->doCleanup();
  at->iterDel();
  EXPECT_EQ(at->iterKey().text(), first);
  at->iterInc();
  ASSERT_TRUE(at->iterNonnull());
  const std::string second = at->iterKey().text();
  EXPECT_NE(second, first);
  at->iterInc();
  at->iterInc();
  EXPECT_FALSE(at->iterNonnull());
  EXPECT_EQ(op(*machine, "portBindingSm", GenericOp::kSize).text(), "2");

  const auto from =
      description.genericIfIteratorKey(*machine, false, index, GenericValue::of(String(second)));
  EXPECT_EQ(from->iterKey().text(), second);
  EXPECT_FALSE(
      description.genericIfIteratorKey(*machine, false, index, GenericValue::of(String(first)))
          ->iterNonnull());
  EXPECT_THROW(description.genericIfIterator(*machine, true, index)->iterDel(),
               Kiv::UnsupportedOperationException);
  EXPECT_THROW(description.genericIfIterator(*machine, false, 130),
               Kiv::UnsupportedOperationException);
  op(*machine, "handlePortBinding", GenericOp::kCall, {GenericValue::of(String(first))});
}

TEST_F(ReflectionTest, AnIteratorAtItsEndThrowsWhenItIsAskedForAMember) {
  const auto throwsAtEnd = [](Kiv::GenericIterator& at) {
    ASSERT_FALSE(at.iterNonnull());
    EXPECT_THAT([&] { (void)at.iterKey(); }, ThrowsMessage<Kiv::RangeException>(HasSubstr("end")));
    EXPECT_THROW((void)at.iterObj(), Kiv::RangeException);
    EXPECT_THROW(at.iterDel(), Kiv::RangeException);
    at.iterInc();
    EXPECT_FALSE(at.iterNonnull());
  };
  const GenericIf& description = *world.root->genericIf();
  const Kiv::U16 index = description.attribute("regionConfigSm")->index;
  const auto walked = description.genericIfIterator(*world.root, index);
  while (walked->iterNonnull()) walked->iterInc();
  throwsAtEnd(*walked);
  throwsAtEnd(
      *description.genericIfIteratorKey(*world.root, index, GenericValue::of(Name("none"))));
  EXPECT_TRUE(world.root->regionConfigSm().contains("R"));

  const auto& host = *world.hostSm("p1", "h1")->portToHostBinding();
  const auto entries = host.genericIf()->iterate(host, "segment");
  while (entries->iterNonnull()) entries->iterInc();
  EXPECT_THROW((void)entries->iterKey(), Kiv::RangeException);
  EXPECT_THROW((void)entries->iterObj(), Kiv::RangeException);
}

TEST_F(ReflectionTest, AMachineIsMadeFromTheArgumentsOfItsConstructor) {
  const auto statuses = Kiv::make<OpenStack::OpenStackStatus>();
  GenericArguments arguments{
      GenericValue::of(Ptr<const OpenStack::OpenStackConfig>(world.cloud)),
      GenericValue::of(statuses),
      GenericValue::of(Ptr<const OpenStack::NameResolution::Config>(world.nameConfig)),
      GenericValue::of(world.nameStatus),
      GenericValue::of(Kiv::make<VirtualNetwork::RequestedResourcesCollection>()),
      GenericValue::of(String("12.5")),
      GenericValue::of(Ptr<const OpenStack::Config>(world.config)),
      GenericValue::of(Kiv::make<VirtualNetwork::NetworkElementCollection>())};
  const auto made = OpenStack::genericIfFromCtorArgs("OpenStack::OpenStackSm", arguments)
                        .as<Ptr<OpenStack::OpenStackSm>>();
  EXPECT_EQ(made->regionSyncTimeout(), 12.5);
  EXPECT_EQ(made->regionConfigSm().size(), 1);
  EXPECT_TRUE(made->hasNotificationActive());
  EXPECT_TRUE(statuses->regionStatus().contains("R"));

  arguments.pop_back();
  EXPECT_THAT([&] { OpenStack::genericIfFromCtorArgs("OpenStack::OpenStackSm", arguments); },
              ThrowsMessage<Kiv::RangeException>(HasSubstr("takes 8 arguments, not 7")));
  EXPECT_THAT([&] { OpenStack::genericIfFromCtorArgs("OpenStack::Nobody", arguments); },
              ThrowsMessage<Kiv::RangeException>(
                  HasSubstr("there is no machine of type OpenStack::Nobody")));
}

TEST_F(ReflectionTest, AttributesAreFoundByNameAndByIndex) {
  const GenericIf& machine = *OpenStack::machineReflection("OpenStack::RegionConfigSm");
  EXPECT_EQ(machine.attribute("regionSyncTimeout")->index, 134);
  EXPECT_EQ(machine.attribute(Kiv::U16{134})->name, "regionSyncTimeout");
  EXPECT_EQ(machine.attribute("nothing"), nullptr);
  EXPECT_EQ(machine.attribute(Kiv::U16{1}), nullptr);
  EXPECT_THAT(
      [&] { machine.read(*world.regionSm(), "nothing"); },
      ThrowsMessage<Kiv::RangeException>("OpenStack::RegionConfigSm has no attribute nothing"));
  EXPECT_THROW(
      OpenStack::machineReflection("OpenStack::PortBindingSm")->read(*world.regionSm(), "portId"),
      Kiv::RangeException);
}

TEST_F(ReflectionTest, AConstantMachineIsReadAndNotChanged) {
  const auto sm = world.regionSm();
  EXPECT_EQ(op(*sm, "regionSyncTimeout", GenericOp::kRead, {}, true).text(), "30");
  EXPECT_EQ(op(*sm, "segment", GenericOp::kSize, {}, true).text(), "2");
  const auto key = GenericValue::of(String("vl"));
  EXPECT_THROW(
      op(*sm, "regionSyncTimeout", GenericOp::kWrite, {GenericValue::of(Seconds{1})}, true),
      Kiv::UnsupportedOperationException);
  EXPECT_THROW(op(*sm, "segment", GenericOp::kDelete, {key}, true),
               Kiv::UnsupportedOperationException);
  EXPECT_THROW(op(*sm, "segment", GenericOp::kCreate,
                  {GenericValue::of(Ptr<const OpenStack::Segment>(world.segment("vl")))}, true),
               Kiv::UnsupportedOperationException);
  EXPECT_THROW(op(*sm, "handleHeartbeat", GenericOp::kCall, {}, true),
               Kiv::UnsupportedOperationException);
  EXPECT_EQ(sm->regionSyncTimeout(), World::kTimeout);
  EXPECT_EQ(sm->segment().size(), 2U);
}

TEST_F(ReflectionTest, TheLastColonOfASwitchInterfaceCounts) {
  const auto read = [](const char* text) {
    return GenericValue::of(String(text)).as<VirtualNetwork::SwitchInterface>();
  };
  EXPECT_EQ(read("sw:e1"), VirtualNetwork::SwitchInterface("sw", "e1"));
  EXPECT_EQ(read("00:1c:73:e1"), VirtualNetwork::SwitchInterface("00:1c:73", "e1"));
  EXPECT_EQ(read(":"), VirtualNetwork::SwitchInterface("", ""));
  EXPECT_THROW(read("e1"), Kiv::RangeException);
}

TEST_F(ReflectionTest, AMapOfRoutingInstancesIsPrintedAndNotReadBack) {
  OpenStack::ServiceAclTypeVrfMap map;
  EXPECT_EQ(GenericValue::of(map).text(), "");
  map.emplace("a", "x");
  map.emplace("b", "y");
  EXPECT_EQ(GenericValue::of(map).text(), "a=x,b=y");
  EXPECT_THROW(GenericValue::of(String("a=x")).as<OpenStack::ServiceAclTypeVrfMap>(),
               Kiv::RangeException);
}

// The arguments that a machine was made with, read from it. An argument may have another name than
// the attribute that it became.
GenericArguments argumentsFrom(const Kiv::PtrInterface& machine) {
  const GenericIf& description = *machine.genericIf();
  GenericArguments arguments;
  for (const auto& argument : description.constructorArguments()) {
    for (const auto& attribute : description.attributes()) {
      if (attribute.argument != argument.name) continue;
      arguments.push_back(description.read(machine, attribute.name));
      EXPECT_EQ(arguments.back().typeName(), argument.typeName);
    }
  }
  return arguments;
}

TEST_F(ReflectionTest, EachMachineIsMadeAgainFromWhatItShowsAndFromNothingElse) {
  world.apply("switch p2 sw e1 h2 1=vl");
  const std::initializer_list<const Kiv::PtrInterface*> machines{
      world.root.get(), world.regionSm().get(), world.portSm("p1").get(),
      world.hostSm("p1", "h1").get(), world.switchSm("p2").get()};
  for (const auto* machine : machines) {
    const std::string_view type = machine->fwkType().name();
    const GenericArguments arguments = argumentsFrom(*machine);
    const auto made = OpenStack::genericIfFromCtorArgs(type, arguments);
    EXPECT_EQ(made.typeName(), type);
    EXPECT_NE(made.object().get(), machine);
    EXPECT_TRUE(made.object()->hasNotificationActive());
    EXPECT_NE(made.changeable(), nullptr);
    const GenericArguments again = argumentsFrom(*made.object());
    for (std::size_t i = 0; i < arguments.size(); ++i) {
      EXPECT_EQ(again[i].text(), arguments[i].text());
    }

    const auto refuses = [&](const GenericArguments& wrong) {
      EXPECT_THROW(OpenStack::genericIfFromCtorArgs(type, wrong), Kiv::RangeException) << type;
    };
    GenericArguments more = arguments;
    more.push_back(GenericValue::of(true));
    refuses(more);
    for (std::size_t i = 0; i < arguments.size(); ++i) {
      for (const auto& other : {GenericValue(), GenericValue::of(true),
                                GenericValue::of(Kiv::make<OpenStack::VlanPool>("other")),
                                GenericValue::of(Ptr<OpenStack::VlanPool>())}) {
        GenericArguments wrong = arguments;
        wrong[i] = other;
        refuses(wrong);
      }
    }
  }
}

TEST_F(ReflectionTest, AMachineIsMadeWithoutTheInputsThatItWouldObserve) {
  const auto none = [](auto entity) { return GenericValue::of(decltype(entity)()); };
  const auto made = OpenStack::genericIfFromCtorArgs(
      "OpenStack::RegionConfigSm",
      {GenericValue::of(String("S")), none(Ptr<const OpenStack::Region>()),
       GenericValue::of(world.regionStatus()), GenericValue::of(world.resources),
       GenericValue::of(Seconds(5)), GenericValue::of(world.elements)});
  const auto region = made.as<Ptr<OpenStack::RegionConfigSm>>();
  EXPECT_EQ(region->regionName(), "S");
  EXPECT_EQ(op(*region, "regionConfig", GenericOp::kRead).text(), "null");
  // What is null and what it would have been, tools see; it is taken for nothing else.
  EXPECT_EQ(op(*region, "regionConfig", GenericOp::kRead).typeName(), "OpenStack::Region");
}

TEST_F(ReflectionTest, WhatIsForReadingOnlyIsNotTakenForChanging) {
  const GenericArguments arguments{
      GenericValue::of(Name("S")),
      GenericValue::of(Ptr<const OpenStack::Region>(world.region())),
      GenericValue::of(Ptr<const OpenStack::RegionStatus>(world.regionStatus())),
      GenericValue::of(world.resources),
      GenericValue::of(Seconds(5)),
      GenericValue::of(world.elements)};
  EXPECT_THROW(OpenStack::genericIfFromCtorArgs("OpenStack::RegionConfigSm", arguments),
               Kiv::RangeException);
  EXPECT_EQ(arguments[2].changeable(), nullptr);
  EXPECT_EQ(arguments[3].changeable(), world.resources);
  EXPECT_EQ(op(*world.root, "openstackConfig", GenericOp::kRead).changeable(), nullptr);
  EXPECT_EQ(GenericValue().changeable(), nullptr);
}

TEST_F(ReflectionTest, AnIteratorHoldsTheMachineThatItWalks) {
  auto machine = world.portSm("p1");
  const auto at = machine->genericIf()->iterate(*machine, "portToHostBindingSm");
  machine = nullptr;
  world.apply("-bind p1");
  EXPECT_FALSE(world.portSm("p1"));
  EXPECT_EQ(at->iterKey().text(), "h1");
  at->iterInc();
  EXPECT_FALSE(at->iterNonnull());
}

TEST_F(ReflectionTest, AReactorShowsWhatItObserves) {
  const auto* segment = world.regionSm()->segment()["vl"];
  EXPECT_EQ(segment->genericIf()->typeName(), "OpenStack::RegionConfigSm::KivSegment");
  EXPECT_EQ(segment->genericIf()->read(*segment, "notifier").object(), world.segment("vl"));
  const auto host = world.hostSm("p1", "h1");
  const auto* level = host->segment()[Kiv::U8{1}];
  EXPECT_EQ(level->genericIf()->read(*level, "level").text(), "1");
  EXPECT_EQ(level->genericIf()->read(*level, "notifier").object(), world.segment("vl"));
  const auto* clock = world.regionSm()->syncHeartbeatClock();
  EXPECT_EQ(clock->genericIf()->read(*clock, "notifier").object(), world.loop.clock());
  EXPECT_THROW(op(*segment, "notifier", GenericOp::kWrite, {GenericValue::of(world.segment("vx"))}),
               Kiv::UnsupportedOperationException);
}

TEST_F(ReflectionTest, ADescriptionIsOfItsClassAlone) {
  const GenericIf& region = OpenStack::RegionConfigSm::reflection();
  GenericValue result;
  bool notHandled = false;
  EXPECT_THROW(region.genericIfAttributeOp(*world.root, false, {147, GenericOp::kRead}, {}, result,
                                           notHandled),
               Kiv::RangeException);
  EXPECT_THROW(region.genericIfIterator(*world.root, 137), Kiv::RangeException);
  EXPECT_THROW(region.read(*world.regionSm(), "nothing"), Kiv::RangeException);
  EXPECT_EQ(OpenStack::machineReflection("OpenStack::Region"), nullptr);
  EXPECT_THROW(world.region()->genericIf()->genericIfFromCtorArgs({}),
               Kiv::UnsupportedOperationException);
  EXPECT_TRUE(world.region()->genericIf()->constructorArguments().empty());
}

TEST_F(ReflectionTest, AnArgumentOfAnotherTypeIsRefused) {
  EXPECT_THAT(
      [&] {
        op(*world.root, "regionSyncTimeout", GenericOp::kWrite, {GenericValue::of(Name("soon"))});
      },
      ThrowsMessage<Kiv::RangeException>(HasSubstr("Kiv::Seconds is wanted, not Kiv::Name")));
  EXPECT_THROW(
      op(*world.root, "vlanAssignment", GenericOp::kCreate, {GenericValue::of(world.region())}),
      Kiv::RangeException);
}

TEST_F(ReflectionTest, EntitiesAreReadAndWalkedToo) {
  EXPECT_EQ(op(*world.segment("vx"), "segmentationType", GenericOp::kRead).text(), "vxlan");
  EXPECT_EQ(op(*world.segment("vx"), "segmentationType", GenericOp::kRead)
                .as<OpenStack::SegmentationType>(),
            OpenStack::SegmentationType::vxlan);
  EXPECT_THAT(keysOf(*world.region(), "segment"), ElementsAre("vl", "vx"));
  EXPECT_THAT(keysOf(*world.hostBinding("p1", "h1"), "segment"), ElementsAre("0", "1"));
  EXPECT_THAT(keysOf(*world.pool(), "allocatedVlan"), ElementsAre("10"));
  const auto* host = world.resources->resourcesForHostname()["h1"];
  EXPECT_THAT(keysOf(*host, "vlan"), ElementsAre("10"));
  EXPECT_THAT(keysOf(*host->vlan()[10], "mappedVni"), ElementsAre("5000"));
  EXPECT_EQ(op(*world.regionStatus(), "vlanPool", GenericOp::kRead).object(), world.pool());
  EXPECT_THROW(op(*world.segment("vx"), "segmentationId", GenericOp::kWrite,
                  {GenericValue::of(Kiv::U32{5})}),
               Kiv::UnsupportedOperationException);
}

TEST_F(ReflectionTest, OneWalkReachesEveryAttributeOfEveryEntityAndMachine) {
  world.apply("assign R 10 11; switch p2 sw e1 h2 1=vl; network n; vm v");
  std::size_t objects = 0;
  const std::function<void(const Kiv::PtrInterface&)> visit = [&](const Kiv::PtrInterface& object) {
    const GenericIf* description = object.genericIf();
    if (description == nullptr) return;
    ++objects;
    EXPECT_EQ(description->typeName(), object.fwkType().name());
    Kiv::U16 last = 0;
    for (const auto& attribute : description->attributes()) {
      EXPECT_GT(attribute.index, last);
      last = attribute.index;
      if (attribute.kind == Kiv::KivAttrKind::plain) {
        EXPECT_FALSE(description->read(object, attribute.name).empty()) << attribute.name;
      } else if (attribute.kind == Kiv::KivAttrKind::collection) {
        for (auto at = description->iterate(object, attribute.name); at->iterNonnull();
             at->iterInc()) {
          if (const auto value = at->iterObj(); value.object()) visit(*value.object());
        }
      }
    }
  };
  for (const Kiv::PtrInterface* start : std::initializer_list<const Kiv::PtrInterface*>{
           world.root.get(), world.cloud.get(), world.config.get(), world.statuses.get(),
           world.resources.get(), world.elements.get()}) {
    visit(*start);
  }
  EXPECT_GE(objects, 20U);
}

}  // namespace
