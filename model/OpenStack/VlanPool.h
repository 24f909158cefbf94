// VLAN pools. Activity thread only.
#pragma once

#include "framework/Attribute.h"
#include "framework/Text.h"

namespace [[gnu::visibility("default")]] OpenStack {

// The VLANs of one region: assigned, allocated, available.
class VlanPool final : public Kiv::Entity<VlanPool> {
 public:
  static constexpr std::string_view kTypeName = "OpenStack::VlanPool";
  const Kiv::GenericIf* genericIf() const override;

  class NotifieeConst : public Kiv::Notifiee<VlanPool> {
   public:
    virtual void onAssignedVlan(Kiv::U16 /*vlan*/) {}
    virtual void onAssignedVlankivImmediate() {}
    virtual void onAssignedVlan() {}
    virtual void onAllocatedVlan(Kiv::U16 /*vlan*/) {}
    virtual void onAllocatedVlankivImmediate() {}
    virtual void onAllocatedVlan() {}
    virtual void onAvailableVlan(Kiv::U16 /*vlan*/) {}
    virtual void onAvailableVlankivImmediate() {}
    virtual void onAvailableVlan() {}
  };

  explicit VlanPool(Kiv::Name name) : name_(std::move(name)) {}

  // The region name; the key.
  const Kiv::Name& name() const { return name_; }
  const Kiv::Name& fwkKey() const { return name_; }

  // The VLANs configured for the region; one is a member when its entry is true.
  const auto& assignedVlan() const { return assignedVlan_; }
  void assignedVlanIs(Kiv::U16 vlan, bool v) { assignedVlan_.is(*this, kOnAssignedVlan, vlan, v); }
  void assignedVlanDel(Kiv::U16 vlan) { assignedVlan_.del(*this, kOnAssignedVlan, vlan); }
  void assignedVlanDelAll() { assignedVlan_.delAll(*this, kOnAssignedVlan); }

  // The VLANs that a segment of the region uses.
  const auto& allocatedVlan() const { return allocatedVlan_; }
  void allocatedVlanIs(Kiv::U16 vlan, bool v) {
    allocatedVlan_.is(*this, kOnAllocatedVlan, vlan, v);
  }
  void allocatedVlanDel(Kiv::U16 vlan) { allocatedVlan_.del(*this, kOnAllocatedVlan, vlan); }
  void allocatedVlanDelAll() { allocatedVlan_.delAll(*this, kOnAllocatedVlan); }

  // The assigned VLANs that no segment uses.
  const auto& availableVlan() const { return availableVlan_; }
  void availableVlanIs(Kiv::U16 vlan, bool v) {
    availableVlan_.is(*this, kOnAvailableVlan, vlan, v);
  }
  void availableVlanDel(Kiv::U16 vlan) { availableVlan_.del(*this, kOnAvailableVlan, vlan); }
  void availableVlanDelAll() { availableVlan_.delAll(*this, kOnAvailableVlan); }

 private:
  static constexpr Kiv::On<NotifieeConst, Kiv::U16> kOnAssignedVlan{
      &NotifieeConst::onAssignedVlan, &NotifieeConst::onAssignedVlankivImmediate,
      &NotifieeConst::onAssignedVlan};
  static constexpr Kiv::On<NotifieeConst, Kiv::U16> kOnAllocatedVlan{
      &NotifieeConst::onAllocatedVlan, &NotifieeConst::onAllocatedVlankivImmediate,
      &NotifieeConst::onAllocatedVlan};
  static constexpr Kiv::On<NotifieeConst, Kiv::U16> kOnAvailableVlan{
      &NotifieeConst::onAvailableVlan, &NotifieeConst::onAvailableVlankivImmediate,
      &NotifieeConst::onAvailableVlan};

  Kiv::Name name_;
  Kiv::ValueSet<Kiv::U16> assignedVlan_;
  Kiv::ValueSet<Kiv::U16> allocatedVlan_;
  Kiv::ValueSet<Kiv::U16> availableVlan_;
};

}  // namespace OpenStack
