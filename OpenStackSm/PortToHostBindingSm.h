// The machine of one port that is bound to one host: publishes the VLANs and the VLAN-to-VNI
// mappings that the binding's segments need on the host. Made and deleted by the port-binding
// machine, which runs doCleanup() first. Activity thread only.
#pragma once

#include "OpenStackSm/detail/PublicationSm.h"
#include "model/OpenStack/PortToHostBinding.h"

namespace [[gnu::visibility("default")]] OpenStack {

class PortToHostBindingSm;

// Makes the machine of a host binding, which handles it as it is. A null binding is not observed; a
// null port or collection throws the range exception "null ValidPtr".
[[nodiscard]] Kiv::Ptr<PortToHostBindingSm> portToHostBindingSmFactory(
    const Kiv::Name& host, const Kiv::Ptr<const Port>& port,
    const Kiv::Ptr<const PortToHostBinding>& portToHostBinding,
    const Kiv::Ptr<RequestedResourcesCollection>& requestedResourcesCollection);

class PortToHostBindingSm final
    : public detail::PublicationSm<PortToHostBindingSm, PortToHostBinding,
                                   &portToHostBindingSmFactory> {
 public:
  static constexpr std::string_view kTypeName = "OpenStack::PortToHostBindingSm";
  static constexpr std::string_view kBindingReactorTypeName =
      "OpenStack::PortToHostBindingSm::KivPortToHostBinding";
  static constexpr std::string_view kSegmentReactorTypeName =
      "OpenStack::PortToHostBindingSm::KivSegment";

  using KivPortToHostBinding = KivBinding;

  // What the machine is made with.
  struct Arguments {
    Kiv::Name host;
    Kiv::ValidPtr<const Port> port;
    Kiv::ReactorSlot<KivPortToHostBinding> binding;
    Kiv::ValidPtr<RequestedResourcesCollection> requestedResourcesCollection;
  };

  static constexpr auto& PortToHostBindingSmIs = portToHostBindingSmFactory;
  PortToHostBindingSm(Arguments&& arguments, Kiv::Start start) : arguments_(std::move(arguments)) {
    begin(start);
  }
  ~PortToHostBindingSm() override;

  // Constructor arguments
  const Kiv::Name& host() const { return arguments_.host; }
  const Kiv::Name& fwkKey() const { return arguments_.host; }
  const Kiv::Ptr<const Port>& port() const { return arguments_.port; }
  Kiv::Ptr<const PortToHostBinding> portToHostBinding() const { return binding(); }
  void portToHostBindingIs(const Kiv::Ptr<const PortToHostBinding>& v) {
    arguments_.binding.is(*this, v);
  }
  void portToHostBindingDel() { arguments_.binding.del(); }
  const Kiv::Ptr<RequestedResourcesCollection>& requestedResourcesCollection() const {
    return arguments_.requestedResourcesCollection;
  }

  // Handlers
  // The segment at a level was added, changed or removed: publishes it.
  void handleSegment(Kiv::U8 level);
  // Withdraws what the segment of one reactor published; what KivSegment::doCleanup() does.
  void withdrawSegment(const KivSegment& reactor);
  // Withdraws all that the machine published.
  void doCleanup();

 private:
  friend PublicationSm;

  // The host that the binding names.
  Kiv::Name boundTo() const;

  Arguments arguments_;

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

}  // namespace OpenStack

extern template class Kiv::Machine<OpenStack::PortToHostBindingSm,
                                   &OpenStack::portToHostBindingSmFactory>;
