// What the machines publish, in the order in which it is shown: the plain form between the output
// entities and every view of them (JSON, tree).
//
// Texts are views into the entities and end with the next change of them. Everything is sorted:
// numbers by value, texts by bytes.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "model/OpenStack/OpenStackStatus.h"
#include "model/VirtualNetwork/NetworkElement.h"
#include "model/VirtualNetwork/RequestedResources.h"

namespace vnagent {

using Texts = std::vector<std::string_view>;

struct VniOutput {
  uint32_t vni = 0;
  Texts referrer;
};

struct VlanOutput {
  uint32_t vlan = 0;
  Texts referrer;
  std::vector<VniOutput> mappedVni;
};

struct DomainOutput {
  std::string_view region;
  Texts referrer;
};

struct RegionOutput {
  std::string_view name;
  std::string_view syncStatus;
  std::string_view oldSyncStatus;
  std::string_view owner;
  std::string_view requestId;
  std::string_view vlanAssignmentUuid;
  std::vector<uint16_t> assignedVlan;
  std::vector<uint16_t> availableVlan;
  std::vector<uint16_t> allocatedVlan;
};

struct HostOutput {
  std::string_view host;
  std::vector<DomainOutput> domain;
  std::vector<VlanOutput> vlan;
};

struct SwitchportOutput {
  std::string_view switchIdentifier;
  std::string_view interfaceName;
  std::vector<VlanOutput> vlan;
  uint32_t nativeVlan = 0;
  Texts remoteHost;
  Texts referrer;
};

struct PhysicalInterfaceOutput {
  std::string_view name;
  std::vector<VlanOutput> vlan;
  uint32_t nativeVlan = 0;
  Texts configuredElement;
};

struct NetworkElementOutput {
  std::string_view name;
  std::string_view hostname;
  Texts referrer;
  std::vector<DomainOutput> domain;
  std::vector<VlanOutput> vlan;
  std::vector<PhysicalInterfaceOutput> physicalInterface;
};

struct OutputDocument {
  std::vector<RegionOutput> regionStatus;
  std::vector<HostOutput> resourcesForHostname;
  std::vector<SwitchportOutput> resourcesForSwitchport;  // by switch, then by interface
  std::vector<NetworkElementOutput> networkElement;
};

// Reads the output entities as they are now.
OutputDocument readOutput(const OpenStack::OpenStackStatus& status,
                          const VirtualNetwork::RequestedResourcesCollection& resources,
                          const VirtualNetwork::NetworkElementCollection& elements);

}  // namespace vnagent
