// The port-binding machine: one for each port binding of a region.
//
// Follows where the port is bound: to hosts, whose use by the region it records, or to switch
// interfaces, whose switch port or network elements it publishes. For each it owns a machine that
// publishes the segments. Made and deleted by the region machine, which runs doCleanup() first
// where the binding itself goes. Activity thread only.
#pragma once

#include "OpenStackSm/Attributes.h"
#include "OpenStackSm/PortToHostBindingSm.h"
#include "OpenStackSm/PortToSwitchInterfaceBindingSm.h"
#include "framework/Machine.h"
#include "model/OpenStack/PortBinding.h"

namespace [[gnu::visibility("default")]] OpenStack {

class PortBindingSm final : public Kiv::Machine<PortBindingSm> {
 public:
  static constexpr std::string_view kTypeName = "OpenStack::PortBindingSm";
  // Withdrawal happens only through doCleanup().
  static constexpr bool kTeardownRunsCleanup = false;

  // Observes the port binding; mirrors its bindings to hosts and to switch interfaces.
  class KivPortBinding final : public Kiv::Reactor<KivPortBinding, PortBindingSm, PortBinding> {
   public:
    static constexpr std::string_view kTypeName = "OpenStack::PortBindingSm::KivPortBinding";
    using Reactor::Reactor;

    void onPortToHostBinding(const Kiv::Name& host) override {
      if (mirrors()) machine()->mirrorHost(*notifier(), host);
      if (live()) machine()->handlePortToHostBinding(host);
    }
    void onPortToHostBindingkivImmediate() override {
      if (mirrors()) machine()->mirrorHosts(*notifier());
    }
    void onPortToSwitchInterfaceBinding(const VirtualNetwork::SwitchInterface& si) override {
      if (mirrors()) machine()->mirrorSwitchInterface(*notifier(), si);
      if (live()) machine()->handlePortToSwitchInterfaceBinding(si);
    }
    void onPortToSwitchInterfaceBindingkivImmediate() override {
      if (mirrors()) machine()->mirrorSwitchInterfaces(*notifier());
    }

   private:
    void resynchronise() override {
      onPortToHostBindingkivImmediate();
      onPortToSwitchInterfaceBindingkivImmediate();
    }
  };

  // Stands for one host binding; its removal runs the cleanup of the host's machine.
  class KivPortToHostBinding final
      : public Kiv::StandIn<KivPortToHostBinding, PortBindingSm, PortToHostBinding> {
   public:
    static constexpr std::string_view kTypeName = "OpenStack::PortBindingSm::KivPortToHostBinding";
    using Reactor::Reactor;

    void doCleanup();

   private:
    void kivHandle() override {
      machine()->kiv_handlePortToHostBinding(Kiv::Ptr<KivPortToHostBinding>(this));
    }
  };

  // Stands for one switch-interface binding; its removal runs the cleanup of its machine.
  class KivPortToSwitchInterfaceBinding final
      : public Kiv::StandIn<KivPortToSwitchInterfaceBinding, PortBindingSm,
                            PortToSwitchInterfaceBinding> {
   public:
    static constexpr std::string_view kTypeName =
        "OpenStack::PortBindingSm::KivPortToSwitchInterfaceBinding";
    using Reactor::Reactor;

    void doCleanup();

   private:
    void kivHandle() override {
      machine()->kiv_handlePortToSwitchInterfaceBinding(
          Kiv::Ptr<KivPortToSwitchInterfaceBinding>(this));
    }
  };

  using HostMap = Kiv::ReactorMap<KivPortToHostBinding, Kiv::Name>;
  using SwitchInterfaceMap =
      Kiv::ReactorMap<KivPortToSwitchInterfaceBinding, VirtualNetwork::SwitchInterface>;
  using HostSmMap = Kiv::ChildMap<PortToHostBindingSm, Kiv::Name>;
  using SwitchInterfaceSmMap =
      Kiv::ChildMap<PortToSwitchInterfaceBindingSm, VirtualNetwork::SwitchInterface>;

  // Makes the machine of a port binding and brings it in line with it. A null port binding is not
  // observed.
  [[nodiscard]] static Kiv::Ptr<PortBindingSm> PortBindingSmIs(
      const Kiv::Name& regionName, const Kiv::String& portId, const Kiv::Ptr<const Port>& port,
      const Kiv::Ptr<const PortBinding>& portBinding,
      const Kiv::Ptr<VirtualNetwork::RequestedResourcesCollection>& requestedResourcesCollection,
      const Kiv::Ptr<VirtualNetwork::NetworkElementCollection>& networkElementCollection) {
    return Kiv::makeMachine<PortBindingSm>(regionName, portId, port, portBinding,
                                           requestedResourcesCollection, networkElementCollection);
  }

  // For PortBindingSmIs(), whose arguments it takes.
  PortBindingSm(
      const Kiv::Name& regionName, const Kiv::String& portId, const Kiv::Ptr<const Port>& port,
      const Kiv::Ptr<const PortBinding>& portBinding,
      const Kiv::Ptr<VirtualNetwork::RequestedResourcesCollection>& requestedResourcesCollection,
      const Kiv::Ptr<VirtualNetwork::NetworkElementCollection>& networkElementCollection);
  ~PortBindingSm() override;

  // How tools reach the machine's attributes, and make one.
  static const Kiv::GenericIf& reflection();
  const Kiv::GenericIf* genericIf() const override;

  // Constructor arguments
  const Kiv::Name& regionName() const { return regionName_; }
  const Kiv::String& portId() const { return portId_; }
  const Kiv::String& fwkKey() const { return portId_; }
  const Kiv::Ptr<const Port>& port() const { return port_; }
  Kiv::Ptr<const PortBinding> portBinding() const { return portBinding_.entity(); }
  void portBindingIs(const Kiv::Ptr<const PortBinding>& v) { portBinding_.is(*this, v); }
  void portBindingDel() { portBinding_.del(); }
  const Kiv::Ptr<VirtualNetwork::RequestedResourcesCollection>& requestedResourcesCollection()
      const {
    return requestedResourcesCollection_;
  }
  const Kiv::Ptr<VirtualNetwork::NetworkElementCollection>& networkElementCollection() const {
    return networkElementCollection_;
  }

  // The reactors of the host bindings, by host name. Throws a range exception for a null binding.
  const HostMap& portToHostBinding() const { return portToHostBinding_; }
  HostMap& portToHostBinding() { return portToHostBinding_; }
  Kiv::Ptr<KivPortToHostBinding> portToHostBindingIs(const Kiv::Ptr<const PortToHostBinding>& v) {
    return portToHostBinding_.is(*this, v);
  }
  Kiv::Ptr<const PortToHostBinding> portToHostBindingDel(const Kiv::Name& host) {
    return portToHostBinding_.del(host);
  }
  Kiv::Ptr<const PortToHostBinding> portToHostBindingDel(const HostMap::iterator& at) {
    return portToHostBinding_.del(at.key());
  }
  void portToHostBindingDelAll() { portToHostBinding_.delAll(); }
  void portToHostBindingNotify(const Kiv::Name& /*host*/) {}
  void kiv_handlePortToHostBinding(const Kiv::Ptr<KivPortToHostBinding>& reactor) {
    reactor->doCleanup();
  }

  // The reactors of the switch-interface bindings. Throws a range exception for a null binding.
  const SwitchInterfaceMap& portToSwitchInterfaceBinding() const {
    return portToSwitchInterfaceBinding_;
  }
  SwitchInterfaceMap& portToSwitchInterfaceBinding() { return portToSwitchInterfaceBinding_; }
  Kiv::Ptr<KivPortToSwitchInterfaceBinding> portToSwitchInterfaceBindingIs(
      const Kiv::Ptr<const PortToSwitchInterfaceBinding>& v) {
    return portToSwitchInterfaceBinding_.is(*this, v);
  }
  Kiv::Ptr<const PortToSwitchInterfaceBinding> portToSwitchInterfaceBindingDel(
      const VirtualNetwork::SwitchInterface& si) {
    return portToSwitchInterfaceBinding_.del(si);
  }
  Kiv::Ptr<const PortToSwitchInterfaceBinding> portToSwitchInterfaceBindingDel(
      const SwitchInterfaceMap::iterator& at) {
    return portToSwitchInterfaceBinding_.del(at.key());
  }
  void portToSwitchInterfaceBindingDelAll() { portToSwitchInterfaceBinding_.delAll(); }
  void portToSwitchInterfaceBindingNotify(const VirtualNetwork::SwitchInterface& /*si*/) {}
  void kiv_handlePortToSwitchInterfaceBinding(
      const Kiv::Ptr<KivPortToSwitchInterfaceBinding>& reactor) {
    reactor->doCleanup();
  }

  // The machines of the hosts, by host name. Throws a name-in-use exception when there is one that
  // was made with other arguments. Deleting runs no cleanup.
  const HostSmMap& portToHostBindingSm() const { return portToHostBindingSm_; }
  HostSmMap& portToHostBindingSm() { return portToHostBindingSm_; }
  Kiv::Ptr<PortToHostBindingSm> portToHostBindingSmIs(
      const Kiv::Name& host, const Kiv::Ptr<const Port>& port,
      const Kiv::Ptr<const PortToHostBinding>& portToHostBinding,
      const Kiv::Ptr<VirtualNetwork::RequestedResourcesCollection>& requestedResourcesCollection) {
    return portToHostBindingSm_.is(host, host, port, portToHostBinding,
                                   requestedResourcesCollection);
  }
  Kiv::Ptr<PortToHostBindingSm> portToHostBindingSmDel(const Kiv::Name& host) {
    return portToHostBindingSm_.del(host);
  }
  void portToHostBindingSmDelAll() { portToHostBindingSm_.delAll(); }
  void portToHostBindingSmNotify(const Kiv::Name& /*host*/) {}

  // The machines of the switch interfaces; likewise.
  const SwitchInterfaceSmMap& portToSwitchInterfaceBindingSm() const {
    return portToSwitchInterfaceBindingSm_;
  }
  SwitchInterfaceSmMap& portToSwitchInterfaceBindingSm() { return portToSwitchInterfaceBindingSm_; }
  Kiv::Ptr<PortToSwitchInterfaceBindingSm> portToSwitchInterfaceBindingSmIs(
      const VirtualNetwork::SwitchInterface& si, const Kiv::Name& regionName,
      const Kiv::Ptr<const Port>& port,
      const Kiv::Ptr<const PortToSwitchInterfaceBinding>& portToSwitchInterfaceBinding,
      const Kiv::Ptr<VirtualNetwork::RequestedResourcesCollection>& requestedResourcesCollection,
      const Kiv::Ptr<VirtualNetwork::NetworkElementCollection>& networkElementCollection) {
    return portToSwitchInterfaceBindingSm_.is(
        si, si, regionName, port, portToSwitchInterfaceBinding, requestedResourcesCollection,
        networkElementCollection);
  }
  Kiv::Ptr<PortToSwitchInterfaceBindingSm> portToSwitchInterfaceBindingSmDel(
      const VirtualNetwork::SwitchInterface& si) {
    return portToSwitchInterfaceBindingSm_.del(si);
  }
  void portToSwitchInterfaceBindingSmDelAll() { portToSwitchInterfaceBindingSm_.delAll(); }
  void portToSwitchInterfaceBindingSmNotify(const VirtualNetwork::SwitchInterface& /*si*/) {}

  // Handlers
  // Handles every host binding, then every switch-interface binding.
  void handleInitialized();
  // A host binding came or went. Stops the process when the port is bound to switch interfaces too,
  // or when the host serves another region.
  void handlePortToHostBinding(const Kiv::Name& host);
  // A switch-interface binding came or went. Stops the process when the port is bound to hosts too,
  // or, with the toggle off, when the host behind it serves another region.
  void handlePortToSwitchInterfaceBinding(const VirtualNetwork::SwitchInterface& si);
  // Withdraws the port from the host's domain and deletes the host's machine.
  void doCleanupPortToHostBinding(const Kiv::Name& host);
  // Deletes the machine of the switch interface, whose own cleanup has withdrawn everything.
  void doCleanupPortToSwitchInterfaceBinding(const VirtualNetwork::SwitchInterface& si);
  // Withdraws all that the machine and its children published, and deletes the children.
  void doCleanup();

 private:
  friend class Kiv::Machine<PortBindingSm>;

  auto reactors() {
    return std::tie(portBinding_, portToHostBinding_, portToSwitchInterfaceBinding_);
  }
  auto children() { return std::tie(portToHostBindingSm_, portToSwitchInterfaceBindingSm_); }

  void mirrorHost(const PortBinding& binding, const Kiv::Name& host) {
    portToHostBinding_.resynchroniseOne(*this, binding.portToHostBinding(), host);
  }
  void mirrorHosts(const PortBinding& binding) {
    portToHostBinding_.resynchronise(*this, binding.portToHostBinding());
  }
  void mirrorSwitchInterface(const PortBinding& binding,
                             const VirtualNetwork::SwitchInterface& si) {
    portToSwitchInterfaceBinding_.resynchroniseOne(*this, binding.portToSwitchInterfaceBinding(),
                                                   si);
  }
  void mirrorSwitchInterfaces(const PortBinding& binding) {
    portToSwitchInterfaceBinding_.resynchronise(*this, binding.portToSwitchInterfaceBinding());
  }

  // What a bound switch interface needs beside its VLANs; which, the feature toggle says.
  void publishSwitchport(const PortToSwitchInterfaceBinding& binding, const Kiv::String& referrer);
  void publishNetworkElements(const PortToSwitchInterfaceBinding& binding,
                              const Kiv::Name& referrer);

  Kiv::Name regionName_;
  Kiv::String portId_;
  Kiv::Ptr<const Port> port_;
  Kiv::ReactorSlot<KivPortBinding> portBinding_;
  Kiv::Ptr<VirtualNetwork::RequestedResourcesCollection> requestedResourcesCollection_;
  Kiv::Ptr<VirtualNetwork::NetworkElementCollection> networkElementCollection_;
  HostMap portToHostBinding_;
  SwitchInterfaceMap portToSwitchInterfaceBinding_;
  HostSmMap portToHostBindingSm_;
  SwitchInterfaceSmMap portToSwitchInterfaceBindingSm_;

 public:
  // The attributes, in the order of their declaration, then the handlers of the nested reactors.
  static constexpr auto kAttributes = Kiv::attributes(
      Kiv::fixedArgument(130, "regionName", &PortBindingSm::regionName),
      Kiv::keyArgument(131, "portId", &PortBindingSm::portId),
      Kiv::fixedArgument(132, "port", &PortBindingSm::port),
      Kiv::fixedArgument(133, "portBinding", &PortBindingSm::portBinding),
      Kiv::fixedArgument(134, "requestedResourcesCollection",
                         &PortBindingSm::requestedResourcesCollection),
      Kiv::fixedArgument(135, "networkElementCollection", &PortBindingSm::networkElementCollection),
      Kiv::collection(136, "portToHostBinding", "host", &PortBindingSm::portToHostBinding_,
                      &PortBindingSm::portToHostBindingIs,
                      Kiv::byKey<Kiv::Name>(&PortBindingSm::portToHostBindingDel)),
      Kiv::collection(138, "portToSwitchInterfaceBinding", "switchInterface",
                      &PortBindingSm::portToSwitchInterfaceBinding_,
                      &PortBindingSm::portToSwitchInterfaceBindingIs,
                      Kiv::byKey<VirtualNetwork::SwitchInterface>(
                          &PortBindingSm::portToSwitchInterfaceBindingDel)),
      Kiv::collection(139, "portToHostBindingSm", "hostname", &PortBindingSm::portToHostBindingSm_,
                      &PortBindingSm::portToHostBindingSmIs,
                      &PortBindingSm::portToHostBindingSmDel),
      Kiv::collection(140, "portToSwitchInterfaceBindingSm", "switchInterface",
                      &PortBindingSm::portToSwitchInterfaceBindingSm_,
                      &PortBindingSm::portToSwitchInterfaceBindingSmIs,
                      &PortBindingSm::portToSwitchInterfaceBindingSmDel),
      Kiv::handler(141, "handlePortToHostBinding",
                   "void OpenStack::PortBindingSm::handlePortToHostBinding(Kiv::Name)",
                   &PortBindingSm::handlePortToHostBinding),
      Kiv::handler(144, "handlePortToSwitchInterfaceBinding",
                   "void OpenStack::PortBindingSm::handlePortToSwitchInterfaceBinding(const "
                   "VirtualNetwork::SwitchInterface&)",
                   &PortBindingSm::handlePortToSwitchInterfaceBinding),
      Kiv::handler(146, "doCleanupPortToHostBinding",
                   "void OpenStack::PortBindingSm::doCleanupPortToHostBinding(Kiv::Name)",
                   &PortBindingSm::doCleanupPortToHostBinding),
      Kiv::handler(147, "doCleanupPortToSwitchInterfaceBinding",
                   "void OpenStack::PortBindingSm::doCleanupPortToSwitchInterfaceBinding(const "
                   "VirtualNetwork::SwitchInterface&)",
                   &PortBindingSm::doCleanupPortToSwitchInterfaceBinding),
      Kiv::handler(148, "doCleanup", "void OpenStack::PortBindingSm::doCleanup()",
                   &PortBindingSm::doCleanup),
      Kiv::handler(149, "handleInitialized", "void OpenStack::PortBindingSm::handleInitialized()",
                   &PortBindingSm::handleInitialized),
      Kiv::plain(150, "initialized", &PortBindingSm::initialized, &PortBindingSm::initializedIs),
      Kiv::reactorHandler("KivPortToHostBinding::doCleanup",
                          "void OpenStack::PortBindingSm::KivPortToHostBinding::doCleanup()"),
      Kiv::reactorHandler(
          "KivPortToSwitchInterfaceBinding::doCleanup",
          "void OpenStack::PortBindingSm::KivPortToSwitchInterfaceBinding::doCleanup()"));
};

// Makes the machine of a port binding; see PortBindingSm::PortBindingSmIs().
[[nodiscard]] Kiv::Ptr<PortBindingSm> portBindingSmFactory(
    const Kiv::Name& regionName, const Kiv::String& portId, const Kiv::Ptr<const Port>& port,
    const Kiv::Ptr<const PortBinding>& portBinding,
    const Kiv::Ptr<VirtualNetwork::RequestedResourcesCollection>& requestedResourcesCollection,
    const Kiv::Ptr<VirtualNetwork::NetworkElementCollection>& networkElementCollection);

}  // namespace OpenStack
