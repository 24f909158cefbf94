#include "agent/cloud/output_reading.h"

#include <tuple>
#include <utility>

#include "agent/document/vocabulary.h"

namespace vnagent {
namespace {

// The members of a collection, each with all that it holds, sorted by what `key` gives.
template <class Members, class Key>
auto readMembers(const Members& collection, Key key) {
  std::vector<decltype(readOutput(std::declval<const typename Members::Value&>()))> all;
  all.reserve(collection.size());
  for (const auto& member : collection) all.push_back(readOutput(*member));
  std::ranges::sort(all, {}, key);
  return all;
}

template <class Owner>
std::vector<VlanOutput> readVlans(const Owner& owner) {
  return readMembers(owner.vlan(), &VlanOutput::vlan);
}

template <class Owner>
std::vector<DomainOutput> readDomains(const Owner& owner) {
  return readMembers(owner.domain(), &DomainOutput::region);
}

std::vector<SwitchOutput> readSwitches(
    const VirtualNetwork::RequestedResourcesCollection& resources) {
  const auto byInterface = [](const SwitchportOutput& port) {
    return std::tuple(port.switchIdentifier, port.interfaceName);
  };
  return bySwitch(readMembers(resources.resourcesForSwitchport(), byInterface));
}

VlanPoolOutput readPool(const OpenStack::VlanPool* pool) {
  if (pool == nullptr) return {VlanIds(), VlanIds(), VlanIds()};
  return {readSet(pool->assignedVlan()), readSet(pool->availableVlan()),
          readSet(pool->allocatedVlan())};
}

}  // namespace

std::string_view readValue(OpenStack::SyncStatus status) {
  return syncStatusWord(static_cast<SyncStatus>(status));
}

// Keys.

VniOutput readKey(const VirtualNetwork::VniReferences& vni) {
  VniOutput output;
  output.vni = vni.fwkKey();
  return output;
}

VlanOutput readKey(const VirtualNetwork::VlanReferences& vlan) {
  VlanOutput output;
  output.vlan = vlan.fwkKey();
  return output;
}

DomainOutput readKey(const VirtualNetwork::DomainReferences& domain) {
  DomainOutput output;
  output.region = domain.fwkKey().view();
  return output;
}

RegionOutput readKey(const OpenStack::RegionStatus& region) {
  RegionOutput output;
  output.name = region.fwkKey().view();
  return output;
}

HostOutput readKey(const VirtualNetwork::ResourcesForHostname& host) {
  HostOutput output;
  output.host = host.fwkKey().view();
  return output;
}

SwitchportOutput readKey(const VirtualNetwork::ResourcesForSwitchport& port) {
  SwitchportOutput output;
  output.switchIdentifier = port.fwkKey().switchIdentifier().view();
  output.interfaceName = port.fwkKey().interfaceName().view();
  return output;
}

PhysicalInterfaceOutput readKey(const VirtualNetwork::PhysicalInterface& interface) {
  PhysicalInterfaceOutput output;
  output.name = interface.fwkKey().view();
  return output;
}

NetworkElementOutput readKey(const VirtualNetwork::NetworkElement& element) {
  NetworkElementOutput output;
  output.name = element.fwkKey().view();
  return output;
}

// Things.

VniOutput readOutput(const VirtualNetwork::VniReferences& vni) {
  return {vni.fwkKey(), readSet(vni.referrer())};
}

VlanOutput readOutput(const VirtualNetwork::VlanReferences& vlan) {
  return {vlan.fwkKey(), readSet(vlan.referrer()), readMembers(vlan.mappedVni(), &VniOutput::vni)};
}

DomainOutput readOutput(const VirtualNetwork::DomainReferences& domain) {
  return {domain.fwkKey().view(), readSet(domain.referrer())};
}

RegionOutput readOutput(const OpenStack::RegionStatus& region) {
  return {region.fwkKey().view(),
          readValue(region.syncStatus()),
          readValue(region.oldSyncStatus()),
          region.owner().view(),
          region.requestId().view(),
          region.vlanAssignmentUuid().view(),
          readPool(region.vlanPool().get())};
}

HostOutput readOutput(const VirtualNetwork::ResourcesForHostname& host) {
  return {host.fwkKey().view(), readDomains(host), readVlans(host)};
}

SwitchportOutput readOutput(const VirtualNetwork::ResourcesForSwitchport& port) {
  return {port.fwkKey().switchIdentifier().view(),
          port.fwkKey().interfaceName().view(),
          readVlans(port),
          port.nativeVlan(),
          readSet(port.remoteHost()),
          readSet(port.referrer())};
}

PhysicalInterfaceOutput readOutput(const VirtualNetwork::PhysicalInterface& interface) {
  return {interface.fwkKey().view(), readVlans(interface), interface.nativeVlan(),
          readSet(interface.configuredElement())};
}

NetworkElementOutput readOutput(const VirtualNetwork::NetworkElement& element) {
  return {element.fwkKey().view(),
          element.hostname().view(),
          readSet(element.referrer()),
          readDomains(element),
          readVlans(element),
          readMembers(element.physicalInterface(), &PhysicalInterfaceOutput::name)};
}

std::vector<SwitchOutput> bySwitch(std::vector<SwitchportOutput>&& ports) {
  std::vector<SwitchOutput> switches;
  for (SwitchportOutput& port : ports) {
    if (switches.empty() || switches.back().switchIdentifier != port.switchIdentifier) {
      switches.push_back({port.switchIdentifier, {}});
    }
    switches.back().port.push_back(std::move(port));
  }
  return switches;
}

OutputDocument readOutput(const OpenStack::OpenStackStatus& status,
                          const VirtualNetwork::RequestedResourcesCollection& resources,
                          const VirtualNetwork::NetworkElementCollection& elements) {
  return {readMembers(status.regionStatus(), &RegionOutput::name),
          RequestedResourcesOutput{readMembers(resources.resourcesForHostname(), &HostOutput::host),
                                   readSwitches(resources)},
          readMembers(elements.networkElement(), &NetworkElementOutput::name)};
}

namespace {

// A collection of the document, or one of its members where the place names it. Returns the depth
// of what was read.
template <class Members, class Find, class Read>
size_t readPart(std::span<const std::string> place, size_t depth, Find find, Read readAll,
                Members& members) {
  if (place.size() <= depth) {
    members = readAll();
    return depth;
  }
  const auto* member = find(place[depth]);
  if (member == nullptr) return 0;
  members.emplace().push_back(readOutput(*member));
  return depth + 1;
}

// The ports of all switches, of one switch, or one port.
size_t readSwitchPart(const VirtualNetwork::RequestedResourcesCollection& resources,
                      std::span<const std::string> place,
                      std::optional<std::vector<SwitchOutput>>& switches) {
  const auto& ports = resources.resourcesForSwitchport();
  if (place.size() == 2) {
    switches = readSwitches(resources);
    return 2;
  }
  SwitchOutput found;
  if (place.size() == 3) {
    for (const auto& port : ports) {
      if (port->fwkKey().switchIdentifier().view() == place[2]) {
        found.port.push_back(readOutput(*port));
      }
    }
    std::ranges::sort(found.port, {}, &SwitchportOutput::interfaceName);
  } else if (const auto* port = ports[VirtualNetwork::SwitchInterface(Kiv::String(place[2]),
                                                                      Kiv::String(place[3]))]) {
    found.port.push_back(readOutput(*port));
  }
  if (found.port.empty()) return 0;
  found.switchIdentifier = found.port.front().switchIdentifier;
  switches.emplace().push_back(std::move(found));
  return std::min(place.size(), size_t{4});
}

}  // namespace

OutputPart readOutputAt(const OpenStack::OpenStackStatus& status,
                        const VirtualNetwork::RequestedResourcesCollection& resources,
                        const VirtualNetwork::NetworkElementCollection& elements,
                        std::span<const std::string> place) {
  OutputPart part;
  if (place.empty()) return part;
  if (place[0] == "regionStatus") {
    part.depth = readPart(
        place, 1, [&](const std::string& name) { return status.regionStatus()[Kiv::Name(name)]; },
        [&] { return readMembers(status.regionStatus(), &RegionOutput::name); },
        part.document.regionStatus);
  } else if (place[0] == "networkElement") {
    part.depth = readPart(
        place, 1,
        [&](const std::string& name) { return elements.networkElement()[Kiv::Name(name)]; },
        [&] { return readMembers(elements.networkElement(), &NetworkElementOutput::name); },
        part.document.networkElement);
  } else if (place[0] == "requestedResources") {
    auto& output = part.document.requestedResources.emplace();
    const auto readHosts = [&] {
      return readMembers(resources.resourcesForHostname(), &HostOutput::host);
    };
    if (place.size() == 1) {
      output = {readHosts(), readSwitches(resources)};
      part.depth = 1;
    } else if (place[1] == "resourcesForHostname") {
      part.depth = readPart(
          place, 2,
          [&](const std::string& host) {
            return resources.resourcesForHostname()[Kiv::Name(host)];
          },
          readHosts, output.resourcesForHostname);
    } else if (place[1] == "resourcesForSwitchport") {
      part.depth = readSwitchPart(resources, place, output.resourcesForSwitchport);
    }
  }
  return part;
}

}  // namespace vnagent
