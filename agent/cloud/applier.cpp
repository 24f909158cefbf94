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

Kiv::PtrInterface& Applier::ownerOf(const Region* region) {
  if (region == nullptr) return config_;
  return this->region(region->name);
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

void Applier::operator()(const op::ThingDel& o) {
  o.row->remove(ownerOf(o.region), o.key);
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

// Scalars.

void Applier::operator()(const op::ScalarIs& o) {
  o.row->write(ownerOf(o.region), *o.value);
}

void Applier::operator()(const op::RegionSyncTimeoutIs& o) {
  root_.regionSyncTimeoutIs(o.seconds);
}

// Additions.

void Applier::operator()(const op::VlanAssignmentIs& o) {
  const auto made = Kiv::make<OpenStack::VlanAssignment>(Kiv::Name(o.assignment));
  for (const auto& [vlan, assigned] : *o.vlans) made->vlanIs(vlan, assigned);
  config_.vlanAssignmentIs(made);
}

void Applier::operator()(const op::VlanIs& o) {
  config_.vlanAssignment()[Kiv::Name(o.assignment)]->vlanIs(o.vlan, o.assigned);
}

void Applier::operator()(const op::RegionIs& o) {
  bindingIs(nullptr);
  region_ = cloud_.regionIs(Kiv::Name(o.region));
}

void Applier::operator()(const op::ThingIs& o) {
  o.row->add(*o.row, ownerOf(o.region), o.thing->first, o.thing->second.values);
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
    hostBinding_ = Kiv::make<OpenStack::PortToHostBinding>(Kiv::Name(o.at.key->first));
    writeAll(*hostBinding_, kHostBinding, *o.values);
    of.portToHostBindingIs(hostBinding_);
    return;
  }
  const auto made = Kiv::make<OpenStack::PortToSwitchInterfaceBinding>(switchInterface(o.at));
  writeAll(*made, kSwitchInterfaceBinding, *o.values);
  of.portToSwitchInterfaceBindingIs(made);
}

void Applier::operator()(const op::LevelIs& o) {
  const Kiv::Ptr<const OpenStack::Segment> segment(
      region(o.at.region()).segment()[Kiv::String(o.segment)]);
  withAttachment(o.at, [&](auto& attachment) { attachment.segmentIs(o.level, segment); });
}

}  // namespace vnagent
