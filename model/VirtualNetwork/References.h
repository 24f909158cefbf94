// Who needs a resource: the sets of referrers. An entry is made by the first party that needs it
// and deleted by the party that removes its last referrer. Activity thread only.
#pragma once

#include "framework/Attribute.h"
#include "framework/Text.h"

namespace [[gnu::visibility("default")]] VirtualNetwork {

// The ports that need a VLAN to carry a VNI.
class VniReferences final : public Kiv::Entity<VniReferences> {
 public:
  static constexpr std::string_view kTypeName = "VirtualNetwork::VniReferences";
  const Kiv::GenericIf* genericIf() const override;

  class NotifieeConst : public Kiv::Notifiee<VniReferences> {
   public:
    virtual void onReferrer(const Kiv::String& /*portId*/) {}
    virtual void onReferrerkivImmediate() {}
    virtual void onReferrer() {}
  };

  explicit VniReferences(Kiv::U32 vni) : vni_(vni) {}

  // The VNI; the key.
  Kiv::U32 vni() const { return vni_; }
  const Kiv::U32& fwkKey() const { return vni_; }

  // The ports, by port id.
  const auto& referrer() const { return referrer_; }
  void referrerIs(const Kiv::String& portId, bool v) {
    referrer_.is(*this, kOnReferrer, portId, v);
  }
  void referrerDel(const Kiv::String& portId) { referrer_.del(*this, kOnReferrer, portId); }
  void referrerDelAll() { referrer_.delAll(*this, kOnReferrer); }

 private:
  static constexpr Kiv::On<NotifieeConst, Kiv::String> kOnReferrer{
      &NotifieeConst::onReferrer, &NotifieeConst::onReferrerkivImmediate,
      &NotifieeConst::onReferrer};

  Kiv::U32 vni_;
  Kiv::ValueSet<Kiv::String> referrer_;
};

// One VLAN of a host, a switch port or an interface: the ports that need it, and its VNIs.
class VlanReferences final : public Kiv::Entity<VlanReferences> {
 public:
  static constexpr std::string_view kTypeName = "VirtualNetwork::VlanReferences";
  const Kiv::GenericIf* genericIf() const override;

  class NotifieeConst : public Kiv::Notifiee<VlanReferences> {
   public:
    virtual void onReferrer(const Kiv::String& /*portId*/) {}
    virtual void onReferrerkivImmediate() {}
    virtual void onReferrer() {}
    virtual void onMappedVni(Kiv::U32 /*vni*/) {}
    virtual void onMappedVnikivImmediate() {}
    virtual void onMappedVni() {}
  };

  explicit VlanReferences(Kiv::U32 vlan) : vlan_(vlan) {}

  // The VLAN id; the key.
  Kiv::U32 vlan() const { return vlan_; }
  const Kiv::U32& fwkKey() const { return vlan_; }

  // The ports, by port id.
  const auto& referrer() const { return referrer_; }
  void referrerIs(const Kiv::String& portId, bool v) {
    referrer_.is(*this, kOnReferrer, portId, v);
  }
  void referrerDel(const Kiv::String& portId) { referrer_.del(*this, kOnReferrer, portId); }
  void referrerDelAll() { referrer_.delAll(*this, kOnReferrer); }

  // The VNIs that the VLAN carries, by VNI; owned.
  const auto& mappedVni() const { return mappedVni_; }
  auto& mappedVni() { return mappedVni_; }
  Kiv::Ptr<VniReferences> mappedVniIs(Kiv::U32 vni) {
    return mappedVni_.is(*this, kOnMappedVni, vni);
  }
  Kiv::Ptr<VniReferences> mappedVniDel(Kiv::U32 vni) {
    return mappedVni_.del(*this, kOnMappedVni, vni);
  }
  void mappedVniDelAll() { mappedVni_.delAll(*this, kOnMappedVni); }

 private:
  static constexpr Kiv::On<NotifieeConst, Kiv::String> kOnReferrer{
      &NotifieeConst::onReferrer, &NotifieeConst::onReferrerkivImmediate,
      &NotifieeConst::onReferrer};
  static constexpr Kiv::On<NotifieeConst, Kiv::U32> kOnMappedVni{
      &NotifieeConst::onMappedVni, &NotifieeConst::onMappedVnikivImmediate,
      &NotifieeConst::onMappedVni};

  Kiv::U32 vlan_;
  Kiv::ValueSet<Kiv::String> referrer_;
  Kiv::Collection<VniReferences, Kiv::U32> mappedVni_;
};

// The ports that a region has on a host.
class DomainReferences final : public Kiv::Entity<DomainReferences> {
 public:
  static constexpr std::string_view kTypeName = "VirtualNetwork::DomainReferences";
  const Kiv::GenericIf* genericIf() const override;

  class NotifieeConst : public Kiv::Notifiee<DomainReferences> {
   public:
    virtual void onReferrer(const Kiv::Name& /*portId*/) {}
    virtual void onReferrerkivImmediate() {}
    virtual void onReferrer() {}
  };

  explicit DomainReferences(Kiv::Name name) : name_(std::move(name)) {}

  // The region name; the key.
  const Kiv::Name& name() const { return name_; }
  const Kiv::Name& fwkKey() const { return name_; }

  // The ports, by port id.
  const auto& referrer() const { return referrer_; }
  void referrerIs(const Kiv::Name& portId, bool v) { referrer_.is(*this, kOnReferrer, portId, v); }
  void referrerDel(const Kiv::Name& portId) { referrer_.del(*this, kOnReferrer, portId); }
  void referrerDelAll() { referrer_.delAll(*this, kOnReferrer); }

 private:
  static constexpr Kiv::On<NotifieeConst, Kiv::Name> kOnReferrer{
      &NotifieeConst::onReferrer, &NotifieeConst::onReferrerkivImmediate,
      &NotifieeConst::onReferrer};

  Kiv::Name name_;
  Kiv::ValueSet<Kiv::Name> referrer_;
};

}  // namespace VirtualNetwork
