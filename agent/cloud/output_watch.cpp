#include "agent/cloud/output_watch.h"

#include <map>
#include <utility>

#include "agent/cloud/detail/watched.h"

namespace vnagent {
namespace {

using detail::Holder;
using detail::Search;
using detail::WatchedMembers;
using detail::WatchedScalar;
using detail::WatchedSet;
using detail::Watcher;

// An entity that has referrers and nothing else.
template <class E, class K, class O>
class ReferrersWatcher final : public Watcher<ReferrersWatcher<E, K, O>, E, O> {
 public:
  using Watcher<ReferrersWatcher, E, O>::Watcher;

  void onReferrer(const K& referrer) override {
    referrer_.note(referrer);
    this->noted();
  }

  template <class Visit>
  void visit(const E& now, Visit visit) {
    visit(referrer_, now.referrer(), &O::referrer);
  }

 private:
  WatchedSet<K> referrer_;
};
using VniWatcher = ReferrersWatcher<VirtualNetwork::VniReferences, Kiv::String, VniOutput>;
using DomainWatcher = ReferrersWatcher<VirtualNetwork::DomainReferences, Kiv::Name, DomainOutput>;

class VlanWatcher final : public Watcher<VlanWatcher, VirtualNetwork::VlanReferences, VlanOutput> {
 public:
  using Watcher::Watcher;

  void onReferrer(const Kiv::String& portId) override {
    referrer_.note(portId);
    noted();
  }
  void onMappedVni(Kiv::U32 vni) override { mappedVni_.note(vni); }

  template <class Visit>
  void visit(const Notifier& now, Visit visit) {
    visit(referrer_, now.referrer(), &VlanOutput::referrer);
    visit(mappedVni_, now.mappedVni(), &VlanOutput::mappedVni);
  }

 private:
  WatchedSet<Kiv::String> referrer_;
  WatchedMembers<VniWatcher> mappedVni_{*this};
};

class HostWatcher final
    : public Watcher<HostWatcher, VirtualNetwork::ResourcesForHostname, HostOutput> {
 public:
  using Watcher::Watcher;

  void onDomain(const Kiv::Name& region) override { domain_.note(region); }
  void onVlan(Kiv::U32 vlan) override { vlan_.note(vlan); }

  template <class Visit>
  void visit(const Notifier& now, Visit visit) {
    visit(domain_, now.domain(), &HostOutput::domain);
    visit(vlan_, now.vlan(), &HostOutput::vlan);
  }

 private:
  WatchedMembers<DomainWatcher> domain_{*this};
  WatchedMembers<VlanWatcher> vlan_{*this};
};

class SwitchportWatcher final
    : public Watcher<SwitchportWatcher, VirtualNetwork::ResourcesForSwitchport, SwitchportOutput> {
 public:
  using Watcher::Watcher;

  void onVlan(Kiv::U32 vlan) override { vlan_.note(vlan); }
  void onNativeVlan() override { noted(); }
  void onRemoteHost(const Kiv::String& host) override {
    remoteHost_.note(host);
    noted();
  }
  void onReferrer(const Kiv::String& referrer) override {
    referrer_.note(referrer);
    noted();
  }

  template <class Visit>
  void visit(const Notifier& now, Visit visit) {
    visit(vlan_, now.vlan(), &SwitchportOutput::vlan);
    visit(nativeVlan_, now.nativeVlan(), &SwitchportOutput::nativeVlan);
    visit(remoteHost_, now.remoteHost(), &SwitchportOutput::remoteHost);
    visit(referrer_, now.referrer(), &SwitchportOutput::referrer);
  }

 private:
  WatchedMembers<VlanWatcher> vlan_{*this};
  WatchedScalar<Kiv::U32> nativeVlan_;
  WatchedSet<Kiv::String> remoteHost_;
  WatchedSet<Kiv::String> referrer_;
};

class PhysicalInterfaceWatcher final
    : public Watcher<PhysicalInterfaceWatcher, VirtualNetwork::PhysicalInterface,
                     PhysicalInterfaceOutput> {
 public:
  using Watcher::Watcher;

  void onVlan(Kiv::U32 vlan) override { vlan_.note(vlan); }
  void onNativeVlan() override { noted(); }
  void onConfiguredElement(const Kiv::Name& element) override {
    configuredElement_.note(element);
    noted();
  }

  template <class Visit>
  void visit(const Notifier& now, Visit visit) {
    visit(vlan_, now.vlan(), &PhysicalInterfaceOutput::vlan);
    visit(nativeVlan_, now.nativeVlan(), &PhysicalInterfaceOutput::nativeVlan);
    visit(configuredElement_, now.configuredElement(), &PhysicalInterfaceOutput::configuredElement);
  }

 private:
  WatchedMembers<VlanWatcher> vlan_{*this};
  WatchedScalar<Kiv::U32> nativeVlan_;
  WatchedSet<Kiv::Name> configuredElement_;
};

class NetworkElementWatcher final
    : public Watcher<NetworkElementWatcher, VirtualNetwork::NetworkElement, NetworkElementOutput> {
 public:
  using Watcher::Watcher;

  void onHostname() override { noted(); }
  void onReferrer(const Kiv::Name& referrer) override {
    referrer_.note(referrer);
    noted();
  }
  void onDomain(const Kiv::Name& region) override { domain_.note(region); }
  void onVlan(Kiv::U32 vlan) override { vlan_.note(vlan); }
  void onPhysicalInterface(const Kiv::String& name) override { physicalInterface_.note(name); }

  template <class Visit>
  void visit(const Notifier& now, Visit visit) {
    visit(hostname_, now.hostname(), &NetworkElementOutput::hostname);
    visit(referrer_, now.referrer(), &NetworkElementOutput::referrer);
    visit(domain_, now.domain(), &NetworkElementOutput::domain);
    visit(vlan_, now.vlan(), &NetworkElementOutput::vlan);
    visit(physicalInterface_, now.physicalInterface(), &NetworkElementOutput::physicalInterface);
  }

 private:
  WatchedScalar<Kiv::String> hostname_;
  WatchedSet<Kiv::Name> referrer_;
  WatchedMembers<DomainWatcher> domain_{*this};
  WatchedMembers<VlanWatcher> vlan_{*this};
  WatchedMembers<PhysicalInterfaceWatcher> physicalInterface_{*this};
};

// The VLAN pool of a region; it can be replaced. Without one its sets are published as empty.
class WatchedPool {
 public:
  explicit WatchedPool(Holder& region) : region_(region) {}

  void start(const OpenStack::VlanPool* pool) {
    connect(pool);
    assigned_.start(assigned());
    available_.start(available());
    allocated_.start(allocated());
  }
  void noteAll(const OpenStack::VlanPool* pool) {
    connect(pool);
    assigned_.noteAll(assigned());
    available_.noteAll(available());
    allocated_.noteAll(allocated());
  }
  VlanPoolOutput published(Search& search) const {
    return {assigned_.published(search), available_.published(search),
            allocated_.published(search)};
  }
  std::optional<VlanPoolOutput> change(const OpenStack::VlanPool* pool, Search& search,
                                       std::optional<VlanPoolOutput>& before) {
    if (pool != notifiee_->notifier()) noteAll(pool);
    VlanPoolOutput back;
    VlanPoolOutput output{assigned_.change(assigned(), search, back.assignedVlan),
                          available_.change(available(), search, back.availableVlan),
                          allocated_.change(allocated(), search, back.allocatedVlan)};
    if (!output.assignedVlan && !output.availableVlan && !output.allocatedVlan) return std::nullopt;
    if (search.back) before = std::move(back);
    return output;
  }

 private:
  using Vlans = Kiv::HashMap2018<Kiv::U16>;

  class Notifiee final : public OpenStack::VlanPool::NotifieeConst {
   public:
    explicit Notifiee(WatchedPool& pool) : pool_(pool) {}
    void onAssignedVlan(Kiv::U16 vlan) override { note(pool_.assigned_, vlan); }
    void onAvailableVlan(Kiv::U16 vlan) override { note(pool_.available_, vlan); }
    void onAllocatedVlan(Kiv::U16 vlan) override { note(pool_.allocated_, vlan); }

   private:
    void note(WatchedSet<Kiv::U16>& set, Kiv::U16 vlan) {
      set.note(vlan);
      pool_.region_.noted();
    }

    WatchedPool& pool_;
  };

  void connect(const OpenStack::VlanPool* pool) {
    notifiee_->notifierIs(Kiv::Ptr(pool));
    notifiee_->isRegisteredNotifieeIs(true);
    notifiee_->hasNotificationActiveIs(true);
  }
  static const Vlans& none() {
    static const Vlans vlans{};
    return vlans;
  }
  const Vlans& assigned() const {
    return notifiee_->notifier() ? notifiee_->notifier()->assignedVlan() : none();
  }
  const Vlans& available() const {
    return notifiee_->notifier() ? notifiee_->notifier()->availableVlan() : none();
  }
  const Vlans& allocated() const {
    return notifiee_->notifier() ? notifiee_->notifier()->allocatedVlan() : none();
  }

  Holder& region_;
  Kiv::Ptr<Notifiee> notifiee_ = Kiv::make<Notifiee>(*this);
  WatchedSet<Kiv::U16> assigned_;
  WatchedSet<Kiv::U16> available_;
  WatchedSet<Kiv::U16> allocated_;
};

class RegionWatcher final : public Watcher<RegionWatcher, OpenStack::RegionStatus, RegionOutput> {
 public:
  using Watcher::Watcher;

  void onSyncStatus() override { noted(); }
  void onOldSyncStatus() override { noted(); }
  void onOwner() override { noted(); }
  void onRequestId() override { noted(); }
  void onVlanPool() override { noted(); }
  void onVlanAssignmentUuid() override { noted(); }

  template <class Visit>
  void visit(const Notifier& now, Visit visit) {
    visit(syncStatus_, now.syncStatus(), &RegionOutput::syncStatus);
    visit(oldSyncStatus_, now.oldSyncStatus(), &RegionOutput::oldSyncStatus);
    visit(owner_, now.owner(), &RegionOutput::owner);
    visit(requestId_, now.requestId(), &RegionOutput::requestId);
    visit(vlanAssignmentUuid_, now.vlanAssignmentUuid(), &RegionOutput::vlanAssignmentUuid);
    visit(vlanPool_, now.vlanPool().get(), &RegionOutput::vlanPool);
  }

 private:
  WatchedScalar<OpenStack::SyncStatus> syncStatus_;
  WatchedScalar<OpenStack::SyncStatus> oldSyncStatus_;
  WatchedScalar<Kiv::String> owner_;
  WatchedScalar<Kiv::String> requestId_;
  WatchedScalar<Kiv::String> vlanAssignmentUuid_;
  WatchedPool vlanPool_{*this};
};

// Notifiees on the three entities at the top.

class StatusWatcher final : public OpenStack::OpenStackStatus::NotifieeConst {
 public:
  explicit StatusWatcher(WatchedMembers<RegionWatcher>& regions) : regions_(regions) {}
  void onRegionStatus(const Kiv::Name& name) override { regions_.note(name); }

 private:
  WatchedMembers<RegionWatcher>& regions_;
};

class ResourcesWatcher final : public VirtualNetwork::RequestedResourcesCollection::NotifieeConst {
 public:
  ResourcesWatcher(WatchedMembers<HostWatcher>& hosts, WatchedMembers<SwitchportWatcher>& ports)
      : hosts_(hosts), ports_(ports) {}
  void onResourcesForHostname(const Kiv::Name& host) override { hosts_.note(host); }
  void onResourcesForSwitchport(const VirtualNetwork::SwitchInterface& port) override {
    ports_.note(port);
  }

 private:
  WatchedMembers<HostWatcher>& hosts_;
  WatchedMembers<SwitchportWatcher>& ports_;
};

class ElementsWatcher final : public VirtualNetwork::NetworkElementCollection::NotifieeConst {
 public:
  explicit ElementsWatcher(WatchedMembers<NetworkElementWatcher>& elements) : elements_(elements) {}
  void onNetworkElement(const Kiv::Name& name) override { elements_.note(name); }

 private:
  WatchedMembers<NetworkElementWatcher>& elements_;
};

template <class Notifiee, class Entity, class... Arguments>
Kiv::Ptr<Notifiee> connected(const Kiv::Ptr<Entity>& entity, Arguments&... arguments) {
  auto notifiee = Kiv::make<Notifiee>(arguments...);
  notifiee->notifierIs(entity);
  notifiee->isRegisteredNotifieeIs(true);
  notifiee->hasNotificationActiveIs(true);
  return notifiee;
}

}  // namespace

class OutputWatch::Impl final : private Holder {
 public:
  Impl(const Kiv::Ptr<const OpenStack::OpenStackStatus>& status,
       const Kiv::Ptr<const VirtualNetwork::RequestedResourcesCollection>& resources,
       const Kiv::Ptr<const VirtualNetwork::NetworkElementCollection>& elements)
      : status_(connected<StatusWatcher>(status, regionStatus_)),
        resources_(connected<ResourcesWatcher>(resources, hosts_, ports_)),
        elements_(connected<ElementsWatcher>(elements, networkElement_)) {
    regionStatus_.start(status->regionStatus());
    hosts_.start(resources->resourcesForHostname());
    ports_.start(resources->resourcesForSwitchport());
    networkElement_.start(elements->networkElement());
    for (const auto& port : resources->resourcesForSwitchport()) ++portsOf(port->fwkKey());
  }

  OutputDocument change(OutputDocument* back) {
    search_ = {};
    search_.back = back != nullptr;
    OutputDocument document;
    OutputDocument before;
    document.regionStatus =
        regionStatus_.change(status_->notifier()->regionStatus(), search_, before.regionStatus);
    RequestedResourcesOutput backResources;
    RequestedResourcesOutput resources{hosts_.change(resources_->notifier()->resourcesForHostname(),
                                                     search_, backResources.resourcesForHostname),
                                       switchesChange(backResources.resourcesForSwitchport)};
    if (resources.resourcesForHostname || resources.resourcesForSwitchport) {
      document.requestedResources = std::move(resources);
      before.requestedResources = std::move(backResources);
    }
    document.networkElement = networkElement_.change(elements_->notifier()->networkElement(),
                                                     search_, before.networkElement);
    if (back != nullptr) *back = std::move(before);
    return document;
  }

  size_t keysCompared() const { return search_.keys; }

 private:
  void noted() override {}

  size_t& portsOf(const VirtualNetwork::SwitchInterface& port) {
    return portCount_[port.switchIdentifier()];
  }

  std::optional<std::vector<SwitchOutput>> switchesChange(
      std::optional<std::vector<SwitchOutput>>& before) {
    std::optional<std::vector<SwitchportOutput>> portsBefore;
    auto ports = ports_.change(
        resources_->notifier()->resourcesForSwitchport(), search_, portsBefore,
        [&](const VirtualNetwork::ResourcesForSwitchport& port) { ++portsOf(port.fwkKey()); },
        [&](const VirtualNetwork::ResourcesForSwitchport& port) { --portsOf(port.fwkKey()); });
    if (!ports) return std::nullopt;
    std::vector<SwitchOutput> switches = bySwitch(std::move(*ports));
    if (portsBefore) {
      before = bySwitch(std::move(*portsBefore));
      // A switch that has only ports that were added was not there before.
      for (SwitchOutput& of : *before) {
        const auto added = std::ranges::count(of.port, true, &SwitchportOutput::removed);
        of.removed = std::cmp_equal(added, of.port.size()) &&
                     std::cmp_equal(added, portCount_.at(Kiv::String(of.switchIdentifier)));
      }
    }
    for (SwitchOutput& of : switches) {
      const auto count = portCount_.find(Kiv::String(of.switchIdentifier));
      if (count->second > 0) continue;
      of.removed = true;
      portCount_.erase(count);
    }
    return switches;
  }

  WatchedMembers<RegionWatcher> regionStatus_{*this};
  WatchedMembers<HostWatcher> hosts_{*this};
  WatchedMembers<SwitchportWatcher> ports_{*this};
  WatchedMembers<NetworkElementWatcher> networkElement_{*this};
  // The number of published ports of each switch: the document has a switch while it has a port.
  std::map<Kiv::String, size_t> portCount_;
  Search search_;
  Kiv::Ptr<StatusWatcher> status_;
  Kiv::Ptr<ResourcesWatcher> resources_;
  Kiv::Ptr<ElementsWatcher> elements_;
};

OutputWatch::OutputWatch(
    const Kiv::Ptr<const OpenStack::OpenStackStatus>& status,
    const Kiv::Ptr<const VirtualNetwork::RequestedResourcesCollection>& resources,
    const Kiv::Ptr<const VirtualNetwork::NetworkElementCollection>& elements)
    : impl_(std::make_unique<Impl>(status, resources, elements)) {}

OutputWatch::~OutputWatch() = default;

OutputDocument OutputWatch::change(OutputDocument* before) {
  return impl_->change(before);
}

size_t OutputWatch::keysCompared() const {
  return impl_->keysCompared();
}

}  // namespace vnagent
