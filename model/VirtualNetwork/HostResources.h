// What a host needs, whoever publishes it: its VLANs, and the regions that use it. Activity thread
// only.
#pragma once

#include "model/VirtualNetwork/References.h"

namespace [[gnu::visibility("default")]] VirtualNetwork {

// Made as ResourcesForHostname or as a NetworkElement.
class HostResources : public Kiv::EntityBase {
 public:
  class NotifieeConst : public Kiv::NotifieeBase {
   public:
    virtual void onVlan(Kiv::U32 /*vlan*/) {}
    virtual void onVlankivImmediate() {}
    virtual void onVlan() {}
    virtual void onDomain(const Kiv::Name& /*region*/) {}
    virtual void onDomainkivImmediate() {}
    virtual void onDomain() {}
  };

  // The VLANs, by VLAN id; owned.
  const auto& vlan() const { return vlan_; }
  auto& vlan() { return vlan_; }
  Kiv::Ptr<VlanReferences> vlanIs(Kiv::U32 vlan) { return vlan_.is(*this, kOnVlan, vlan); }
  Kiv::Ptr<VlanReferences> vlanDel(Kiv::U32 vlan) { return vlan_.del(*this, kOnVlan, vlan); }
  void vlanDelAll() { vlan_.delAll(*this, kOnVlan); }

  // The regions that use the host, by region name; owned. A host serves one region at a time.
  const auto& domain() const { return domain_; }
  auto& domain() { return domain_; }
  // How many regions use it.
  std::size_t domains() const { return domain_.size(); }
  Kiv::Ptr<DomainReferences> domainIs(const Kiv::Name& region) {
    return domain_.is(*this, kOnDomain, region);
  }
  Kiv::Ptr<DomainReferences> domainDel(const Kiv::Name& region) {
    return domain_.del(*this, kOnDomain, region);
  }
  void domainDelAll() { domain_.delAll(*this, kOnDomain); }

 protected:
  HostResources() = default;

 private:
  friend struct BaseTables;
  static constexpr Kiv::On<NotifieeConst, Kiv::U32> kOnVlan{
      &NotifieeConst::onVlan, &NotifieeConst::onVlankivImmediate, &NotifieeConst::onVlan};
  static constexpr Kiv::On<NotifieeConst, Kiv::Name> kOnDomain{
      &NotifieeConst::onDomain, &NotifieeConst::onDomainkivImmediate, &NotifieeConst::onDomain};

  Kiv::Collection<VlanReferences, Kiv::U32> vlan_;
  Kiv::Collection<DomainReferences, Kiv::Name> domain_;
};

}  // namespace VirtualNetwork
