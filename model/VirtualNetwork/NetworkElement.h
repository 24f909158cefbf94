// Network elements: switches and hosts, with the interfaces that join them. Activity thread only.
#pragma once

#include "model/VirtualNetwork/HostResources.h"
#include "model/VirtualNetwork/Interface.h"

namespace [[gnu::visibility("default")]] VirtualNetwork {

// A switch, named by its switch identifier, or a host, named by its host name.
class NetworkElement final : public Kiv::Entity<NetworkElement, HostResources> {
 public:
  static constexpr std::string_view kTypeName = "VirtualNetwork::NetworkElement";
  const Kiv::GenericIf* genericIf() const override;

  class NotifieeConst : public Kiv::Notifiee<NetworkElement, HostResources::NotifieeConst> {
   public:
    virtual void onHostname() {}
    virtual void onPhysicalInterface(const Kiv::String& /*name*/) {}
    virtual void onPhysicalInterfacekivImmediate() {}
    virtual void onPhysicalInterface() {}
    virtual void onReferrer(const Kiv::Name& /*referrer*/) {}
    virtual void onReferrerkivImmediate() {}
    virtual void onReferrer() {}
  };

  explicit NetworkElement(Kiv::Name name) : name_(std::move(name)) {}

  // The element's name; the key.
  const Kiv::Name& name() const { return name_; }
  const Kiv::Name& fwkKey() const { return name_; }

  // The host name of a host; empty for a switch.
  const Kiv::String& hostname() const { return hostname_.get(); }
  void hostnameIs(const Kiv::String& v) { hostname_.is(*this, &NotifieeConst::onHostname, v); }

  // The interfaces of a switch, by interface name; owned.
  const auto& physicalInterface() const { return physicalInterface_; }
  auto& physicalInterface() { return physicalInterface_; }
  Kiv::Ptr<PhysicalInterface> physicalInterfaceIs(const Kiv::String& name) {
    return physicalInterface_.is(*this, kOnPhysicalInterface, name);
  }
  Kiv::Ptr<PhysicalInterface> physicalInterfaceDel(const Kiv::String& name) {
    return physicalInterface_.del(*this, kOnPhysicalInterface, name);
  }
  void physicalInterfaceDelAll() { physicalInterface_.delAll(*this, kOnPhysicalInterface); }

  // Who needs the element: "bm-" and the port id.
  const auto& referrer() const { return referrer_; }
  void referrerIs(const Kiv::Name& r, bool v) { referrer_.is(*this, kOnReferrer, r, v); }
  void referrerDel(const Kiv::Name& r) { referrer_.del(*this, kOnReferrer, r); }
  void referrerDelAll() { referrer_.delAll(*this, kOnReferrer); }

 private:
  static constexpr Kiv::On<NotifieeConst, Kiv::String> kOnPhysicalInterface{
      &NotifieeConst::onPhysicalInterface, &NotifieeConst::onPhysicalInterfacekivImmediate,
      &NotifieeConst::onPhysicalInterface};
  static constexpr Kiv::On<NotifieeConst, Kiv::Name> kOnReferrer{
      &NotifieeConst::onReferrer, &NotifieeConst::onReferrerkivImmediate,
      &NotifieeConst::onReferrer};

  Kiv::Name name_;
  Kiv::Scalar<Kiv::String> hostname_;
  Kiv::Collection<PhysicalInterface, Kiv::String> physicalInterface_;
  Kiv::ValueSet<Kiv::Name> referrer_;
};

// All network elements. The machines make them and never delete them.
class NetworkElementCollection final : public Kiv::Entity<NetworkElementCollection> {
 public:
  static constexpr std::string_view kTypeName = "VirtualNetwork::NetworkElementCollection";
  const Kiv::GenericIf* genericIf() const override;

  class NotifieeConst : public Kiv::Notifiee<NetworkElementCollection> {
   public:
    virtual void onNetworkElement(const Kiv::Name& /*name*/) {}
    virtual void onNetworkElementkivImmediate() {}
    virtual void onNetworkElement() {}
  };

  NetworkElementCollection() = default;
  // Takes the elements' interfaces away first: through them elements refer to each other, in
  // circles that would keep them alive.
  ~NetworkElementCollection() override;

  // The elements, by element name; owned.
  const auto& networkElement() const { return networkElement_; }
  auto& networkElement() { return networkElement_; }
  Kiv::Ptr<NetworkElement> networkElementIs(const Kiv::Name& name) {
    return networkElement_.is(*this, kOnNetworkElement, name);
  }
  Kiv::Ptr<NetworkElement> networkElementDel(const Kiv::Name& name) {
    return networkElement_.del(*this, kOnNetworkElement, name);
  }
  void networkElementDelAll() { networkElement_.delAll(*this, kOnNetworkElement); }

 private:
  static constexpr Kiv::On<NotifieeConst, Kiv::Name> kOnNetworkElement{
      &NotifieeConst::onNetworkElement, &NotifieeConst::onNetworkElementkivImmediate,
      &NotifieeConst::onNetworkElement};

  Kiv::Collection<NetworkElement, Kiv::Name> networkElement_;
};

}  // namespace VirtualNetwork
