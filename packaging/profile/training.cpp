// The training program of the profile-guided optimisation: a small cloud with the changes that a host
// agent makes. It is loaded; its ports are bound and unbound, one by one and all at once, on hosts
// and on switch interfaces, under both toggles; segments are added and removed while it syncs; it is
// removed.
//
// Deterministic: the profile is an input of the build.
#include <algorithm>
#include <array>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "OpenStackSm/OpenStackSm.h"
#include "framework/FeatureToggle.h"

namespace {

using Kiv::Name;
using Kiv::Ptr;
using Kiv::String;

constexpr unsigned kPorts = 2000;
constexpr unsigned kOnHost = 40;
constexpr unsigned kNetworks = 100;
constexpr unsigned kRepetitions = 2;

Kiv::ActivityManager& loop() {
  static Kiv::ActivityManager theLoop;
  return theLoop;
}

String portId(unsigned port) {
  std::array<char, 37> text{};
  std::snprintf(text.data(), text.size(), "%08x-4f1c-4d2e-9a3b-5c6d7e8f9012", port * 2654435761U);
  return String(text.data());
}

class TrainedCloud {
 public:
  // So many neighbouring ports of a host share a network.
  explicit TrainedCloud(unsigned sharing) : sharing_(sharing) {
    for (unsigned network = 0; network < kNetworks; ++network) {
      vxlan_.push_back(segment("vxlan-", network, OpenStack::SegmentationType::vxlan, 10000));
      vlan_.push_back(segment("vlan-", network, OpenStack::SegmentationType::vlan, 1));
    }
    for (unsigned port = 0; port < kPorts; ++port) {
      ids_.push_back(portId(port));
      order_.push_back(port);
      const auto binding = region_->portBindingIs(ids_.back());
      binding->portIs(region_->portIs(ids_.back()));
      bindToHost(port);
    }
    std::shuffle(order_.begin(), order_.end(), std::minstd_rand(1));
  }

  void train() {
    config_->vlanTypeDriverIs(OpenStack::VlanTypeDriver::assigned);
    assignVlans();
    auto machines = OpenStack::openStackSmFactory(
        cloud_, status_, Kiv::make<OpenStack::NameResolution::Config>(),
        Kiv::make<OpenStack::NameResolution::Status>(), resources_, 60, config_, elements_);
    loop().run();
    cloud_->regionIs(region_);
    loop().run();
    for (unsigned i = 0; i < kRepetitions; ++i) {
      sync();
      portsOnHosts();
      portsAtOnce();
      portsOnSwitches();
      addAndRemoveSegments();
    }
    cloud_->regionDel(region_->name());
    loop().run();
    machines = nullptr;
    loop().run();
  }

 private:
  Ptr<const OpenStack::Segment> segment(const char* name, unsigned network,
                                        OpenStack::SegmentationType type, unsigned base) {
    const auto segment = region_->segmentIs(String(name + std::to_string(network)));
    segment->segmentationTypeIs(type);
    segment->segmentationIdIs(base + network);
    return segment;
  }
  void assignVlans() {
    const auto assignment = Kiv::make<OpenStack::VlanAssignment>(region_->name());
    for (Kiv::U16 vlan = 1; vlan <= 1000; ++vlan) assignment->vlanIs(vlan, true);
    config_->vlanAssignmentIs(assignment);
  }

  unsigned networkOf(unsigned port) const { return port / sharing_ % kNetworks; }
  OpenStack::PortBinding& bindingOf(unsigned port) { return *region_->portBinding()[ids_[port]]; }
  Name hostOf(unsigned port) const {
    return Name("compute-" + std::to_string(port / kOnHost) + ".az1.lan");
  }
  void bindToHost(unsigned port) {
    const auto host = bindingOf(port).portToHostBindingIs(hostOf(port));
    host->segmentIs(0, vxlan_[networkOf(port)]);
    host->segmentIs(1, vlan_[networkOf(port)]);
  }
  void bindToSwitch(unsigned port) {
    const auto binding = Kiv::make<OpenStack::PortToSwitchInterfaceBinding>(
        VirtualNetwork::SwitchInterface(String("leaf-" + std::to_string(port / kOnHost)),
                                        String("Ethernet" + std::to_string(port % kOnHost))));
    binding->hostIs(hostOf(port));
    binding->segmentIs(0, vxlan_[networkOf(port)]);
    binding->segmentIs(1, vlan_[networkOf(port)]);
    bindingOf(port).portToSwitchInterfaceBindingIs(binding);
  }

  void portsOnHosts() {
    for (const unsigned port : order_) {
      bindingOf(port).portToHostBindingDel(hostOf(port));
      loop().run();
    }
    for (const unsigned port : order_) {
      bindToHost(port);
      loop().run();
    }
  }
  // Many changes in one run of the loop, as after a restart of the driver.
  void portsAtOnce() {
    for (const unsigned port : order_) bindingOf(port).portToHostBindingDel(hostOf(port));
    loop().run();
    for (const unsigned port : order_) bindToHost(port);
    loop().run();
  }
  void portsOnSwitches() {
    for (unsigned port = 0; port < kPorts; port += 10) {
      bindingOf(port).portToHostBindingDel(hostOf(port));
      loop().run();
      bindToSwitch(port);
      loop().run();
    }
    for (unsigned port = 0; port < kPorts; port += 10) {
      bindingOf(port).portToSwitchInterfaceBindingDelAll();
      loop().run();
      bindToHost(port);
      loop().run();
    }
  }
  void addAndRemoveSegments() {
    for (unsigned i = 0; i < 200; ++i) {
      const auto added = segment("more-", i, OpenStack::SegmentationType::vlan, 2000);
      loop().run();
      region_->segmentDel(added->id());
      loop().run();
    }
  }
  void sync() {
    region_->syncStatusIs(OpenStack::SyncStatus::syncInProgress);
    for (unsigned beat = 1; beat <= 50; ++beat) {
      region_->syncHeartbeatIs(beat);
      loop().run();
    }
    region_->syncStatusIs(OpenStack::SyncStatus::syncComplete);
    loop().run();
  }

  unsigned sharing_;
  Ptr<OpenStack::OpenStackConfig> cloud_ = Kiv::make<OpenStack::OpenStackConfig>();
  Ptr<OpenStack::Config> config_ = Kiv::make<OpenStack::Config>();
  Ptr<OpenStack::OpenStackStatus> status_ = Kiv::make<OpenStack::OpenStackStatus>();
  Ptr<VirtualNetwork::RequestedResourcesCollection> resources_ =
      Kiv::make<VirtualNetwork::RequestedResourcesCollection>();
  Ptr<VirtualNetwork::NetworkElementCollection> elements_ =
      Kiv::make<VirtualNetwork::NetworkElementCollection>();
  Ptr<OpenStack::Region> region_ = Kiv::make<OpenStack::Region>(Name("RegionOne"));
  std::vector<Ptr<const OpenStack::Segment>> vxlan_;
  std::vector<Ptr<const OpenStack::Segment>> vlan_;
  std::vector<String> ids_;
  std::vector<unsigned> order_;
};

}  // namespace

int main() {
  loop();
  for (const Kiv::U32 toggle : {Kiv::kToggleOn, Kiv::U32{0}}) {
    // Without kToggleKnown, so that the provider is asked again.
    Kiv::toggleProviderIs([=](std::string_view, bool) { return toggle; });
    for (const unsigned sharing : {1U, 10U}) TrainedCloud(sharing).train();
  }
  return 0;
}
