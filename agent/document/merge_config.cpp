#include <algorithm>

#include "agent/document/merge.h"

namespace vnagent {
namespace {

constexpr uint32_t kMinVlan = 1;
constexpr uint32_t kMaxVlan = 4094;

class ConfigMerger {
 public:
  ConfigMerger(Config& config, Change& change, Faults& faults)
      : config_(config), change_(change), faults_(faults) {}

  void merge(const JsonValue& patch) {
    if (patch.isNull()) {
      removeAll(patch);
      return;
    }
    if (!readObject(patch, "the agent configuration", faults_)) return;
    // Scalars in the order in which they are written, then the rest as it comes.
    for (size_t i = 0; i < kConfigScalars.size(); ++i) {
      if (const JsonValue* member = patch.find(kConfigScalars[i].name)) mergeScalar(i, *member);
    }
    for (const JsonValue* member : patch.all()) {
      if (!indexIn(kConfigScalars, member->key)) mergeCollection(*member);
    }
  }

 private:
  // With the whole configuration gone, only what stood in it is written.
  void removeAll(const JsonValue& null) {
    for (size_t i = 0; i < kConfigScalars.size(); ++i) {
      auto& held = config_.scalars[i];
      if (!held) continue;
      const bool changes = *held != defaultOf(kConfigScalars[i].kind);
      change_.configScalars.push_back({static_cast<ConfigScalar>(i), std::move(held), changes});
      held.reset();
    }
    for (size_t i = 0; i < kConfigSets.size(); ++i) {
      mergeNameSet(null, config_.sets[i], &change_.configSets[i], faults_);
    }
    mergeAclTypeVrf(null);
    mergeAssignments(null);
  }

  void mergeScalar(size_t index, const JsonValue& patch) {
    std::optional<ScalarValue> value;
    if (!patch.isNull()) {
      value = readScalar(patch, kConfigScalars[index].kind, faults_);
      if (!value) return;
    }
    auto& held = config_.scalars[index];
    change_.configScalars.push_back({static_cast<ConfigScalar>(index), std::move(held), true});
    held = std::move(value);
  }

  void mergeCollection(const JsonValue& patch) {
    if (const auto set = indexIn(kConfigSets, patch.key)) {
      mergeNameSet(patch, config_.sets[*set], &change_.configSets[*set], faults_);
    } else if (patch.key == "serviceAclTypeVrfMap") {
      mergeAclTypeVrf(patch);
    } else if (patch.key == "vlanAssignment") {
      mergeAssignments(patch);
    } else {
      refuseMember(patch, "the agent configuration", faults_);
    }
  }

  void mergeAclTypeVrf(const JsonValue& patch) {
    auto& map = config_.serviceAclTypeVrfMap;
    if (patch.isNull()) {
      while (!map.empty()) removeAclTypeVrf(map.begin());
      return;
    }
    if (!readObject(patch, "a map from ACL type to VRF", faults_)) return;
    for (const JsonValue* member : patch.all()) {
      const auto at = map.find(member->key);
      if (member->isNull()) {
        if (at != map.end()) removeAclTypeVrf(at);
        continue;
      }
      if (!readName(*member, faults_)) continue;
      const auto value = readScalar(*member, ScalarKind::kText, faults_);
      if (!value) continue;
      const auto& name = std::get<std::string>(*value);
      if (at == map.end()) {
        const auto made = map.emplace(member->key, name).first;
        change_.aclTypeVrf.push_back({made->first, std::nullopt, &made->second, {}});
      } else if (at->second != name) {
        change_.aclTypeVrf.push_back({at->first, std::move(at->second), &at->second, {}});
        at->second = name;
      }
    }
  }

  void removeAclTypeVrf(decltype(Config::serviceAclTypeVrfMap)::iterator at) {
    AclTypeVrfTouch touch{at->first, at->second, nullptr, {}};
    touch.gone = config_.serviceAclTypeVrfMap.extract(at);
    change_.aclTypeVrf.push_back(std::move(touch));
  }

  void mergeAssignments(const JsonValue& patch) {
    auto& map = config_.vlanAssignment;
    if (patch.isNull()) {
      while (!map.empty()) removeAssignment(map.begin());
      return;
    }
    if (!readObject(patch, "VLAN assignments by region", faults_)) return;
    for (const JsonValue* member : patch.all()) {
      const auto at = map.find(member->key);
      if (member->isNull()) {
        if (at != map.end()) removeAssignment(at);
      } else if (readName(*member, faults_) && readObject(*member, "a VLAN assignment", faults_)) {
        mergeAssignment(*member, at);
      }
    }
  }

  void removeAssignment(VlanAssignmentMap::iterator at) {
    VlanAssignmentTouch touch{at->first, &at->second, true, {}, {}};
    touch.gone = config_.vlanAssignment.extract(at);
    change_.vlanAssignments.push_back(std::move(touch));
  }

  void mergeAssignment(const JsonValue& patch, VlanAssignmentMap::iterator at) {
    const bool existed = at != config_.vlanAssignment.end();
    if (!existed) at = config_.vlanAssignment.try_emplace(std::string(patch.key)).first;
    VlanAssignmentTouch touch{at->first, &at->second, existed, {}, {}};
    for (const JsonValue* member : patch.all()) {
      if (member->key == "vlan") {
        mergeVlans(*member, touch);
      } else {
        refuseMember(*member, "a VLAN assignment", faults_);
      }
    }
    if (!existed) touch.touched.clear();
    std::ranges::sort(touch.touched, {}, &VlanTouch::vlan);
    if (!existed || !touch.touched.empty()) change_.vlanAssignments.push_back(std::move(touch));
  }

  void mergeVlans(const JsonValue& patch, VlanAssignmentTouch& touch) {
    VlanSet& vlans = *touch.vlans;
    if (patch.isNull()) {
      for (const auto& [vlan, assigned] : vlans) touch.touched.push_back({vlan, assigned, {}});
      vlans.clear();
      return;
    }
    if (!readObject(patch, "a set of VLAN ids", faults_)) return;
    for (const JsonValue* member : patch.all()) {
      const auto id = plainDecimal(member->key, kMinVlan, kMaxVlan);
      if (!id && member->isNull()) continue;
      if (!id) {
        faults_.add(*member, shown(member->key) + " is not a VLAN id (\"1\" to \"4094\")");
        continue;
      }
      const auto vlan = static_cast<uint16_t>(*id);
      const auto at = vlans.find(vlan);
      const auto before = at == vlans.end() ? std::nullopt : std::optional<bool>(at->second);
      if (member->isNull()) {
        if (!before) continue;
        touch.touched.push_back({vlan, before, {}});
        vlans.erase(at);
        continue;
      }
      const auto value = readScalar(*member, ScalarKind::kBool, faults_);
      if (!value || before == std::get<bool>(*value)) continue;
      touch.touched.push_back({vlan, before, std::get<bool>(*value)});
      vlans[vlan] = std::get<bool>(*value);
    }
  }

  Config& config_;
  Change& change_;
  Faults& faults_;
};

}  // namespace

void mergeConfig(const JsonValue& patch, Config& config, Change& change, Faults& faults) {
  ConfigMerger(config, change, faults).merge(patch);
}

}  // namespace vnagent
