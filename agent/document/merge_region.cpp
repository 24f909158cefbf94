#include <algorithm>

#include <fmt/format.h>

#include "agent/document/merge.h"

namespace vnagent {
namespace {

// Stands for a segment whose type or id is unusable or missing, so that no rule is applied to it
// that only a right value could break.
constexpr SegmentValue kUnknownSegment{255, 0};

struct IdRange {
  int64_t low;
  int64_t high;
};

IdRange rangeOf(uint8_t type) {
  if (type == kVlanSegment) return {1, 4094};
  if (type == kVxlanSegment) return {1, 16777215};
  return {0, 4294967295};
}

std::string shownType(uint8_t type) {
  return type < kSegmentationTypeWords.size()
             ? fmt::format("a {} segment", kSegmentationTypeWords.at(type))
             : fmt::format("a segment of type {}", type);
}

class RegionMerger {
 public:
  RegionMerger(CloudState& state, RegionTouch& touch, Faults& faults)
      : state_(state), region_(*touch.region), touch_(touch), faults_(faults) {}

  void merge(const JsonValue& patch) {
    for (size_t i = 0; i < kRegionScalars.size(); ++i) {
      if (const JsonValue* member = patch.find(kRegionScalars[i].name)) mergeScalar(i, *member);
    }
    for (const JsonValue* member : patch.all()) {
      if (!indexIn(kRegionScalars, member->key)) mergeCollection(*member);
    }
  }

 private:
  void mergeScalar(size_t index, const JsonValue& patch) {
    const ScalarKind kind = kRegionScalars[index].kind;
    const auto value =
        patch.isNull() ? std::optional(defaultOf(kind)) : readScalar(patch, kind, faults_);
    if (value) touch_.scalars.emplace_back(static_cast<RegionScalar>(index), *value);
  }

  void mergeCollection(const JsonValue& patch) {
    if (patch.key == "segment") {
      mergeSegments(patch);
    } else if (patch.key == "port") {
      mergePorts(patch);
    } else if (patch.key == "portBinding") {
      mergePortBindings(patch);
    } else if (const auto set = indexIn(kRegionSets, patch.key)) {
      mergeNameSet(patch, region_.sets[*set], touch_.existed ? &touch_.sets[*set] : nullptr,
                   faults_);
    } else {
      refuseMember(patch, "a region", faults_);
    }
  }

  // Segments. Their entries stay where they are: levels may name one that this patch removes.

  void mergeSegments(const JsonValue& patch) {
    if (patch.isNull()) {
      for (auto& entry : region_.segment) removeSegment(entry);
      return;
    }
    if (!readObject(patch, "segments by id", faults_)) return;
    for (const JsonValue* member : patch.all()) {
      if (member->isNull()) {
        const auto at = region_.segment.find(member->key);
        if (at != region_.segment.end()) removeSegment(*at);
      } else if (readName(*member, faults_) && readObject(*member, "a segment", faults_)) {
        mergeSegment(*member);
      }
    }
  }

  void removeSegment(SegmentEntry& entry) {
    if (!entry.second.value) return;
    touchSegment(entry);
    entry.second.value.reset();
  }

  void touchSegment(SegmentEntry& entry) {
    if (!touch_.existed) return;
    touch_.segments.push_back({&entry, entry.second.value});
    touch_.loose.push_back(&entry);
  }

  void mergeSegment(const JsonValue& patch) {
    const auto at = placeFor(region_.segment, patch.key);
    const bool known = at != region_.segment.end() && at->first == patch.key;
    SegmentEntry& entry =
        known ? *at : *region_.segment.emplace_hint(at, std::string(patch.key), Segment{});
    const auto before = entry.second.value;
    const auto type = mergeSegmentType(patch, before);
    const auto value = mergeSegmentId(patch, before, type);
    for (const JsonValue* member : patch.all()) {
      if (member->key != "segmentationType" && member->key != "segmentationId") {
        refuseMember(*member, "a segment", faults_);
      }
    }
    if (before == value) return;
    touchSegment(entry);
    entry.second.value = value;
  }

  std::optional<uint8_t> mergeSegmentType(const JsonValue& patch,
                                          const std::optional<SegmentValue>& before) {
    const JsonValue* member = patch.find("segmentationType");
    if (member != nullptr && !member->isNull()) return readSegmentationType(*member, faults_);
    if (member == nullptr && before) return before->type;
    faults_.add(patch, "a segment must have a segmentationType");
    return std::nullopt;
  }

  // The segment's value after the patch, given its type after the patch.
  SegmentValue mergeSegmentId(const JsonValue& patch, const std::optional<SegmentValue>& before,
                              std::optional<uint8_t> type) {
    const JsonValue* member = patch.find("segmentationId");
    if (member == nullptr ? !before : member->isNull()) {
      faults_.add(patch, "a segment must have a segmentationId");
      return kUnknownSegment;
    }
    const auto [low, high] = rangeOf(type.value_or(kUnknownSegment.type));
    if (member == nullptr) {
      const int64_t id = before->id;
      if (!type) return kUnknownSegment;
      if (id >= low && id <= high) return {*type, before->id};
      std::string place = pointerOf(patch) + "/segmentationId";
      faults_.add(std::move(place),
                  fmt::format("{} is not an id of {} ({} to {})", id, shownType(*type), low, high));
      return kUnknownSegment;
    }
    const bool integer = member->kind == JsonValue::Kind::kInteger;
    if (integer && member->integer >= low && member->integer <= high) {
      return type ? SegmentValue{*type, static_cast<uint32_t>(member->integer)} : kUnknownSegment;
    }
    faults_.add(*member, fmt::format("{} is not an id of {} (an integer {} to {})", shown(*member),
                                     type ? shownType(*type) : "a segment", low, high));
    return kUnknownSegment;
  }

  // The place of a segment that is patched.
  std::string pointerOf(const JsonValue& segment) const {
    std::string place = "/region";
    appendToken(place, region_.name);
    place += "/segment";
    appendToken(place, segment.key);
    return place;
  }

  // Ports.

  void mergePorts(const JsonValue& patch) {
    if (patch.isNull()) {
      while (!region_.port.empty()) removePort(region_.port.begin());
      return;
    }
    if (!readObject(patch, "ports by id", faults_)) return;
    state_.expectPorts(patch.size);
    for (const JsonValue* member : patch.all()) {
      if (member->isNull()) {
        const auto at = region_.port.find(member->key);
        if (at != region_.port.end()) removePort(at);
      } else if (readName(*member, faults_) && readObject(*member, "a port", faults_)) {
        mergePort(*member);
      }
    }
  }

  void removePort(PortMap::iterator at) {
    state_.withdrawPort(region_, at->first);
    PortTouch touch{at->first, at->second.vlanType, nullptr, {}};
    touch.gone = region_.port.extract(at);
    if (touch_.existed) touch_.ports.push_back(std::move(touch));
  }

  void mergePort(const JsonValue& patch) {
    std::optional<uint8_t> vlanType;
    for (const JsonValue* member : patch.all()) {
      if (member->key != "vlanType") {
        refuseMember(*member, "a port", faults_);
      } else if (member->isNull()) {
        vlanType = uint8_t{0};
      } else if (const auto value = readInteger(*member, 0, 255, faults_)) {
        vlanType = static_cast<uint8_t>(*value);
      }
    }
    auto at = placeFor(region_.port, patch.key);
    if (at == region_.port.end() || at->first != patch.key) {
      at = region_.port.emplace_hint(at, std::string(patch.key), Port{vlanType.value_or(0)});
      state_.enterPort(region_, at->first);
      if (touch_.existed) touch_.ports.push_back({at->first, std::nullopt, &at->second, {}});
    } else if (vlanType && *vlanType != at->second.vlanType) {
      if (touch_.existed) touch_.ports.push_back({at->first, at->second.vlanType, &at->second, {}});
      at->second.vlanType = *vlanType;
    }
  }

  // Port bindings.

  void mergePortBindings(const JsonValue& patch) {
    auto& map = region_.portBinding;
    if (patch.isNull()) {
      while (!map.empty()) removePortBinding(map.begin());
      return;
    }
    if (!readObject(patch, "port bindings by port id", faults_)) return;
    for (const JsonValue* member : patch.all()) {
      const auto at = placeFor(map, member->key);
      const bool existed = at != map.end() && at->first == member->key;
      if (member->isNull()) {
        if (existed) removePortBinding(at);
      } else if (readName(*member, faults_) && readObject(*member, "a port binding", faults_)) {
        mergeMember(*member, at, existed);
      }
    }
  }

  void mergeMember(const JsonValue& patch, PortBindingMap::iterator at, bool existed) {
    if (!existed) {
      at = region_.portBinding.emplace_hint(at, std::string(patch.key), PortBinding{});
      at->second.region = &region_;
      at->second.id = at->first;
    }
    PortBindingTouch touch{&at->second, existed, {}, {}};
    mergePortBinding(patch, state_, at->second, touch_, existed ? &touch : nullptr, faults_);
    if (!touch_.existed) return;
    if (!existed || !touch.attachments[0].empty() || !touch.attachments[1].empty()) {
      touch_.portBindings.push_back(std::move(touch));
    }
  }

  void removePortBinding(PortBindingMap::iterator at) {
    state_.withdraw(at->second);
    PortBindingTouch touch{&at->second, true, {}, {}};
    touch.gone = region_.portBinding.extract(at);
    if (touch_.existed) touch_.portBindings.push_back(std::move(touch));
  }

  CloudState& state_;
  Region& region_;
  RegionTouch& touch_;
  Faults& faults_;
};

void removeRegion(CloudState& state, Change& change, RegionMap::iterator at) {
  state.withdraw(at->second);
  RegionTouch touch{&at->second, true, {}, {}, {}, {}, {}, {}, {}};
  touch.gone = state.region.extract(at);
  change.regions.push_back(std::move(touch));
}

}  // namespace

void mergeRegions(const JsonValue& patch, CloudState& state, Change& change, Faults& faults) {
  if (patch.isNull()) {
    while (!state.region.empty()) removeRegion(state, change, state.region.begin());
    return;
  }
  if (!readObject(patch, "regions by name", faults)) return;
  for (const JsonValue* member : patch.all()) {
    auto at = state.region.find(member->key);
    const bool existed = at != state.region.end();
    if (member->isNull()) {
      if (existed) removeRegion(state, change, at);
      continue;
    }
    if (!readName(*member, faults) || !readObject(*member, "a region", faults)) continue;
    if (!existed) {
      at = state.region.try_emplace(std::string(member->key)).first;
      at->second.name = at->first;
    }
    change.regions.push_back({&at->second, existed, {}, {}, {}, {}, {}, {}, {}});
    RegionMerger(state, change.regions.back(), faults).merge(*member);
  }
}

}  // namespace vnagent
