// Watchers of the cloud's entities; see watch.h.
#pragma once

#include "model/OpenStack/Config.h"
#include "model/OpenStack/OpenStackConfig.h"
#include "model/OpenStack/OpenStackStatus.h"
#include "tests/model/watch.h"

namespace Model {

class ConfigWatcher final : public OpenStack::Config::NotifieeConst {
 public:
  void onEnabled() override { plain("enabled"); }
  void onMandatoryRegion(const Kiv::Name& key) override { keyed("mandatoryRegion", key); }
  void onMandatoryRegionkivImmediate() override { plain("mandatoryRegion!"); }
  void onMandatoryRegion() override { plain("mandatoryRegion"); }
  void onCredentials(const Kiv::Name& key) override { keyed("credentials", key); }
  void onCredentialskivImmediate() override { plain("credentials!"); }
  void onCredentials() override { plain("credentials"); }
  void onVlanAssignment(const Kiv::Name& key) override { keyed("vlanAssignment", key); }
  void onVlanAssignmentkivImmediate() override { plain("vlanAssignment!"); }
  void onVlanAssignment() override { plain("vlanAssignment"); }
  void onDefaultVlanTypeDriver() override { plain("defaultVlanTypeDriver"); }
  void onVlanTypeDriver() override { plain("vlanTypeDriver"); }
  void onDefaultGracePeriod() override { plain("defaultGracePeriod"); }
  void onGracePeriod() override { plain("gracePeriod"); }
  void onDefaultRegionSyncTimeout() override { plain("defaultRegionSyncTimeout"); }
  void onRegionSyncTimeout() override { plain("regionSyncTimeout"); }
  void onDefaultAgentMode() override { plain("defaultAgentMode"); }
  void onAgentMode() override { plain("agentMode"); }
  void onKeystoneAuthUrl(const Kiv::Name& key) override { keyed("keystoneAuthUrl", key); }
  void onKeystoneAuthUrlkivImmediate() override { plain("keystoneAuthUrl!"); }
  void onKeystoneAuthUrl() override { plain("keystoneAuthUrl"); }
  void onServiceAclTypeVrfMap() override { plain("serviceAclTypeVrfMap"); }
  void onAuthRole() override { plain("authRole"); }
};

class OpenStackConfigWatcher final : public OpenStack::OpenStackConfig::NotifieeConst {
 public:
  void onRegion(const Kiv::Name& key) override { keyed("region", key); }
  void onRegionkivImmediate() override { plain("region!"); }
  void onRegion() override { plain("region"); }
};

class VlanAssignmentWatcher final : public OpenStack::VlanAssignment::NotifieeConst {
 public:
  void onVlan(Kiv::U16 key) override { keyed("vlan", key); }
  void onVlankivImmediate() override { plain("vlan!"); }
  void onVlan() override { plain("vlan"); }
};

class RegionWatcher final : public OpenStack::Region::NotifieeConst {
 public:
  void onServiceEndPoint(const Kiv::Name& key) override { keyed("serviceEndPoint", key); }
  void onServiceEndPointkivImmediate() override { plain("serviceEndPoint!"); }
  void onServiceEndPoint() override { plain("serviceEndPoint"); }
  void onTenant(const Kiv::String& key) override { keyed("tenant", key); }
  void onTenantkivImmediate() override { plain("tenant!"); }
  void onTenant() override { plain("tenant"); }
  void onNetwork(const Kiv::String& key) override { keyed("network", key); }
  void onNetworkkivImmediate() override { plain("network!"); }
  void onNetwork() override { plain("network"); }
  void onSegment(const Kiv::String& key) override { keyed("segment", key); }
  void onSegmentkivImmediate() override { plain("segment!"); }
  void onSegment() override { plain("segment"); }
  void onPort(const Kiv::String& key) override { keyed("port", key); }
  void onPortkivImmediate() override { plain("port!"); }
  void onPort() override { plain("port"); }
  void onVmInstance(const Kiv::String& key) override { keyed("vmInstance", key); }
  void onVmInstancekivImmediate() override { plain("vmInstance!"); }
  void onVmInstance() override { plain("vmInstance"); }
  void onDhcpInstance(const Kiv::String& key) override { keyed("dhcpInstance", key); }
  void onDhcpInstancekivImmediate() override { plain("dhcpInstance!"); }
  void onDhcpInstance() override { plain("dhcpInstance"); }
  void onBaremetalInstance(const Kiv::String& key) override { keyed("baremetalInstance", key); }
  void onBaremetalInstancekivImmediate() override { plain("baremetalInstance!"); }
  void onBaremetalInstance() override { plain("baremetalInstance"); }
  void onRouterInstance(const Kiv::String& key) override { keyed("routerInstance", key); }
  void onRouterInstancekivImmediate() override { plain("routerInstance!"); }
  void onRouterInstance() override { plain("routerInstance"); }
  void onPortBinding(const Kiv::String& key) override { keyed("portBinding", key); }
  void onPortBindingkivImmediate() override { plain("portBinding!"); }
  void onPortBinding() override { plain("portBinding"); }
  void onSyncStatus() override { plain("syncStatus"); }
  void onSyncInterval() override { plain("syncInterval"); }
  void onSyncHeartbeat() override { plain("syncHeartbeat"); }
  void onRequester() override { plain("requester"); }
  void onRequestId() override { plain("requestId"); }
};

class SegmentWatcher final : public OpenStack::Segment::NotifieeConst {
 public:
  void onSegmentationType() override { plain("segmentationType"); }
  void onSegmentationId() override { plain("segmentationId"); }
};

class PortWatcher final : public OpenStack::Port::NotifieeConst {
 public:
  void onVlanType() override { plain("vlanType"); }
};

class PortBindingWatcher final : public OpenStack::PortBinding::NotifieeConst {
 public:
  void onPortToHostBinding(const Kiv::Name& key) override { keyed("portToHostBinding", key); }
  void onPortToHostBindingkivImmediate() override { plain("portToHostBinding!"); }
  void onPortToHostBinding() override { plain("portToHostBinding"); }
  void onPortToSwitchInterfaceBinding(const VirtualNetwork::SwitchInterface& key) override {
    keyed("portToSwitchInterfaceBinding", key);
  }
  void onPortToSwitchInterfaceBindingkivImmediate() override {
    plain("portToSwitchInterfaceBinding!");
  }
  void onPortToSwitchInterfaceBinding() override { plain("portToSwitchInterfaceBinding"); }
  void onPort() override { plain("port"); }
};

class PortToHostBindingWatcher final : public OpenStack::PortToHostBinding::NotifieeConst {
 public:
  void onSegment(Kiv::U8 key) override { keyed("segment", key); }
  void onSegmentkivImmediate() override { plain("segment!"); }
  void onSegment() override { plain("segment"); }
};

class PortToSwitchInterfaceBindingWatcher final
    : public OpenStack::PortToSwitchInterfaceBinding::NotifieeConst {
 public:
  void onHost() override { plain("host"); }
  void onSegment(Kiv::U8 key) override { keyed("segment", key); }
  void onSegmentkivImmediate() override { plain("segment!"); }
  void onSegment() override { plain("segment"); }
};

class OpenStackStatusWatcher final : public OpenStack::OpenStackStatus::NotifieeConst {
 public:
  void onRegionStatus(const Kiv::Name& key) override { keyed("regionStatus", key); }
  void onRegionStatuskivImmediate() override { plain("regionStatus!"); }
  void onRegionStatus() override { plain("regionStatus"); }
};

class RegionStatusWatcher final : public OpenStack::RegionStatus::NotifieeConst {
 public:
  void onSyncStatus() override { plain("syncStatus"); }
  void onOldSyncStatus() override { plain("oldSyncStatus"); }
  void onOwner() override { plain("owner"); }
  void onRequestId() override { plain("requestId"); }
  void onVlanPool() override { plain("vlanPool"); }
  void onVlanAssignmentUuid() override { plain("vlanAssignmentUuid"); }
};

class VlanPoolWatcher final : public OpenStack::VlanPool::NotifieeConst {
 public:
  void onAssignedVlan(Kiv::U16 key) override { keyed("assignedVlan", key); }
  void onAssignedVlankivImmediate() override { plain("assignedVlan!"); }
  void onAssignedVlan() override { plain("assignedVlan"); }
  void onAllocatedVlan(Kiv::U16 key) override { keyed("allocatedVlan", key); }
  void onAllocatedVlankivImmediate() override { plain("allocatedVlan!"); }
  void onAllocatedVlan() override { plain("allocatedVlan"); }
  void onAvailableVlan(Kiv::U16 key) override { keyed("availableVlan", key); }
  void onAvailableVlankivImmediate() override { plain("availableVlan!"); }
  void onAvailableVlan() override { plain("availableVlan"); }
};

}  // namespace Model
