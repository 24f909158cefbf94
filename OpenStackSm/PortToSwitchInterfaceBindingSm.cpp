#include "OpenStackSm/PortToSwitchInterfaceBindingSm.h"

#include "OpenStackSm/detail/Toggle.h"
#include "model/VirtualNetwork/Values.h"

namespace [[gnu::visibility("default")]] OpenStack {

using detail::isVlan;
using detail::isVxlan;
using detail::trace;

namespace {

// A switch interface as most lines print it, with the colon set apart.
struct Apart {
  const SwitchInterface& si;
  friend std::ostream& operator<<(std::ostream& stream, const Apart& apart) {
    return stream << apart.si.switchIdentifier() << " : " << apart.si.interfaceName();
  }
};

}  // namespace

Kiv::Ptr<PortToSwitchInterfaceBindingSm> portToSwitchInterfaceBindingSmFactory(
    const SwitchInterface& switchInterface, const Kiv::Name& regionName,
    const Kiv::Ptr<const Port>& port,
    const Kiv::Ptr<const PortToSwitchInterfaceBinding>& portToSwitchInterfaceBinding,
    const Kiv::Ptr<RequestedResourcesCollection>& requestedResourcesCollection,
    const Kiv::Ptr<NetworkElementCollection>& networkElementCollection) {
  return Kiv::makeMachine<PortToSwitchInterfaceBindingSm>(
      {switchInterface, regionName, port, portToSwitchInterfaceBinding,
       requestedResourcesCollection, networkElementCollection});
}

PortToSwitchInterfaceBindingSm::~PortToSwitchInterfaceBindingSm() {
  teardown();
}

SwitchInterface PortToSwitchInterfaceBindingSm::boundTo() const {
  const auto bound = binding();
  return bound ? bound->switchInterface() : switchInterface();
}

Kiv::Ptr<VirtualNetwork::NetworkElement> PortToSwitchInterfaceBindingSm::element(
    const Kiv::Name& name) const {
  return networkElementCollection()->networkElement()[name];
}

Kiv::Ptr<VirtualNetwork::Interface> PortToSwitchInterfaceBindingSm::target(bool toggle) const {
  const auto si = boundTo();
  if (toggle) {
    return Kiv::Ptr<VirtualNetwork::Interface>(
        requestedResourcesCollection()->resourcesForSwitchport()[si]);
  }
  const auto switchElement = element(Kiv::Name(si.switchIdentifier()));
  if (!switchElement) return nullptr;
  return Kiv::Ptr<VirtualNetwork::Interface>(
      switchElement->physicalInterface()[si.interfaceName()]);
}

Kiv::Ptr<VirtualNetwork::Interface> PortToSwitchInterfaceBindingSm::requiredTarget() const {
  static constexpr auto here = detail::handler<PortToSwitchInterfaceBindingSm>("handleSegment");
  const auto si = boundTo();
  const bool toggle = detail::virtualNetworkAgentToggle();
  if (toggle) {
    const auto switchPort = target(toggle);
    KIV_ASSERT_ABOUT(switchPort, here.file, here.function, detail::aboutPort(port(), si));
    return switchPort;
  }
  const auto bound = binding();
  const auto switchElement = element(Kiv::Name(si.switchIdentifier()));
  KIV_ASSERT_ABOUT(switchElement, here.file, here.function, detail::aboutPort(port(), si));
  const auto hostElement = element(bound ? bound->host() : Kiv::Name());
  KIV_ASSERT_ABOUT(hostElement, here.file, here.function, detail::aboutPort(port(), si));
  const auto interface = target(toggle);
  KIV_ASSERT_ABOUT(interface, here.file, here.function, detail::aboutPort(port(), si));
  return interface;
}

void PortToSwitchInterfaceBindingSm::handleSegment(Kiv::U8 level) {
  static constexpr auto here = detail::handler<PortToSwitchInterfaceBindingSm>("handleSegment");
  const auto si = boundTo();
  trace(9, here, this, [&](auto& text) { text << port()->id() << " is on " << si.name(); });
  if (si.switchIdentifier().empty() || si.interfaceName().empty()) {
    trace(1, here, this, "Map is empty!!!");
    return;
  }
  const Kiv::Ptr<const Segment> segment(at(level));
  if (!segment) return;
  const Kiv::U32 id = segment->segmentationId();
  trace(2, here, this, [&](auto& text) {
    text << "Port on " << si.name() << " bound to segment " << segment->id() << " : "
         << segment->segmentationType() << " : " << id
         << " at level : " << static_cast<char>('0' + level);
  });
  const auto interface = requiredTarget();
  publishes(level);
  if (isVlan(segment.get())) {
    publishVlan(*interface, *segment, level);
  } else if (isVxlan(segment.get())) {
    if (const Segment* child = below(level); isVlan(child)) {
      trace(2, here, this, [&](auto& text) {
        text << "Establishing a VNI to VLAN mapping from " << id << " to "
             << child->segmentationId();
      });
      publishes(static_cast<Kiv::U8>(level + 1));
      mapVni(*interface->vlanIs(child->segmentationId()), id);
    }
  }
}

void PortToSwitchInterfaceBindingSm::publishVlan(VirtualNetwork::Interface& target,
                                                 const Segment& segment, Kiv::U8 level) {
  static constexpr auto here = detail::handler<PortToSwitchInterfaceBindingSm>("handleSegment");
  const auto si = boundTo();
  const Kiv::U32 id = segment.segmentationId();
  trace(2, here, this,
        [&](auto& text) { text << "Adding VLAN " << id << " on switchport " << Apart{si}; });
  const auto vlan = target.vlanIs(id);
  vlan->referrerIs(port()->id(), true);
  trace(2, here, this, [&](auto& text) {
    text << "VLAN " << id << " on switchport " << Apart{si} << " now host "
         << vlan->referrer().size() << " references to it.";
  });
  if (port()->vlanType() == VlanType::native) {
    trace(3, here, this, [&](auto& text) { text << "Adding native vlan " << id; });
    target.nativeVlanIs(id);
  }
  if (const Segment* parent = above(level); level != 0 && isVxlan(parent)) {
    mapVni(*vlan, parent->segmentationId());
  }
}

void PortToSwitchInterfaceBindingSm::withdrawSegment(const KivSegment& reactor) {
  static constexpr auto here =
      detail::handler<PortToSwitchInterfaceBindingSm>("KivSegment::doCleanup");
  const auto segment = reactor.entity();
  trace(9, here, &reactor, [&](auto& text) { text << port()->id() << " : " << segment->id(); });
  if (reactor.spent()) return;
  const Kiv::U8 level = levelOf(reactor, here);
  const auto interface = target(detail::virtualNetworkAgentToggle());
  if (!interface) return;
  if (!isVlan(segment.get())) return;
  const auto si = boundTo();
  const Kiv::U32 id = segment->segmentationId();
  // Made when absent, exactly as in publication; the entry is deleted again below.
  const auto vlan = interface->vlanIs(id);
  if (!vlan) {
    trace(2, here, &reactor,
          [&](auto& text) { text << "No VLAN configured on interface " << si.name(); });
    return;
  }
  if (const auto vni = unmapVni(*vlan, level)) vlan->mappedVniDel(*vni);
  vlan->referrerDel(port()->id());
  trace(2, here, &reactor, [&](auto& text) {
    text << "Removing a reference to VLAN " << id << " on switchport " << si.name()
         << " which now has " << vlan->referrer().size() << " references to it.";
  });
  if (vlan->referrer().empty()) {
    trace(3, here, &reactor, [&](auto& text) { text << "Removing vlan " << id; });
    interface->vlanDel(id);
  }
  if (port()->vlanType() == VlanType::native) {
    interface->nativeVlanIs(0);
    trace(3, here, &reactor, [&](auto& text) { text << "Removing native vlan " << id; });
  }
}

void PortToSwitchInterfaceBindingSm::doCleanup() {
  static constexpr auto here = detail::handler<PortToSwitchInterfaceBindingSm>("doCleanup");
  trace(9, here, this, [&](auto& text) {
    text << "Removing port " << port()->id() << " from " << Apart{boundTo()};
  });
  doCleanupSegments(here);
  withdrawInterface();
}

void PortToSwitchInterfaceBindingSm::withdrawInterface() {
  if (detail::virtualNetworkAgentToggle()) {
    doCleanupSwitchport();
  } else {
    doCleanupNetworkElements();
  }
}

void PortToSwitchInterfaceBindingSm::doCleanupSwitchport() {
  const auto si = boundTo();
  const Kiv::Ptr<VirtualNetwork::ResourcesForSwitchport> switchport(
      requestedResourcesCollection()->resourcesForSwitchport()[si]);
  if (!switchport) return;
  switchport->referrerDel(detail::baremetalReferrer(*port()));
  if (switchport->referrer().empty()) {
    requestedResourcesCollection()->resourcesForSwitchportDel(si);
  }
}

void PortToSwitchInterfaceBindingSm::doCleanupNetworkElements() {
  static constexpr auto here = detail::handler<PortToSwitchInterfaceBindingSm>("doCleanup");
  const auto si = boundTo();
  const auto bound = binding();
  const Kiv::Name host = bound ? bound->host() : Kiv::Name();
  const Kiv::Name referrer(detail::baremetalReferrer(*port()));
  const auto switchElement = element(Kiv::Name(si.switchIdentifier()));
  const auto hostElement = element(host);
  if (hostElement) {
    if (const Kiv::Ptr<VirtualNetwork::DomainReferences> domain{
            hostElement->domain()[regionName()]}) {
      domain->referrerDel(Kiv::Name(port()->id()));
      if (domain->referrer().empty()) {
        trace(2, here, this, [&](auto& text) {
          text << "Deleting region " << regionName() << " from host " << host;
        });
        hostElement->domainDel(regionName());
      }
    }
    hostElement->referrerDel(referrer);
  }
  if (!switchElement) return;
  switchElement->referrerDel(referrer);
  const Kiv::Ptr<VirtualNetwork::PhysicalInterface> interface(
      switchElement->physicalInterface()[si.interfaceName()]);
  if (!interface) return;
  if (hostElement && !hostElement->referrer().empty()) return;
  interface->configuredElementDel(host);
  if (!interface->configuredElement().empty() || !interface->vlan().empty()) return;
  trace(2, here, this, [&](auto& text) {
    text << "Removing interface : " << si.interfaceName() << " from " << si.switchIdentifier();
  });
  switchElement->physicalInterfaceDel(si.interfaceName());
}

}  // namespace OpenStack

template class Kiv::Machine<OpenStack::PortToSwitchInterfaceBindingSm,
                            &OpenStack::portToSwitchInterfaceBindingSmFactory>;
