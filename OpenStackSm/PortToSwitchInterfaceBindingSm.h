// The machine of one port that is reached through one switch interface: publishes the VLANs, the
// native VLAN and the VLAN-to-VNI mappings that the binding's segments need on the switch port; and
// withdraws, with its cleanup, also what the port-binding machine published for the interface. Made
// and deleted by the port-binding machine, which runs doCleanup() first. Activity thread only.
#pragma once

#include "OpenStackSm/detail/PublicationSm.h"
#include "model/OpenStack/PortToSwitchInterfaceBinding.h"
#include "model/VirtualNetwork/NetworkElement.h"

namespace [[gnu::visibility("default")]] OpenStack {

class PortToSwitchInterfaceBindingSm;

// Makes the machine of a switch-interface binding, which handles it as it is. A null binding is not
// observed; a null port or collection throws the range exception "null ValidPtr".
[[nodiscard]] Kiv::Ptr<PortToSwitchInterfaceBindingSm> portToSwitchInterfaceBindingSmFactory(
    const SwitchInterface& switchInterface, const Kiv::Name& regionName,
    const Kiv::Ptr<const Port>& port,
    const Kiv::Ptr<const PortToSwitchInterfaceBinding>& portToSwitchInterfaceBinding,
    const Kiv::Ptr<RequestedResourcesCollection>& requestedResourcesCollection,
    const Kiv::Ptr<NetworkElementCollection>& networkElementCollection);

class PortToSwitchInterfaceBindingSm final
    : public detail::PublicationSm<PortToSwitchInterfaceBindingSm, PortToSwitchInterfaceBinding,
                                   &portToSwitchInterfaceBindingSmFactory> {
 public:
  static constexpr std::string_view kTypeName = "OpenStack::PortToSwitchInterfaceBindingSm";
  static constexpr std::string_view kBindingReactorTypeName =
      "OpenStack::PortToSwitchInterfaceBindingSm::KivPortToSwitchInterfaceBinding";
  static constexpr std::string_view kSegmentReactorTypeName =
      "OpenStack::PortToSwitchInterfaceBindingSm::KivSegment";

  using KivPortToSwitchInterfaceBinding = KivBinding;

  // What the machine is made with.
  struct Arguments {
    SwitchInterface switchInterface;
    Kiv::Name regionName;
    Kiv::ValidPtr<const Port> port;
    Kiv::ReactorSlot<KivPortToSwitchInterfaceBinding> binding;
    Kiv::ValidPtr<RequestedResourcesCollection> requestedResourcesCollection;
    Kiv::ValidPtr<NetworkElementCollection> networkElementCollection;
  };

  static constexpr auto& PortToSwitchInterfaceBindingSmIs = portToSwitchInterfaceBindingSmFactory;
  PortToSwitchInterfaceBindingSm(Arguments&& arguments, Kiv::Start start)
      : arguments_(std::move(arguments)) {
    begin(start);
  }
  ~PortToSwitchInterfaceBindingSm() override;

  // Constructor arguments
  const SwitchInterface& switchInterface() const { return arguments_.switchInterface; }
  const SwitchInterface& fwkKey() const { return arguments_.switchInterface; }
  const Kiv::Name& regionName() const { return arguments_.regionName; }
  const Kiv::Ptr<const Port>& port() const { return arguments_.port; }
  Kiv::Ptr<const PortToSwitchInterfaceBinding> portToSwitchInterfaceBinding() const {
    return binding();
  }
  void portToSwitchInterfaceBindingIs(const Kiv::Ptr<const PortToSwitchInterfaceBinding>& v) {
    arguments_.binding.is(*this, v);
  }
  void portToSwitchInterfaceBindingDel() { arguments_.binding.del(); }
  const Kiv::Ptr<RequestedResourcesCollection>& requestedResourcesCollection() const {
    return arguments_.requestedResourcesCollection;
  }
  const Kiv::Ptr<NetworkElementCollection>& networkElementCollection() const {
    return arguments_.networkElementCollection;
  }

  // Handlers
  // The segment at a level was added, changed or removed: publishes it. Stops the process when
  // what the port-binding machine publishes for the interface is missing.
  void handleSegment(Kiv::U8 level);
  // Withdraws what the segment of one reactor published; what KivSegment::doCleanup() does.
  void withdrawSegment(const KivSegment& reactor);
  // Withdraws all that the machine and its owner published for the switch interface.
  void doCleanup();
  // The part of that which the owner published.
  void withdrawInterface();

 private:
  friend PublicationSm;

  // The switch interface that the binding names.
  SwitchInterface boundTo() const;
  // Where the VLANs are published: with the toggle on the switch port's resources, else the
  // switch's physical interface. Null when it is absent.
  Kiv::Ptr<VirtualNetwork::Interface> target(bool toggle) const;
  // The same, by the feature toggle; stops the process, naming what is missing.
  Kiv::Ptr<VirtualNetwork::Interface> requiredTarget() const;
  // An element of the network; null when it is absent.
  Kiv::Ptr<VirtualNetwork::NetworkElement> element(const Kiv::Name& name) const;

  void publishVlan(VirtualNetwork::Interface& target, const Segment& segment, Kiv::U8 level);
  void doCleanupSwitchport();
  void doCleanupNetworkElements();

  Arguments arguments_;

 public:
  // The attributes, in the order of their declaration, then the handlers of the nested reactors.
  static constexpr auto kAttributes = Kiv::attributes(
      Kiv::keyArgument(130, "switchInterface", &PortToSwitchInterfaceBindingSm::switchInterface),
      Kiv::fixedArgument(131, "regionName", &PortToSwitchInterfaceBindingSm::regionName),
      Kiv::fixedArgument(132, "port", &PortToSwitchInterfaceBindingSm::port),
      Kiv::fixedArgument(133, "portToSwitchInterfaceBinding",
                         &PortToSwitchInterfaceBindingSm::portToSwitchInterfaceBinding),
      Kiv::fixedArgument(134, "requestedResourcesCollection",
                         &PortToSwitchInterfaceBindingSm::requestedResourcesCollection),
      Kiv::fixedArgument(135, "networkElementCollection",
                         &PortToSwitchInterfaceBindingSm::networkElementCollection),
      Kiv::handler(136, "handleSegment",
                   "void OpenStack::PortToSwitchInterfaceBindingSm::handleSegment(U8)",
                   &PortToSwitchInterfaceBindingSm::handleSegment),
      Kiv::collection(138, "segment", "", segmentMap(), &PortToSwitchInterfaceBindingSm::segmentIs,
                      segmentDelByLevel()),
      Kiv::handler(140, "doCleanup", "void OpenStack::PortToSwitchInterfaceBindingSm::doCleanup()",
                   &PortToSwitchInterfaceBindingSm::doCleanup),
      Kiv::handler(141, "handleInitialized",
                   "void OpenStack::PortToSwitchInterfaceBindingSm::handleInitialized()",
                   &PortToSwitchInterfaceBindingSm::handleInitialized),
      Kiv::plain(142, "initialized", &PortToSwitchInterfaceBindingSm::initialized,
                 &PortToSwitchInterfaceBindingSm::initializedIs),
      Kiv::reactorHandler(
          "KivSegment::doCleanup",
          "void OpenStack::PortToSwitchInterfaceBindingSm::KivSegment::doCleanup()"));
};

}  // namespace OpenStack

extern template class Kiv::Machine<OpenStack::PortToSwitchInterfaceBindingSm,
                                   &OpenStack::portToSwitchInterfaceBindingSmFactory>;
