// Waits for a host that the machines have not published yet, then prints the VLANs that it needs and
// the ports that need each of them.
#include <iostream>

#include "OpenStackSm/OpenStackSm.h"

namespace {

// Observes the collection of all hosts until the wanted one is in it. An entry is never deleted.
class WaitForHost final : public VirtualNetwork::RequestedResourcesCollection::NotifieeConst {
 public:
  explicit WaitForHost(Kiv::Name host) : host_(std::move(host)) {}

  void onResourcesForHostname(const Kiv::Name& host) override {
    if (host != host_) return;
    hasNotificationActiveIs(false);
    print(*notifier()->resourcesForHostname()[host]);
  }

 private:
  static void print(const VirtualNetwork::ResourcesForHostname& host) {
    // A collection: the loop variable is a Ptr to the member.
    for (const auto& vlan : host.vlan()) {
      std::cout << host.host() << ": VLAN " << vlan->vlan() << " for";
      // A set of values: the loop variable has the key and its value.
      for (const auto& referrer : vlan->referrer()) std::cout << ' ' << referrer.key;
      std::cout << '\n';
    }
  }

  Kiv::Name host_;
};

}  // namespace

int main() {
  Kiv::ActivityManager loop;
  const auto cloud = Kiv::make<OpenStack::OpenStackConfig>();
  const auto resources = Kiv::make<VirtualNetwork::RequestedResourcesCollection>();
  const auto machines = OpenStack::openStackSmFactory(
      cloud, Kiv::make<OpenStack::OpenStackStatus>(),
      Kiv::make<OpenStack::NameResolution::Config>(),
      Kiv::make<OpenStack::NameResolution::Status>(), resources, 60, Kiv::make<OpenStack::Config>(),
      Kiv::make<VirtualNetwork::NetworkElementCollection>());

  const auto watcher = Kiv::make<WaitForHost>("compute-1");
  watcher->notifierIs(resources);
  watcher->isRegisteredNotifieeIs(true);
  watcher->hasNotificationActiveIs(true);

  const auto region = cloud->regionIs("RegionOne");
  const auto segment = region->segmentIs("seg-1");
  segment->segmentationTypeIs(OpenStack::SegmentationType::vlan);
  segment->segmentationIdIs(100);
  for (const char* port : {"p1", "p2"}) {
    const auto binding = region->portBindingIs(port);
    binding->portIs(region->portIs(port));
    binding->portToHostBindingIs("compute-1")->segmentIs(0, segment);
  }
  loop.run();
}
