// Reads output entities into the plain form of the output document: each kind by itself, or all.
// The texts are views into the entities, good until their next change.
#pragma once

#include <algorithm>
#include <span>
#include <string>
#include <type_traits>

#include "agent/cloud/output_document.h"
#include "model/OpenStack/OpenStackStatus.h"
#include "model/VirtualNetwork/NetworkElement.h"
#include "model/VirtualNetwork/RequestedResources.h"

namespace vnagent {

// One thing, with all that it holds.
VniOutput readOutput(const VirtualNetwork::VniReferences& vni);
VlanOutput readOutput(const VirtualNetwork::VlanReferences& vlan);
DomainOutput readOutput(const VirtualNetwork::DomainReferences& domain);
RegionOutput readOutput(const OpenStack::RegionStatus& region);
HostOutput readOutput(const VirtualNetwork::ResourcesForHostname& host);
SwitchportOutput readOutput(const VirtualNetwork::ResourcesForSwitchport& port);
PhysicalInterfaceOutput readOutput(const VirtualNetwork::PhysicalInterface& interface);
NetworkElementOutput readOutput(const VirtualNetwork::NetworkElement& element);

// The whole document.
OutputDocument readOutput(const OpenStack::OpenStackStatus& status,
                          const VirtualNetwork::RequestedResourcesCollection& resources,
                          const VirtualNetwork::NetworkElementCollection& elements);

// The part of the document that a place leads to.
OutputPart readOutputAt(const OpenStack::OpenStackStatus& status,
                        const VirtualNetwork::RequestedResourcesCollection& resources,
                        const VirtualNetwork::NetworkElementCollection& elements,
                        std::span<const std::string> place);

// One thing, with its key alone.
VniOutput readKey(const VirtualNetwork::VniReferences& vni);
VlanOutput readKey(const VirtualNetwork::VlanReferences& vlan);
DomainOutput readKey(const VirtualNetwork::DomainReferences& domain);
RegionOutput readKey(const OpenStack::RegionStatus& region);
HostOutput readKey(const VirtualNetwork::ResourcesForHostname& host);
SwitchportOutput readKey(const VirtualNetwork::ResourcesForSwitchport& port);
PhysicalInterfaceOutput readKey(const VirtualNetwork::PhysicalInterface& interface);
NetworkElementOutput readKey(const VirtualNetwork::NetworkElement& element);

// One value, as it is shown.
std::string_view readValue(OpenStack::SyncStatus status);
inline std::string_view readValue(const Kiv::String& text) {
  return text.view();
}
inline uint32_t readValue(Kiv::U32 number) {
  return number;
}

// Whether an entry of a set is shown, by its value: in a value set, when it is true.
template <class Value>
bool isShown(const Value& value) {
  return static_cast<bool>(value);
}

// The keys that a set shows, sorted.
template <class K, class Value>
auto readSet(const Kiv::HashMap2018<K, Value>& set) {
  constexpr bool kNumbers = std::is_same_v<K, Kiv::U16>;
  std::conditional_t<kNumbers, VlanIds, Texts> keys;
  keys.reserve(set.size());
  for (const auto& entry : set) {
    if (!isShown(entry.value)) continue;
    if constexpr (kNumbers) {
      keys.push_back(entry.key);
    } else {
      keys.push_back(entry.key.view());
    }
  }
  std::ranges::sort(keys);
  return keys;
}

// Puts ports, which are sorted by switch and interface, under their switches.
std::vector<SwitchOutput> bySwitch(std::vector<SwitchportOutput>&& ports);

}  // namespace vnagent
