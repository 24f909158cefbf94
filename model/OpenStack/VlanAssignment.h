// VLAN assignments: the VLANs that a region may use. Activity thread only.
#pragma once

#include "framework/Attribute.h"
#include "framework/Text.h"

namespace [[gnu::visibility("default")]] OpenStack {

// The VLANs configured for one region.
class VlanAssignment final : public Kiv::Entity<VlanAssignment> {
 public:
  static constexpr std::string_view kTypeName = "OpenStack::VlanAssignment";
  const Kiv::GenericIf* genericIf() const override;

  class NotifieeConst : public Kiv::Notifiee<VlanAssignment> {
   public:
    virtual void onVlan(Kiv::U16 /*vlan*/) {}
    virtual void onVlankivImmediate() {}
    virtual void onVlan() {}
  };

  explicit VlanAssignment(Kiv::Name regionName) : regionName_(std::move(regionName)) {}

  // The region name; the key.
  const Kiv::Name& regionName() const { return regionName_; }
  const Kiv::Name& fwkKey() const { return regionName_; }

  // The VLAN ids; one is assigned when its entry is true.
  const auto& vlan() const { return vlan_; }
  void vlanIs(Kiv::U16 vlan, bool v) { vlan_.is(*this, kOnVlan, vlan, v); }
  void vlanDel(Kiv::U16 vlan) { vlan_.del(*this, kOnVlan, vlan); }
  void vlanDelAll() { vlan_.delAll(*this, kOnVlan); }

 private:
  static constexpr Kiv::On<NotifieeConst, Kiv::U16> kOnVlan{
      &NotifieeConst::onVlan, &NotifieeConst::onVlankivImmediate, &NotifieeConst::onVlan};

  Kiv::Name regionName_;
  Kiv::ValueSet<Kiv::U16> vlan_;
};

}  // namespace OpenStack
