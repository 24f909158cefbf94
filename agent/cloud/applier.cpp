#include "agent/cloud/applier.h"

#include <utility>

#include "OpenStackSm/OpenStackSm.h"

namespace vnagent {
namespace {

VirtualNetwork::SwitchInterface switchInterface(const AttachmentAddress& at) {
  return {Kiv::String(at.key->first), Kiv::String(at.key->second)};
}

}  // namespace

// Lookup. What an operation names exists: the document that it came from has just been checked.

OpenStack::Region& Applier::region(std::string_view name) {
  if (!region_ || region_->name().view() != name) {
    bindingIs(nullptr);
    region_ = cloud_.region()[Kiv::Name(name)];
  }
  return *region_;
}

OpenStack::PortBinding& Applier::binding(const AttachmentAddress& at) {
  OpenStack::Region& in = region(at.region());
  if (!binding_ || binding_->portId().view() != at.port()) {
    bindingIs(in.portBinding()[Kiv::String(at.port())]);
  }
  return *binding_;
}

OpenStack::PortToHostBinding& Applier::hostBinding(const AttachmentAddress& at) {
  OpenStack::PortBinding& of = binding(at);
  if (!hostBinding_ || hostBinding_->host().view() != at.key->first) {
    hostBinding_ = of.portToHostBinding()[Kiv::Name(at.key->first)];
  }
  return *hostBinding_;
}

template <class Use>
void Applier::withAttachment(const AttachmentAddress& at, Use use) {
  if (at.kind == AttachmentKind::kHost) {
    use(hostBinding(at));
  } else {
    use(*binding(at).portToSwitchInterfaceBinding()[switchInterface(at)]);
  }
}

void Applier::bindingIs(Kiv::Ptr<OpenStack::PortBinding> binding) {
  hostBinding_ = nullptr;
  binding_ = std::move(binding);
}

void Applier::forget() {
  bindingIs(nullptr);
  region_ = nullptr;
}

// Removals.

void Applier::operator()(const op::LevelDel& o) {
  withAttachment(o.at, [&](auto& attachment) { attachment.segmentDel(o.level); });
}

void Applier::operator()(const op::AttachmentDel& o) {
  OpenStack::PortBinding& of = binding(o.at);
  if (o.at.kind == AttachmentKind::kHost) {
    hostBinding_ = nullptr;
    of.portToHostBindingDel(Kiv::Name(o.at.key->first));
  } else {
    of.portToSwitchInterfaceBindingDel(switchInterface(o.at));
  }
}

void Applier::operator()(const op::PortBindingDel& o) {
  bindingIs(nullptr);
  region(o.region).portBindingDel(Kiv::String(o.port));
}

void Applier::operator()(const op::SegmentDel& o) {
  region(o.region).segmentDel(Kiv::String(o.id));
}

void Applier::operator()(const op::PortDel& o) {
  region(o.region).portDel(Kiv::String(o.id));
}

void Applier::operator()(const op::RegionSetDel& o) {
  OpenStack::Region& in = region(o.region);
  const Kiv::String id(o.key);
  switch (o.set) {
    case RegionSet::kServiceEndPoint:
      in.serviceEndPointDel(Kiv::Name(o.key));
      break;
    case RegionSet::kTenant:
      in.tenantDel(id);
      break;
    case RegionSet::kNetwork:
      in.networkDel(id);
      break;
    case RegionSet::kVmInstance:
      in.vmInstanceDel(id);
      break;
    case RegionSet::kDhcpInstance:
      in.dhcpInstanceDel(id);
      break;
    case RegionSet::kBaremetalInstance:
      in.baremetalInstanceDel(id);
      break;
    case RegionSet::kRouterInstance:
      in.routerInstanceDel(id);
      break;
  }
}

void Applier::operator()(const op::RegionDel& o) {
  forget();
  cloud_.regionDel(Kiv::Name(o.region));
}

void Applier::operator()(const op::VlanDel& o) {
  config_.vlanAssignment()[Kiv::Name(o.assignment)]->vlanDel(o.vlan);
}

void Applier::operator()(const op::VlanAssignmentDel& o) {
  config_.vlanAssignmentDel(Kiv::Name(o.assignment));
}

void Applier::operator()(const op::ConfigSetDel& o) {
  const Kiv::Name name(o.key);
  switch (o.set) {
    case ConfigSet::kMandatoryRegion:
      config_.mandatoryRegionDel(name);
      break;
    case ConfigSet::kCredentials:
      config_.credentialsDel(name);
      break;
    case ConfigSet::kKeystoneAuthUrl:
      config_.keystoneAuthUrlDel(name);
      break;
  }
}

void Applier::operator()(const op::ServiceAclTypeVrfDel& o) {
  auto map = config_.serviceAclTypeVrfMap();
  map.erase(Kiv::String(o.key));
  config_.serviceAclTypeVrfMapIs(map);
}

// The agent configuration.

void Applier::operator()(const op::ConfigScalarIs& o) {
  const auto driver = [&] {
    return static_cast<OpenStack::VlanTypeDriver>(std::get<int64_t>(o.value));
  };
  const auto seconds = [&] { return Kiv::Seconds{std::get<double>(o.value)}; };
  const auto text = [&] { return Kiv::String(std::get<std::string>(o.value)); };
  switch (o.which) {
    case ConfigScalar::kVlanTypeDriver:
      return config_.vlanTypeDriverIs(driver());
    case ConfigScalar::kEnabled:
      return config_.enabledIs(std::get<bool>(o.value));
    case ConfigScalar::kDefaultVlanTypeDriver:
      return config_.defaultVlanTypeDriverIs(driver());
    case ConfigScalar::kDefaultGracePeriod:
      return config_.defaultGracePeriodIs(seconds());
    case ConfigScalar::kGracePeriod:
      return config_.gracePeriodIs(seconds());
    case ConfigScalar::kDefaultRegionSyncTimeout:
      return config_.defaultRegionSyncTimeoutIs(seconds());
    case ConfigScalar::kRegionSyncTimeout:
      return config_.regionSyncTimeoutIs(seconds());
    case ConfigScalar::kDefaultAgentMode:
      return config_.defaultAgentModeIs(text());
    case ConfigScalar::kAgentMode:
      return config_.agentModeIs(text());
    case ConfigScalar::kAuthRole:
      return config_.authRoleIs(text());
  }
}

void Applier::operator()(const op::RegionSyncTimeoutIs& o) {
  root_.regionSyncTimeoutIs(o.seconds);
}

void Applier::operator()(const op::ConfigSetIs& o) {
  const Kiv::Name name(o.key);
  switch (o.set) {
    case ConfigSet::kMandatoryRegion:
      config_.mandatoryRegionIs(name);
      break;
    case ConfigSet::kCredentials:
      config_.credentialsIs(name);
      break;
    case ConfigSet::kKeystoneAuthUrl:
      config_.keystoneAuthUrlIs(name);
      break;
  }
}

void Applier::operator()(const op::ServiceAclTypeVrfIs& o) {
  auto map = config_.serviceAclTypeVrfMap();
  map[Kiv::String(o.key)] = Kiv::String(o.value);
  config_.serviceAclTypeVrfMapIs(map);
}

void Applier::operator()(const op::VlanAssignmentIs& o) {
  const auto made = Kiv::make<OpenStack::VlanAssignment>(Kiv::Name(o.assignment));
  for (const auto& [vlan, assigned] : *o.vlans) made->vlanIs(vlan, assigned);
  config_.vlanAssignmentIs(made);
}

void Applier::operator()(const op::VlanIs& o) {
  config_.vlanAssignment()[Kiv::Name(o.assignment)]->vlanIs(o.vlan, o.assigned);
}

// Additions.

void Applier::operator()(const op::RegionIs& o) {
  bindingIs(nullptr);
  region_ = cloud_.regionIs(Kiv::Name(o.region));
}

void Applier::operator()(const op::RegionSetIs& o) {
  OpenStack::Region& in = region(o.region);
  const Kiv::String id(o.key);
  switch (o.set) {
    case RegionSet::kServiceEndPoint:
      in.serviceEndPointIs(Kiv::Name(o.key));
      break;
    case RegionSet::kTenant:
      in.tenantIs(id);
      break;
    case RegionSet::kNetwork:
      in.networkIs(id);
      break;
    case RegionSet::kVmInstance:
      in.vmInstanceIs(id);
      break;
    case RegionSet::kDhcpInstance:
      in.dhcpInstanceIs(id);
      break;
    case RegionSet::kBaremetalInstance:
      in.baremetalInstanceIs(id);
      break;
    case RegionSet::kRouterInstance:
      in.routerInstanceIs(id);
      break;
  }
}

void Applier::operator()(const op::SegmentIs& o) {
  const auto made = Kiv::make<OpenStack::Segment>(Kiv::String(o.id));
  made->segmentationTypeIs(static_cast<OpenStack::SegmentationType>(o.value.type));
  made->segmentationIdIs(o.value.id);
  region(o.region).segmentIs(made);
}

void Applier::operator()(const op::PortIs& o) {
  const auto made = Kiv::make<OpenStack::Port>(Kiv::String(o.id));
  made->vlanTypeIs(static_cast<OpenStack::VlanType>(o.vlanType));
  region(o.region).portIs(made);
}

void Applier::operator()(const op::PortBindingIs& o) {
  OpenStack::Region& in = region(o.region);
  const Kiv::Ptr<const OpenStack::Port> port(in.port()[Kiv::String(o.port)]);
  bindingIs(Kiv::make<OpenStack::PortBinding>(port->id()));  // shares the text of the id
  binding_->portIs(port);
  in.portBindingIs(binding_);
}

void Applier::operator()(const op::AttachmentIs& o) {
  OpenStack::PortBinding& of = binding(o.at);
  if (o.at.kind == AttachmentKind::kHost) {
    hostBinding_ = of.portToHostBindingIs(Kiv::Name(o.at.key->first));
    return;
  }
  const auto made = Kiv::make<OpenStack::PortToSwitchInterfaceBinding>(switchInterface(o.at));
  made->hostIs(Kiv::Name(o.host));
  of.portToSwitchInterfaceBindingIs(made);
}

void Applier::operator()(const op::LevelIs& o) {
  const Kiv::Ptr<const OpenStack::Segment> segment(
      region(o.at.region()).segment()[Kiv::String(o.segment)]);
  withAttachment(o.at, [&](auto& attachment) { attachment.segmentIs(o.level, segment); });
}

// The regions' scalars.

void Applier::operator()(const op::RegionScalarIs& o) {
  OpenStack::Region& in = region(o.region);
  switch (o.which) {
    case RegionScalar::kRequester:
      return in.requesterIs(Kiv::String(std::get<std::string>(*o.value)));
    case RegionScalar::kRequestId:
      return in.requestIdIs(Kiv::String(std::get<std::string>(*o.value)));
    case RegionScalar::kSyncInterval:
      return in.syncIntervalIs(std::get<double>(*o.value));
    case RegionScalar::kSyncHeartbeat:
      return in.syncHeartbeatIs(std::get<double>(*o.value));
    case RegionScalar::kSyncStatus:
      return in.syncStatusIs(static_cast<OpenStack::SyncStatus>(std::get<int64_t>(*o.value)));
  }
}

}  // namespace vnagent
