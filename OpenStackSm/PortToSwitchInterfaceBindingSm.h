// The machine of one port that is reached through one switch interface: publishes the VLANs, the
// native VLAN and the VLAN-to-VNI mappings that the binding's segments need on the switch port; and
// withdraws, with its cleanup, also what the port-binding machine published for the interface. Made
// and deleted by the port-binding machine, which runs doCleanup() first. Activity thread only.
#pragma once

#include "OpenStackSm/detail/PublicationSm.h"
#include "model/OpenStack/PortToSwitchInterfaceBinding.h"
#include "model/VirtualNetwork/NetworkElement.h"

namespace [[gnu::visibility("default")]] OpenStack {

class PortToSwitchInterfaceBindingSm final
    : public detail::PublicationSm<PortToSwitchInterfaceBindingSm, PortToSwitchInterfaceBinding> {
 public:
  static constexpr std::string_view kTypeName = "OpenStack::PortToSwitchInterfaceBindingSm";
  static constexpr std::string_view kBindingReactorTypeName =
      "OpenStack::PortToSwitchInterfaceBindingSm::KivPortToSwitchInterfaceBinding";
  static constexpr std::string_view kSegmentReactorTypeName =
      "OpenStack::PortToSwitchInterfaceBindingSm::KivSegment";

  using KivPortToSwitchInterfaceBinding = KivBinding;

  // Makes the machine of a switch-interface binding and brings it in line with it. A null binding
  // is not observed.
  [[nodiscard]] static Kiv::Ptr<PortToSwitchInterfaceBindingSm> PortToSwitchInterfaceBindingSmIs(
      const VirtualNetwork::SwitchInterface& switchInterface, const Kiv::Name& regionName,
      const Kiv::Ptr<const Port>& port,
      const Kiv::Ptr<const PortToSwitchInterfaceBinding>& portToSwitchInterfaceBinding,
      const Kiv::Ptr<VirtualNetwork::RequestedResourcesCollection>& requestedResourcesCollection,
      const Kiv::Ptr<VirtualNetwork::NetworkElementCollection>& networkElementCollection) {
    return Kiv::makeMachine<PortToSwitchInterfaceBindingSm>(
        switchInterface, regionName, port, portToSwitchInterfaceBinding,
        requestedResourcesCollection, networkElementCollection);
  }

  // For PortToSwitchInterfaceBindingSmIs(), whose arguments it takes.
  PortToSwitchInterfaceBindingSm(
      const VirtualNetwork::SwitchInterface& switchInterface, const Kiv::Name& regionName,
      const Kiv::Ptr<const Port>& port,
      const Kiv::Ptr<const PortToSwitchInterfaceBinding>& portToSwitchInterfaceBinding,
      const Kiv::Ptr<VirtualNetwork::RequestedResourcesCollection>& requestedResourcesCollection,
      const Kiv::Ptr<VirtualNetwork::NetworkElementCollection>& networkElementCollection);
  ~PortToSwitchInterfaceBindingSm() override;

  // How tools reach the machine's attributes, and make one.
  static const Kiv::GenericIf& reflection();
  const Kiv::GenericIf* genericIf() const override;

  // Constructor arguments; the port and the resources are those of the base
  const VirtualNetwork::SwitchInterface& switchInterface() const { return switchInterface_; }
  const VirtualNetwork::SwitchInterface& fwkKey() const { return switchInterface_; }
  const Kiv::Name& regionName() const { return regionName_; }
  Kiv::Ptr<const PortToSwitchInterfaceBinding> portToSwitchInterfaceBinding() const {
    return binding();
  }
  void portToSwitchInterfaceBindingIs(const Kiv::Ptr<const PortToSwitchInterfaceBinding>& v) {
    bindingIs(v);
  }
  void portToSwitchInterfaceBindingDel() { bindingDel(); }
  const Kiv::Ptr<VirtualNetwork::NetworkElementCollection>& networkElementCollection() const {
    return networkElementCollection_;
  }

  // Handlers
  // The segment at a level came, changed or went: publishes it. Stops the process when what the
  // port-binding machine publishes for the interface is missing.
  void handleSegment(Kiv::U8 level);
  // Withdraws what the segment of one reactor published; what KivSegment::doCleanup() does.
  void withdrawSegment(const KivSegment& reactor);
  // Withdraws all that the machine and its owner published for the switch interface.
  void doCleanup();

 private:
  // The switch interface that the binding names.
  VirtualNetwork::SwitchInterface boundTo() const;
  // Where the VLANs go: the switch port's resources or the switch's physical interface, as the
  // feature toggle says. Null when it is not there.
  Kiv::Ptr<VirtualNetwork::Interface> target() const;
  // The same; stops the process, naming what is missing.
  Kiv::Ptr<VirtualNetwork::Interface> requiredTarget() const;
  // An element of the network; null when it is not there.
  Kiv::Ptr<VirtualNetwork::NetworkElement> element(const Kiv::Name& name) const;

  void publishVlan(VirtualNetwork::Interface& target, const Segment& segment, Kiv::U8 level);
  void doCleanupSwitchport();
  void doCleanupNetworkElements();

  VirtualNetwork::SwitchInterface switchInterface_;
  Kiv::Name regionName_;
  Kiv::Ptr<VirtualNetwork::NetworkElementCollection> networkElementCollection_;

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

// Makes the machine of a switch-interface binding; see PortToSwitchInterfaceBindingSmIs().
[[nodiscard]] Kiv::Ptr<PortToSwitchInterfaceBindingSm> portToSwitchInterfaceBindingSmFactory(
    const VirtualNetwork::SwitchInterface& switchInterface, const Kiv::Name& regionName,
    const Kiv::Ptr<const Port>& port,
    const Kiv::Ptr<const PortToSwitchInterfaceBinding>& portToSwitchInterfaceBinding,
    const Kiv::Ptr<VirtualNetwork::RequestedResourcesCollection>& requestedResourcesCollection,
    const Kiv::Ptr<VirtualNetwork::NetworkElementCollection>& networkElementCollection);

}  // namespace OpenStack
