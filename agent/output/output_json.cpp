#include "agent/output/output_json.h"

namespace vnagent {
namespace {

void write(std::string_view key, const Texts& texts, JsonWriter& json) {
  json.key(key).open('[');
  for (const auto text : texts) json.text(text);
  json.close(']');
}

void write(std::string_view key, const std::vector<uint16_t>& numbers, JsonWriter& json) {
  json.key(key).open('[');
  for (const auto number : numbers) json.number(uint64_t{number});
  json.close(']');
}

void write(const std::vector<VlanOutput>& vlans, JsonWriter& json) {
  json.key("vlan").open('{');
  for (const VlanOutput& vlan : vlans) {
    json.key(vlan.vlan).open('{');
    write("referrer", vlan.referrer, json);
    json.key("mappedVni").open('{');
    for (const VniOutput& vni : vlan.mappedVni) {
      json.key(vni.vni).open('[');
      for (const auto referrer : vni.referrer) json.text(referrer);
      json.close(']');
    }
    json.close('}').close('}');
  }
  json.close('}');
}

void write(const std::vector<DomainOutput>& domains, JsonWriter& json) {
  json.key("domain").open('{');
  for (const DomainOutput& domain : domains) write(domain.region, domain.referrer, json);
  json.close('}');
}

void write(const RegionOutput& region, JsonWriter& json) {
  json.key(region.name).open('{');
  json.key("syncStatus").text(region.syncStatus);
  json.key("oldSyncStatus").text(region.oldSyncStatus);
  json.key("owner").text(region.owner);
  json.key("requestId").text(region.requestId);
  json.key("vlanAssignmentUuid").text(region.vlanAssignmentUuid);
  json.key("vlanPool").open('{');
  write("assignedVlan", region.assignedVlan, json);
  write("availableVlan", region.availableVlan, json);
  write("allocatedVlan", region.allocatedVlan, json);
  json.close('}').close('}');
}

void write(const HostOutput& host, JsonWriter& json) {
  json.key(host.host).open('{');
  write(host.domain, json);
  write(host.vlan, json);
  json.close('}');
}

void write(const SwitchportOutput& port, JsonWriter& json) {
  json.key(port.interfaceName).open('{');
  write(port.vlan, json);
  json.key("nativeVlan").number(uint64_t{port.nativeVlan});
  write("remoteHost", port.remoteHost, json);
  write("referrer", port.referrer, json);
  json.close('}');
}

// Interfaces stand in one object for each switch.
void write(const std::vector<SwitchportOutput>& ports, JsonWriter& json) {
  json.key("resourcesForSwitchport").open('{');
  for (auto port = ports.begin(); port != ports.end();) {
    const auto name = port->switchIdentifier;
    json.key(name).open('{');
    for (; port != ports.end() && port->switchIdentifier == name; ++port) write(*port, json);
    json.close('}');
  }
  json.close('}');
}

void write(const PhysicalInterfaceOutput& interface, JsonWriter& json) {
  json.key(interface.name).open('{');
  write(interface.vlan, json);
  json.key("nativeVlan").number(uint64_t{interface.nativeVlan});
  write("configuredElement", interface.configuredElement, json);
  json.close('}');
}

void write(const NetworkElementOutput& element, JsonWriter& json) {
  json.key(element.name).open('{');
  json.key("hostname").text(element.hostname);
  write("referrer", element.referrer, json);
  write(element.domain, json);
  write(element.vlan, json);
  json.key("physicalInterface").open('{');
  for (const auto& interface : element.physicalInterface) write(interface, json);
  json.close('}').close('}');
}

}  // namespace

void writeOutput(const OutputDocument& output, JsonWriter& json) {
  json.open('{').key("regionStatus").open('{');
  for (const auto& region : output.regionStatus) write(region, json);
  json.close('}').key("requestedResources").open('{');
  json.key("resourcesForHostname").open('{');
  for (const auto& host : output.resourcesForHostname) write(host, json);
  json.close('}');
  write(output.resourcesForSwitchport, json);
  json.close('}').key("networkElement").open('{');
  for (const auto& element : output.networkElement) write(element, json);
  json.close('}').close('}');
}

}  // namespace vnagent
