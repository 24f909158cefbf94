// The tables of the machines' attributes, row by row: what each is called, and every operation,
// those that it must refuse too.
#include <algorithm>
#include <initializer_list>
#include <ostream>
#include <set>

#include "OpenStackSm/Reflection.h"
#include "model/OpenStack/Values.h"
#include "model/VirtualNetwork/Values.h"
#include "tests/OpenStackSm/MachineTest.h"

namespace {

using Kiv::GenericArguments;
using Kiv::GenericIf;
using Kiv::GenericOp;
using Kiv::GenericValue;
using Kiv::KivAttr;
using Kiv::KivAttrKind;
using Kiv::Name;
using Kiv::Ptr;
using Kiv::PtrInterface;
using Kiv::RangeException;
using Kiv::String;
using Kiv::U16;
using Kiv::U8;
using Kiv::UnsupportedOperationException;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::Not;
using VirtualNetwork::SwitchInterface;

enum class Access { read, write, call, collection };
using enum Access;

// One row. Where it can be read, `type` is the type of its value, or of a collection's members; a
// machine's own reactors are named without the machine. `keyType` is that of a collection's key, or
// of what a handler takes, and `present` a key that is there.
struct Row {
  std::string_view machine;
  U16 index;
  std::string_view name;
  Access access;
  std::string_view type = {};
  std::string_view key = {};
  std::string_view keyType = {};
  std::string_view present = {};
};
std::ostream& operator<<(std::ostream& out, const Row& row) {
  return out << row.machine << ' ' << row.index << ' ' << row.name;
}

constexpr std::string_view kName = "Kiv::Name";
constexpr std::string_view kString = "Kiv::String";
constexpr std::string_view kSeconds = "Kiv::Seconds";
constexpr std::string_view kInterface = "VirtualNetwork::SwitchInterface";
constexpr std::string_view kResources = "VirtualNetwork::RequestedResourcesCollection";
constexpr std::string_view kElements = "VirtualNetwork::NetworkElementCollection";

constexpr std::string_view kRoot = "OpenStackSm";
constexpr std::string_view kRegion = "RegionConfigSm";
constexpr std::string_view kPort = "PortBindingSm";
constexpr std::string_view kSwitch = "PortToSwitchInterfaceBindingSm";
constexpr std::string_view kHost = "PortToHostBindingSm";

const std::vector<Row> kRows{
    {kRoot, 130, "openstackConfig", read, "OpenStack::OpenStackConfig"},
    {kRoot, 131, "openstackStatus", read, "OpenStack::OpenStackStatus"},
    {kRoot, 132, "nameResolutionConfig", read, "OpenStack::NameResolution::Config"},
    {kRoot, 133, "nameResolutionStatus", read, "OpenStack::NameResolution::Status"},
    {kRoot, 134, "requestedResourcesCollection", read, kResources},
    {kRoot, 135, "regionSyncTimeout", write, kSeconds},
    {kRoot, 136, "config", read, "OpenStack::Config"},
    {kRoot, 137, "networkElementCollection", read, kElements},
    {kRoot, 138, "handleRegionSyncTimeout", call},
    {kRoot, 139, "regionConfigSm", collection, "OpenStack::RegionConfigSm", "regionName", kName,
     "R"},
    {kRoot, 140, "handleRegion", call, "", "", kName, "R"},
    {kRoot, 142, "handleRegionVlanAssignment", call, "", "", kName, "R"},
    {kRoot, 143, "vlanAssignment", collection, "KivVlanAssignment", "regionName", kName, "R"},
    {kRoot, 145, "handleVlanTypeDriver", call},
    {kRoot, 146, "handleInitialized", call},
    {kRoot, 147, "initialized", write, "bool"},

    {kRegion, 130, "regionName", read, kName},
    {kRegion, 131, "regionConfig", read, "OpenStack::Region"},
    {kRegion, 132, "regionStatus", read, "OpenStack::RegionStatus"},
    {kRegion, 133, "requestedResourcesCollection", read, kResources},
    {kRegion, 134, "regionSyncTimeout", write, kSeconds},
    {kRegion, 135, "networkElementCollection", read, kElements},
    {kRegion, 136, "syncHeartbeatClock", read, "Kiv::Clock"},
    {kRegion, 137, "portBindingSm", collection, "OpenStack::PortBindingSm", "portId", kString, "p"},
    {kRegion, 138, "segment", collection, "KivSegment", "id", kString, "vl"},
    {kRegion, 139, "handleSegment", call, "", "", kString, "vl"},
    {kRegion, 142, "portBinding", collection, "KivPortBinding", "portId", kString, "p"},
    {kRegion, 143, "handlePortBinding", call, "", "", kString, "p"},
    {kRegion, 146, "handleSyncStatus", call},
    {kRegion, 147, "handleHeartbeat", call},
    {kRegion, 148, "handleSyncHeartbeatTimeout", call},
    {kRegion, 149, "handleLockRequest", call},
    {kRegion, 150, "handleInitialized", call},
    {kRegion, 151, "initialized", write, "bool"},

    {kPort, 130, "regionName", read, kName},
    {kPort, 131, "portId", read, kString},
    {kPort, 132, "port", read, "OpenStack::Port"},
    {kPort, 133, "portBinding", read, "OpenStack::PortBinding"},
    {kPort, 134, "requestedResourcesCollection", read, kResources},
    {kPort, 135, "networkElementCollection", read, kElements},
    {kPort, 136, "portToHostBinding", collection, "KivPortToHostBinding", "host", kName, "h1"},
    {kPort, 138, "portToSwitchInterfaceBinding", collection, "KivPortToSwitchInterfaceBinding",
     "switchInterface", kInterface, "sw:e1"},
    {kPort, 139, "portToHostBindingSm", collection, "OpenStack::PortToHostBindingSm", "hostname",
     kName, "h1"},
    {kPort, 140, "portToSwitchInterfaceBindingSm", collection,
     "OpenStack::PortToSwitchInterfaceBindingSm", "switchInterface", kInterface, "sw:e1"},
    {kPort, 141, "handlePortToHostBinding", call, "", "", kName, "h1"},
    {kPort, 144, "handlePortToSwitchInterfaceBinding", call, "", "", kInterface, "sw:e1"},
    {kPort, 146, "doCleanupPortToHostBinding", call, "", "", kName, "h1"},
    {kPort, 147, "doCleanupPortToSwitchInterfaceBinding", call, "", "", kInterface, "sw:e1"},
    {kPort, 148, "doCleanup", call},
    {kPort, 149, "handleInitialized", call},
    {kPort, 150, "initialized", write, "bool"},

    {kSwitch, 130, "switchInterface", read, kInterface},
    {kSwitch, 131, "regionName", read, kName},
    {kSwitch, 132, "port", read, "OpenStack::Port"},
    {kSwitch, 133, "portToSwitchInterfaceBinding", read, "OpenStack::PortToSwitchInterfaceBinding"},
    {kSwitch, 134, "requestedResourcesCollection", read, kResources},
    {kSwitch, 135, "networkElementCollection", read, kElements},
    {kSwitch, 136, "handleSegment", call, "", "", "U8", "1"},
    {kSwitch, 138, "segment", collection, "KivSegment", "", "U8", "1"},
    {kSwitch, 140, "doCleanup", call},
    {kSwitch, 141, "handleInitialized", call},
    {kSwitch, 142, "initialized", write, "bool"},

    {kHost, 130, "hostname", read, kName},
    {kHost, 131, "port", read, "OpenStack::Port"},
    {kHost, 132, "portToHostBinding", read, "OpenStack::PortToHostBinding"},
    {kHost, 133, "requestedResourcesCollection", read, kResources},
    {kHost, 134, "handleSegment", call, "", "", "U8", "1"},
    {kHost, 136, "segment", collection, "KivSegment", "", "U8", "1"},
    {kHost, 138, "doCleanup", call},
    {kHost, 139, "handleInitialized", call},
    {kHost, 140, "initialized", write, "bool"},
};

// Every operation there is, and two that are none.
constexpr std::initializer_list<U8> kOperations{0, 1, 2, 3, 4, 5, 6, 8, 255};

std::string typeName(std::string_view machine) {
  return "OpenStack::" + std::string(machine);
}

GenericValue keyOf(std::string_view type, std::string_view text) {
  if (type == kName) return GenericValue::of(Name(text));
  if (type == kString) return GenericValue::of(String(text));
  if (type == "U8") return GenericValue::of(static_cast<U8>(std::stoi(std::string(text))));
  const std::size_t colon = text.find(':');
  return GenericValue::of(
      SwitchInterface(String(text.substr(0, colon)), String(text.substr(colon + 1))));
}

GenericValue nullOf(std::string_view type) {
  if (type == "OpenStack::VlanAssignment") {
    return GenericValue::of(Ptr<const OpenStack::VlanAssignment>());
  }
  if (type == "OpenStack::Segment") return GenericValue::of(Ptr<const OpenStack::Segment>());
  if (type == "OpenStack::PortBinding") return GenericValue::of(Ptr<OpenStack::PortBinding>());
  if (type == "OpenStack::PortToHostBinding") {
    return GenericValue::of(Ptr<const OpenStack::PortToHostBinding>());
  }
  return GenericValue::of(Ptr<const OpenStack::PortToSwitchInterfaceBinding>());
}

class TableTest : public MachineTest {
 protected:
  TableTest() {
    world.start(
        "region R; segment vx vxlan 5000; segment vl vlan 10; segment low vlan 12; "
        "assign R 10 11; assign Q 20; assign P 30; "
        "host p h1 0=vx 1=vl 2=low; host p h2 1=vl; host p h3 1=vl; "
        "switch q sw e1 x 0=vx 1=vl 2=low; switch q sw e2 x 1=vl; switch q sw e3 x 1=vl; "
        "host r h1 1=vl; region Q; region P; region R");
    leaves({});
    world.traces.take();
  }

  // The machine that the row is about, with members in the row's collection.
  Ptr<PtrInterface> machineOf(const Row& row) const {
    if (row.machine == kRoot) return world.root;
    if (row.machine == kRegion) return world.regionSm();
    const bool ofSwitch = row.name.find("Switch") != std::string_view::npos;
    if (row.machine == kPort) return world.portSm(ofSwitch ? "q" : "p");
    if (row.machine == kHost) return world.hostSm("p", "h1");
    return Ptr<PtrInterface>(
        world.portSm("q")->portToSwitchInterfaceBindingSm()[SwitchInterface("sw", "e1")]);
  }

  static GenericValue op(PtrInterface& object, U16 index, U8 operation,
                         const GenericArguments& arguments = {}, bool isConst = false) {
    GenericValue result = GenericValue::of(String("left as it was"));
    bool notHandled = true;
    object.genericIf()->genericIfAttributeOp(object, isConst, {index, operation}, arguments, result,
                                             notHandled);
    EXPECT_FALSE(notHandled);
    return result;
  }

  static std::vector<std::string> keysOf(PtrInterface& object, U16 index) {
    std::vector<std::string> keys;
    const auto at = object.genericIf()->genericIfIterator(object, index);
    for (; at->iterNonnull(); at->iterInc()) keys.push_back(at->iterKey().text());
    return keys;
  }
};

TEST_F(TableTest, TheRowsAreAllThatTheMachinesShow) {
  for (const GenericIf* machine : OpenStack::machineReflections()) {
    std::vector<std::string_view> names;
    for (const Row& row : kRows) {
      if (typeName(row.machine) == machine->typeName()) names.push_back(row.name);
    }
    std::vector<std::string_view> shown;
    for (const KivAttr& attribute : machine->attributes()) shown.push_back(attribute.name);
    EXPECT_THAT(shown, ElementsAreArray(names));
  }
}

TEST_F(TableTest, EveryOtherIndexIsLeftToTheBaseType) {
  for (const Row& any : kRows) {
    if (any.index != 130) continue;
    const auto machine = machineOf(any);
    std::set<unsigned> known;
    for (const Row& row : kRows) {
      if (row.machine == any.machine) known.insert(row.index);
    }
    for (unsigned index = 0; index <= 0xffff; ++index) {
      if (known.contains(index)) continue;
      GenericValue result = GenericValue::of(true);
      bool notHandled = false;
      machine->genericIf()->genericIfAttributeOp(
          *machine, false, {static_cast<U16>(index), GenericOp::kRead}, {}, result, notHandled);
      ASSERT_TRUE(notHandled) << any.machine << ' ' << index;
      ASSERT_EQ(result.text(), "true");
    }
    EXPECT_EQ(machine->genericIf()->attribute(U16{0}), nullptr);
    EXPECT_THROW(machine->genericIf()->genericIfIterator(*machine, 7), RangeException);
    EXPECT_THROW(machine->genericIf()->genericIfIteratorKey(*machine, 7, GenericValue::of(true)),
                 RangeException);
  }
}

// For each row.
class RowTest : public TableTest, public testing::WithParamInterface<Row> {
 protected:
  RowTest() : machine_(machineOf(row())), description_(*machine_->genericIf()) {}

  static const Row& row() { return GetParam(); }
  static bool is(Access access) { return row().access == access; }
  static bool takesKey() { return !row().keyType.empty(); }

  GenericValue run(U8 operation, const GenericArguments& arguments = {}, bool isConst = false) {
    return op(*machine_, row().index, operation, arguments, isConst);
  }
  static GenericArguments key(std::string_view text) { return {keyOf(row().keyType, text)}; }
  GenericArguments present() { return key(row().present); }
  static GenericArguments absent() { return key(row().keyType == "U8" ? "200" : "no:such"); }

  // Whether a type is the one of the row.
  static bool fits(std::string_view type) {
    return type == row().type || type == typeName(row().machine) + "::" + std::string(row().type);
  }

  void TearDown() override {
    machine_ = nullptr;
    // Some rows take machines away without their cleanup; what these leave is not looked at.
    world.unbindAll();
    world.rootDel();
    world.run();
    EXPECT_EQ(machinesAlive(), Lines{});
  }

  Ptr<PtrInterface> machine_;
  const GenericIf& description_;
};

TEST_P(RowTest, IsDescribed) {
  const KivAttr* attribute = description_.attribute(row().index);
  ASSERT_NE(attribute, nullptr);
  EXPECT_EQ(description_.attribute(row().name), attribute);
  EXPECT_EQ(description_.typeName(), typeName(row().machine));
  EXPECT_EQ(machine_->fwkType().name(), typeName(row().machine));
  EXPECT_EQ(attribute->name, row().name);
  EXPECT_EQ(attribute->key, row().key);
  EXPECT_EQ(attribute->kind, is(call)         ? KivAttrKind::handler
                             : is(collection) ? KivAttrKind::collection
                                              : KivAttrKind::plain);
  EXPECT_TRUE(fits(attribute->type)) << attribute->type;
  EXPECT_EQ(attribute->keyType, row().keyType);
  EXPECT_EQ(attribute->writable, is(write) || is(collection));
  EXPECT_EQ(attribute->signature.empty(), !is(call));
}

TEST_P(RowTest, RefusesEveryOperationThatItsKindLacks) {
  std::set<U8> has;
  if (is(read)) has = {0};
  if (is(write)) has = {0, 1};
  if (is(call)) has = {8};
  if (is(collection)) has = {0, 1, 2, 3, 4, 5};
  for (const U8 operation : kOperations) {
    if (has.contains(operation)) continue;
    for (const bool isConst : {false, true}) {
      EXPECT_THROW(run(operation, {}, isConst), UnsupportedOperationException) << +operation;
      EXPECT_THROW(run(operation, {GenericValue::of(Name("R"))}, isConst),
                   UnsupportedOperationException);
    }
  }
  if (is(collection)) return;
  EXPECT_THROW(description_.genericIfIterator(*machine_, row().index),
               UnsupportedOperationException);
  EXPECT_THROW(
      description_.genericIfIteratorKey(*machine_, row().index, GenericValue::of(Name("R"))),
      UnsupportedOperationException);
}

TEST_P(RowTest, ChangesNothingThroughAConstInterface) {
  std::set<U8> changing;
  if (is(write)) changing = {1};
  if (is(call)) changing = {8};
  if (is(collection)) changing = {1, 2};
  for (const U8 operation : changing) {
    GenericArguments arguments;
    if (takesKey()) arguments = present();
    if (is(write)) arguments = {run(GenericOp::kRead)};
    EXPECT_THROW(run(operation, arguments, true), UnsupportedOperationException) << +operation;
  }
  EXPECT_THAT(world.traces.take(), IsEmpty());
  if (!is(collection)) return;
  const auto before = keysOf(*machine_, row().index);
  const auto at = description_.genericIfIterator(std::as_const(*machine_), row().index);
  EXPECT_THROW(at->iterDel(), UnsupportedOperationException);
  EXPECT_EQ(at->iterObj().changeable(), nullptr);
  EXPECT_EQ(run(GenericOp::kLookup, present(), true).changeable(), nullptr);
  const auto from =
      description_.genericIfIteratorKey(std::as_const(*machine_), row().index, present()[0]);
  EXPECT_THROW(from->iterDel(), UnsupportedOperationException);
  EXPECT_THAT(keysOf(*machine_, row().index), ElementsAreArray(before));
}

TEST_P(RowTest, RefusesArgumentsThatDoNotFit) {
  const GenericValue other = GenericValue::of(Kiv::make<OpenStack::IdentifiedObject>("o"));
  for (const U8 operation : kOperations) {
    std::size_t wanted = 0;
    if ((is(read) || is(write)) && operation == GenericOp::kRead) {
      wanted = 0;
    } else if (is(write) && operation == GenericOp::kWrite) {
      wanted = 1;
    } else if (is(call) && operation == GenericOp::kCall) {
      wanted = takesKey() ? 1 : 0;
    } else if (is(collection) && operation <= GenericOp::kContains &&
               operation != GenericOp::kCreate) {
      wanted = operation == GenericOp::kSize || operation == GenericOp::kBuckets ? 0 : 1;
    } else {
      continue;
    }
    GenericArguments fitting;
    if (wanted == 1) fitting = {is(write) ? run(GenericOp::kRead) : present()[0]};
    GenericArguments more = fitting;
    more.push_back(GenericValue::of(true));
    EXPECT_THROW(run(operation, more), RangeException) << +operation;
    if (wanted == 0) continue;
    EXPECT_THROW(run(operation, {}), RangeException) << +operation;
    for (const GenericValue& wrong :
         {other, GenericValue(), GenericValue::of(Ptr<OpenStack::IdentifiedObject>())}) {
      EXPECT_THROW(run(operation, {wrong}), RangeException) << +operation;
    }
    if (row().type != "bool") {
      EXPECT_THROW(run(operation, {GenericValue::of(true)}), RangeException);
    }
  }
  EXPECT_THAT(world.traces.take(), IsEmpty());
}

TEST_P(RowTest, IsReadAndWritten) {
  if (!is(read) && !is(write)) return;
  const GenericValue value = run(GenericOp::kRead);
  EXPECT_EQ(value.typeName(), row().type);
  EXPECT_EQ(run(GenericOp::kRead, {}, true).text(), value.text());
  EXPECT_EQ(description_.read(*machine_, row().name).text(), value.text());
  EXPECT_EQ(value.form() == Kiv::ValueForm::object, value.object() != nullptr);
  if (!is(write)) return;
  const bool flag = row().type == "bool";
  const GenericValue next =
      flag ? GenericValue::of(false) : GenericValue::of(Kiv::Seconds(World::kTimeout + 1.5));
  EXPECT_TRUE(run(GenericOp::kWrite, {next}).empty());
  EXPECT_EQ(run(GenericOp::kRead).text(), flag ? "false" : "31.5");
  EXPECT_TRUE(run(GenericOp::kWrite, {value}).empty());
  EXPECT_EQ(run(GenericOp::kRead).text(), value.text());
}

TEST_P(RowTest, IsCalled) {
  if (!is(call)) return;
  EXPECT_TRUE(run(GenericOp::kCall, takesKey() ? present() : GenericArguments{}).empty());
  // The handler ran: its first line names it.
  const auto lines = world.traces.take();
  ASSERT_THAT(lines, Not(IsEmpty()));
  EXPECT_THAT(lines[0], testing::HasSubstr(std::string(row().name) + "("));
  EXPECT_THAT(lines[0], testing::HasSubstr(std::string(row().machine) + "::"));
}

TEST_P(RowTest, IsLookedUpAndCounted) {
  if (!is(collection)) return;
  const auto keys = keysOf(*machine_, row().index);
  EXPECT_GE(keys.size(), 3U);
  EXPECT_EQ(std::set<std::string>(keys.begin(), keys.end()).size(), keys.size());
  EXPECT_EQ(run(GenericOp::kSize).as<Kiv::U64>(), keys.size());
  EXPECT_EQ(run(GenericOp::kSize, {}, true).as<Kiv::U64>(), keys.size());
  EXPECT_EQ(run(GenericOp::kBuckets).typeName(), "U64");
  EXPECT_EQ(run(GenericOp::kContains, present()).text(), "true");
  EXPECT_EQ(run(GenericOp::kContains, absent()).text(), "false");
  const GenericValue member = run(GenericOp::kLookup, present());
  EXPECT_TRUE(fits(member.typeName())) << member.typeName();
  EXPECT_EQ(member.changeable(), member.object());
  EXPECT_EQ(run(GenericOp::kLookup, present(), true).object(), member.object());
  EXPECT_EQ(run(GenericOp::kLookup, {GenericValue::of(String(row().present))}).object(),
            member.object());
  const GenericValue none = run(GenericOp::kLookup, absent());
  EXPECT_EQ(none.object(), nullptr);
  EXPECT_EQ(none.form(), Kiv::ValueForm::object);
  EXPECT_EQ(none.text(), "null");
  EXPECT_EQ(run(GenericOp::kDelete, absent()).object(), nullptr);
  EXPECT_EQ(run(GenericOp::kSize).as<Kiv::U64>(), keys.size());
}

// Where a collection's key has a name, it is that of the members' attribute that is the key; a
// reactor stands for the entity that it observes.
TEST_P(RowTest, NamesItsKeyAsItsMembersDo) {
  if (!is(collection) || row().key.empty()) return;
  for (auto at = description_.genericIfIterator(*machine_, row().index); at->iterNonnull();
       at->iterInc()) {
    Ptr<const PtrInterface> member = at->iterObj().object();
    ASSERT_NE(member->genericIf(), nullptr);
    if (member->genericIf()->attribute("notifier") != nullptr) {
      member = member->genericIf()->read(*member, "notifier").object();
    }
    const GenericIf& of = *member->genericIf();
    EXPECT_EQ(of.read(*member, row().key).text(), at->iterKey().text());
  }
}

TEST_P(RowTest, IsWalkedFromItsStartAndFromEachKey) {
  if (!is(collection)) return;
  const auto keys = keysOf(*machine_, row().index);
  std::size_t place = 0;
  for (auto at = description_.genericIfIterator(*machine_, row().index); at->iterNonnull();
       at->iterInc(), ++place) {
    EXPECT_EQ(at->iterKey().typeName(), row().keyType);
    EXPECT_TRUE(fits(at->iterObj().typeName()));
    EXPECT_EQ(at->iterObj().object(), run(GenericOp::kLookup, {at->iterKey()}).object());
    std::vector<std::string> rest;
    for (auto from = description_.genericIfIteratorKey(*machine_, row().index, at->iterKey());
         from->iterNonnull(); from->iterInc()) {
      rest.push_back(from->iterKey().text());
    }
    EXPECT_THAT(rest,
                ElementsAreArray(keys.begin() + static_cast<std::ptrdiff_t>(place), keys.end()));
  }
  EXPECT_EQ(place, keys.size());
  EXPECT_FALSE(
      description_.genericIfIteratorKey(*machine_, row().index, absent()[0])->iterNonnull());
  EXPECT_THROW(description_.genericIfIteratorKey(*machine_, row().index, GenericValue::of(true)),
               RangeException);
}

TEST_P(RowTest, IsWalkedWhileMembersAreDeleted) {
  if (!is(collection)) return;
  const auto keys = keysOf(*machine_, row().index);
  ASSERT_GE(keys.size(), 3U);
  const auto at = description_.genericIfIterator(*machine_, row().index);
  const auto gone = run(GenericOp::kDelete, key(keys[1]));
  ASSERT_NE(gone.object(), nullptr);
  EXPECT_EQ(run(GenericOp::kContains, key(keys[1])).text(), "false");
  at->iterInc();
  ASSERT_TRUE(at->iterNonnull());
  EXPECT_EQ(at->iterKey().text(), keys[2]);
  // A deleted member stays current until the next step; to delete it again does nothing.
  const auto member = at->iterObj().object();
  at->iterDel();
  at->iterDel();
  EXPECT_TRUE(at->iterNonnull());
  EXPECT_EQ(at->iterKey().text(), keys[2]);
  EXPECT_EQ(at->iterObj().object(), member);
  EXPECT_EQ(run(GenericOp::kContains, key(keys[2])).text(), "false");
  at->iterInc();
  EXPECT_EQ(at->iterNonnull(), keys.size() > 3);
  EXPECT_EQ(run(GenericOp::kSize).as<Kiv::U64>(), keys.size() - 2);
  for (auto each = description_.genericIfIterator(*machine_, row().index); each->iterNonnull();
       each->iterInc()) {
    each->iterDel();
  }
  EXPECT_EQ(run(GenericOp::kSize).as<Kiv::U64>(), 0U);
}

TEST_P(RowTest, MirrorsAnEntityAgainAndRefusesNone) {
  if (!is(collection) || row().type.substr(0, 3) != "Kiv") return;
  const auto entity = run(GenericOp::kDelete, present());
  EXPECT_EQ(run(GenericOp::kContains, present()).text(), "false");
  GenericArguments arguments;
  if (row().keyType == "U8") arguments = present();
  arguments.push_back(entity);
  const auto reactor = run(GenericOp::kCreate, arguments);
  EXPECT_TRUE(fits(reactor.typeName()));
  EXPECT_EQ(run(GenericOp::kLookup, present()).object(), reactor.object());
  EXPECT_EQ(reactor.object()->genericIf()->read(*reactor.object(), "notifier").object(),
            entity.object());
  EXPECT_EQ(run(GenericOp::kCreate, arguments).object(), reactor.object());

  // A null entity has its fixed text; what is no entity of the kind has none.
  const std::string name(row().name);
  arguments.back() = GenericValue::of(Kiv::make<OpenStack::IdentifiedObject>("o"));
  EXPECT_THROW(run(GenericOp::kCreate, arguments), RangeException);
  arguments.back() = nullOf(entity.typeName());
  EXPECT_EQ(thrown<RangeException>([&] { run(GenericOp::kCreate, arguments); }),
            "null _" + name + " parameter to mutator for " + typeName(row().machine) + "::" + name +
                " not allowed\"");
  EXPECT_EQ(run(GenericOp::kLookup, present()).object(), reactor.object());
}

std::string rowName(const testing::TestParamInfo<Row>& info) {
  return std::string(info.param.machine) + '_' + std::to_string(info.param.index) + '_' +
         std::string(info.param.name);
}
INSTANTIATE_TEST_SUITE_P(Tables, RowTest, testing::ValuesIn(kRows), rowName);

}  // namespace
