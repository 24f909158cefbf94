#include "OpenStackSm/RegionConfigSm.h"

#include "OpenStackSm/detail/Trace.h"
#include "model/VirtualNetwork/Values.h"

namespace [[gnu::visibility("default")]] OpenStack {

using detail::trace;

namespace {

// The VLAN of a VLAN segment, as the pool keys it.
Kiv::U16 poolVlan(const Segment& segment) {
  return static_cast<Kiv::U16>(segment.segmentationId());
}

}  // namespace

Kiv::Ptr<RegionConfigSm> regionConfigSmFactory(
    const Kiv::Name& regionName, const Kiv::Ptr<const Region>& regionConfig,
    const Kiv::Ptr<RegionStatus>& regionStatus,
    const Kiv::Ptr<RequestedResourcesCollection>& requestedResourcesCollection,
    const Kiv::Seconds& regionSyncTimeout,
    const Kiv::Ptr<NetworkElementCollection>& networkElementCollection) {
  return Kiv::makeMachine<RegionConfigSm>({regionName, regionConfig, regionStatus,
                                           requestedResourcesCollection, regionSyncTimeout,
                                           networkElementCollection});
}

RegionConfigSm::~RegionConfigSm() {
  teardown();
}

void RegionConfigSm::handleInitialized() {
  static constexpr auto here = detail::handler<RegionConfigSm>("handleInitialized");
  trace(9, here, this, here.signature);
  if (initialized()) {
    trace(1, here, this, [&](auto& text) { text << regionName() << " already initialized"; });
    return;
  }
  syncHeartbeatClockIs(Kiv::ActivityManager::instance().clock());
  syncHeartbeatClock()->timeMinIs(Kiv::Clock::kNever);
  const auto region = regionConfig();
  if (!region) {
    trace(1, here, this, [&](auto& text) { text << regionName() << " has no region"; });
    initializedIs(true);
    return;
  }
  trace(2, here, this, [&](auto& text) { text << "VMs: " << region->vmInstance().size(); });
  trace(2, here, this, [&](auto& text) { text << "DHCPs: " << region->dhcpInstance().size(); });
  trace(2, here, this,
        [&](auto& text) { text << "Baremetals: " << region->baremetalInstance().size(); });
  trace(2, here, this, [&](auto& text) { text << "Networks: " << region->network().size(); });
  for (const auto& segment : region->segment()) {
    trace(2, here, this, [&](auto& text) { text << "Segment id: " << segment->id(); });
    handleSegment(segment->id());
  }
  portBindingSm_.reserve(region->portBinding().size());
  for (const auto& binding : region->portBinding()) {
    trace(2, here, this, [&](auto& text) { text << "Port: " << binding->portId(); });
    handlePortBinding(binding->portId());
  }
  initializedIs(true);
  handleSyncStatus();
}

void RegionConfigSm::handleSyncStatus() {
  static constexpr auto here = detail::handler<RegionConfigSm>("handleSyncStatus");
  const auto region = regionConfig();
  if (!region) {
    trace(1, here, this, [&](auto& text) { text << regionName() << " has no region"; });
    return;
  }
  trace(9, here, this, [&](auto& text) {
    text << " Sync region " << regionName() << " changed to " << region->syncStatus();
  });
  const SyncStatus requested = region->syncStatus();
  const SyncStatus current = regionStatus()->syncStatus();
  if (requested == SyncStatus::syncComplete && current != SyncStatus::syncInProgress) {
    trace(1, here, this, [&](auto& text) {
      text << "Region " << regionName() << " attempted to transition to syncComplete from "
           << current << ". Not altering status.";
    });
    return;
  }
  regionStatus()->oldSyncStatusIs(current);
  regionStatus()->syncStatusIs(requested);
  if (requested == SyncStatus::syncComplete) {
    if (auto* timer = syncHeartbeatClock()) timer->timeMinIs(Kiv::Clock::kNever);
    regionStatus()->ownerIs("");
    regionStatus()->requestIdIs("");
  } else if (requested == SyncStatus::syncInProgress) {
    handleHeartbeat();
  }
}

void RegionConfigSm::handleHeartbeat() {
  static constexpr auto here = detail::handler<RegionConfigSm>("handleHeartbeat");
  trace(9, here, this, "");
  if (auto* timer = syncHeartbeatClock()) {
    timer->timeMinIs(Kiv::System::currentTime() + regionSyncTimeout());
  } else {
    trace(1, here, this, "No clock for the heartbeat");
  }
}

void RegionConfigSm::handleSyncHeartbeatTimeout() {
  static constexpr auto here = detail::handler<RegionConfigSm>("handleSyncHeartbeatTimeout");
  trace(9, here, this, [&](auto& text) {
    const auto region = regionConfig();
    text << (region ? region->name() : regionName());
  });
  if (!initialized()) {
    trace(1, here, this, "Heartbeat timed out event though the region is not initialized!");
    return;
  }
  trace(3, here, this,
        [&](auto& text) { text << "Releasing the lock from " << regionStatus()->owner(); });
  regionStatus()->ownerIs("");
  regionStatus()->requestIdIs("");
  regionStatus()->oldSyncStatusIs(regionStatus()->syncStatus());
  regionStatus()->syncStatusIs(SyncStatus::syncTimedOut);
}

void RegionConfigSm::handleLockRequest() {
  static constexpr auto here = detail::handler<RegionConfigSm>("handleLockRequest");
  const auto region = regionConfig();
  if (!region) {
    trace(1, here, this, [&](auto& text) { text << regionName() << " has no region"; });
    return;
  }
  const Kiv::String requester = region->requester();
  const Kiv::String requestId = region->requestId();
  trace(9, here, this, [&](auto& text) {
    text << region->name() << " Received lock request from " << requester << " with id "
         << requestId;
  });
  if (requestId.empty()) {
    trace(3, here, this, "Request id not set. Ignoring the request.");
    if (!requester.empty()) return;
    trace(3, here, this, "Clearing the lock");
    regionStatus()->requestIdIs("");
    regionStatus()->ownerIs("");
    return;
  }
  const Kiv::String& owner = regionStatus()->owner();
  if (!regionStatus()->requestId().empty() || !(owner.empty() || owner == requester)) {
    trace(3, here, this, "Did not grant a lock request");
    return;
  }
  trace(3, here, this, [&](auto& text) { text << "Granted lock to " << requester; });
  regionStatus()->ownerIs(requester);
  regionStatus()->requestIdIs(requestId);
}

void RegionConfigSm::handleSegment(const Kiv::String& segmentId) {
  static constexpr auto here = detail::handler<RegionConfigSm>("handleSegment");
  const Kiv::String id = segmentId;  // the caller's may belong to what is deleted meanwhile
  trace(9, here, this, [&](auto& text) { text << id; });
  const auto region = regionConfig();
  const Kiv::Ptr<const Segment> segment(region ? region->segment()[id] : nullptr);
  if (!segment) {
    trace(2, here, this, [&](auto& text) { text << "Segment " << id << " deleted"; });
    return;
  }
  trace(2, here, this, [&](auto& text) { text << "Segment " << id << " created"; });
  if (segment->segmentationType() != SegmentationType::vlan) {
    trace(2, here, this,
          [&](auto& text) { text << "Ignoring " << segment->segmentationType() << " segment"; });
    return;
  }
  const auto pool = regionStatus()->vlanPool();
  if (!pool) {
    trace(1, here, this, [&](auto& text) { text << "No VLAN pool in region " << regionName(); });
    return;
  }
  const Kiv::U16 vlan = poolVlan(*segment);
  if (pool->assignedVlan()[vlan]) pool->availableVlanDel(vlan);
  pool->allocatedVlanIs(vlan, true);
}

void RegionConfigSm::KivSegment::handleCleanup() {
  static constexpr auto here = detail::handler<RegionConfigSm>("KivSegment::handleCleanup");
  if (!mirrors()) {
    trace(1, here, this, "No segment to clean up");
    return;
  }
  const auto segment = entity();
  trace(9, here, this, [&](auto& text) { text << segment->id(); });
  if (segment->segmentationType() != SegmentationType::vlan) return;
  const auto pool = machine()->regionStatus()->vlanPool();
  if (!pool) {
    trace(1, here, this,
          [&](auto& text) { text << "No VLAN pool in region " << machine()->regionName(); });
    return;
  }
  const Kiv::U16 vlan = poolVlan(*segment);
  pool->allocatedVlanDel(vlan);
  if (pool->assignedVlan()[vlan]) pool->availableVlanIs(vlan, true);
}

void RegionConfigSm::handlePortBinding(const Kiv::String& id) {
  static constexpr auto here = detail::handler<RegionConfigSm>("handlePortBinding");
  const Kiv::String portId = id;  // as above
  trace(9, here, this, [&](auto& text) { text << portId; });
  const auto region = regionConfig();
  const Kiv::Ptr<const PortBinding> binding(region ? region->portBinding()[portId] : nullptr);
  if (binding) {
    const Kiv::Ptr<const Port> port = binding->port();
    portBindingSmIs(regionName(), portId, port, binding, requestedResourcesCollection(),
                    networkElementCollection());
  } else {
    portBindingSmDel(portId);
  }
}

void RegionConfigSm::KivPortBinding::handleCleanup() {
  static constexpr auto here = detail::handler<RegionConfigSm>("KivPortBinding::handleCleanup");
  if (!mirrors()) {
    trace(1, here, this, "No port binding to clean up");
    return;
  }
  const Kiv::String portId = fwkKey();
  const auto owner = machine();  // which an observer of the cleanup may make this reactor lose
  trace(9, here, this, [&](auto& text) { text << portId; });
  if (const Kiv::Ptr<PortBindingSm> child{owner->portBindingSm()[portId]}) {
    if (!child->starting()) child->doCleanup();
  } else {
    trace(1, here, this, [&](auto& text) { text << "No port binding machine for " << portId; });
  }
  owner->portBindingSmDel(portId);
}

}  // namespace OpenStack

template class Kiv::Machine<OpenStack::RegionConfigSm, &OpenStack::regionConfigSmFactory>;
