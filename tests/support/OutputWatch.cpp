#include "tests/support/OutputWatch.h"

#include <map>
#include <sstream>
#include <utility>

namespace {

using Kiv::Ptr;

template <class T>
std::string text(const T& value) {
  std::ostringstream out;
  out << value;
  return std::move(out).str();
}

}  // namespace

class OutputWatch::Tree {
 public:
  explicit Tree(OutputWatch& watch) : owner(watch) {}

  OutputWatch& owner;
  std::vector<std::string> told;
  int changes = 0;
  std::map<const void*, Ptr<Kiv::NotifieeBase>> watches;

  void changed(const std::string& path) {
    ++changes;
    if (owner.immediate) owner.immediate(path);
  }
  template <class Collection, class Key>
  void tell(const std::string& path, const Collection& collection, const Key& key) {
    told.push_back(path + " " + text(key) + (collection.contains(key) ? "" : " gone"));
  }
  template <class T>
  void tellValue(const std::string& path, const T& value) {
    told.push_back(path + " " + text(value));
  }

  // Watches an entity, from now on.
  template <class W, class E>
  void watch(const Ptr<E>& entity, const std::string& path) {
    if (!entity || watches.contains(entity.get())) return;
    const Ptr<W> made = Kiv::make<W>(*this, path);
    watches.emplace(entity.get(), made);
    made->notifierIs(entity);
    made->isRegisteredNotifieeIs(true);
    made->hasNotificationActiveIs(true);
    made->join();
  }
  // Watches the members of a collection that are not yet watched.
  template <class W, class Collection>
  void watchAll(const Collection& collection, const std::string& path) {
    for (const auto& member : collection) watch<W>(member, path + " " + text(member->fwkKey()));
  }
};

namespace {

using Tree = OutputWatch::Tree;

// What every watch keeps. join() looks at what its entity holds already.
template <class Notifiee>
class Watch : public Notifiee {
 public:
  Watch(Tree& tree, std::string path) : tree_(tree), path_(std::move(path)) {}
  virtual void join() {}

 protected:
  // The attribute of this name has changed, now.
  void changed(const char* attribute) { tree_.changed(path_ + " " + attribute); }
  // It has changed; told by the loop.
  template <class Collection, class Key>
  void tell(const char* attribute, const Collection& collection, const Key& key) {
    tree_.tell(path_ + " " + attribute, collection, key);
  }
  template <class T>
  void tellValue(const char* attribute, const T& value) {
    tree_.tellValue(path_ + " " + attribute, value);
  }

  Tree& tree_;
  std::string path_;
};

class VniWatch final : public Watch<VirtualNetwork::VniReferences::NotifieeConst> {
 public:
  using Watch::Watch;
  void onReferrer(const Kiv::String& id) override { tell("for", notifier()->referrer(), id); }
  void onReferrerkivImmediate() override { changed("for"); }
};

class VlanWatch final : public Watch<VirtualNetwork::VlanReferences::NotifieeConst> {
 public:
  using Watch::Watch;
  void join() override {
    for (const auto& vni : notifier()->mappedVni()) {
      tree_.watch<VniWatch>(vni, path_ + " vni " + text(vni->vni()));
    }
  }
  void onReferrer(const Kiv::String& id) override { tell("for", notifier()->referrer(), id); }
  void onReferrerkivImmediate() override { changed("for"); }
  void onMappedVni(Kiv::U32 vni) override { tell("vni", notifier()->mappedVni(), vni); }
  void onMappedVnikivImmediate() override {
    join();
    changed("vni");
  }
};

class DomainWatch final : public Watch<VirtualNetwork::DomainReferences::NotifieeConst> {
 public:
  using Watch::Watch;
  void onReferrer(const Kiv::Name& id) override { tell("for", notifier()->referrer(), id); }
  void onReferrerkivImmediate() override { changed("for"); }
};

// Of what has VLANs: hosts, elements, switch ports, interfaces.
template <class Notifiee>
class VlansWatch : public Watch<Notifiee> {
 public:
  using Watch<Notifiee>::Watch;
  void join() override {
    for (const auto& vlan : this->notifier()->vlan()) {
      this->tree_.template watch<VlanWatch>(vlan, this->path_ + " vlan " + text(vlan->vlan()));
    }
  }
  void onVlan(Kiv::U32 vlan) override { this->tell("vlan", this->notifier()->vlan(), vlan); }
  void onVlankivImmediate() override {
    join();
    this->changed("vlan");
  }
};

template <class Notifiee>
class HostWatch : public VlansWatch<Notifiee> {
 public:
  using VlansWatch<Notifiee>::VlansWatch;
  void join() override {
    VlansWatch<Notifiee>::join();
    for (const auto& domain : this->notifier()->domain()) {
      this->tree_.template watch<DomainWatch>(domain,
                                              this->path_ + " domain " + text(domain->name()));
    }
  }
  void onDomain(const Kiv::Name& region) override {
    this->tell("domain", this->notifier()->domain(), region);
  }
  void onDomainkivImmediate() override {
    join();
    this->changed("domain");
  }
};

using ResourcesForHostnameWatch = HostWatch<VirtualNetwork::ResourcesForHostname::NotifieeConst>;

class PortWatch final : public VlansWatch<VirtualNetwork::ResourcesForSwitchport::NotifieeConst> {
 public:
  using VlansWatch::VlansWatch;
  void onNativeVlan() override { tellValue("native", notifier()->nativeVlan()); }
  void onRemoteHost(const Kiv::String& host) override {
    tell("remote", notifier()->remoteHost(), host);
  }
  void onRemoteHostkivImmediate() override { changed("remote"); }
  void onReferrer(const Kiv::String& id) override { tell("for", notifier()->referrer(), id); }
  void onReferrerkivImmediate() override { changed("for"); }
};

class InterfaceWatch final : public VlansWatch<VirtualNetwork::PhysicalInterface::NotifieeConst> {
 public:
  using VlansWatch::VlansWatch;
  void onNativeVlan() override { tellValue("native", notifier()->nativeVlan()); }
  void onConfiguredElement(const Kiv::Name& name) override {
    tell("configured", notifier()->configuredElement(), name);
  }
  void onConfiguredElementkivImmediate() override { changed("configured"); }
};

class ElementWatch final : public HostWatch<VirtualNetwork::NetworkElement::NotifieeConst> {
 public:
  using HostWatch::HostWatch;
  void join() override {
    HostWatch::join();
    for (const auto& interface : notifier()->physicalInterface()) {
      tree_.watch<InterfaceWatch>(interface, path_ + " interface " + text(interface->name()));
    }
  }
  void onHostname() override { tellValue("hostname", notifier()->hostname()); }
  void onPhysicalInterface(const Kiv::String& name) override {
    tell("interface", notifier()->physicalInterface(), name);
  }
  void onPhysicalInterfacekivImmediate() override {
    join();
    changed("interface");
  }
  void onReferrer(const Kiv::Name& id) override { tell("for", notifier()->referrer(), id); }
  void onReferrerkivImmediate() override { changed("for"); }
};

class ResourcesWatch final
    : public Watch<VirtualNetwork::RequestedResourcesCollection::NotifieeConst> {
 public:
  using Watch::Watch;
  void join() override {
    tree_.watchAll<ResourcesForHostnameWatch>(notifier()->resourcesForHostname(), "host");
    tree_.watchAll<PortWatch>(notifier()->resourcesForSwitchport(), "port");
  }
  void onResourcesForHostname(const Kiv::Name& host) override {
    tree_.tell("host", notifier()->resourcesForHostname(), host);
  }
  void onResourcesForHostnamekivImmediate() override {
    join();
    tree_.changed("host");
  }
  void onResourcesForSwitchport(const VirtualNetwork::SwitchInterface& si) override {
    tree_.tell("port", notifier()->resourcesForSwitchport(), si);
  }
  void onResourcesForSwitchportkivImmediate() override {
    join();
    tree_.changed("port");
  }
};

class ElementsWatch final : public Watch<VirtualNetwork::NetworkElementCollection::NotifieeConst> {
 public:
  using Watch::Watch;
  void join() override { tree_.watchAll<ElementWatch>(notifier()->networkElement(), "element"); }
  void onNetworkElement(const Kiv::Name& name) override {
    tree_.tell("element", notifier()->networkElement(), name);
  }
  void onNetworkElementkivImmediate() override {
    join();
    tree_.changed("element");
  }
};

class PoolWatch final : public Watch<OpenStack::VlanPool::NotifieeConst> {
 public:
  using Watch::Watch;
  void onAssignedVlan(Kiv::U16 vlan) override {
    tell("assigned", notifier()->assignedVlan(), vlan);
  }
  void onAssignedVlankivImmediate() override { changed("assigned"); }
  void onAllocatedVlan(Kiv::U16 vlan) override {
    tell("allocated", notifier()->allocatedVlan(), vlan);
  }
  void onAllocatedVlankivImmediate() override { changed("allocated"); }
  void onAvailableVlan(Kiv::U16 vlan) override {
    tell("available", notifier()->availableVlan(), vlan);
  }
  void onAvailableVlankivImmediate() override { changed("available"); }
};

class RegionWatch final : public Watch<OpenStack::RegionStatus::NotifieeConst> {
 public:
  using Watch::Watch;
  void join() override {
    // The status is not changed by looking at its pool.
    const auto pool = const_cast<OpenStack::RegionStatus*>(notifier())->vlanPool();
    tree_.watch<PoolWatch>(pool, path_ + " pool");
  }
  void onSyncStatus() override { tellValue("sync", notifier()->syncStatus()); }
  void onOldSyncStatus() override { tellValue("old", notifier()->oldSyncStatus()); }
  void onOwner() override { tellValue("owner", notifier()->owner()); }
  void onRequestId() override { tellValue("request", notifier()->requestId()); }
  void onVlanPool() override {
    tree_.told.push_back(path_ + " pool");
    join();
  }
  void onVlanAssignmentUuid() override { tree_.told.push_back(path_ + " uuid"); }
};

class StatusWatch final : public Watch<OpenStack::OpenStackStatus::NotifieeConst> {
 public:
  using Watch::Watch;
  void join() override { tree_.watchAll<RegionWatch>(notifier()->regionStatus(), "status"); }
  void onRegionStatus(const Kiv::Name& name) override {
    tree_.tell("status", notifier()->regionStatus(), name);
  }
  void onRegionStatuskivImmediate() override {
    join();
    tree_.changed("status");
  }
};

}  // namespace

OutputWatch::OutputWatch(const Kiv::Ptr<OpenStack::OpenStackStatus>& status,
                         const Kiv::Ptr<VirtualNetwork::RequestedResourcesCollection>& resources,
                         const Kiv::Ptr<VirtualNetwork::NetworkElementCollection>& elements)
    : tree_(std::make_unique<Tree>(*this)) {
  tree_->watch<StatusWatch>(status, "");
  tree_->watch<ResourcesWatch>(resources, "");
  tree_->watch<ElementsWatch>(elements, "");
}

OutputWatch::~OutputWatch() {
  for (const auto& [entity, watch] : tree_->watches) {
    watch->isRegisteredNotifieeIs(false);
    watch->notifierIs(nullptr);
  }
}

std::vector<std::string> OutputWatch::take() {
  return std::exchange(tree_->told, {});
}

int OutputWatch::changes() const {
  return tree_->changes;
}
