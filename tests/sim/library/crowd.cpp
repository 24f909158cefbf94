#include "tests/sim/library/crowd.h"

#include <algorithm>

namespace sim {
namespace {

constexpr std::size_t kMost = 60;

// What all watchers have: who is told when they are.
template <class Notifiee>
class Watcher : public Notifiee {
 public:
  explicit Watcher(Crowd& crowd) : crowd_(crowd) {}

 protected:
  void told() { crowd_.told(*this, false); }
  void toldAtOnce() { crowd_.told(*this, true); }

 private:
  Crowd& crowd_;
};

class OfCloud final : public Watcher<OpenStack::OpenStackConfig::NotifieeConst> {
 public:
  using Watcher::Watcher;
  void onRegion(const Kiv::Name&) override { told(); }
  void onRegionkivImmediate() override { toldAtOnce(); }
};

class OfConfig final : public Watcher<OpenStack::Config::NotifieeConst> {
 public:
  using Watcher::Watcher;
  void onVlanAssignment(const Kiv::Name&) override { told(); }
  void onVlanAssignmentkivImmediate() override { toldAtOnce(); }
  void onVlanTypeDriver() override { told(); }
};

class OfRegion final : public Watcher<OpenStack::Region::NotifieeConst> {
 public:
  using Watcher::Watcher;
  void onSegment(const Kiv::String&) override { told(); }
  void onSegmentkivImmediate() override { toldAtOnce(); }
  void onPortBinding(const Kiv::String&) override { told(); }
  void onPortBindingkivImmediate() override { toldAtOnce(); }
  void onSyncStatus() override { told(); }
};

class OfPortBinding final : public Watcher<OpenStack::PortBinding::NotifieeConst> {
 public:
  using Watcher::Watcher;
  void onPortToHostBinding(const Kiv::Name&) override { told(); }
  void onPortToHostBindingkivImmediate() override { toldAtOnce(); }
  void onPortToSwitchInterfaceBinding(const VirtualNetwork::SwitchInterface&) override { told(); }
  void onPortToSwitchInterfaceBindingkivImmediate() override { toldAtOnce(); }
};

class OfStatus final : public Watcher<OpenStack::RegionStatus::NotifieeConst> {
 public:
  using Watcher::Watcher;
  void onSyncStatus() override { told(); }
  void onOwner() override { told(); }
  void onVlanAssignmentUuid() override { told(); }
};

class OfPool final : public Watcher<OpenStack::VlanPool::NotifieeConst> {
 public:
  using Watcher::Watcher;
  void onAvailableVlan(Kiv::U16) override { told(); }
  void onAvailableVlankivImmediate() override { toldAtOnce(); }
  void onAllocatedVlankivImmediate() override { toldAtOnce(); }
};

class OfResources final
    : public Watcher<VirtualNetwork::RequestedResourcesCollection::NotifieeConst> {
 public:
  using Watcher::Watcher;
  void onResourcesForHostname(const Kiv::Name&) override { told(); }
  void onResourcesForHostnamekivImmediate() override { toldAtOnce(); }
  void onResourcesForSwitchport(const VirtualNetwork::SwitchInterface&) override { told(); }
  void onResourcesForSwitchportkivImmediate() override { toldAtOnce(); }
};

class OfHost final : public Watcher<VirtualNetwork::ResourcesForHostname::NotifieeConst> {
 public:
  using Watcher::Watcher;
  void onVlan(Kiv::U32) override { told(); }
  void onVlankivImmediate() override { toldAtOnce(); }
  void onDomainkivImmediate() override { toldAtOnce(); }
};

class OfSwitchPort final : public Watcher<VirtualNetwork::ResourcesForSwitchport::NotifieeConst> {
 public:
  using Watcher::Watcher;
  void onVlankivImmediate() override { toldAtOnce(); }
  void onNativeVlan() override { told(); }
  void onReferrerkivImmediate() override { toldAtOnce(); }
};

class OfVlan final : public Watcher<VirtualNetwork::VlanReferences::NotifieeConst> {
 public:
  using Watcher::Watcher;
  void onReferrer(const Kiv::String&) override { told(); }
  void onReferrerkivImmediate() override { toldAtOnce(); }
  void onMappedVnikivImmediate() override { toldAtOnce(); }
};

class OfElement final : public Watcher<VirtualNetwork::NetworkElement::NotifieeConst> {
 public:
  using Watcher::Watcher;
  void onReferrerkivImmediate() override { toldAtOnce(); }
  void onPhysicalInterfacekivImmediate() override { toldAtOnce(); }
  void onDomainkivImmediate() override { toldAtOnce(); }
};

class OfInterface final : public Watcher<VirtualNetwork::PhysicalInterface::NotifieeConst> {
 public:
  using Watcher::Watcher;
  void onVlankivImmediate() override { toldAtOnce(); }
  void onConfiguredElementkivImmediate() override { toldAtOnce(); }
};

}  // namespace

template <class W, class E>
void Crowd::send(const E& entity) {
  if (below(3) != 0 || watchers_.size() >= kMost) return;
  const auto watcher = Kiv::make<W>(*this);
  watchers_.push_back(watcher);
  watcher->notifierIs(Kiv::Ptr<const E>(&entity));
  watcher->isRegisteredNotifieeIs(true);
  watcher->hasNotificationActiveIs(true);
}

void Crowd::visit(const OpenStack::Config& config, const OpenStack::OpenStackConfig& cloud,
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

void Crowd::told(Kiv::NotifieeBase& watcher, bool atOnce) {
  if (meddles_ > 0 && atOnce == meddlesAtOnce_ && --meddles_ == 0) {
    meddled_ = true;
    meddle_();
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
      // Comes back at the end of its list.
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
    throw Antic();
  }
}

}  // namespace sim
