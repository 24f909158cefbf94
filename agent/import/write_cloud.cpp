#include "agent/document/write_cloud.h"

#include "agent/import/neutron.h"

namespace vnagent {
namespace {

void fillAttachment(const ImportedBinding& binding, Things& segments, Attachment& attachment) {
  if (!binding.host.empty()) {
    attachment.values.resize(kSwitchInterfaceBindingScalars.size());
    attachment.values[kHostBehind] = binding.host;
  }
  for (const auto& [level, segment] : binding.segments) {
    attachment.levels.push_back({level, &*segments.find(segment)});
  }
}

void fillBinding(const ImportedPort& port, Things& segments, PortBinding& binding) {
  for (const auto& [host, bound] : port.hosts) {
    fillAttachment(bound, segments, binding.of(AttachmentKind::kHost)[{host, {}}]);
  }
  for (const auto& [key, bound] : port.interfaces) {
    auto& interfaces = binding.of(AttachmentKind::kSwitchInterface);
    fillAttachment(bound, segments, interfaces[{key.first, key.second}]);
  }
}

}  // namespace

void writeCloud(const NeutronImport& import, std::string_view region, JsonWriter& json) {
  CloudState cloud;
  Region& filled = cloud.region[std::string(region)];
  const auto fill = [&](size_t row, const std::set<std::string>& names) {
    for (const auto& name : names) filled.things[row].try_emplace(name);
  };
  fill(rowOf(kRegionCollections, "network"), import.networks);
  fill(rowOf(kRegionCollections, "vmInstance"), import.vmInstances);
  fill(rowOf(kRegionCollections, "dhcpInstance"), import.dhcpInstances);
  fill(rowOf(kRegionCollections, "baremetalInstance"), import.baremetalInstances);
  fill(rowOf(kRegionCollections, "routerInstance"), import.routerInstances);
  for (const auto& [id, segment] : import.segments) {
    filled.segments()[id].values = {int64_t{segment.type}, int64_t{segment.id}};
  }
  for (const auto& [id, port] : import.ports) {
    filled.things[kPortRow][id].values = {int64_t{port.vlanType}};
    if (port.bound) fillBinding(port, filled.segments(), filled.portBinding[id]);
  }
  writeCloud(cloud, json);
}

}  // namespace vnagent
