#include "agent/document/write_cloud.h"

#include <algorithm>

namespace vnagent {
namespace {

void writeScalars(const Values& values, const Kind& kind, JsonWriter& json) {
  for (size_t i = 0; i < values.size(); ++i) {
    const ScalarRow& row = kind.scalars[i];
    if (!isPrinted(values[i], row)) continue;
    json.key(row.name);
    write(values[i], row.form, json);
  }
}

void writeThings(const Things& things, const CollectionRow& row, JsonWriter& json) {
  if (things.empty()) return;
  json.key(row.name).open('{');
  for (const auto& [key, thing] : things) {
    json.key(key);
    writeThing(thing, row, json);
  }
  json.close('}');
}

void writeAttachments(const AttachmentMap& map, const CollectionRow& row, JsonWriter& json) {
  if (map.empty()) return;
  json.key(row.name).open('{');
  for (auto at = map.begin(); at != map.end();) {
    const std::string& first = at->first.first;
    json.key(first);
    if (row.shape == CollectionRow::Shape::kByKey) {
      writeAttachment((at++)->second, *row.of, json);
      continue;
    }
    json.open('{');
    for (; at != map.end() && at->first.first == first; ++at) {
      json.key(at->first.second);
      writeAttachment(at->second, *row.of, json);
    }
    json.close('}');
  }
  json.close('}');
}

void writeAssignments(const VlanAssignmentMap& map, const CollectionRow& row, JsonWriter& json) {
  if (map.empty()) return;
  json.key(row.name).open('{');
  for (const auto& [name, vlans] : map) {
    json.key(name);
    writeVlanAssignment(vlans, json);
  }
  json.close('}');
}

}  // namespace

bool isPrinted(const Scalar& value, const ScalarRow& row) {
  if (value.index() == 0) return false;
  return row.presence != ScalarRow::Presence::kOptional || value != defaultOf(row.form);
}

bool isEmpty(const Config& config) {
  for (size_t i = 0; i < config.values.size(); ++i) {
    if (isPrinted(config.values[i], kConfigScalars[i])) return false;
  }
  return config.vlanAssignment.empty() && std::ranges::all_of(config.things, &Things::empty);
}

void writeAttachment(const Attachment& attachment, const Kind& kind, JsonWriter& json) {
  json.open('{');
  writeScalars(attachment.values, kind, json);
  if (!attachment.levels.empty()) {
    json.key(kLevels.front().name).open('{');
    for (const Level& level : attachment.levels) {
      json.key(uint64_t{level.level}).text(level.segment->first);
    }
    json.close('}');
  }
  json.close('}');
}

void writeVlanAssignment(const VlanSet& vlans, JsonWriter& json) {
  json.open('{');
  if (!vlans.empty()) {
    json.key(kVlanAssignmentCollections.front().name).open('{');
    for (const auto& [vlan, assigned] : vlans) json.key(uint64_t{vlan}).boolean(assigned);
    json.close('}');
  }
  json.close('}');
}

void writeThing(const Thing& thing, const CollectionRow& row, JsonWriter& json) {
  if (row.of == nullptr) {
    write(thing.values.front(), *row.value, json);
    return;
  }
  json.open('{');
  writeScalars(thing.values, *row.of, json);
  json.close('}');
}

void writePortBinding(const PortBinding& binding, JsonWriter& json) {
  json.open('{');
  for (const auto kind : kAttachmentKinds) writeAttachments(binding.of(kind), rowOf(kind), json);
  json.close('}');
}

void writeRegion(const Region& region, JsonWriter& json) {
  json.open('{');
  writeScalars(region.values, kRegion, json);
  for (size_t i = 0; i < kPortBindingRow; ++i) {
    writeThings(region.things[i], kRegionCollections[i], json);
  }
  if (!region.portBinding.empty()) {
    json.key(kRegionCollections[kPortBindingRow].name).open('{');
    for (const auto& [id, binding] : region.portBinding) {
      json.key(id);
      writePortBinding(binding, json);
    }
    json.close('}');
  }
  json.close('}');
}

void writeConfig(const Config& config, JsonWriter& json) {
  json.open('{');
  writeScalars(config.values, kConfig, json);
  for (size_t i = 0; i < kConfigCollections.size(); ++i) {
    const CollectionRow& row = kConfigCollections[i];
    if (row.of == &kVlanAssignment) {
      writeAssignments(config.vlanAssignment, row, json);
    } else {
      writeThings(config.things[i], row, json);
    }
  }
  json.close('}');
}

void writeCloud(const CloudState& state, JsonWriter& json) {
  const auto& [config, region] = kDocumentMembers;
  json.open('{');
  if (!isEmpty(state.config)) {
    json.key(config.name);
    writeConfig(state.config, json);
  }
  if (!state.region.empty()) {
    json.key(region.name).open('{');
    for (const auto& [name, value] : state.region) {
      json.key(name);
      writeRegion(value, json);
    }
    json.close('}');
  }
  json.close('}');
}

}  // namespace vnagent
