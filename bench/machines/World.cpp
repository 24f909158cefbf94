#include "bench/machines/World.h"

namespace bench {

using Kiv::Ptr;

Kiv::ActivityManager& loop() {
  static Kiv::ActivityManager theLoop;
  return theLoop;
}

Agent::Agent()
    : cloud_(Kiv::make<OpenStack::OpenStackConfig>()),
      config_(Kiv::make<OpenStack::Config>()),
      status_(Kiv::make<OpenStack::OpenStackStatus>()),
      resources_(Kiv::make<VirtualNetwork::RequestedResourcesCollection>()),
      elements_(Kiv::make<VirtualNetwork::NetworkElementCollection>()) {
  loop();  // must exist before anything is observed
}

void Agent::start() {
  machines_ = OpenStack::openStackSmFactory(
      cloud_, status_, Kiv::make<OpenStack::NameResolution::Config>(),
      Kiv::make<OpenStack::NameResolution::Status>(), resources_, 60, config_, elements_);
  loop().run();
}

void Agent::stop() {
  machines_ = nullptr;
  loop().run();
}

Segments::Segments(const Cloud& cloud, OpenStack::Region& region) {
  for (std::uint32_t network = 0; network < cloud.networks(); ++network) {
    const std::string number = std::to_string(network);
    const auto vxlan = region.segmentIs(Kiv::String("vxlan-" + number));
    vxlan->segmentationTypeIs(OpenStack::SegmentationType::vxlan);
    vxlan->segmentationIdIs(Cloud::vni(network));
    vxlan_.push_back(vxlan);
    const auto vlan = region.segmentIs(Kiv::String("vlan-" + number));
    vlan->segmentationTypeIs(OpenStack::SegmentationType::vlan);
    vlan->segmentationIdIs(Cloud::vlan(network));
    vlan_.push_back(vlan);
  }
}

RegionOfCloud::RegionOfCloud(const Cloud& cloud)
    : cloud_(cloud),
      region_(Kiv::make<OpenStack::Region>(Kiv::Name(Cloud::region()))),
      segments_(cloud, *region_) {
  for (std::uint32_t port = 0; port < cloud.ports(); ++port) {
    region_->portIs(Kiv::String(cloud.portId(port)));
  }
}

Ptr<OpenStack::PortToHostBinding> RegionOfCloud::hostBinding(std::uint32_t port,
                                                             std::string_view host) const {
  auto binding = Kiv::make<OpenStack::PortToHostBinding>(Kiv::Name(host));
  const std::uint32_t network = cloud_.network(port);
  binding->segmentIs(0, segments_.vxlan(network));
  binding->segmentIs(1, segments_.vlan(network));
  return binding;
}

Ptr<OpenStack::PortBinding> RegionOfCloud::portBinding(std::uint32_t port) const {
  const Kiv::String id(cloud_.portId(port));
  auto binding = Kiv::make<OpenStack::PortBinding>(id);
  binding->portIs(Ptr<const OpenStack::Port>(region_->port()[id]));
  return binding;
}

Kiv::Ptr<OpenStack::Region> boundRegion(const Cloud& cloud) {
  const RegionOfCloud of(cloud);
  for (std::uint32_t port = 0; port < cloud.ports(); ++port) {
    const auto binding = of.portBinding(port);
    binding->portToHostBindingIs(of.hostBinding(port));
    of.region()->portBindingIs(binding);
  }
  return of.region();
}

Machines::Machines(const Cloud& cloud) : cloud_(cloud), of_(cloud) {
  for (std::uint32_t port = 0; port < cloud.ports(); ++port) {
    of_.region()->portBindingIs(of_.portBinding(port));
  }
  agent_.cloud()->regionIs(of_.region());
  agent_.start();
}

WholeMachines::WholeMachines(const Cloud& cloud) : cloud_(cloud), of_(cloud) {
  agent_.cloud()->regionIs(of_.region());
  agent_.start();
}

}  // namespace bench
