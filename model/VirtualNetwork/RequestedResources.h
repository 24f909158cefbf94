// The requested resources: what the switch must provide, for each host and for each switch port.
// Activity thread only.
#pragma once

#include "model/VirtualNetwork/HostResources.h"
#include "model/VirtualNetwork/Interface.h"
#include "model/VirtualNetwork/SwitchInterface.h"

namespace [[gnu::visibility("default")]] VirtualNetwork {

// What one host needs. The machines make it and never delete it.
class ResourcesForHostname final : public Kiv::Entity<ResourcesForHostname, HostResources> {
 public:
  static constexpr std::string_view kTypeName = "VirtualNetwork::ResourcesForHostname";
  const Kiv::GenericIf* genericIf() const override;

  class NotifieeConst : public Kiv::Notifiee<ResourcesForHostname, HostResources::NotifieeConst> {};

  explicit ResourcesForHostname(Kiv::Name host) : host_(std::move(host)) {}

  // The host name; the key.
  const Kiv::Name& host() const { return host_; }
  const Kiv::Name& fwkKey() const { return host_; }

 private:
  Kiv::Name host_;
};

// What one switch port needs.
class ResourcesForSwitchport final : public Kiv::Entity<ResourcesForSwitchport, Interface> {
 public:
  static constexpr std::string_view kTypeName = "VirtualNetwork::ResourcesForSwitchport";
  const Kiv::GenericIf* genericIf() const override;

  class NotifieeConst : public Kiv::Notifiee<ResourcesForSwitchport, Interface::NotifieeConst> {
   public:
    virtual void onRemoteHost(const Kiv::String& /*host*/) {}
    virtual void onRemoteHostkivImmediate() {}
    virtual void onRemoteHost() {}
    virtual void onReferrer(const Kiv::String& /*referrer*/) {}
    virtual void onReferrerkivImmediate() {}
    virtual void onReferrer() {}
  };

  explicit ResourcesForSwitchport(SwitchInterface switchInterface)
      : switchInterface_(std::move(switchInterface)) {}

  // The switch port; the key.
  const SwitchInterface& switchInterface() const { return switchInterface_; }
  const SwitchInterface& fwkKey() const { return switchInterface_; }

  // The hosts behind the port.
  const auto& remoteHost() const { return remoteHost_; }
  void remoteHostIs(const Kiv::String& h, bool v) { remoteHost_.is(*this, kOnRemoteHost, h, v); }
  void remoteHostDel(const Kiv::String& h) { remoteHost_.del(*this, kOnRemoteHost, h); }
  void remoteHostDelAll() { remoteHost_.delAll(*this, kOnRemoteHost); }

  // Who needs the port: "bm-" and the port id.
  const auto& referrer() const { return referrer_; }
  void referrerIs(const Kiv::String& r, bool v) { referrer_.is(*this, kOnReferrer, r, v); }
  void referrerDel(const Kiv::String& r) { referrer_.del(*this, kOnReferrer, r); }
  void referrerDelAll() { referrer_.delAll(*this, kOnReferrer); }

 private:
  static constexpr Kiv::On<NotifieeConst, Kiv::String> kOnRemoteHost{
      &NotifieeConst::onRemoteHost, &NotifieeConst::onRemoteHostkivImmediate,
      &NotifieeConst::onRemoteHost};
  static constexpr Kiv::On<NotifieeConst, Kiv::String> kOnReferrer{
      &NotifieeConst::onReferrer, &NotifieeConst::onReferrerkivImmediate,
      &NotifieeConst::onReferrer};

  SwitchInterface switchInterface_;
  Kiv::ValueSet<Kiv::String> remoteHost_;
  Kiv::ValueSet<Kiv::String> referrer_;
};

// All requested resources.
class RequestedResourcesCollection final : public Kiv::Entity<RequestedResourcesCollection> {
 public:
  static constexpr std::string_view kTypeName = "VirtualNetwork::RequestedResourcesCollection";
  const Kiv::GenericIf* genericIf() const override;

  class NotifieeConst : public Kiv::Notifiee<RequestedResourcesCollection> {
   public:
    virtual void onResourcesForHostname(const Kiv::Name& /*host*/) {}
    virtual void onResourcesForHostnamekivImmediate() {}
    virtual void onResourcesForHostname() {}
    virtual void onResourcesForSwitchport(const SwitchInterface& /*switchInterface*/) {}
    virtual void onResourcesForSwitchportkivImmediate() {}
    virtual void onResourcesForSwitchport() {}
  };

  // The hosts, by host name; owned.
  const auto& resourcesForHostname() const { return resourcesForHostname_; }
  auto& resourcesForHostname() { return resourcesForHostname_; }
  Kiv::Ptr<ResourcesForHostname> resourcesForHostnameIs(const Kiv::Name& host) {
    return resourcesForHostname_.is(*this, kOnResourcesForHostname, host);
  }
  Kiv::Ptr<ResourcesForHostname> resourcesForHostnameDel(const Kiv::Name& host) {
    return resourcesForHostname_.del(*this, kOnResourcesForHostname, host);
  }
  void resourcesForHostnameDelAll() {
    resourcesForHostname_.delAll(*this, kOnResourcesForHostname);
  }

  // The switch ports, by switch interface; owned.
  const auto& resourcesForSwitchport() const { return resourcesForSwitchport_; }
  auto& resourcesForSwitchport() { return resourcesForSwitchport_; }
  Kiv::Ptr<ResourcesForSwitchport> resourcesForSwitchportIs(const SwitchInterface& si) {
    return resourcesForSwitchport_.is(*this, kOnResourcesForSwitchport, si);
  }
  Kiv::Ptr<ResourcesForSwitchport> resourcesForSwitchportDel(const SwitchInterface& si) {
    return resourcesForSwitchport_.del(*this, kOnResourcesForSwitchport, si);
  }
  void resourcesForSwitchportDelAll() {
    resourcesForSwitchport_.delAll(*this, kOnResourcesForSwitchport);
  }

 private:
  static constexpr Kiv::On<NotifieeConst, Kiv::Name> kOnResourcesForHostname{
      &NotifieeConst::onResourcesForHostname, &NotifieeConst::onResourcesForHostnamekivImmediate,
      &NotifieeConst::onResourcesForHostname};
  static constexpr Kiv::On<NotifieeConst, SwitchInterface> kOnResourcesForSwitchport{
      &NotifieeConst::onResourcesForSwitchport,
      &NotifieeConst::onResourcesForSwitchportkivImmediate,
      &NotifieeConst::onResourcesForSwitchport};

  Kiv::Collection<ResourcesForHostname, Kiv::Name> resourcesForHostname_;
  Kiv::Collection<ResourcesForSwitchport, SwitchInterface> resourcesForSwitchport_;
};

}  // namespace VirtualNetwork
