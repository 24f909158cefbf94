// The port-binding machine: one for each port binding of a region.
//
// Follows where the port is bound: to hosts, whose use by the region it records, or to switch
// interfaces, whose switch port or network elements it publishes. For each it owns a machine that
// publishes the segments. Made and deleted by the region machine, which runs doCleanup() first
// where the binding itself is removed. Activity thread only.
#pragma once

#include "OpenStackSm/Attributes.h"
#include "OpenStackSm/PortToHostBindingSm.h"
#include "OpenStackSm/PortToSwitchInterfaceBindingSm.h"
#include "framework/Machine.h"
#include "model/OpenStack/PortBinding.h"

namespace [[gnu::visibility("default")]] OpenStack {

class PortBindingSm;

// Makes the machine of a port binding, which handles it as it is. A null port binding is not
// observed; a null port or collection throws the range exception "null ValidPtr".
[[nodiscard]] Kiv::Ptr<PortBindingSm> portBindingSmFactory(
    const Kiv::Name& regionName, const Kiv::String& portId, const Kiv::Ptr<const Port>& port,
    const Kiv::Ptr<const PortBinding>& portBinding,
    const Kiv::Ptr<RequestedResourcesCollection>& requestedResourcesCollection,
    const Kiv::Ptr<NetworkElementCollection>& networkElementCollection);

class PortBindingSm final : public Kiv::Machine<PortBindingSm, &portBindingSmFactory> {
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
      const Kiv::Name key = host;
      if (mirrors()) machine()->mirrorHost(*entity(), key);
      if (live()) machine()->handlePortToHostBinding(key);
    }
    void onPortToHostBindingkivImmediate() override {
      if (mirrors()) machine()->followHosts(*entity());
    }
    void onPortToSwitchInterfaceBinding(const SwitchInterface& si) override {
      const SwitchInterface key = si;
      if (mirrors()) machine()->mirrorSwitchInterface(*entity(), key);
      if (live()) machine()->handlePortToSwitchInterfaceBinding(key);
    }
    void onPortToSwitchInterfaceBindingkivImmediate() override {
      if (mirrors()) machine()->followSwitchInterfaces(*entity());
    }

   private:
    void mirror() override { machine()->mirrorAll(*entity()); }
  };

  // One host binding; its removal runs the cleanup of the host's machine.
  class KivPortToHostBinding final
      : public Kiv::PassiveReactor<KivPortToHostBinding, PortBindingSm, PortToHostBinding> {
   public:
    static constexpr std::string_view kTypeName = "OpenStack::PortBindingSm::KivPortToHostBinding";
    using PassiveReactor::PassiveReactor;

    // Runs the cleanup of the host's machine.
    void doCleanup();

   private:
    void kivHandle() override {
      machine()->kiv_handlePortToHostBinding(Kiv::Ptr<KivPortToHostBinding>(this));
    }
  };

  // One switch-interface binding; its removal runs the cleanup of its machine.
  class KivPortToSwitchInterfaceBinding final
      : public Kiv::PassiveReactor<KivPortToSwitchInterfaceBinding, PortBindingSm,
                                   PortToSwitchInterfaceBinding> {
   public:
    static constexpr std::string_view kTypeName =
        "OpenStack::PortBindingSm::KivPortToSwitchInterfaceBinding";
    using PassiveReactor::PassiveReactor;

    // Runs the cleanup of the switch interface's machine.
    void doCleanup();

   private:
    void kivHandle() override {
      machine()->kiv_handlePortToSwitchInterfaceBinding(
          Kiv::Ptr<KivPortToSwitchInterfaceBinding>(this));
    }
  };

  using HostMap = Kiv::ReactorMap<KivPortToHostBinding, Kiv::Name>;
  using SwitchInterfaceMap =
      Kiv::ReactorMap<KivPortToSwitchInterfaceBinding, SwitchInterface, false>;
  using HostSmMap = Kiv::ChildMap<PortToHostBindingSm, Kiv::Name>;
  using SwitchInterfaceSmMap = Kiv::ChildMap<PortToSwitchInterfaceBindingSm, SwitchInterface>;

  // What the machine is made with.
  struct Arguments {
    Kiv::Name regionName;
    Kiv::String portId;
    Kiv::ValidPtr<const Port> port;
    Kiv::ReactorSlot<KivPortBinding> portBinding;
    Kiv::ValidPtr<RequestedResourcesCollection> requestedResourcesCollection;
    Kiv::ValidPtr<NetworkElementCollection> networkElementCollection;
  };

  static constexpr auto& PortBindingSmIs = portBindingSmFactory;
  PortBindingSm(Arguments&& arguments, Kiv::Start start) : arguments_(std::move(arguments)) {
    begin(start);
  }
  ~PortBindingSm() override;

  // Constructor arguments
  const Kiv::Name& regionName() const { return arguments_.regionName; }
  const Kiv::String& portId() const { return arguments_.portId; }
  const Kiv::String& fwkKey() const { return arguments_.portId; }
  const Kiv::Ptr<const Port>& port() const { return arguments_.port; }
  Kiv::Ptr<const PortBinding> portBinding() const { return arguments_.portBinding.entity(); }
  void portBindingIs(const Kiv::Ptr<const PortBinding>& v) { arguments_.portBinding.is(*this, v); }
  void portBindingDel() { arguments_.portBinding.del(); }
  const Kiv::Ptr<RequestedResourcesCollection>& requestedResourcesCollection() const {
    return arguments_.requestedResourcesCollection;
  }
  const Kiv::Ptr<NetworkElementCollection>& networkElementCollection() const {
    return arguments_.networkElementCollection;
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
      const SwitchInterface& si) {
    return portToSwitchInterfaceBinding_.del(si);
  }
  Kiv::Ptr<const PortToSwitchInterfaceBinding> portToSwitchInterfaceBindingDel(
      const SwitchInterfaceMap::iterator& at) {
    return portToSwitchInterfaceBinding_.del(at.key());
  }
  void portToSwitchInterfaceBindingDelAll() { portToSwitchInterfaceBinding_.delAll(); }
  void portToSwitchInterfaceBindingNotify(const SwitchInterface& /*si*/) {}
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
      const Kiv::Ptr<RequestedResourcesCollection>& requestedResourcesCollection) {
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
      const SwitchInterface& si, const Kiv::Name& regionName, const Kiv::Ptr<const Port>& port,
      const Kiv::Ptr<const PortToSwitchInterfaceBinding>& portToSwitchInterfaceBinding,
      const Kiv::Ptr<RequestedResourcesCollection>& requestedResourcesCollection,
      const Kiv::Ptr<NetworkElementCollection>& networkElementCollection) {
    return portToSwitchInterfaceBindingSm_.is(
        si, si, regionName, port, portToSwitchInterfaceBinding, requestedResourcesCollection,
        networkElementCollection);
  }
  Kiv::Ptr<PortToSwitchInterfaceBindingSm> portToSwitchInterfaceBindingSmDel(
      const SwitchInterface& si) {
    return portToSwitchInterfaceBindingSm_.del(si);
  }
  void portToSwitchInterfaceBindingSmDelAll() { portToSwitchInterfaceBindingSm_.delAll(); }
  void portToSwitchInterfaceBindingSmNotify(const SwitchInterface& /*si*/) {}

  // Handlers
  // Handles every host binding, then every switch-interface binding.
  void handleInitialized();
  // A host binding was added, replaced or removed. Stops the process when the port is bound to
  // switch interfaces too, or when the host serves another region.
  void handlePortToHostBinding(const Kiv::Name& host);
  // A switch-interface binding was added, replaced or removed. Stops the process when the port is
  // bound to hosts too, or, with the toggle off, when the host behind it serves another region.
  void handlePortToSwitchInterfaceBinding(const SwitchInterface& si);
  // Withdraws the port from the host's domain and deletes the host's machine.
  void doCleanupPortToHostBinding(const Kiv::Name& host);
  // Deletes the machine of the switch interface, whose own cleanup has withdrawn everything.
  void doCleanupPortToSwitchInterfaceBinding(const SwitchInterface& si);
  // Withdraws all that the machine and its children published, and deletes the children.
  void doCleanup();

 private:
  friend class Kiv::Machine<PortBindingSm, &portBindingSmFactory>;

  auto reactors() {
    return std::tie(arguments_.portBinding, portToHostBinding_, portToSwitchInterfaceBinding_);
  }
  auto children() { return std::tie(portToHostBindingSm_, portToSwitchInterfaceBindingSm_); }
  void withdraw() { doCleanup(); }

  void mirrorAll(const PortBinding& binding) {
    portToHostBinding_.synchronise(*this, binding.portToHostBinding());
    portToSwitchInterfaceBinding_.synchronise(*this, binding.portToSwitchInterfaceBinding());
  }
  void followHosts(const PortBinding& binding) {
    portToHostBinding_.follow(*this, binding.portToHostBinding());
  }
  void mirrorHost(const PortBinding& binding, const Kiv::Name& host) {
    portToHostBinding_.synchroniseOne(*this, binding.portToHostBinding(), host);
  }
  void followSwitchInterfaces(const PortBinding& binding) {
    portToSwitchInterfaceBinding_.follow(*this, binding.portToSwitchInterfaceBinding());
  }
  void mirrorSwitchInterface(const PortBinding& binding, const SwitchInterface& si) {
    portToSwitchInterfaceBinding_.synchroniseOne(*this, binding.portToSwitchInterfaceBinding(), si);
  }

  // What a bound host gets beside its VLANs.
  void publishHost(const Kiv::Name& host);
  // What a bound switch interface gets beside its VLANs; which of the two, the feature toggle says.
  void publishSwitchport(const PortToSwitchInterfaceBinding& binding, const Kiv::String& referrer);
  void publishNetworkElements(const PortToSwitchInterfaceBinding& binding,
                              const Kiv::Name& referrer);

  Arguments arguments_;
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
                      Kiv::byKey<SwitchInterface>(&PortBindingSm::portToSwitchInterfaceBindingDel)),
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

}  // namespace OpenStack

extern template class Kiv::Machine<OpenStack::PortBindingSm, &OpenStack::portBindingSmFactory>;
