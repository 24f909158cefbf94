// Port bindings: where a port is bound. Activity thread only.
#pragma once

#include "model/OpenStack/Port.h"
#include "model/OpenStack/PortToHostBinding.h"
#include "model/OpenStack/PortToSwitchInterfaceBinding.h"

namespace [[gnu::visibility("default")]] OpenStack {

// One bound port. It is bound to hosts or to switch interfaces, never to both at once.
class PortBinding final : public Kiv::Entity<PortBinding> {
 public:
  static constexpr std::string_view kTypeName = "OpenStack::PortBinding";
  const Kiv::GenericIf* genericIf() const override;

  class NotifieeConst : public Kiv::Notifiee<PortBinding> {
   public:
    virtual void onPortToHostBinding(const Kiv::Name& /*host*/) {}
    virtual void onPortToHostBindingkivImmediate() {}
    virtual void onPortToHostBinding() {}
    virtual void onPortToSwitchInterfaceBinding(
        const VirtualNetwork::SwitchInterface& /*switchInterface*/) {}
    virtual void onPortToSwitchInterfaceBindingkivImmediate() {}
    virtual void onPortToSwitchInterfaceBinding() {}
    virtual void onPort() {}
  };

  explicit PortBinding(Kiv::String portId) : portId_(std::move(portId)) {}

  // The port id; the key.
  const Kiv::String& portId() const { return portId_; }
  const Kiv::String& fwkKey() const { return portId_; }

  // The bound port; a reference.
  const Kiv::Ptr<const Port>& port() const { return port_.get(); }
  void portIs(const Kiv::Ptr<const Port>& v) { port_.is(*this, &NotifieeConst::onPort, v); }

  // The hosts to which the port is bound, by host name; owned.
  const auto& portToHostBinding() const { return portToHostBinding_; }
  auto& portToHostBinding() { return portToHostBinding_; }
  Kiv::Ptr<PortToHostBinding> portToHostBindingIs(const Kiv::Name& host) {
    return portToHostBinding_.is(*this, kOnPortToHostBinding, host);
  }
  Kiv::Ptr<PortToHostBinding> portToHostBindingIs(const Kiv::Ptr<PortToHostBinding>& v) {
    return portToHostBinding_.is(*this, kOnPortToHostBinding, v);
  }
  Kiv::Ptr<PortToHostBinding> portToHostBindingDel(const Kiv::Name& host) {
    return portToHostBinding_.del(*this, kOnPortToHostBinding, host);
  }
  void portToHostBindingDelAll() { portToHostBinding_.delAll(*this, kOnPortToHostBinding); }

  // The switch interfaces to which the port is bound; owned.
  const auto& portToSwitchInterfaceBinding() const { return portToSwitchInterfaceBinding_; }
  auto& portToSwitchInterfaceBinding() { return portToSwitchInterfaceBinding_; }
  Kiv::Ptr<PortToSwitchInterfaceBinding> portToSwitchInterfaceBindingIs(
      const VirtualNetwork::SwitchInterface& si) {
    return portToSwitchInterfaceBinding_.is(*this, kOnPortToSwitchInterfaceBinding, si);
  }
  Kiv::Ptr<PortToSwitchInterfaceBinding> portToSwitchInterfaceBindingIs(
      const Kiv::Ptr<PortToSwitchInterfaceBinding>& v) {
    return portToSwitchInterfaceBinding_.is(*this, kOnPortToSwitchInterfaceBinding, v);
  }
  Kiv::Ptr<PortToSwitchInterfaceBinding> portToSwitchInterfaceBindingDel(
      const VirtualNetwork::SwitchInterface& si) {
    return portToSwitchInterfaceBinding_.del(*this, kOnPortToSwitchInterfaceBinding, si);
  }
  void portToSwitchInterfaceBindingDelAll() {
    portToSwitchInterfaceBinding_.delAll(*this, kOnPortToSwitchInterfaceBinding);
  }

 private:
  static constexpr Kiv::On<NotifieeConst, Kiv::Name> kOnPortToHostBinding{
      &NotifieeConst::onPortToHostBinding, &NotifieeConst::onPortToHostBindingkivImmediate,
      &NotifieeConst::onPortToHostBinding, "portToHostBinding"};
  static constexpr Kiv::On<NotifieeConst, VirtualNetwork::SwitchInterface>
      kOnPortToSwitchInterfaceBinding{&NotifieeConst::onPortToSwitchInterfaceBinding,
                                      &NotifieeConst::onPortToSwitchInterfaceBindingkivImmediate,
                                      &NotifieeConst::onPortToSwitchInterfaceBinding,
                                      "portToSwitchInterfaceBinding"};

  Kiv::String portId_;
  Kiv::Scalar<Kiv::Ptr<const Port>> port_;
  Kiv::Collection<PortToHostBinding, Kiv::Name> portToHostBinding_;
  Kiv::Collection<PortToSwitchInterfaceBinding, VirtualNetwork::SwitchInterface>
      portToSwitchInterfaceBinding_;
};

}  // namespace OpenStack
