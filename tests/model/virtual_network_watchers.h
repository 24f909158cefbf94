// Watchers of what the switch is asked to provide; see watch.h.
#pragma once

#include "model/VirtualNetwork/NetworkElement.h"
#include "model/VirtualNetwork/RequestedResources.h"
#include "tests/model/watch.h"

namespace Model {

class RequestedResourcesWatcher final
    : public VirtualNetwork::RequestedResourcesCollection::NotifieeConst {
 public:
  void onResourcesForHostname(const Kiv::Name& key) override { keyed("resourcesForHostname", key); }
  void onResourcesForHostnamekivImmediate() override { plain("resourcesForHostname!"); }
  void onResourcesForHostname() override { plain("resourcesForHostname"); }
  void onResourcesForSwitchport(const VirtualNetwork::SwitchInterface& key) override {
    keyed("resourcesForSwitchport", key);
  }
  void onResourcesForSwitchportkivImmediate() override { plain("resourcesForSwitchport!"); }
  void onResourcesForSwitchport() override { plain("resourcesForSwitchport"); }
};

class ResourcesForHostnameWatcher final
    : public VirtualNetwork::ResourcesForHostname::NotifieeConst {
 public:
  void onVlan(Kiv::U32 key) override { keyed("vlan", key); }
  void onVlankivImmediate() override { plain("vlan!"); }
  void onVlan() override { plain("vlan"); }
  void onDomain(const Kiv::Name& key) override { keyed("domain", key); }
  void onDomainkivImmediate() override { plain("domain!"); }
  void onDomain() override { plain("domain"); }
};

class ResourcesForSwitchportWatcher final
    : public VirtualNetwork::ResourcesForSwitchport::NotifieeConst {
 public:
  void onVlan(Kiv::U32 key) override { keyed("vlan", key); }
  void onVlankivImmediate() override { plain("vlan!"); }
  void onVlan() override { plain("vlan"); }
  void onNativeVlan() override { plain("nativeVlan"); }
  void onRemoteHost(const Kiv::String& key) override { keyed("remoteHost", key); }
  void onRemoteHostkivImmediate() override { plain("remoteHost!"); }
  void onRemoteHost() override { plain("remoteHost"); }
  void onReferrer(const Kiv::String& key) override { keyed("referrer", key); }
  void onReferrerkivImmediate() override { plain("referrer!"); }
  void onReferrer() override { plain("referrer"); }
};

class VlanReferencesWatcher final : public VirtualNetwork::VlanReferences::NotifieeConst {
 public:
  void onReferrer(const Kiv::String& key) override { keyed("referrer", key); }
  void onReferrerkivImmediate() override { plain("referrer!"); }
  void onReferrer() override { plain("referrer"); }
  void onMappedVni(Kiv::U32 key) override { keyed("mappedVni", key); }
  void onMappedVnikivImmediate() override { plain("mappedVni!"); }
  void onMappedVni() override { plain("mappedVni"); }
};

class VniReferencesWatcher final : public VirtualNetwork::VniReferences::NotifieeConst {
 public:
  void onReferrer(const Kiv::String& key) override { keyed("referrer", key); }
  void onReferrerkivImmediate() override { plain("referrer!"); }
  void onReferrer() override { plain("referrer"); }
};

class DomainReferencesWatcher final : public VirtualNetwork::DomainReferences::NotifieeConst {
 public:
  void onReferrer(const Kiv::Name& key) override { keyed("referrer", key); }
  void onReferrerkivImmediate() override { plain("referrer!"); }
  void onReferrer() override { plain("referrer"); }
};

class NetworkElementsWatcher final
    : public VirtualNetwork::NetworkElementCollection::NotifieeConst {
 public:
  void onNetworkElement(const Kiv::Name& key) override { keyed("networkElement", key); }
  void onNetworkElementkivImmediate() override { plain("networkElement!"); }
  void onNetworkElement() override { plain("networkElement"); }
};

class NetworkElementWatcher final : public VirtualNetwork::NetworkElement::NotifieeConst {
 public:
  void onVlan(Kiv::U32 key) override { keyed("vlan", key); }
  void onVlankivImmediate() override { plain("vlan!"); }
  void onVlan() override { plain("vlan"); }
  void onDomain(const Kiv::Name& key) override { keyed("domain", key); }
  void onDomainkivImmediate() override { plain("domain!"); }
  void onDomain() override { plain("domain"); }
  void onHostname() override { plain("hostname"); }
  void onPhysicalInterface(const Kiv::String& key) override { keyed("physicalInterface", key); }
  void onPhysicalInterfacekivImmediate() override { plain("physicalInterface!"); }
  void onPhysicalInterface() override { plain("physicalInterface"); }
  void onReferrer(const Kiv::Name& key) override { keyed("referrer", key); }
  void onReferrerkivImmediate() override { plain("referrer!"); }
  void onReferrer() override { plain("referrer"); }
};

class PhysicalInterfaceWatcher final : public VirtualNetwork::PhysicalInterface::NotifieeConst {
 public:
  void onVlan(Kiv::U32 key) override { keyed("vlan", key); }
  void onVlankivImmediate() override { plain("vlan!"); }
  void onVlan() override { plain("vlan"); }
  void onNativeVlan() override { plain("nativeVlan"); }
  void onConfiguredElement(const Kiv::Name& key) override { keyed("configuredElement", key); }
  void onConfiguredElementkivImmediate() override { plain("configuredElement!"); }
  void onConfiguredElement() override { plain("configuredElement"); }
};

}  // namespace Model
