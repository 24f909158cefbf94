#include "agent/output/output_document.h"

#include <algorithm>
#include <tuple>

#include "agent/document/vocabulary.h"

namespace vnagent {
namespace {

// The keys of a value set whose entry is true.
template <class T, class Set, class Read>
std::vector<T> sortedKeys(const Set& set, Read read) {
  std::vector<T> keys;
  keys.reserve(set.size());
  for (const auto& entry : set) {
    if (entry.value) keys.push_back(read(entry.key));
  }
  std::ranges::sort(keys);
  return keys;
}

template <class Set>
Texts texts(const Set& set) {
  return sortedKeys<std::string_view>(set, [](const auto& key) { return key.view(); });
}

template <class Set>
std::vector<uint16_t> vlanIds(const Set& set) {
  return sortedKeys<uint16_t>(set, [](uint16_t key) { return key; });
}

// The members of a collection, each read by `read` and sorted by what `key` gives.
template <class Out, class Members, class Read, class Key>
std::vector<Out> members(const Members& collection, Read read, Key key) {
  std::vector<Out> all;
  all.reserve(collection.size());
  for (const auto& member : collection) all.push_back(read(*member));
  std::ranges::sort(all, {}, key);
  return all;
}

VniOutput readVni(const VirtualNetwork::VniReferences& vni) {
  return {vni.fwkKey(), texts(vni.referrer())};
}

VlanOutput readVlan(const VirtualNetwork::VlanReferences& vlan) {
  return {vlan.fwkKey(), texts(vlan.referrer()),
          members<VniOutput>(vlan.mappedVni(), readVni, &VniOutput::vni)};
}

template <class Owner>
std::vector<VlanOutput> readVlans(const Owner& owner) {
  return members<VlanOutput>(owner.vlan(), readVlan, &VlanOutput::vlan);
}

template <class Owner>
std::vector<DomainOutput> readDomains(const Owner& owner) {
  const auto read = [](const VirtualNetwork::DomainReferences& domain) {
    return DomainOutput{domain.fwkKey().view(), texts(domain.referrer())};
  };
  return members<DomainOutput>(owner.domain(), read, &DomainOutput::region);
}

std::string_view word(OpenStack::SyncStatus status) {
  return syncStatusWord(static_cast<SyncStatus>(status));
}

RegionOutput readRegion(const OpenStack::RegionStatus& region) {
  RegionOutput out{region.fwkKey().view(),
                   word(region.syncStatus()),
                   word(region.oldSyncStatus()),
                   region.owner().view(),
                   region.requestId().view(),
                   region.vlanAssignmentUuid().view(),
                   {},
                   {},
                   {}};
  if (const auto& pool = region.vlanPool()) {
    out.assignedVlan = vlanIds(pool->assignedVlan());
    out.availableVlan = vlanIds(pool->availableVlan());
    out.allocatedVlan = vlanIds(pool->allocatedVlan());
  }
  return out;
}

HostOutput readHost(const VirtualNetwork::ResourcesForHostname& host) {
  return {host.fwkKey().view(), readDomains(host), readVlans(host)};
}

SwitchportOutput readSwitchport(const VirtualNetwork::ResourcesForSwitchport& port) {
  return {port.fwkKey().switchIdentifier().view(),
          port.fwkKey().interfaceName().view(),
          readVlans(port),
          port.nativeVlan(),
          texts(port.remoteHost()),
          texts(port.referrer())};
}

PhysicalInterfaceOutput readInterface(const VirtualNetwork::PhysicalInterface& interface) {
  Texts elements;
  for (const auto& entry : interface.configuredElement()) elements.push_back(entry.key.view());
  std::ranges::sort(elements);
  return {interface.fwkKey().view(), readVlans(interface), interface.nativeVlan(),
          std::move(elements)};
}

NetworkElementOutput readElement(const VirtualNetwork::NetworkElement& element) {
  return {element.fwkKey().view(),
          element.hostname().view(),
          texts(element.referrer()),
          readDomains(element),
          readVlans(element),
          members<PhysicalInterfaceOutput>(element.physicalInterface(), readInterface,
                                           &PhysicalInterfaceOutput::name)};
}

}  // namespace

OutputDocument readOutput(const OpenStack::OpenStackStatus& status,
                          const VirtualNetwork::RequestedResourcesCollection& resources,
                          const VirtualNetwork::NetworkElementCollection& elements) {
  const auto byInterface = [](const SwitchportOutput& port) {
    return std::tuple(port.switchIdentifier, port.interfaceName);
  };
  return {
      members<RegionOutput>(status.regionStatus(), readRegion, &RegionOutput::name),
      members<HostOutput>(resources.resourcesForHostname(), readHost, &HostOutput::host),
      members<SwitchportOutput>(resources.resourcesForSwitchport(), readSwitchport, byInterface),
      members<NetworkElementOutput>(elements.networkElement(), readElement,
                                    &NetworkElementOutput::name)};
}

}  // namespace vnagent
