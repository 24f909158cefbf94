#include "OpenStackSm/PortBindingSm.h"

#include "OpenStackSm/detail/PortText.h"
#include "OpenStackSm/detail/Toggle.h"
#include "OpenStackSm/detail/Trace.h"
#include "framework/Assert.h"
#include "model/VirtualNetwork/Values.h"

namespace [[gnu::visibility("default")]] OpenStack {

using detail::trace;

Kiv::Ptr<PortBindingSm> portBindingSmFactory(
    const Kiv::Name& regionName, const Kiv::String& portId, const Kiv::Ptr<const Port>& port,
    const Kiv::Ptr<const PortBinding>& portBinding,
    const Kiv::Ptr<RequestedResourcesCollection>& requestedResourcesCollection,
    const Kiv::Ptr<NetworkElementCollection>& networkElementCollection) {
  return Kiv::makeMachine<PortBindingSm>({regionName, portId, port, portBinding,
                                          requestedResourcesCollection, networkElementCollection});
}

PortBindingSm::~PortBindingSm() {
  teardown();
}

void PortBindingSm::handleInitialized() {
  static constexpr auto here = detail::handler<PortBindingSm>("handleInitialized");
  trace(9, here, this, "");
  for (const auto& reactor : portToHostBinding_) handlePortToHostBinding(reactor->fwkKey());
  for (const auto& reactor : portToSwitchInterfaceBinding_) {
    handlePortToSwitchInterfaceBinding(reactor->fwkKey());
  }
}

namespace {

// What a conflict is about; empty where the trace lines before the assertion say so.
template <class BoundTo>
std::string unlessTraced(const Kiv::Ptr<const Port>& port, const BoundTo& boundTo) {
  return Kiv::_defaultTraceHandle().enabled(2) ? "" : detail::aboutPort(port, boundTo);
}

}  // namespace

void PortBindingSm::handlePortToHostBinding(const Kiv::Name& host) {
  static constexpr auto here = detail::handler<PortBindingSm>("handlePortToHostBinding");
  const Kiv::Name hostName = host;  // the caller's may belong to what is deleted here
  trace(9, here, this, [&](auto& text) { text << hostName; });
  const auto inputs = portBinding();
  if (inputs && !inputs->portToSwitchInterfaceBinding().empty()) {
    trace(0, here, this, [&](auto& text) {
      text << "Port " << port()->id() << " is already bound to the following switch interfaces: ";
    });
    for (const auto& bound : inputs->portToSwitchInterfaceBinding()) {
      trace(2, here, this, [&](auto& text) { text << bound->switchInterface(); });
    }
    KIV_ASSERT_ABOUT(false, here.file, here.function, unlessTraced(port(), hostName));
  }
  const Kiv::Ptr<const PortToHostBinding> binding(inputs ? inputs->portToHostBinding()[hostName]
                                                         : nullptr);
  if (!binding) {
    doCleanupPortToHostBinding(hostName);
    return;
  }
  try {
    publishHost(hostName);
    portToHostBindingSmIs(hostName, port(), binding, requestedResourcesCollection());
  } catch (...) {
    // Without a machine for the host nobody would withdraw the domain.
    if (!portToHostBindingSm_.contains(hostName)) {
      quietly([&] { doCleanupPortToHostBinding(hostName); });
    }
    throw;
  }
}

void PortBindingSm::publishHost(const Kiv::Name& hostName) {
  static constexpr auto here = detail::handler<PortBindingSm>("handlePortToHostBinding");
  const Kiv::Name referrer(port()->id());
  const auto host = requestedResourcesCollection()->resourcesForHostnameIs(hostName);
  const auto domain = host->domainIs(regionName());
  KIV_ASSERT_ABOUT(host->domains() == 1, here.file, here.function,
                   detail::aboutPort(port(), hostName));
  domain->referrerIs(referrer, true);
}

void PortBindingSm::doCleanupPortToHostBinding(const Kiv::Name& host) {
  static constexpr auto here = detail::handler<PortBindingSm>("doCleanupPortToHostBinding");
  const Kiv::Name hostName = host;
  trace(9, here, this, [&](auto& text) { text << hostName; });
  const Kiv::Ptr<VirtualNetwork::ResourcesForHostname> resources(
      requestedResourcesCollection()->resourcesForHostname()[hostName]);
  const Kiv::Ptr<VirtualNetwork::DomainReferences> domain(
      resources ? resources->domain()[regionName()] : nullptr);
  if (domain) {
    domain->referrerDel(Kiv::Name(port()->id()));
    if (domain->referrer().empty()) {
      trace(2, here, this, [&](auto& text) {
        text << "Deleting region " << regionName() << " from host " << hostName;
      });
      resources->domainDel(regionName());
    }
  }
  portToHostBindingSmDel(hostName);
}

void PortBindingSm::KivPortToHostBinding::doCleanup() {
  static constexpr auto here = detail::handler<PortBindingSm>("KivPortToHostBinding::doCleanup");
  if (!mirrors()) {
    trace(1, here, this, "No host binding to clean up");
    return;
  }
  trace(9, here, this, "");
  if (const Kiv::Ptr<PortToHostBindingSm> child{machine()->portToHostBindingSm()[fwkKey()]}) {
    // What still waits for the machine, which lives until the loop deletes it, must not publish.
    child->hasNotificationActiveIs(false);
    if (!child->starting()) child->doCleanup();
  }
}

void PortBindingSm::handlePortToSwitchInterfaceBinding(const SwitchInterface& switchInterface) {
  static constexpr auto here = detail::handler<PortBindingSm>("handlePortToSwitchInterfaceBinding");
  const SwitchInterface si = switchInterface;  // the caller's may belong to what is deleted here
  trace(9, here, this, [&](auto& text) { text << si.name(); });
  const auto inputs = portBinding();
  if (inputs && !inputs->portToHostBinding().empty()) {
    trace(0, here, this, [&](auto& text) {
      text << "Port " << port()->id() << " is already bound to the following hosts: ";
    });
    for (const auto& bound : inputs->portToHostBinding()) {
      trace(2, here, this, [&](auto& text) { text << bound->host(); });
    }
    KIV_ASSERT_ABOUT(false, here.file, here.function, unlessTraced(port(), si));
  }
  const Kiv::Ptr<const PortToSwitchInterfaceBinding> binding(
      inputs ? inputs->portToSwitchInterfaceBinding()[si] : nullptr);
  if (!binding) {
    trace(2, here, this, "Port unbound");
    doCleanupPortToSwitchInterfaceBinding(si);
    return;
  }
  const Kiv::String referrer = detail::baremetalReferrer(*port());
  trace(2, here, this, [&](auto& text) { text << "Port " << referrer << " bound"; });
  try {
    if (detail::virtualNetworkAgentToggle()) {
      publishSwitchport(*binding, referrer);
    } else {
      publishNetworkElements(*binding, Kiv::Name(referrer));
    }
    const auto child = portToSwitchInterfaceBindingSmIs(si, regionName(), port(), binding,
                                                        requestedResourcesCollection(),
                                                        networkElementCollection());
    // Where an observer has removed the binding meanwhile, its cleanup has missed some of this.
    const bool current = portToSwitchInterfaceBindingSm_[si] == child.get() &&
                         inputs->portToSwitchInterfaceBinding()[si] == binding.get();
    if (!current && !child->starting()) child->doCleanup();
  } catch (...) {
    // Its machine would withdraw this; where there is none, one that publishes nothing does.
    if (!portToSwitchInterfaceBindingSm_.contains(si)) {
      quietly([&] {
        Kiv::make<PortToSwitchInterfaceBindingSm>(
            PortToSwitchInterfaceBindingSm::Arguments{si, regionName(), port(), binding,
                                                      requestedResourcesCollection(),
                                                      networkElementCollection()},
            Kiv::Start::byOwner)
            ->withdrawInterface();
      });
    }
    throw;
  }
}

void PortBindingSm::publishSwitchport(const PortToSwitchInterfaceBinding& binding,
                                      const Kiv::String& referrer) {
  const auto switchport =
      requestedResourcesCollection()->resourcesForSwitchportIs(binding.switchInterface());
  switchport->remoteHostIs(Kiv::String(binding.host()), true);
  switchport->referrerIs(referrer, true);
}

void PortBindingSm::publishNetworkElements(const PortToSwitchInterfaceBinding& binding,
                                           const Kiv::Name& referrer) {
  static constexpr auto here = detail::handler<PortBindingSm>("handlePortToSwitchInterfaceBinding");
  const SwitchInterface& si = binding.switchInterface();
  const auto switchElement =
      networkElementCollection()->networkElementIs(Kiv::Name(si.switchIdentifier()));
  switchElement->referrerIs(referrer, true);
  const auto hostElement = networkElementCollection()->networkElementIs(binding.host());
  hostElement->referrerIs(referrer, true);
  hostElement->hostnameIs(Kiv::String(binding.host()));
  const auto domain = hostElement->domainIs(regionName());
  KIV_ASSERT_ABOUT(hostElement->domains() == 1, here.file, here.function,
                   detail::aboutPort(port(), si));
  domain->referrerIs(Kiv::Name(port()->id()), true);
  switchElement->physicalInterfaceIs(si.interfaceName())->configuredElementIs(hostElement);
}

void PortBindingSm::doCleanupPortToSwitchInterfaceBinding(const SwitchInterface& si) {
  static constexpr auto here =
      detail::handler<PortBindingSm>("doCleanupPortToSwitchInterfaceBinding");
  trace(9, here, this, [&](auto& text) { text << si.name(); });
  portToSwitchInterfaceBindingSmDel(si);
}

void PortBindingSm::KivPortToSwitchInterfaceBinding::doCleanup() {
  static constexpr auto here =
      detail::handler<PortBindingSm>("KivPortToSwitchInterfaceBinding::doCleanup");
  if (!mirrors()) {
    trace(1, here, this, "No switch-interface binding to clean up");
    return;
  }
  trace(9, here, this, "");
  if (const Kiv::Ptr<PortToSwitchInterfaceBindingSm> child{
          machine()->portToSwitchInterfaceBindingSm()[fwkKey()]}) {
    child->hasNotificationActiveIs(false);  // as above
    if (!child->starting()) child->doCleanup();
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
    if (!child->starting()) child->doCleanup();
    doCleanupPortToHostBinding(child->host());
  }
  for (const auto& child : portToSwitchInterfaceBindingSm_) {
    trace(2, here, this, [&](auto& text) {
      text << "Cleaning up portToSwitchIterfaceBindingSm for " << child->switchInterface();
    });
    if (!child->starting()) child->doCleanup();
    doCleanupPortToSwitchInterfaceBinding(child->switchInterface());
  }
}

}  // namespace OpenStack

template class Kiv::Machine<OpenStack::PortBindingSm, &OpenStack::portBindingSmFactory>;
