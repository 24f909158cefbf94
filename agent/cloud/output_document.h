// The output document in its plain form: what the machines publish, or what of it has changed.
//
// One form serves both, as a change is a merge patch on the document. In the whole document every
// member has a value and nothing is removed. In a change a member without a value is as it was, and
// what is marked as removed is to be taken out. So there is one writer for both (output_json.h).
//
// Texts are views into the entities. Everything is sorted: numbers by value, texts by bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace vnagent {

using Texts = std::vector<std::string_view>;
using VlanIds = std::vector<uint16_t>;

struct VniOutput {
  uint32_t vni = 0;
  std::optional<Texts> referrer;
  bool removed = false;
};

struct VlanOutput {
  uint32_t vlan = 0;
  std::optional<Texts> referrer;
  std::optional<std::vector<VniOutput>> mappedVni;
  bool removed = false;
};

struct DomainOutput {
  std::string_view region;
  std::optional<Texts> referrer;
  bool removed = false;
};

struct VlanPoolOutput {
  std::optional<VlanIds> assignedVlan;
  std::optional<VlanIds> availableVlan;
  std::optional<VlanIds> allocatedVlan;
};

struct RegionOutput {
  std::string_view name;
  std::optional<std::string_view> syncStatus;
  std::optional<std::string_view> oldSyncStatus;
  std::optional<std::string_view> owner;
  std::optional<std::string_view> requestId;
  std::optional<std::string_view> vlanAssignmentUuid;
  std::optional<VlanPoolOutput> vlanPool;
  bool removed = false;
};

struct HostOutput {
  std::string_view host;
  std::optional<std::vector<DomainOutput>> domain;
  std::optional<std::vector<VlanOutput>> vlan;
  bool removed = false;
};

struct SwitchportOutput {
  std::string_view switchIdentifier;
  std::string_view interfaceName;
  std::optional<std::vector<VlanOutput>> vlan;
  std::optional<uint32_t> nativeVlan;
  std::optional<Texts> remoteHost;
  std::optional<Texts> referrer;
  bool removed = false;
};

// The ports of one switch; it is in the document as long as it has any.
struct SwitchOutput {
  std::string_view switchIdentifier;
  std::vector<SwitchportOutput> port;
  bool removed = false;
};

struct PhysicalInterfaceOutput {
  std::string_view name;
  std::optional<std::vector<VlanOutput>> vlan;
  std::optional<uint32_t> nativeVlan;
  std::optional<Texts> configuredElement;
  bool removed = false;
};

struct NetworkElementOutput {
  std::string_view name;
  std::optional<std::string_view> hostname;
  std::optional<Texts> referrer;
  std::optional<std::vector<DomainOutput>> domain;
  std::optional<std::vector<VlanOutput>> vlan;
  std::optional<std::vector<PhysicalInterfaceOutput>> physicalInterface;
  bool removed = false;
};

struct RequestedResourcesOutput {
  std::optional<std::vector<HostOutput>> resourcesForHostname;
  std::optional<std::vector<SwitchOutput>> resourcesForSwitchport;
};

struct OutputDocument {
  std::optional<std::vector<RegionOutput>> regionStatus;
  std::optional<RequestedResourcesOutput> requestedResources;
  std::optional<std::vector<NetworkElementOutput>> networkElement;

  // Of a change: whether there is none.
  bool empty() const { return !regionStatus && !requestedResources && !networkElement; }
};

// A part of the document: the nearest collection or thing on the way to a place, and nothing else.
struct OutputPart {
  OutputDocument document;
  size_t depth = 0;  // how many names of the place lead to it; 0: there is no such part
};

}  // namespace vnagent
