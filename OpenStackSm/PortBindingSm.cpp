#include "OpenStackSm/PortBindingSm.h"

#include "OpenStackSm/detail/Given.h"
#include "OpenStackSm/detail/Referrer.h"
#include "OpenStackSm/detail/Toggle.h"
#include "OpenStackSm/detail/Trace.h"
#include "framework/Assert.h"
#include "model/VirtualNetwork/Values.h"

namespace [[gnu::visibility("default")]] OpenStack {

using detail::given;
using detail::trace;

Kiv::Ptr<PortBindingSm> portBindingSmFactory(
    const Kiv::Name& regionName, const Kiv::String& portId, const Kiv::Ptr<const Port>& port,
    const Kiv::Ptr<const PortBinding>& portBinding,
    const Kiv::Ptr<VirtualNetwork::RequestedResourcesCollection>& requestedResourcesCollection,
    const Kiv::Ptr<VirtualNetwork::NetworkElementCollection>& networkElementCollection) {
  return PortBindingSm::PortBindingSmIs(regionName, portId, port, portBinding,
                                        requestedResourcesCollection, networkElementCollection);
}

PortBindingSm::PortBindingSm(
    const Kiv::Name& regionName, const Kiv::String& portId, const Kiv::Ptr<const Port>& port,
    const Kiv::Ptr<const PortBinding>& portBinding,
    const Kiv::Ptr<VirtualNetwork::RequestedResourcesCollection>& requestedResourcesCollection,
    const Kiv::Ptr<VirtualNetwork::NetworkElementCollection>& networkElementCollection)
    : regionName_(regionName),
      portId_(portId),
      port_(port),
      portBinding_(portBinding, this),
      requestedResourcesCollection_(requestedResourcesCollection),
      networkElementCollection_(networkElementCollection) {
  if (portBinding) {
    mirrorHosts(*portBinding);
    mirrorSwitchInterfaces(*portBinding);
  }
  handleInitialized();
}

PortBindingSm::~PortBindingSm() {
  teardown();
}

const Kiv::GenericIf& PortBindingSm::reflection() {
  static const auto description =
      Kiv::describe<PortBindingSm>(kAttributes, &PortBindingSm::PortBindingSmIs);
  return description;
}

const Kiv::GenericIf* PortBindingSm::genericIf() const {
  return &reflection();
}

void PortBindingSm::handleInitialized() {
  static constexpr auto here = detail::handler<PortBindingSm>("handleInitialized");
  trace(9, here, this, "");
  for (const auto& reactor : portToHostBinding_) handlePortToHostBinding(reactor->fwkKey());
  for (const auto& reactor : portToSwitchInterfaceBinding_) {
    handlePortToSwitchInterfaceBinding(reactor->fwkKey());
  }
}

void PortBindingSm::handlePortToHostBinding(const Kiv::Name& host_) {
  static constexpr auto here = detail::handler<PortBindingSm>("handlePortToHostBinding");
  const Kiv::Name hostName = host_;  // the caller's may go with what happens here
  trace(9, here, this, [&](auto& text) { text << hostName; });
  const auto inputs = portBinding();
  if (inputs && !inputs->portToSwitchInterfaceBinding().empty()) {
    trace(0, here, this, [&](auto& text) {
      text << "Port " << port_->id() << " is already bound to the following switch interfaces: ";
    });
    for (const auto& bound : inputs->portToSwitchInterfaceBinding()) {
      trace(2, here, this, [&](auto& text) { text << bound->switchInterface(); });
    }
    KIV_ASSERT(false, here.file, here.function);
  }
  const Kiv::Ptr<const PortToHostBinding> binding(inputs ? inputs->portToHostBinding()[hostName]
                                                         : nullptr);
  if (!binding) {
    doCleanupPortToHostBinding(hostName);
    return;
  }
  const Kiv::Name referrer(given(port_)->id());
  const auto host = given(requestedResourcesCollection_)->resourcesForHostnameIs(hostName);
  const auto domain = host->domainIs(regionName_);
  KIV_ASSERT(host->domains() == 1, here.file, here.function);
  domain->referrerIs(referrer, true);
  portToHostBindingSmIs(hostName, port_, binding, requestedResourcesCollection_);
}

void PortBindingSm::doCleanupPortToHostBinding(const Kiv::Name& host) {
  static constexpr auto here = detail::handler<PortBindingSm>("doCleanupPortToHostBinding");
  const Kiv::Name hostName = host;
  trace(9, here, this, [&](auto& text) { text << hostName; });
  const Kiv::Ptr<VirtualNetwork::ResourcesForHostname> resources(
      port_ && requestedResourcesCollection_
          ? requestedResourcesCollection_->resourcesForHostname()[hostName]
          : nullptr);
  const Kiv::Ptr<VirtualNetwork::DomainReferences> domain(
      resources ? resources->domain()[regionName_] : nullptr);
  if (domain) {
    domain->referrerDel(Kiv::Name(port_->id()));
    if (domain->referrer().empty()) {
      trace(2, here, this, [&](auto& text) {
        text << "Deleting region " << regionName_ << " from host " << hostName;
      });
      resources->domainDel(regionName_);
    }
  }
  portToHostBindingSmDel(hostName);
}

void PortBindingSm::KivPortToHostBinding::doCleanup() {
  static constexpr auto here = detail::handler<PortBindingSm>("KivPortToHostBinding::doCleanup");
  trace(9, here, this, "");
  if (const Kiv::Ptr<PortToHostBindingSm> child{machine()->portToHostBindingSm()[fwkKey()]}) {
    // What still waits for the machine, which lives until the loop deletes it, must not publish.
    child->hasNotificationActiveIs(false);
    child->doCleanup();
  }
}

void PortBindingSm::handlePortToSwitchInterfaceBinding(const VirtualNetwork::SwitchInterface& si_) {
  static constexpr auto here = detail::handler<PortBindingSm>("handlePortToSwitchInterfaceBinding");
  const VirtualNetwork::SwitchInterface si = si_;  // the caller's may go with what happens here
  trace(9, here, this, [&](auto& text) { text << si.name(); });
  const auto inputs = portBinding();
  if (inputs && !inputs->portToHostBinding().empty()) {
    trace(0, here, this, [&](auto& text) {
      text << "Port " << port_->id() << " is already bound to the following hosts: ";
    });
    for (const auto& bound : inputs->portToHostBinding()) {
      trace(2, here, this, [&](auto& text) { text << bound->host(); });
    }
    KIV_ASSERT(false, here.file, here.function);
  }
  const Kiv::Ptr<const PortToSwitchInterfaceBinding> binding(
      inputs ? inputs->portToSwitchInterfaceBinding()[si] : nullptr);
  if (!binding) {
    trace(2, here, this, "Port unbound");
    doCleanupPortToSwitchInterfaceBinding(si);
    return;
  }
  const Kiv::String referrer = detail::baremetalReferrer(*given(port_));
  trace(2, here, this, [&](auto& text) { text << "Port " << referrer << " bound"; });
  if (detail::virtualNetworkAgentToggle()) {
    publishSwitchport(*binding, referrer);
  } else {
    publishNetworkElements(*binding, Kiv::Name(referrer));
  }
  portToSwitchInterfaceBindingSmIs(si, regionName_, port_, binding, requestedResourcesCollection_,
                                   networkElementCollection_);
}

void PortBindingSm::publishSwitchport(const PortToSwitchInterfaceBinding& binding,
                                      const Kiv::String& referrer) {
  const auto switchport =
      given(requestedResourcesCollection_)->resourcesForSwitchportIs(binding.switchInterface());
  switchport->remoteHostIs(Kiv::String(binding.host()), true);
  switchport->referrerIs(referrer, true);
}

void PortBindingSm::publishNetworkElements(const PortToSwitchInterfaceBinding& binding,
                                           const Kiv::Name& referrer) {
  static constexpr auto here = detail::handler<PortBindingSm>("handlePortToSwitchInterfaceBinding");
  const VirtualNetwork::SwitchInterface& si = binding.switchInterface();
  const auto switchElement =
      given(networkElementCollection_)->networkElementIs(Kiv::Name(si.switchIdentifier()));
  switchElement->referrerIs(referrer, true);
  const auto hostElement = networkElementCollection_->networkElementIs(binding.host());
  hostElement->referrerIs(referrer, true);
  hostElement->hostnameIs(Kiv::String(binding.host()));
  const auto domain = hostElement->domainIs(regionName_);
  KIV_ASSERT(hostElement->domains() == 1, here.file, here.function);
  domain->referrerIs(Kiv::Name(port_->id()), true);
  switchElement->physicalInterfaceIs(si.interfaceName())->configuredElementIs(hostElement);
}

void PortBindingSm::doCleanupPortToSwitchInterfaceBinding(
    const VirtualNetwork::SwitchInterface& si) {
  static constexpr auto here =
      detail::handler<PortBindingSm>("doCleanupPortToSwitchInterfaceBinding");
  trace(9, here, this, [&](auto& text) { text << si.name(); });
  portToSwitchInterfaceBindingSmDel(si);
}

void PortBindingSm::KivPortToSwitchInterfaceBinding::doCleanup() {
  static constexpr auto here =
      detail::handler<PortBindingSm>("KivPortToSwitchInterfaceBinding::doCleanup");
  trace(9, here, this, "");
  if (const Kiv::Ptr<PortToSwitchInterfaceBindingSm> child{
          machine()->portToSwitchInterfaceBindingSm()[fwkKey()]}) {
    child->hasNotificationActiveIs(false);  // as above
    child->doCleanup();
  } else {
    trace(1, here, this, [&](auto& text) { text << "No machine for " << fwkKey(); });
  }
}

void PortBindingSm::doCleanup() {
  static constexpr auto here = detail::handler<PortBindingSm>("doCleanup");
  trace(9, here, this, "");
  for (const auto& child : portToHostBindingSm_) {
    trace(2, here, this,
          [&](auto& text) { text << "Cleaning up portToHostBindingSm for " << child->host(); });
    child->doCleanup();
    doCleanupPortToHostBinding(child->host());
  }
  for (const auto& child : portToSwitchInterfaceBindingSm_) {
    trace(2, here, this, [&](auto& text) {
      text << "Cleaning up portToSwitchIterfaceBindingSm for " << child->switchInterface();
    });
    child->doCleanup();
    doCleanupPortToSwitchInterfaceBinding(child->switchInterface());
  }
}

}  // namespace OpenStack
