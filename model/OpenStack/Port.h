// Ports. Activity thread only.
#pragma once

#include "framework/Attribute.h"
#include "framework/Text.h"
#include "model/OpenStack/Enumerations.h"

namespace [[gnu::visibility("default")]] OpenStack {

// A port of a network.
class Port final : public Kiv::Entity<Port> {
 public:
  static constexpr std::string_view kTypeName = "OpenStack::Port";
  const Kiv::GenericIf* genericIf() const override;

  class NotifieeConst : public Kiv::Notifiee<Port> {
   public:
    virtual void onVlanType() {}
  };

  explicit Port(Kiv::String id) : id_(std::move(id)) {}

  // The port id; the key, and the referrer of all that is published for the port.
  const Kiv::String& id() const { return id_; }
  const Kiv::String& fwkKey() const { return id_; }

  // Whether the port asks for its VLAN as the native one.
  VlanType vlanType() const { return vlanType_.get(); }
  void vlanTypeIs(VlanType v) { vlanType_.is(*this, &NotifieeConst::onVlanType, v); }

 private:
  Kiv::String id_;
  Kiv::Scalar<VlanType> vlanType_;
};

}  // namespace OpenStack
