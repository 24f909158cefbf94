#include "OpenStackSm/PortToHostBindingSm.h"

#include "model/VirtualNetwork/Values.h"

namespace [[gnu::visibility("default")]] OpenStack {

using detail::isVlan;
using detail::isVxlan;
using detail::trace;

Kiv::Ptr<PortToHostBindingSm> portToHostBindingSmFactory(
    const Kiv::Name& host, const Kiv::Ptr<const Port>& port,
    const Kiv::Ptr<const PortToHostBinding>& portToHostBinding,
    const Kiv::Ptr<RequestedResourcesCollection>& requestedResourcesCollection) {
  return Kiv::makeMachine<PortToHostBindingSm>(
      {host, port, portToHostBinding, requestedResourcesCollection});
}

PortToHostBindingSm::~PortToHostBindingSm() {
  teardown();
}

Kiv::Name PortToHostBindingSm::boundTo() const {
  const auto bound = binding();
  return bound ? bound->host() : host();
}

void PortToHostBindingSm::handleSegment(Kiv::U8 level) {
  static constexpr auto here = detail::handler<PortToHostBindingSm>("handleSegment");
  const auto hostName = boundTo();
  const Kiv::Ptr<const Segment> segment(at(level));
  if (!segment) {
    trace(2, here, this, [&](auto& text) {
      text << "Port on " << hostName << " unbound at level " << static_cast<char>(level);
    });
    return;
  }
  const Kiv::U32 id = segment->segmentationId();
  trace(2, here, this, [&](auto& text) {
    text << "Port on " << hostName << " bound to segment " << segment->id() << " : "
         << segment->segmentationType() << " : " << id
         << " at level : " << static_cast<char>('0' + level);
  });
  const Kiv::String& referrer = port()->id();
  publishes(level);
  const auto host = requestedResourcesCollection()->resourcesForHostnameIs(hostName);
  if (isVlan(segment.get())) {
    const auto vlan = host->vlanIs(id);
    vlan->referrerIs(referrer, true);
    if (const Segment* parent = above(level); level != 0 && isVxlan(parent)) {
      trace(2, here, this, [&](auto& text) {
        text << "Establishing a VLAN to VNI mapping from " << id << " to "
             << parent->segmentationId();
      });
      mapVni(*vlan, parent->segmentationId());
    }
  } else if (isVxlan(segment.get())) {
    if (const Segment* child = below(level); isVlan(child)) {
      trace(2, here, this, [&](auto& text) {
        text << "Establishing a VNI to VLAN mapping from " << id << " to "
             << child->segmentationId();
      });
      publishes(static_cast<Kiv::U8>(level + 1));
      mapVni(*host->vlanIs(child->segmentationId()), id);
    }
  }
}

void PortToHostBindingSm::withdrawSegment(const KivSegment& reactor) {
  static constexpr auto here = detail::handler<PortToHostBindingSm>("KivSegment::doCleanup");
  const auto segment = reactor.entity();
  const auto hostName = boundTo();
  trace(9, here, &reactor, [&](auto& text) { text << port()->id() << " : " << segment->id(); });
  if (reactor.spent()) return;
  const Kiv::Ptr<VirtualNetwork::ResourcesForHostname> host(
      requestedResourcesCollection()->resourcesForHostname()[hostName]);
  if (!host) return;
  const Kiv::U8 level = levelOf(reactor, here);
  if (!isVlan(segment.get())) return;
  const Kiv::U32 id = segment->segmentationId();
  const Kiv::Ptr<VirtualNetwork::VlanReferences> vlan(host->vlan()[id]);
  if (!vlan) return;
  if (const auto vni = unmapVni(*vlan, level)) {
    trace(3, here, &reactor,
          [&](auto& text) { text << "Removing VNI " << *vni << " from " << hostName; });
    vlan->mappedVniDel(*vni);
  }
  vlan->referrerDel(port()->id());
  trace(2, here, &reactor, [&](auto& text) {
    text << "Removing a reference to VLAN " << id << " on host " << hostName << " which now has "
         << vlan->referrer().size() << " references to it.";
  });
  if (!vlan->referrer().empty()) return;
  trace(3, here, &reactor,
        [&](auto& text) { text << "Removing vlan " << id << " from " << hostName; });
  host->vlanDel(id);
}

void PortToHostBindingSm::doCleanup() {
  static constexpr auto here = detail::handler<PortToHostBindingSm>("doCleanup");
  trace(9, here, this,
        [&](auto& text) { text << "Removing port " << port()->id() << " from " << boundTo(); });
  doCleanupSegments(here);
}

}  // namespace OpenStack

template class Kiv::Machine<OpenStack::PortToHostBindingSm, &OpenStack::portToHostBindingSmFactory>;
