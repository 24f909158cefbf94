#include "tests/sim/library/subject.h"

#include <algorithm>
#include <map>
#include <sstream>
#include <vector>

#include "OpenStackSm/OpenStackSm.h"
#include "OpenStackSm/detail/Toggle.h"
#include "framework/Exceptions.h"
#include "framework/FeatureToggle.h"
#include "tests/sim/library/foreign_notifiees.h"
#include "tests/sim/library/names.h"
#include "tests/sim/library/read.h"

namespace sim {
namespace {

using Op = Operation;

constexpr Name kKinds[] = {Name::region,    Name::segment,   Name::port,   Name::element,
                           Name::interface, Name::requester, Name::request};

// The names as the entities take them, made once and all at the same time, so that they do not
// count as objects that came.
template <class Text>
const Text& as(Name kind, int number) {
  static const auto made = [] {
    std::map<Name, std::vector<Text>> all;
    for (const Name each : kKinds) {
      for (int i = 0; i < namesOf(each); ++i) all[each].emplace_back(nameOf(each, i));
    }
    return all;
  }();
  return made.at(kind)[static_cast<std::size_t>(number)];
}

const Kiv::String& string(Name kind, int number) {
  return as<Kiv::String>(kind, number);
}
const Kiv::Name& name(Name kind, int number) {
  return as<Kiv::Name>(kind, number);
}

VirtualNetwork::SwitchInterface switchInterface(const Place& place) {
  return {string(Name::element, place.element), string(Name::interface, place.interface)};
}

Kiv::U16 vlanId(int vlan) {
  return static_cast<Kiv::U16>(vlan);
}

}  // namespace

struct Subject::World {
  Kiv::VirtualTime time;
  Kiv::ActivityManager loop;
  const Kiv::Ptr<OpenStack::Config> config = Kiv::make<OpenStack::Config>();
  const Kiv::Ptr<OpenStack::OpenStackConfig> cloud = Kiv::make<OpenStack::OpenStackConfig>();
  const Kiv::Ptr<OpenStack::NameResolution::Config> nameConfig =
      Kiv::make<OpenStack::NameResolution::Config>();
  const Kiv::Ptr<OpenStack::NameResolution::Status> nameStatus =
      Kiv::make<OpenStack::NameResolution::Status>();
  const Kiv::Ptr<OpenStack::OpenStackStatus> status = Kiv::make<OpenStack::OpenStackStatus>();
  const Kiv::Ptr<VirtualNetwork::RequestedResourcesCollection> resources =
      Kiv::make<VirtualNetwork::RequestedResourcesCollection>();
  const Kiv::Ptr<VirtualNetwork::NetworkElementCollection> elements =
      Kiv::make<VirtualNetwork::NetworkElementCollection>();
  Kiv::Ptr<OpenStack::OpenStackSm> root;
  double heartbeat = 0;
  double timeout = 0;

  OpenStack::Region& region(const Op& op) const {
    return *cloud->region()[name(Name::region, op.region)];
  }
  OpenStack::PortBinding& portBinding(const Op& op) const {
    return *region(op).portBinding()[string(Name::port, op.id)];
  }
  OpenStack::VlanAssignment& assignment(const Op& op) const {
    return *config->vlanAssignment()[name(Name::region, op.region)];
  }

  // Whether there is what an operation needs.
  bool isThere(const Op& op) const {
    switch (op.kind) {
      case Op::regionDel:
      case Op::regionIs:
      case Op::driverIs:
      case Op::assignmentDel:
      case Op::assignmentIs:
        return true;
      case Op::vlanEntryDel:
      case Op::vlanEntryIs:
        return config->vlanAssignment().contains(name(Name::region, op.region));
      default:
        break;
    }
    const OpenStack::Region* in = cloud->region()[name(Name::region, op.region)];
    if (in == nullptr) return false;
    if (op.kind == Op::portBindingIs) return in->port().contains(string(Name::port, op.id));
    if (op.kind > Op::bindingDel && op.kind != Op::bindingIs && op.kind != Op::levelIs) return true;
    const OpenStack::PortBinding* binding = in->portBinding()[string(Name::port, op.id)];
    if (binding == nullptr || op.kind == Op::bindingDel || op.kind == Op::bindingIs) {
      return binding != nullptr;
    }
    if (op.kind == Op::levelIs && !in->segment().contains(string(Name::segment, op.value))) {
      return false;
    }
    return op.place.onHost()
               ? binding->portToHostBinding().contains(name(Name::element, op.place.element))
               : binding->portToSwitchInterfaceBinding().contains(switchInterface(op.place));
  }

  // Calls `use` with the binding at the operation's place.
  template <class Use>
  void withBinding(const Op& op, Use use) const {
    OpenStack::PortBinding& of = portBinding(op);
    if (op.place.onHost()) {
      use(*of.portToHostBinding()[name(Name::element, op.place.element)]);
    } else {
      use(*of.portToSwitchInterfaceBinding()[switchInterface(op.place)]);
    }
  }

  void bindingDel(const Op& op) const {
    if (op.place.onHost()) {
      portBinding(op).portToHostBindingDel(name(Name::element, op.place.element));
    } else {
      portBinding(op).portToSwitchInterfaceBindingDel(switchInterface(op.place));
    }
  }
  void bindingIs(const Op& op) const {
    if (op.place.onHost()) {
      portBinding(op).portToHostBindingIs(name(Name::element, op.place.element));
      return;
    }
    const auto made = Kiv::make<OpenStack::PortToSwitchInterfaceBinding>(switchInterface(op.place));
    made->hostIs(name(Name::element, op.value));
    portBinding(op).portToSwitchInterfaceBindingIs(made);
  }
  void levelIs(const Op& op) const {
    const Kiv::Ptr<const OpenStack::Segment> segment(
        region(op).segment()[string(Name::segment, op.value)]);
    withBinding(op,
                [&](auto& binding) { binding.segmentIs(static_cast<Kiv::U8>(op.level), segment); });
  }
  void segmentIs(const Op& op) const {
    const auto made = Kiv::make<OpenStack::Segment>(string(Name::segment, op.id));
    made->segmentationTypeIs(static_cast<OpenStack::SegmentationType>(op.segment.type));
    made->segmentationIdIs(op.segment.number);
    region(op).segmentIs(made);
  }
  void portIs(const Op& op) const {
    const auto made = Kiv::make<OpenStack::Port>(string(Name::port, op.id));
    made->vlanTypeIs(static_cast<OpenStack::VlanType>(op.value));
    region(op).portIs(made);
  }
  void portBindingIs(const Op& op) const {
    const auto made = Kiv::make<OpenStack::PortBinding>(string(Name::port, op.id));
    made->portIs(Kiv::Ptr<const OpenStack::Port>(region(op).port()[string(Name::port, op.id)]));
    region(op).portBindingIs(made);
  }
  void assignmentIs(const Op& op) const {
    const auto made = Kiv::make<OpenStack::VlanAssignment>(name(Name::region, op.region));
    for (const auto& [vlan, value] : *op.assignment) made->vlanIs(vlanId(vlan), value);
    config->vlanAssignmentIs(made);
  }
};

Subject::Subject(bool toggleOn, double timeout) {
  Kiv::toggleProviderIs([toggleOn](std::string_view, bool) {
    return Kiv::kToggleKnown | (toggleOn ? Kiv::kToggleOn : 0U);
  });
  OpenStack::detail::virtualNetworkAgentToggleForget();
  world_ = std::make_unique<World>();
  world_->timeout = timeout;
  Kiv::System::timeSourceIs(&world_->time);
  world_->root = OpenStack::openStackSmFactory(world_->cloud, world_->status, world_->nameConfig,
                                               world_->nameStatus, world_->resources, timeout,
                                               world_->config, world_->elements);
}

Subject::~Subject() {
  world_->root = nullptr;
  world_.reset();
  Kiv::toggleProviderIs({});
  Kiv::System::timeSourceIs(nullptr);
}

void Subject::apply(const Operation& op) {
  const World& w = *world_;
  switch (op.kind) {
    case Op::levelDel:
      return w.withBinding(
          op, [&](auto& binding) { binding.segmentDel(static_cast<Kiv::U8>(op.level)); });
    case Op::bindingDel:
      return w.bindingDel(op);
    case Op::portBindingDel:
      w.region(op).portBindingDel(string(Name::port, op.id));
      return;
    case Op::segmentDel:
      w.region(op).segmentDel(string(Name::segment, op.id));
      return;
    case Op::portDel:
      w.region(op).portDel(string(Name::port, op.id));
      return;
    case Op::regionDel:
      w.cloud->regionDel(name(Name::region, op.region));
      return;
    case Op::vlanEntryDel:
      return w.assignment(op).vlanDel(vlanId(op.id));
    case Op::assignmentDel:
      w.config->vlanAssignmentDel(name(Name::region, op.region));
      return;
    case Op::driverIs:
      return w.config->vlanTypeDriverIs(static_cast<OpenStack::VlanTypeDriver>(op.value));
    case Op::assignmentIs:
      return w.assignmentIs(op);
    case Op::vlanEntryIs:
      return w.assignment(op).vlanIs(vlanId(op.id), op.value != 0);
    case Op::regionIs:
      w.cloud->regionIs(name(Name::region, op.region));
      return;
    case Op::segmentIs:
      return w.segmentIs(op);
    case Op::portIs:
      return w.portIs(op);
    case Op::portBindingIs:
      return w.portBindingIs(op);
    case Op::bindingIs:
      return w.bindingIs(op);
    case Op::levelIs:
      return w.levelIs(op);
    case Op::requesterIs:
      return w.region(op).requesterIs(string(Name::requester, op.value));
    case Op::requestIs:
      return w.region(op).requestIdIs(string(Name::request, op.value));
    case Op::heartbeatIs:
      return w.region(op).syncHeartbeatIs(op.value);
    case Op::syncStatusIs:
      return w.region(op).syncStatusIs(static_cast<OpenStack::SyncStatus>(op.value));
  }
}

void Subject::idle() {
  world_->loop.run();
}

void Subject::timeoutIs(double seconds) {
  world_->timeout = seconds;
  world_->root->regionSyncTimeoutIs(seconds);
  idle();
}

void Subject::advance(double seconds) {
  const double end = world_->time.now() + seconds;
  while (world_->loop.nextTimer() <= end) {
    world_->time.nowIs(std::max(world_->time.now(), world_->loop.nextTimer()));
    world_->loop.fireNextTimer();
    idle();
  }
  world_->time.nowIs(end);
}

std::string Subject::misuse(int which) {
  const World& w = *world_;
  try {
    switch (which % 5) {
      case 0:
        w.cloud->regionIs(Kiv::Ptr<OpenStack::Region>());
        break;
      case 1:
        w.config->vlanAssignmentIs(Kiv::Ptr<OpenStack::VlanAssignment>());
        break;
      case 2:
        w.root->vlanAssignmentIs(nullptr);
        break;
      case 3:
        for (const auto& region : w.cloud->region()) {
          region->segmentIs(Kiv::Ptr<OpenStack::Segment>());
        }
        return w.cloud->region().empty() ? "" : "a null segment is taken";
      default:
        // A region machine that exists, with another status.
        for (const auto& region : w.cloud->region()) {
          w.root->regionConfigSmIs(region->name(), region,
                                   Kiv::make<OpenStack::RegionStatus>(region->name()), w.resources,
                                   w.timeout, w.elements);
        }
        return w.cloud->region().empty() ? "" : "a region machine is made twice";
    }
  } catch (const Kiv::RangeException&) {
    return which % 5 == 4 ? "not a name in use" : "";
  } catch (const Kiv::NameInUseException&) {
    return which % 5 == 4 ? "" : "a name in use";
  }
  return "a null entity is taken";
}

void Subject::visitedBy(ForeignNotifiees& foreign) {
  const World& w = *world_;
  foreign.visit(*w.config, *w.cloud, *w.status, *w.resources, *w.elements);
}

void Subject::applyIfThere(const Operation& op) {
  if (world_->isThere(op)) apply(op);
}

void Subject::removeOne(int number, bool whole) {
  std::vector<std::pair<Kiv::Ptr<OpenStack::Region>, Kiv::Ptr<OpenStack::PortBinding>>> found;
  for (const auto& region : world_->cloud->region()) {
    for (const auto& binding : region->portBinding()) found.emplace_back(region, binding);
  }
  if (found.empty()) return;
  const auto& [region, binding] = found[static_cast<std::size_t>(number) % found.size()];
  if (whole) {
    region->portBindingDel(binding->portId());
  } else if (!binding->portToHostBinding().empty()) {
    binding->portToHostBindingDel((*binding->portToHostBinding().begin())->host());
  } else if (!binding->portToSwitchInterfaceBinding().empty()) {
    binding->portToSwitchInterfaceBindingDel(
        (*binding->portToSwitchInterfaceBinding().begin())->switchInterface());
  }
}

void Subject::removeAll() {
  for (const auto& region : world_->cloud->region()) region->portBindingDelAll();
  idle();
  for (const auto& region : world_->cloud->region()) {
    region->segmentDelAll();
    region->portDelAll();
  }
  idle();
  world_->cloud->regionDelAll();
  world_->config->vlanAssignmentDelAll();
  idle();
}

Picture Subject::picture() const {
  return read(*world_->status, *world_->resources, *world_->elements);
}

Picture Subject::rebuilt() const {
  const auto status = Kiv::make<OpenStack::OpenStackStatus>();
  const auto resources = Kiv::make<VirtualNetwork::RequestedResourcesCollection>();
  const auto elements = Kiv::make<VirtualNetwork::NetworkElementCollection>();
  const auto root =
      OpenStack::openStackSmFactory(world_->cloud, status, world_->nameConfig, world_->nameStatus,
                                    resources, world_->timeout, world_->config, elements);
  return read(*status, *resources, *elements);
}

namespace {

std::string live(bool (*counts)(std::string_view type)) {
  string(Name::region, 0);
  name(Name::region, 0);
  std::ostringstream lines;
  for (const Kiv::AllocTrackRecord& record : Kiv::AllocTrackTypeInfo::report()) {
    if (record.liveCount == 0 || !counts(record.typeName)) continue;
    lines << record.typeName << ": " << record.liveCount << " (" << record.liveBytes << " bytes)\n";
  }
  return lines.str();
}

}  // namespace

std::string liveObjects() {
  return live([](std::string_view) { return true; });
}

std::string liveObjectsThatGo() {
  return live([](std::string_view type) {
    return type != "VirtualNetwork::ResourcesForHostname" &&
           type != "VirtualNetwork::NetworkElement" && type != "VirtualNetwork::PhysicalInterface";
  });
}

}  // namespace sim
