#include "agent/live/output_of_json.h"

#include <charconv>
#include <string>
#include <string_view>

namespace vnagent {
namespace {

using nlohmann::json;

std::string_view textOf(const json& value) {
  return value.get_ref<const std::string&>();
}

uint32_t numberOf(std::string_view key) {
  uint32_t number = 0;
  std::from_chars(key.data(), key.data() + key.size(), number);
  return number;
}

Texts textsOf(const json& value) {
  Texts texts;
  for (const json& text : value) texts.push_back(textOf(text));
  return texts;
}

VlanIds vlansIn(const json& value) {
  return value.get<VlanIds>();
}

std::vector<DomainOutput> domainsOf(const json& value) {
  std::vector<DomainOutput> domains;
  for (auto member = value.begin(); member != value.end(); ++member) {
    domains.push_back({member.key(), textsOf(member.value())});
  }
  return domains;
}

std::vector<VlanOutput> vlansOf(const json& value) {
  std::vector<VlanOutput> vlans;
  for (auto member = value.begin(); member != value.end(); ++member) {
    std::vector<VniOutput> vnis;
    const json& mapped = member.value()["mappedVni"];
    for (auto vni = mapped.begin(); vni != mapped.end(); ++vni) {
      vnis.push_back({numberOf(vni.key()), textsOf(vni.value())});
    }
    vlans.push_back({numberOf(member.key()), textsOf(member.value()["referrer"]), std::move(vnis)});
  }
  return vlans;
}

RegionOutput regionOf(std::string_view name, const json& value) {
  const json& pool = value["vlanPool"];
  return {name,
          textOf(value["syncStatus"]),
          textOf(value["oldSyncStatus"]),
          textOf(value["owner"]),
          textOf(value["requestId"]),
          textOf(value["vlanAssignmentUuid"]),
          VlanPoolOutput{vlansIn(pool["assignedVlan"]), vlansIn(pool["availableVlan"]),
                         vlansIn(pool["allocatedVlan"])}};
}

SwitchportOutput portOf(std::string_view of, std::string_view interface, const json& value) {
  return {of,
          interface,
          vlansOf(value["vlan"]),
          value["nativeVlan"].get<uint32_t>(),
          textsOf(value["remoteHost"]),
          textsOf(value["referrer"])};
}

NetworkElementOutput elementOf(std::string_view name, const json& value) {
  std::vector<PhysicalInterfaceOutput> interfaces;
  const json& all = value["physicalInterface"];
  for (auto member = all.begin(); member != all.end(); ++member) {
    const json& interface = member.value();
    interfaces.push_back({member.key(), vlansOf(interface["vlan"]),
                          interface["nativeVlan"].get<uint32_t>(),
                          textsOf(interface["configuredElement"])});
  }
  return {name,
          textOf(value["hostname"]),
          textsOf(value["referrer"]),
          domainsOf(value["domain"]),
          vlansOf(value["vlan"]),
          std::move(interfaces)};
}

}  // namespace

OutputDocument outputOf(const json& document) {
  OutputDocument output;
  auto& regions = output.regionStatus.emplace();
  const json& statuses = document["regionStatus"];
  for (auto region = statuses.begin(); region != statuses.end(); ++region) {
    regions.push_back(regionOf(region.key(), region.value()));
  }
  auto& resources = output.requestedResources.emplace();
  auto& hosts = resources.resourcesForHostname.emplace();
  const json& forHosts = document["requestedResources"]["resourcesForHostname"];
  for (auto host = forHosts.begin(); host != forHosts.end(); ++host) {
    hosts.push_back({host.key(), domainsOf(host.value()["domain"]), vlansOf(host.value()["vlan"])});
  }
  auto& switches = resources.resourcesForSwitchport.emplace();
  const json& forPorts = document["requestedResources"]["resourcesForSwitchport"];
  for (auto of = forPorts.begin(); of != forPorts.end(); ++of) {
    SwitchOutput ports;
    ports.switchIdentifier = of.key();
    for (auto port = of.value().begin(); port != of.value().end(); ++port) {
      ports.port.push_back(portOf(of.key(), port.key(), port.value()));
    }
    switches.push_back(std::move(ports));
  }
  auto& elements = output.networkElement.emplace();
  const json& forElements = document["networkElement"];
  for (auto element = forElements.begin(); element != forElements.end(); ++element) {
    elements.push_back(elementOf(element.key(), element.value()));
  }
  return output;
}

}  // namespace vnagent
