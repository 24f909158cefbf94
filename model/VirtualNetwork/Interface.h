// Interfaces: what carries VLANs and at most one native VLAN. Activity thread only.
#pragma once

#include "model/VirtualNetwork/References.h"

namespace [[gnu::visibility("default")]] VirtualNetwork {

class NetworkElement;

// The VLANs of an interface. Made as a PhysicalInterface or as a ResourcesForSwitchport.
class Interface : public Kiv::EntityBase {
 public:
  class NotifieeConst : public Kiv::NotifieeBase {
   public:
    virtual void onVlan(Kiv::U32 /*vlan*/) {}
    virtual void onVlankivImmediate() {}
    virtual void onVlan() {}
    virtual void onNativeVlan() {}
  };

  // The VLANs, by VLAN id; owned.
  const auto& vlan() const { return vlan_; }
  auto& vlan() { return vlan_; }
  Kiv::Ptr<VlanReferences> vlanIs(Kiv::U32 vlan) { return vlan_.is(*this, kOnVlan, vlan); }
  Kiv::Ptr<VlanReferences> vlanDel(Kiv::U32 vlan) { return vlan_.del(*this, kOnVlan, vlan); }
  void vlanDelAll() { vlan_.delAll(*this, kOnVlan); }

  // The VLAN whose frames are untagged; 0 for none.
  Kiv::U32 nativeVlan() const { return nativeVlan_.get(); }
  void nativeVlanIs(Kiv::U32 vlan) { nativeVlan_.is(*this, &NotifieeConst::onNativeVlan, vlan); }

 protected:
  Interface() = default;

 private:
  friend struct BaseTables;
  static constexpr Kiv::On<NotifieeConst, Kiv::U32> kOnVlan{
      &NotifieeConst::onVlan, &NotifieeConst::onVlankivImmediate, &NotifieeConst::onVlan};

  Kiv::Collection<VlanReferences, Kiv::U32> vlan_;
  Kiv::Scalar<Kiv::U32> nativeVlan_;
};

// An interface of a switch's network element, with the elements that are cabled to it.
class PhysicalInterface final : public Kiv::Entity<PhysicalInterface, Interface> {
 public:
  static constexpr std::string_view kTypeName = "VirtualNetwork::PhysicalInterface";
  const Kiv::GenericIf* genericIf() const override;

  class NotifieeConst : public Kiv::Notifiee<PhysicalInterface, Interface::NotifieeConst> {
   public:
    virtual void onConfiguredElement(const Kiv::Name& /*element*/) {}
    virtual void onConfiguredElementkivImmediate() {}
    virtual void onConfiguredElement() {}
  };

  explicit PhysicalInterface(Kiv::String name);
  ~PhysicalInterface() override;

  // The interface name; the key.
  const Kiv::String& name() const { return name_; }
  const Kiv::String& fwkKey() const { return name_; }

  // The elements behind the interface, by element name; references. A null element throws a range
  // exception.
  const auto& configuredElement() const { return configuredElement_; }
  void configuredElementIs(const Kiv::Ptr<const NetworkElement>& element);
  void configuredElementDel(const Kiv::Name& name);
  void configuredElementDelAll();

 private:
  static constexpr Kiv::On<NotifieeConst, Kiv::Name> kOnConfiguredElement{
      &NotifieeConst::onConfiguredElement, &NotifieeConst::onConfiguredElementkivImmediate,
      &NotifieeConst::onConfiguredElement, "configuredElement"};

  Kiv::String name_;
  Kiv::References<NetworkElement, Kiv::Name> configuredElement_;
};

}  // namespace VirtualNetwork
