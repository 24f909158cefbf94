// The attribute tables of the cloud's entities and of the regions' status.
#include "framework/Attributes.h"
#include "model/OpenStack/Config.h"
#include "model/OpenStack/NameResolution.h"
#include "model/OpenStack/OpenStackConfig.h"
#include "model/OpenStack/OpenStackStatus.h"
#include "model/OpenStack/Values.h"
#include "model/VirtualNetwork/Values.h"

namespace [[gnu::visibility("default")]] OpenStack {

const Kiv::GenericIf* Segment::genericIf() const {
  static const auto description = Kiv::describe<Segment>(Kiv::attributes(
      Kiv::plain("id", &Segment::id), Kiv::plain("segmentationType", &Segment::segmentationType),
      Kiv::plain("segmentationId", &Segment::segmentationId)));
  return &description;
}

const Kiv::GenericIf* Port::genericIf() const {
  static const auto description = Kiv::describe<Port>(
      Kiv::attributes(Kiv::plain("id", &Port::id), Kiv::plain("vlanType", &Port::vlanType)));
  return &description;
}

const Kiv::GenericIf* PortToHostBinding::genericIf() const {
  static const auto description = Kiv::describe<PortToHostBinding>(
      Kiv::attributes(Kiv::plain("host", &PortToHostBinding::host),
                      Kiv::collection("segment", "level", &PortToHostBinding::segment_)));
  return &description;
}

const Kiv::GenericIf* PortToSwitchInterfaceBinding::genericIf() const {
  static const auto description = Kiv::describe<PortToSwitchInterfaceBinding>(Kiv::attributes(
      Kiv::plain("switchInterface", &PortToSwitchInterfaceBinding::switchInterface),
      Kiv::plain("host", &PortToSwitchInterfaceBinding::host),
      Kiv::collection("segment", "level", &PortToSwitchInterfaceBinding::segment_)));
  return &description;
}

const Kiv::GenericIf* PortBinding::genericIf() const {
  static const auto description = Kiv::describe<PortBinding>(Kiv::attributes(
      Kiv::plain("portId", &PortBinding::portId), Kiv::plain("port", &PortBinding::port),
      Kiv::collection("portToHostBinding", "host", &PortBinding::portToHostBinding_),
      Kiv::collection("portToSwitchInterfaceBinding", "switchInterface",
                      &PortBinding::portToSwitchInterfaceBinding_)));
  return &description;
}

const Kiv::GenericIf* Region::genericIf() const {
  static const auto description = Kiv::describe<Region>(Kiv::attributes(
      Kiv::plain("name", &Region::name),
      Kiv::collection("serviceEndPoint", "name", &Region::serviceEndPoint_),
      Kiv::collection("tenant", "id", &Region::tenant_),
      Kiv::collection("network", "id", &Region::network_),
      Kiv::collection("segment", "id", &Region::segment_),
      Kiv::collection("port", "id", &Region::port_),
      Kiv::collection("vmInstance", "id", &Region::vmInstance_),
      Kiv::collection("dhcpInstance", "id", &Region::dhcpInstance_),
      Kiv::collection("baremetalInstance", "id", &Region::baremetalInstance_),
      Kiv::collection("routerInstance", "id", &Region::routerInstance_),
      Kiv::collection("portBinding", "portId", &Region::portBinding_),
      Kiv::plain("syncStatus", &Region::syncStatus),
      Kiv::plain("syncInterval", &Region::syncInterval),
      Kiv::plain("syncHeartbeat", &Region::syncHeartbeat),
      Kiv::plain("requester", &Region::requester), Kiv::plain("requestId", &Region::requestId)));
  return &description;
}

const Kiv::GenericIf* OpenStackConfig::genericIf() const {
  static const auto description = Kiv::describe<OpenStackConfig>(
      Kiv::attributes(Kiv::collection("region", "name", &OpenStackConfig::region_)));
  return &description;
}

const Kiv::GenericIf* VlanAssignment::genericIf() const {
  static const auto description = Kiv::describe<VlanAssignment>(
      Kiv::attributes(Kiv::plain("regionName", &VlanAssignment::regionName),
                      Kiv::collection("vlan", "vlan", &VlanAssignment::vlan_)));
  return &description;
}

const Kiv::GenericIf* Config::genericIf() const {
  static const auto description = Kiv::describe<Config>(
      Kiv::attributes(Kiv::plain("enabled", &Config::enabled),
                      Kiv::collection("mandatoryRegion", "name", &Config::mandatoryRegion_),
                      Kiv::collection("credentials", "name", &Config::credentials_),
                      Kiv::collection("vlanAssignment", "regionName", &Config::vlanAssignment_),
                      Kiv::plain("defaultVlanTypeDriver", &Config::defaultVlanTypeDriver),
                      Kiv::plain("vlanTypeDriver", &Config::vlanTypeDriver),
                      Kiv::plain("defaultGracePeriod", &Config::defaultGracePeriod),
                      Kiv::plain("gracePeriod", &Config::gracePeriod),
                      Kiv::plain("defaultRegionSyncTimeout", &Config::defaultRegionSyncTimeout),
                      Kiv::plain("regionSyncTimeout", &Config::regionSyncTimeout),
                      Kiv::plain("defaultAgentMode", &Config::defaultAgentMode),
                      Kiv::plain("agentMode", &Config::agentMode),
                      Kiv::collection("keystoneAuthUrl", "name", &Config::keystoneAuthUrl_),
                      Kiv::plain("serviceAclTypeVrfMap", &Config::serviceAclTypeVrfMap),
                      Kiv::plain("authRole", &Config::authRole)));
  return &description;
}

const Kiv::GenericIf* VlanPool::genericIf() const {
  static const auto description = Kiv::describe<VlanPool>(
      Kiv::attributes(Kiv::plain("name", &VlanPool::name),
                      Kiv::collection("assignedVlan", "vlan", &VlanPool::assignedVlan_),
                      Kiv::collection("allocatedVlan", "vlan", &VlanPool::allocatedVlan_),
                      Kiv::collection("availableVlan", "vlan", &VlanPool::availableVlan_)));
  return &description;
}

const Kiv::GenericIf* RegionStatus::genericIf() const {
  static const auto description = Kiv::describe<RegionStatus>(Kiv::attributes(
      Kiv::plain("name", &RegionStatus::name), Kiv::plain("syncStatus", &RegionStatus::syncStatus),
      Kiv::plain("oldSyncStatus", &RegionStatus::oldSyncStatus),
      Kiv::plain("owner", &RegionStatus::owner), Kiv::plain("requestId", &RegionStatus::requestId),
      Kiv::plain("vlanPool", &RegionStatus::onlyPool),
      Kiv::plain("vlanAssignmentUuid", &RegionStatus::vlanAssignmentUuid)));
  return &description;
}

const Kiv::GenericIf* OpenStackStatus::genericIf() const {
  static const auto description = Kiv::describe<OpenStackStatus>(
      Kiv::attributes(Kiv::collection("regionStatus", "name", &OpenStackStatus::regionStatus_)));
  return &description;
}

template <class K>
const Kiv::GenericIf* MirroredObject<K>::genericIf() const {
  static const auto description =
      Kiv::describe<MirroredObject<K>>(Kiv::attributes(Kiv::plain("id", &MirroredObject<K>::id)));
  return &description;
}
template class MirroredObject<Kiv::Name>;
template class MirroredObject<Kiv::String>;

namespace NameResolution {

const Kiv::GenericIf* Config::genericIf() const {
  static const auto description = Kiv::describe<Config>(Kiv::attributes());
  return &description;
}

const Kiv::GenericIf* Status::genericIf() const {
  static const auto description = Kiv::describe<Status>(Kiv::attributes());
  return &description;
}

}  // namespace NameResolution
}  // namespace OpenStack
