#include "tests/sim/library/foreign_notifiees.h"

#include <algorithm>

namespace sim {
namespace {

constexpr std::size_t kMaximum = 60;

// What all of them have: each notification is passed on to the owner.
template <class Notifiee>
class Watcher : public Notifiee {
 public:
  explicit Watcher(ForeignNotifiees& foreign) : foreign_(foreign) {}

 protected:
  void notified(bool immediate) { foreign_.notified(*this, immediate); }

 private:
  ForeignNotifiees& foreign_;
};

class OfCloud final : public Watcher<OpenStack::OpenStackConfig::NotifieeConst> {
 public:
  using Watcher::Watcher;
  void onRegion(const Kiv::Name&) override { notified(false); }
  void onRegionkivImmediate() override { notified(true); }
};

class OfConfig final : public Watcher<OpenStack::Config::NotifieeConst> {
 public:
  using Watcher::Watcher;
  void onVlanAssignment(const Kiv::Name&) override { notified(false); }
  void onVlanAssignmentkivImmediate() override { notified(true); }
  void onVlanTypeDriver() override { notified(false); }
};

class OfRegion final : public Watcher<OpenStack::Region::NotifieeConst> {
 public:
  using Watcher::Watcher;
  void onSegment(const Kiv::String&) override { notified(false); }
  void onSegmentkivImmediate() override { notified(true); }
  void onPortBinding(const Kiv::String&) override { notified(false); }
  void onPortBindingkivImmediate() override { notified(true); }
  void onSyncStatus() override { notified(false); }
};

class OfPortBinding final : public Watcher<OpenStack::PortBinding::NotifieeConst> {
 public:
  using Watcher::Watcher;
  void onPortToHostBinding(const Kiv::Name&) override { notified(false); }
  void onPortToHostBindingkivImmediate() override { notified(true); }
  void onPortToSwitchInterfaceBinding(const VirtualNetwork::SwitchInterface&) override {
    notified(false);
  }
  void onPortToSwitchInterfaceBindingkivImmediate() override { notified(true); }
};

class OfStatus final : public Watcher<OpenStack::RegionStatus::NotifieeConst> {
 public:
  using Watcher::Watcher;
  void onSyncStatus() override { notified(false); }
  void onOwner() override { notified(false); }
  void onVlanAssignmentUuid() override { notified(false); }
};

class OfPool final : public Watcher<OpenStack::VlanPool::NotifieeConst> {
 public:
  using Watcher::Watcher;
  void onAvailableVlan(Kiv::U16) override { notified(false); }
  void onAvailableVlankivImmediate() override { notified(true); }
  void onAllocatedVlankivImmediate() override { notified(true); }
};

class OfResources final
    : public Watcher<VirtualNetwork::RequestedResourcesCollection::NotifieeConst> {
 public:
  using Watcher::Watcher;
  void onResourcesForHostname(const Kiv::Name&) override { notified(false); }
  void onResourcesForHostnamekivImmediate() override { notified(true); }
  void onResourcesForSwitchport(const VirtualNetwork::SwitchInterface&) override {
    notified(false);
  }
  void onResourcesForSwitchportkivImmediate() override { notified(true); }
};

class OfHost final : public Watcher<VirtualNetwork::ResourcesForHostname::NotifieeConst> {
 public:
  using Watcher::Watcher;
  void onVlan(Kiv::U32) override { notified(false); }
  void onVlankivImmediate() override { notified(true); }
  void onDomainkivImmediate() override { notified(true); }
};

class OfSwitchPort final : public Watcher<VirtualNetwork::ResourcesForSwitchport::NotifieeConst> {
 public:
  using Watcher::Watcher;
  void onVlankivImmediate() override { notified(true); }
  void onNativeVlan() override { notified(false); }
  void onReferrerkivImmediate() override { notified(true); }
};

class OfVlan final : public Watcher<VirtualNetwork::VlanReferences::NotifieeConst> {
 public:
  using Watcher::Watcher;
  void onReferrer(const Kiv::String&) override { notified(false); }
  void onReferrerkivImmediate() override { notified(true); }
  void onMappedVnikivImmediate() override { notified(true); }
};

class OfElement final : public Watcher<VirtualNetwork::NetworkElement::NotifieeConst> {
 public:
  using Watcher::Watcher;
  void onReferrerkivImmediate() override { notified(true); }
  void onPhysicalInterfacekivImmediate() override { notified(true); }
  void onDomainkivImmediate() override { notified(true); }
};

class OfInterface final : public Watcher<VirtualNetwork::PhysicalInterface::NotifieeConst> {
 public:
  using Watcher::Watcher;
  void onVlankivImmediate() override { notified(true); }
  void onConfiguredElementkivImmediate() override { notified(true); }
};

}  // namespace

template <class W, class E>
void ForeignNotifiees::send(const E& entity) {
  if (below(3) != 0 || watchers_.size() >= kMaximum) return;
  const auto watcher = Kiv::make<W>(*this);
  watchers_.push_back(watcher);
  watcher->notifierIs(Kiv::Ptr<const E>(&entity));
  watcher->isRegisteredNotifieeIs(true);
  watcher->hasNotificationActiveIs(true);
}

void ForeignNotifiees::visit(const OpenStack::Config& config,
                             const OpenStack::OpenStackConfig& cloud,
                             const OpenStack::OpenStackStatus& status,
                             const VirtualNetwork::RequestedResourcesCollection& resources,
                             const VirtualNetwork::NetworkElementCollection& elements) {
  if (below(8) == 0) leave();
  send<OfConfig>(config);
  send<OfCloud>(cloud);
  send<OfResources>(resources);
  for (const auto& region : cloud.region()) {
    send<OfRegion>(*region);
    for (const auto& binding : region->portBinding()) send<OfPortBinding>(*binding);
  }
  for (const auto& region : status.regionStatus()) {
    send<OfStatus>(*region);
    if (region->vlanPool()) send<OfPool>(*region->vlanPool());
  }
  for (const auto& host : resources.resourcesForHostname()) {
    send<OfHost>(*host);
    for (const auto& vlan : host->vlan()) send<OfVlan>(*vlan);
  }
  for (const auto& port : resources.resourcesForSwitchport()) {
    send<OfSwitchPort>(*port);
    for (const auto& vlan : port->vlan()) send<OfVlan>(*vlan);
  }
  for (const auto& element : elements.networkElement()) {
    send<OfElement>(*element);
    for (const auto& interface : element->physicalInterface()) send<OfInterface>(*interface);
  }
}

void ForeignNotifiees::notified(Kiv::NotifieeBase& watcher, bool immediate) {
  if (interferes_ > 0 && immediate == interferesInside_ && --interferes_ == 0) {
    interfered_ = true;
    interfere_();
  }
  const Kiv::Ptr<Kiv::NotifieeBase> hold(&watcher);
  const Kiv::Ptr<Kiv::NotifieeBase> other =
      watchers_.empty()
          ? hold
          : watchers_[static_cast<std::size_t>(below(static_cast<int>(watchers_.size())))];
  switch (below(12)) {
    case 0:
      watcher.isRegisteredNotifieeIs(false);
      break;
    case 1:
      other->isRegisteredNotifieeIs(false);
      break;
    case 2:
      // Registered again, at the end of its list.
      other->isRegisteredNotifieeIs(false);
      other->isRegisteredNotifieeIs(true);
      break;
    case 3:
      other->hasNotificationActiveIs(!other->hasNotificationActive());
      break;
    case 4:
      other->notifierIs(nullptr);
      break;
    case 5:
      std::erase(watchers_, hold);
      break;
    case 6:
      std::erase(watchers_, other);
      break;
    case 7:
      watcher.notifierIs(nullptr);
      std::erase(watchers_, hold);
      break;
    default:
      break;
  }
  if (throws_ > 0 && --throws_ == 0) {
    threw_ = true;
    throw ForeignError();
  }
}

}  // namespace sim
