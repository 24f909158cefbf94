#include "OpenStackSm/OpenStackSm.h"

#include "OpenStackSm/Uuid.h"
#include "OpenStackSm/detail/Trace.h"
#include "model/VirtualNetwork/Values.h"

namespace [[gnu::visibility("default")]] OpenStack {

using detail::trace;

Kiv::Ptr<OpenStackSm> openStackSmFactory(
    const Kiv::Ptr<const OpenStackConfig>& openstackConfig,
    const Kiv::Ptr<OpenStackStatus>& openstackStatus,
    const Kiv::Ptr<const NameResolution::Config>& nameResolutionConfig,
    const Kiv::Ptr<NameResolution::Status>& nameResolutionStatus,
    const Kiv::Ptr<RequestedResourcesCollection>& requestedResourcesCollection,
    Kiv::Seconds regionSyncTimeout, const Kiv::Ptr<const Config>& config,
    const Kiv::Ptr<NetworkElementCollection>& networkElementCollection) {
  return Kiv::makeMachine<OpenStackSm>({openstackConfig, openstackStatus, nameResolutionConfig,
                                        nameResolutionStatus, requestedResourcesCollection,
                                        regionSyncTimeout, config, networkElementCollection});
}

OpenStackSm::~OpenStackSm() {
  teardown();
}

void OpenStackSm::handleInitialized() {
  static constexpr auto here = detail::handler<OpenStackSm>("handleInitialized");
  trace(9, here, this, here.signature);
  if (initialized()) {
    trace(1, here, this, "OpenStackSM already initialized");
    return;
  }
  if (const auto inputs = openstackConfig()) {
    for (const auto& region : inputs->region()) handleRegion(region->name());
  }
  initializedIs(true);
}

void OpenStackSm::handleRegion(const Kiv::Name& name) {
  static constexpr auto here = detail::handler<OpenStackSm>("handleRegion");
  const Kiv::Name regionName = name;  // the caller's may belong to what is deleted here
  trace(9, here, this, [&](auto& text) { text << here.signature << ' ' << regionName; });
  const auto inputs = openstackConfig();
  const Kiv::Ptr<const Region> region(inputs ? inputs->region()[regionName] : nullptr);
  if (region) {
    const auto regionStatus = openstackStatus()->regionStatusIs(regionName);
    regionStatus->vlanPoolIs(regionName);
    handleRegionVlanAssignment(regionName);
    regionConfigSmIs(regionName, region, regionStatus, requestedResourcesCollection(),
                     regionSyncTimeout(), networkElementCollection());
    return;
  }
  trace(2, here, this, [&](auto& text) {
    text << "Region config sm: " << static_cast<const void*>(regionConfigSm_[regionName]);
  });
  regionConfigSmDel(regionName);
  openstackStatus()->regionStatusDel(regionName);
}

void OpenStackSm::regionSyncTimeoutIs(const Kiv::Seconds& timeout) {
  if (timeout == regionSyncTimeout()) return;
  arguments_.regionSyncTimeout = timeout;
  handleRegionSyncTimeout();
}

void OpenStackSm::handleRegionSyncTimeout() {
  static constexpr auto here = detail::handler<OpenStackSm>("handleRegionSyncTimeout");
  trace(9, here, this, [&](auto& text) { text << "Region sync timeout: " << regionSyncTimeout(); });
  for (const auto& child : regionConfigSm_) child->regionSyncTimeoutIs(regionSyncTimeout());
}

void OpenStackSm::handleVlanTypeDriver() {
  static constexpr auto here = detail::handler<OpenStackSm>("handleVlanTypeDriver");
  trace(9, here, this, "");
  const auto inputs = config();
  if (!inputs) {
    trace(1, here, this, "No agent configuration");
    return;
  }
  if (inputs->vlanTypeDriver() == VlanTypeDriver::assigned) {
    for (const auto& assignment : inputs->vlanAssignment()) {
      handleRegionVlanAssignment(assignment->regionName());
    }
  } else if (inputs->vlanTypeDriver() == VlanTypeDriver::external) {
    for (const auto& assignment : inputs->vlanAssignment()) {
      const Kiv::Ptr<RegionStatus> status(
          openstackStatus()->regionStatus()[assignment->regionName()]);
      const auto pool = status ? status->vlanPool() : nullptr;
      if (!pool) continue;
      pool->assignedVlanDelAll();
      pool->availableVlanDelAll();
    }
  }
}

namespace {

// Records a VLAN as assigned, and as available unless a segment uses it.
void assign(VlanPool& pool, Kiv::U16 vlan) {
  pool.assignedVlanIs(vlan, true);
  if (!pool.allocatedVlan()[vlan]) pool.availableVlanIs(vlan, true);
}

// Stamps the status with a fresh UUID, so that readers see that the assignment changed.
void stamp(RegionStatus& status, const Kiv::TraceSource& here, const void* subject) {
  status.vlanAssignmentUuidIs(uuid());
  trace(3, here, subject,
        [&](auto& text) { text << "VLAN assignment UUID: " << status.vlanAssignmentUuid(); });
}

}  // namespace

void OpenStackSm::handleRegionVlanAssignment(const Kiv::Name& name) {
  static constexpr auto here = detail::handler<OpenStackSm>("handleRegionVlanAssignment");
  const Kiv::Name regionName = name;  // as above
  trace(9, here, this, [&](auto& text) { text << regionName; });
  const auto inputs = config();
  if (!inputs) {
    trace(1, here, this, "No agent configuration");
    return;
  }
  if (inputs->vlanTypeDriver() != VlanTypeDriver::assigned) return;
  const Kiv::Ptr<RegionStatus> status(openstackStatus()->regionStatus()[regionName]);
  if (!status) return;
  stamp(*status, here, this);
  const Kiv::Ptr<const VlanAssignment> assignment(inputs->vlanAssignment()[regionName]);
  const auto pool = status->vlanPool();
  if (!pool) {
    trace(1, here, this, [&](auto& text) { text << "No VLAN pool in region " << regionName; });
    return;
  }
  pool->assignedVlanDelAll();
  pool->availableVlanDelAll();
  if (!assignment) return;
  for (const auto& entry : assignment->vlan()) {
    if (entry.value) assign(*pool, entry.key);
  }
}

void OpenStackSm::KivVlanAssignment::handleVlanAssignment(Kiv::U16 vlan) {
  static constexpr auto here =
      detail::handler<OpenStackSm>("KivVlanAssignment::handleVlanAssignment");
  if (!mirrors()) {
    trace(1, here, this, "No VLAN assignment");
    return;
  }
  const auto inputs = machine()->config();
  if (!inputs) {
    trace(1, here, this, "No agent configuration");
    return;
  }
  if (inputs->vlanTypeDriver() != VlanTypeDriver::assigned) return;
  const Kiv::Name regionName = fwkKey();
  const Kiv::Ptr<RegionStatus> status(machine()->openstackStatus()->regionStatus()[regionName]);
  if (!status) return;
  stamp(*status, here, this);
  const auto pool = status->vlanPool();
  if (!pool) {
    trace(1, here, this, [&](auto& text) { text << "No VLAN pool in region " << regionName; });
    return;
  }
  const VlanAssignment* assignment = inputs->vlanAssignment()[regionName];
  if (assignment != nullptr && assignment->vlan()[vlan]) {
    assign(*pool, vlan);
  } else {
    pool->availableVlanDel(vlan);
    pool->assignedVlanDel(vlan);
  }
}

}  // namespace OpenStack

template class Kiv::Machine<OpenStack::OpenStackSm, &OpenStack::openStackSmFactory>;
