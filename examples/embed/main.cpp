// The smallest host agent: makes the entities and the root machine, binds a port, watches what the
// machines publish, and drives time.
#include <iostream>

#include "OpenStackSm/OpenStackSm.h"

namespace {

// Tells of the VLANs of one host as they come and go.
class HostWatcher final : public VirtualNetwork::ResourcesForHostname::NotifieeConst {
 public:
  void onVlan(const Kiv::U32 vlan) override {
    const bool there = notifier()->vlan().contains(vlan);
    std::cout << notifier()->host() << (there ? ": needs VLAN " : ": no longer needs VLAN ") << vlan
              << '\n';
  }
};

// Tells of a region's sync status.
class StatusWatcher final : public OpenStack::RegionStatus::NotifieeConst {
 public:
  void onSyncStatus() override {
    std::cout << notifier()->name() << ": " << notifier()->syncStatus() << '\n';
  }
};

// Connects a watcher to the entity that it is to watch.
template <class Watcher, class Entity>
Kiv::Ptr<Watcher> watch(const Kiv::Ptr<Entity>& entity) {
  auto watcher = Kiv::make<Watcher>();
  watcher->notifierIs(entity);
  watcher->isRegisteredNotifieeIs(true);
  watcher->hasNotificationActiveIs(true);
  return watcher;
}

}  // namespace

int main() {
  // The activity loop comes first and goes last. This time moves when we say so; without a time
  // source the library takes the steady clock.
  Kiv::ActivityManager loop;
  Kiv::VirtualTime time;
  Kiv::System::timeSourceIs(&time);

  // The inputs, the outputs, and the machines between them.
  const auto cloud = Kiv::make<OpenStack::OpenStackConfig>();
  const auto config = Kiv::make<OpenStack::Config>();
  const auto status = Kiv::make<OpenStack::OpenStackStatus>();
  const auto resources = Kiv::make<VirtualNetwork::RequestedResourcesCollection>();
  const auto elements = Kiv::make<VirtualNetwork::NetworkElementCollection>();
  auto machines = OpenStack::openStackSmFactory(
      cloud, status, Kiv::make<OpenStack::NameResolution::Config>(),
      Kiv::make<OpenStack::NameResolution::Status>(), resources, 60, config, elements);

  // A region with a port on a host: a VXLAN segment above a VLAN segment.
  const auto region = cloud->regionIs("RegionOne");
  const auto vxlan = region->segmentIs("seg-top");
  vxlan->segmentationTypeIs(OpenStack::SegmentationType::vxlan);
  vxlan->segmentationIdIs(10001);
  const auto vlan = region->segmentIs("seg-rack");
  vlan->segmentationTypeIs(OpenStack::SegmentationType::vlan);
  vlan->segmentationIdIs(100);
  const auto binding = region->portBindingIs("port-1");
  binding->portIs(region->portIs("port-1"));
  const auto onHost = binding->portToHostBindingIs("compute-1");
  onHost->segmentIs(0, vxlan);
  onHost->segmentIs(1, vlan);
  loop.run();

  const auto hostWatcher =
      watch<HostWatcher>(Kiv::Ptr(resources->resourcesForHostname()["compute-1"]));
  const auto statusWatcher = watch<StatusWatcher>(status->regionStatusIs("RegionOne"));
  for (const auto& entry : hostWatcher->notifier()->vlan()) {
    std::cout << "compute-1: VLAN " << entry->vlan() << " carries " << entry->mappedVni().size()
              << " VNI, for " << entry->referrer().size() << " port\n";
  }

  // The cloud's driver syncs, and dies: after 60 seconds without a heartbeat the sync timed out.
  region->syncStatusIs(OpenStack::SyncStatus::syncInProgress);
  loop.run();
  time.nowIs(loop.nextTimer());
  loop.runTimers();

  // The port leaves its host.
  binding->portToHostBindingDel("compute-1");
  loop.run();

  machines = nullptr;
  Kiv::System::timeSourceIs(nullptr);
}
