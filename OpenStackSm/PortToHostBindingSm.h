// The machine of one port that is bound to one host: publishes the VLANs and the VLAN-to-VNI
// mappings that the binding's segments need on the host. Made and deleted by the port-binding
// machine, which runs doCleanup() first. Activity thread only.
#pragma once

#include "OpenStackSm/detail/PublicationSm.h"
#include "model/OpenStack/PortToHostBinding.h"

namespace [[gnu::visibility("default")]] OpenStack {

class PortToHostBindingSm final
    : public detail::PublicationSm<PortToHostBindingSm, PortToHostBinding> {
 public:
  static constexpr std::string_view kTypeName = "OpenStack::PortToHostBindingSm";
  static constexpr std::string_view kBindingReactorTypeName =
      "OpenStack::PortToHostBindingSm::KivPortToHostBinding";
  static constexpr std::string_view kSegmentReactorTypeName =
      "OpenStack::PortToHostBindingSm::KivSegment";

  using KivPortToHostBinding = KivBinding;

  // Makes the machine of a host binding and brings it in line with it. A null binding is not
  // observed.
  [[nodiscard]] static Kiv::Ptr<PortToHostBindingSm> PortToHostBindingSmIs(
      const Kiv::Name& host, const Kiv::Ptr<const Port>& port,
      const Kiv::Ptr<const PortToHostBinding>& portToHostBinding,
      const Kiv::Ptr<VirtualNetwork::RequestedResourcesCollection>& requestedResourcesCollection) {
    return Kiv::makeMachine<PortToHostBindingSm>(host, port, portToHostBinding,
                                                 requestedResourcesCollection);
  }

  // For PortToHostBindingSmIs(), whose arguments it takes.
  PortToHostBindingSm(
      const Kiv::Name& host, const Kiv::Ptr<const Port>& port,
      const Kiv::Ptr<const PortToHostBinding>& portToHostBinding,
      const Kiv::Ptr<VirtualNetwork::RequestedResourcesCollection>& requestedResourcesCollection);
  ~PortToHostBindingSm() override;

  // How tools reach the machine's attributes, and make one.
  static const Kiv::GenericIf& reflection();
  const Kiv::GenericIf* genericIf() const override;

  // Constructor arguments; the port and the collection are those of the base
  const Kiv::Name& host() const { return host_; }
  const Kiv::Name& fwkKey() const { return host_; }
  Kiv::Ptr<const PortToHostBinding> portToHostBinding() const { return binding(); }
  void portToHostBindingIs(const Kiv::Ptr<const PortToHostBinding>& v) { bindingIs(v); }
  void portToHostBindingDel() { bindingDel(); }

  // Handlers
  // The segment at a level came, changed or went: publishes it.
  void handleSegment(Kiv::U8 level);
  // Withdraws what the segment of one reactor published; what KivSegment::doCleanup() does.
  void withdrawSegment(const KivSegment& reactor);
  // Withdraws all that the machine published.
  void doCleanup();

 private:
  Kiv::Name host_;

 public:
  // The attributes, in the order of their declaration, then the handlers of the nested reactors.
  static constexpr auto kAttributes = Kiv::attributes(
      Kiv::keyArgument(130, "hostname", &PortToHostBindingSm::host, "host"),
      Kiv::fixedArgument(131, "port", &PortToHostBindingSm::port),
      Kiv::fixedArgument(132, "portToHostBinding", &PortToHostBindingSm::portToHostBinding),
      Kiv::fixedArgument(133, "requestedResourcesCollection",
                         &PortToHostBindingSm::requestedResourcesCollection),
      Kiv::handler(134, "handleSegment", "void OpenStack::PortToHostBindingSm::handleSegment(U8)",
                   &PortToHostBindingSm::handleSegment),
      Kiv::collection(136, "segment", "", segmentMap(), &PortToHostBindingSm::segmentIs,
                      segmentDelByLevel()),
      Kiv::handler(138, "doCleanup", "void OpenStack::PortToHostBindingSm::doCleanup()",
                   &PortToHostBindingSm::doCleanup),
      Kiv::handler(139, "handleInitialized",
                   "void OpenStack::PortToHostBindingSm::handleInitialized()",
                   &PortToHostBindingSm::handleInitialized),
      Kiv::plain(140, "initialized", &PortToHostBindingSm::initialized,
                 &PortToHostBindingSm::initializedIs),
      Kiv::reactorHandler("KivSegment::doCleanup",
                          "void OpenStack::PortToHostBindingSm::KivSegment::doCleanup()"));
};

// Makes the machine of a host binding; see PortToHostBindingSm::PortToHostBindingSmIs().
[[nodiscard]] Kiv::Ptr<PortToHostBindingSm> portToHostBindingSmFactory(
    const Kiv::Name& host, const Kiv::Ptr<const Port>& port,
    const Kiv::Ptr<const PortToHostBinding>& portToHostBinding,
    const Kiv::Ptr<VirtualNetwork::RequestedResourcesCollection>& requestedResourcesCollection);

}  // namespace OpenStack
