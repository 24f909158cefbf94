#include "agent/document/vocabulary.h"
#include "agent/import/neutron.h"

namespace vnagent {
namespace {

void writeNames(std::string_view key, const std::set<std::string>& names, JsonWriter& json) {
  json.key(key).open('{');
  for (const auto& name : names) json.key(name).open('{').close('}');
  json.close('}');
}

void writeLevels(const ImportedBinding& binding, JsonWriter& json) {
  json.key("segment").open('{');
  for (const auto& [level, segment] : binding.segments) json.key(uint64_t{level}).text(segment);
  json.close('}');
}

void writeInterfaces(const ImportedPort& port, JsonWriter& json) {
  json.key("portToSwitchInterfaceBinding").open('{');
  for (auto at = port.interfaces.begin(); at != port.interfaces.end();) {
    const std::string& name = at->first.first;
    json.key(name).open('{');
    for (; at != port.interfaces.end() && at->first.first == name; ++at) {
      json.key(at->first.second).open('{').key("host").text(at->second.host);
      writeLevels(at->second, json);
      json.close('}');
    }
    json.close('}');
  }
  json.close('}');
}

void writeBinding(const ImportedPort& port, JsonWriter& json) {
  json.open('{');
  if (!port.hosts.empty()) {
    json.key("portToHostBinding").open('{');
    for (const auto& [host, binding] : port.hosts) {
      json.key(host).open('{');
      writeLevels(binding, json);
      json.close('}');
    }
    json.close('}');
  }
  if (!port.interfaces.empty()) writeInterfaces(port, json);
  json.close('}');
}

void writeSegment(const ImportedSegment& segment, JsonWriter& json) {
  json.open('{').key("segmentationType");
  if (segment.type < kSegmentationTypeWords.size()) {
    json.text(kSegmentationTypeWords.at(segment.type));
  } else {
    json.number(uint64_t{segment.type});
  }
  json.key("segmentationId").number(uint64_t{segment.id}).close('}');
}

}  // namespace

void writeCloud(const NeutronImport& import, std::string_view region, JsonWriter& json) {
  json.open('{').key("region").open('{').key(region).open('{');
  writeNames("network", import.networks, json);
  json.key("segment").open('{');
  for (const auto& [id, segment] : import.segments) {
    json.key(id);
    writeSegment(segment, json);
  }
  json.close('}').key("port").open('{');
  for (const auto& [id, port] : import.ports) {
    json.key(id).open('{').key("vlanType").number(uint64_t{port.vlanType}).close('}');
  }
  json.close('}').key("portBinding").open('{');
  for (const auto& [id, port] : import.ports) {
    if (!port.bound) continue;
    json.key(id);
    writeBinding(port, json);
  }
  json.close('}');
  writeNames("vmInstance", import.vmInstances, json);
  writeNames("dhcpInstance", import.dhcpInstances, json);
  writeNames("baremetalInstance", import.baremetalInstances, json);
  writeNames("routerInstance", import.routerInstances, json);
  json.close('}').close('}').close('}');
}

}  // namespace vnagent
