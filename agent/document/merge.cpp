#include "agent/document/merge.h"

#include <algorithm>

namespace vnagent {
namespace {

// What a table may have and this file would not see.
static_assert(kPortBinding.scalars.empty(), "PortBinding holds no scalars: give it Values");
static_assert(kVlanAssignment.scalars.empty(), "an assignment holds no scalars: give it Values");
static_assert(std::ranges::count(kRegionCollections, false, &CollectionRow::isGeneric) == 1,
              "only port bindings have operations of their own: write this row with things()");
static_assert(std::ranges::count(kConfigCollections, false, &CollectionRow::isGeneric) == 1,
              "only VLAN assignments have operations of their own: write this row with things()");

// Their scalars are merged by mergeWritten(), those of all other kinds by mergeReplaced().
static_assert(kConfig.onChange == OnChange::kWrite && kRegion.onChange == OnChange::kWrite);
static_assert(kSegment.onChange == OnChange::kReplace && kPort.onChange == OnChange::kReplace);

// VLAN assignments.

void mergeVlans(const JsonValue& patch, DirtyVlanAssignment& dirty, Faults& faults) {
  const CollectionRow& row = kVlanAssignmentCollections.front();
  VlanSet& vlans = dirty.value();
  if (patch.isNull()) {
    for (const auto& [vlan, assigned] : vlans) dirty.vlans.push_back({vlan, assigned, {}});
    vlans.clear();
    return;
  }
  if (!readObject(patch, row.what, faults)) return;
  for (const JsonValue* member : patch.all()) {
    const auto id = readNumberKey(*member, row.key, faults);
    if (!id) continue;
    const auto vlan = static_cast<uint16_t>(*id);
    const auto at = vlans.find(vlan);
    const auto before = at == vlans.end() ? std::nullopt : std::optional<bool>(at->second);
    std::optional<bool> after;
    if (!member->isNull()) {
      const auto value = read(*member, *row.value, faults);
      if (!value) continue;
      after = std::get<bool>(*value);
    }
    if (after == before) continue;
    dirty.vlans.push_back({vlan, before, after});
    if (after) {
      vlans[vlan] = *after;
    } else {
      vlans.erase(at);
    }
  }
}

void mergeAssignments(const JsonValue& patch, const CollectionRow& row, VlanAssignmentMap& map,
                      Change& change, Faults& faults) {
  const auto remove = [&](VlanAssignmentMap::iterator at) {
    DirtyVlanAssignment dirty{{&*at, true}};
    dirty.gone = map.extract(at);
    change.vlanAssignments.push_back(std::move(dirty));
  };
  const auto mergeOne = [&](const JsonValue& member, auto at, bool existed) {
    if (!existed) at = map.try_emplace(at, std::string(member.key));
    DirtyVlanAssignment dirty{{&*at, existed}};
    if (const JsonValue* vlans = member.find("vlan")) mergeVlans(*vlans, dirty, faults);
    refuseUnknown(member, *row.of, faults);
    std::ranges::sort(dirty.vlans, {}, &DirtyVlan::vlan);
    if (!existed || !dirty.vlans.empty()) change.vlanAssignments.push_back(std::move(dirty));
  };
  mergeMembers(patch, row, map, faults, remove, mergeOne);
}

void mergePortBindings(const JsonValue& patch, const CollectionRow& row, CloudState& state,
                       DirtyRegion& region, Faults& faults) {
  auto& map = region.value().portBinding;
  const auto remove = [&](PortBindingMap::iterator at) {
    state.unindex(at->second);
    DirtyPortBinding dirty{{&*at, true}};
    dirty.gone = map.extract(at);
    region.portBindings.push_back(std::move(dirty));
  };
  const auto mergeOne = [&](const JsonValue& member, auto at, bool existed) {
    if (!existed) {
      at = map.try_emplace(at, std::string(member.key));
      at->second.region = &region.value();
      at->second.id = at->first;
    }
    DirtyPortBinding dirty{{&*at, existed}};
    auto* segments = region.existed ? &region.things[kSegmentRow] : nullptr;
    mergePortBinding(member, state, dirty, segments, faults);
    const bool changed = !existed || !dirty.attachments[0].empty() || !dirty.attachments[1].empty();
    if (changed && region.existed) region.portBindings.push_back(std::move(dirty));
  };
  mergeMembers(patch, row, map, faults, remove, mergeOne);
}

void mergeRegions(const JsonValue& patch, const CollectionRow& row, CloudState& state,
                  Change& change, Faults& faults) {
  auto& map = state.region;
  const auto remove = [&](RegionMap::iterator at) {
    state.unindex(at->second);
    DirtyRegion dirty{{&*at, true}};
    dirty.gone = map.extract(at);
    change.regions.push_back(std::move(dirty));
  };
  const auto mergeOne = [&](const JsonValue& member, auto at, bool existed) {
    if (!existed) {
      at = map.try_emplace(at, std::string(member.key));
      at->second.name = at->first;
    }
    change.regions.push_back({{&*at, existed}});
    mergeRegion(member, state, change.regions.back(), faults);
  };
  mergeMembers(patch, row, map, faults, remove, mergeOne);
}

}  // namespace

void mergeConfig(const JsonValue& patch, Config& config, Change& change, Faults& faults) {
  if (!patch.isNull() && !readObject(patch, kConfig.name, faults)) return;
  mergeWritten(patch, kConfig, config.values, change.configScalars, faults);
  for (size_t i = 0; i < kConfigCollections.size(); ++i) {
    const CollectionRow& row = kConfigCollections[i];
    const JsonValue* member = patch.isNull() ? &patch : patch.find(row.name);
    if (member == nullptr) continue;
    if (row.of == &kVlanAssignment) {
      mergeAssignments(*member, row, config.vlanAssignment, change, faults);
    } else {
      mergeThings(*member, {row, config.things[i], &change.configThings[i], nullptr, nullptr},
                  faults);
    }
  }
  refuseUnknown(patch, kConfig, faults);
}

void mergeRegion(const JsonValue& patch, CloudState& state, DirtyRegion& dirty, Faults& faults) {
  Region& region = dirty.value();
  mergeWritten(patch, kRegion, region.values, dirty.scalars, faults);
  // Port bindings first: when a segment is removed, it is known whether a level still names it.
  const CollectionRow& bindings = kRegionCollections[kPortBindingRow];
  if (const JsonValue* member = patch.find(bindings.name)) {
    mergePortBindings(*member, bindings, state, dirty, faults);
  }
  for (size_t i = 0; i < kPortBindingRow; ++i) {
    const CollectionRow& row = kRegionCollections[i];
    const JsonValue* member = patch.find(row.name);
    if (member == nullptr) continue;
    mergeThings(*member,
                {row, region.things[i], dirty.existed ? &dirty.things[i] : nullptr, &region,
                 i == kPortRow ? &state : nullptr},
                faults);
  }
  std::ranges::sort(dirty.things[kSegmentRow], {}, &DirtyThing::key);
  refuseUnknown(patch, kRegion, faults);
}

void merge(const JsonValue& patch, CloudState& state, Change& change, Faults& faults) {
  if (!readObject(patch, kDocument.name, faults)) return;
  const auto& [config, region] = kDocumentMembers;
  if (const JsonValue* member = patch.find(config.name)) {
    mergeConfig(*member, state.config, change, faults);
  }
  if (const JsonValue* member = patch.find(region.name)) {
    mergeRegions(*member, region, state, change, faults);
  }
  refuseUnknown(patch, kDocument, faults);
}

}  // namespace vnagent
