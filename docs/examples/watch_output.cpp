// A consumer of the output: follows the VLANs of every host, and the VNIs that they carry, with one
// notifiee for each entity. Prints what a switch would have to do.
#include <iostream>
#include <map>

#include "OpenStackSm/OpenStackSm.h"

namespace {

using VirtualNetwork::RequestedResourcesCollection;
using VirtualNetwork::ResourcesForHostname;
using VirtualNetwork::VlanReferences;

// Connects a new watcher to an entity, then lets it read what is there already.
template <class Watcher, class... Arguments>
Kiv::Ptr<Watcher> watch(const Kiv::Ptr<const typename Watcher::Notifier>& entity,
                        Arguments&&... arguments) {
  auto watcher = Kiv::make<Watcher>(std::forward<Arguments>(arguments)...);
  watcher->notifierIs(entity);
  watcher->isRegisteredNotifieeIs(true);
  watcher->hasNotificationActiveIs(true);
  watcher->readAll();
  return watcher;
}

// Synchronises the watcher of one key with the collection: `entity` is the member now, or null.
template <class Watchers, class Key, class Entity, class... Arguments>
void follow(Watchers& watchers, const Key& key, const Entity* entity, Arguments&&... arguments) {
  using Watcher = typename Watchers::mapped_type::element_type;
  const auto at = watchers.find(key);
  const bool known = at != watchers.end();
  if (known && at->second->notifier() == entity) return;
  if (known) watchers.erase(at);
  if (entity == nullptr) return;
  watchers[key] = watch<Watcher>(Kiv::Ptr(entity), std::forward<Arguments>(arguments)...);
}

// One VLAN of a host.
class VlanWatcher final : public VlanReferences::NotifieeConst {
 public:
  explicit VlanWatcher(Kiv::Name host) : host_(std::move(host)) {}
  ~VlanWatcher() override { std::cout << host_ << ": remove VLAN " << vlan_ << '\n'; }

  void readAll() {
    vlan_ = notifier()->vlan();
    std::cout << host_ << ": add VLAN " << vlan_ << '\n';
    for (const auto& mapping : notifier()->mappedVni()) onMappedVni(mapping->vni());
  }
  void onMappedVni(Kiv::U32 vni) override {
    const bool mapped = notifier()->mappedVni().contains(vni);
    std::cout << host_ << (mapped ? ": map VLAN " : ": unmap VLAN ") << vlan_
              << (mapped ? " to VNI " : " from VNI ") << vni << '\n';
  }

 private:
  Kiv::Name host_;
  Kiv::U32 vlan_ = 0;
};

// One host. An entity that was removed and added again between two turns of the loop is another one
// with the same key, and causes one notification; follow() recognises it by its address.
class HostWatcher final : public ResourcesForHostname::NotifieeConst {
 public:
  void readAll() {
    for (const auto& vlan : notifier()->vlan()) onVlan(vlan->vlan());
  }
  void onVlan(Kiv::U32 vlan) override {
    follow(vlans_, vlan, notifier()->vlan()[vlan], notifier()->host());
  }

 private:
  std::map<Kiv::U32, Kiv::Ptr<VlanWatcher>> vlans_;
};

// All hosts.
class HostsWatcher final : public RequestedResourcesCollection::NotifieeConst {
 public:
  void readAll() {
    for (const auto& host : notifier()->resourcesForHostname())
      onResourcesForHostname(host->host());
  }
  void onResourcesForHostname(const Kiv::Name& host) override {
    follow(hosts_, host, notifier()->resourcesForHostname()[host]);
  }

 private:
  std::map<Kiv::Name, Kiv::Ptr<HostWatcher>> hosts_;
};

}  // namespace

int main() {
  Kiv::ActivityManager loop;
  Kiv::VirtualTime time;
  Kiv::System::timeSourceIs(&time);
  const auto cloud = Kiv::make<OpenStack::OpenStackConfig>();
  const auto resources = Kiv::make<RequestedResourcesCollection>();
  auto machines = OpenStack::openStackSmFactory(
      cloud, Kiv::make<OpenStack::OpenStackStatus>(),
      Kiv::make<OpenStack::NameResolution::Config>(),
      Kiv::make<OpenStack::NameResolution::Status>(), resources, 60, Kiv::make<OpenStack::Config>(),
      Kiv::make<VirtualNetwork::NetworkElementCollection>());
  const auto watcher = watch<HostsWatcher>(resources);

  // A port on a host: a VXLAN segment above a VLAN segment.
  const auto region = cloud->regionIs("RegionOne");
  const auto vxlan = region->segmentIs("seg-top");
  vxlan->segmentationTypeIs(OpenStack::SegmentationType::vxlan);
  vxlan->segmentationIdIs(10001);
  const auto vlan = region->segmentIs("seg-rack");
  vlan->segmentationTypeIs(OpenStack::SegmentationType::vlan);
  vlan->segmentationIdIs(100);
  const auto binding = Kiv::make<OpenStack::PortBinding>("p1");
  binding->portIs(region->portIs("p1"));
  const auto onHost = binding->portToHostBindingIs("compute-1");
  onHost->segmentIs(0, vxlan);
  onHost->segmentIs(1, vlan);
  region->portBindingIs(binding);
  loop.run();

  // The port goes.
  region->portBindingDel("p1");
  loop.run();

  machines = nullptr;
  Kiv::System::timeSourceIs(nullptr);
}
