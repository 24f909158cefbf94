#include "agent/plan/plan.h"

#include <algorithm>
#include <optional>
#include <unordered_map>
#include <unordered_set>

namespace vnagent {
namespace {

// What happens to one attachment of a port binding that stays.
enum class Step : uint8_t { kRemove, kAdd, kReplace, kLevels };

struct AttachmentPlan {
  const DirtyAttachment* dirty;
  AttachmentKind kind;
  Step step;
};

struct BindingPlan {
  const PortBinding* binding;
  bool removed;  // whole
  bool added;    // whole, again or for the first time
  std::vector<AttachmentPlan> attachments;
};

// Plans one region that was changed, first binding by binding.
class RegionPlanner {
 public:
  RegionPlanner(const DirtyRegion& dirty, bool toggle) : dirty_(dirty), toggle_(toggle) {
    for (const DirtyThing& segment : dirty.things[kSegmentRow]) {
      const Values& before = segment.changed() ? segment.before : segment.value().values;
      before_.emplace(segment.entry, segment.added() ? std::nullopt : segmentType(before));
      if (segment.changed()) changed_.insert(segment.entry);
    }
    collectReplaced();
    collectBindings();
  }

  // In ascending order of the port id.
  const std::vector<BindingPlan>& bindings() const { return bindings_; }

  // The levels to remove from a binding that stays: VLANs first, then the others, each ascending.
  std::vector<uint8_t> levelsToRemove(const DirtyAttachment& dirty) const {
    std::vector<uint8_t> vlans;
    std::vector<uint8_t> others;
    for (const Level& level : dirty.before.levels) {
      if (stays(dirty, level)) continue;
      (typeBefore(*level.segment) == kVlanSegment ? vlans : others).push_back(level.level);
    }
    vlans.insert(vlans.end(), others.begin(), others.end());
    return vlans;
  }

  static bool stays(const DirtyAttachment& dirty, const Level& before) {
    return segmentAt(dirty.value().levels, before.level) == before.segment;
  }

 private:
  const DirtyPortBinding* findDirty(const PortBinding& binding) const {
    const auto id = [](const DirtyPortBinding& dirty) { return dirty.value().id; };
    const auto at = std::ranges::lower_bound(dirty_.portBindings, binding.id, {}, id);
    return at != dirty_.portBindings.end() && &at->value() == &binding ? &*at : nullptr;
  }

  std::optional<int64_t> typeBefore(const ThingEntry& segment) const {
    const auto at = before_.find(&segment);
    return at == before_.end() ? segmentType(segment.second.values) : at->second;
  }

  bool nameChanged(const Levels& levels) const {
    return std::ranges::any_of(
        levels, [&](const Level& level) { return changed_.contains(level.segment); });
  }

  // Finds the port bindings that used a changed segment or port before and still exist.
  void collectReplaced() {
    for (const DirtyThing& port : dirty_.things[kPortRow]) {
      if (!port.changed()) continue;
      const auto& bindings = dirty_.value().portBinding;
      const auto at = bindings.find(port.key());
      if (at == bindings.end()) continue;
      const DirtyPortBinding* dirty = findDirty(at->second);
      if (dirty == nullptr || dirty->existed) replaced_.insert(&at->second);
    }
    if (changed_.empty()) return;
    for (const DirtyPortBinding& dirty : dirty_.portBindings) {
      if (!dirty.changed()) continue;
      for (const auto kind : kAttachmentKinds) {
        for (const DirtyAttachment& attachment : dirty.of(kind)) {
          const Attachment& before = attachment.removed() ? attachment.value() : attachment.before;
          if (attachment.existed && nameChanged(before.levels)) replaced_.insert(&dirty.value());
        }
      }
    }
    for (const ThingEntry* segment : changed_) {
      for (const SegmentUse& use : segment->second.users) {
        if (isClean(use)) replaced_.insert(use.binding);
      }
    }
  }

  // Whether the patch left what uses the segment alone, which so used it before, too.
  bool isClean(const SegmentUse& use) const {
    const DirtyPortBinding* dirty = findDirty(*use.binding);
    if (dirty == nullptr) return true;
    if (dirty->added()) return false;
    return std::ranges::none_of(dirty->attachments, [&](const auto& attachments) {
      return std::ranges::find(attachments, use.attachment, &DirtyAttachment::entry) !=
             attachments.end();
    });
  }

  void collectBindings() {
    for (const DirtyPortBinding& dirty : dirty_.portBindings) {
      if (replaced_.contains(&dirty.value())) continue;
      if (dirty.changed()) {
        bindings_.push_back(planBinding(dirty));
      } else {
        bindings_.push_back({&dirty.value(), dirty.removed(), dirty.added(), {}});
      }
    }
    for (const PortBinding* binding : replaced_) bindings_.push_back({binding, true, true, {}});
    const auto id = [](const BindingPlan& plan) { return plan.binding->id; };
    std::ranges::sort(bindings_, {}, id);
  }

  BindingPlan planBinding(const DirtyPortBinding& dirty) const {
    BindingPlan plan{&dirty.value(), false, false, {}};
    for (const auto kind : kAttachmentKinds) {
      for (const DirtyAttachment& attachment : dirty.of(kind)) {
        plan.attachments.push_back({&attachment, kind, stepOf(attachment, kind)});
      }
    }
    if (!toggle_ && losesSharedElement(plan)) return {plan.binding, true, true, {}};
    return plan;
  }

  Step stepOf(const DirtyAttachment& dirty, AttachmentKind kind) const {
    if (dirty.added()) return Step::kAdd;
    if (dirty.removed()) return Step::kRemove;
    const bool same = areSame(dirty.value().values, dirty.before.values, *rowOf(kind).of);
    return same && !leavesVni(dirty) ? Step::kLevels : Step::kReplace;
  }

  // Whether a VXLAN level is removed or changed right above a VLAN level that stays.
  bool leavesVni(const DirtyAttachment& dirty) const {
    return std::ranges::any_of(dirty.before.levels, [&](const Level& vxlan) {
      if (typeBefore(*vxlan.segment) != kVxlanSegment || stays(dirty, vxlan)) return false;
      const auto below = static_cast<uint8_t>(vxlan.level + 1);
      const ThingEntry* vlan = segmentAt(dirty.before.levels, below);
      return vlan != nullptr && segmentType(vlan->second.values) == kVlanSegment &&
             segmentAt(dirty.value().levels, below) == vlan;
    });
  }

  // Whether a switch-interface binding is removed, for good or for a while, and another one was
  // there before and is there after.
  static bool losesSharedElement(const BindingPlan& plan) {
    size_t added = 0;
    bool removed = false;
    bool replaced = false;
    for (const AttachmentPlan& attachment : plan.attachments) {
      if (attachment.kind != AttachmentKind::kSwitchInterface) continue;
      added += attachment.step == Step::kAdd ? 1 : 0;
      removed = removed || attachment.step == Step::kRemove;
      replaced = replaced || attachment.step == Step::kReplace;
    }
    const auto kept = plan.binding->of(AttachmentKind::kSwitchInterface).size() - added;
    return (removed && kept >= 1) || (replaced && kept >= 2);
  }

  const DirtyRegion& dirty_;
  bool toggle_;
  std::unordered_map<const ThingEntry*, std::optional<int64_t>> before_;  // types of dirty segments
  std::unordered_set<const ThingEntry*> changed_;
  std::unordered_set<const PortBinding*> replaced_;
  std::vector<BindingPlan> bindings_;
};

AttachmentAddress addressOf(const PortBinding& binding, AttachmentKind kind,
                            const AttachmentKey& key) {
  return {&binding, &key, kind};
}

class Planner {
 public:
  Planner(const CloudState& state, const Change& change, const PlanSettings& settings)
      : state_(state), change_(change), settings_(settings) {
    planners_.reserve(change.regions.size());
    for (const DirtyRegion& dirty : change.regions) {
      if (dirty.changed()) planners_.emplace_back(&dirty, RegionPlanner(dirty, settings.toggle));
    }
  }

  Plan plan() {
    planRemovals();
    planConfiguration();
    planAdditions();
    planScalars();
    return std::move(plan_);
  }

 private:
  template <class T>
  void remove(T operation) {
    plan_[Plan::kRemovals].emplace_back(std::move(operation));
  }
  template <class T>
  void configure(T operation) {
    plan_[Plan::kConfiguration].emplace_back(std::move(operation));
  }
  template <class T>
  void add(T operation) {
    plan_[Plan::kAdditions].emplace_back(std::move(operation));
  }

  void planRemovals() {
    for (const auto& [dirty, planner] : planners_) removeLevels(planner);
    for (const auto& [dirty, planner] : planners_) removeAttachments(planner);
    for (const auto& [dirty, planner] : planners_) {
      for (const BindingPlan& binding : planner.bindings()) {
        if (binding.removed) remove(op::PortBindingDel{dirty->value().name, binding.binding->id});
      }
    }
    for (size_t row = 0; row < kPortBindingRow; ++row) {
      for (const auto& [dirty, planner] : planners_) {
        removeThings(kRegionCollections[row], &dirty->value(), dirty->things[row]);
      }
    }
    for (const DirtyRegion& dirty : change_.regions) {
      if (dirty.removed()) removeRegion(dirty.value());
    }
    removeConfiguration();
  }

  void removeLevels(const RegionPlanner& planner) {
    for (const BindingPlan& binding : planner.bindings()) {
      for (const AttachmentPlan& plan : binding.attachments) {
        if (plan.step != Step::kLevels) continue;
        const auto at = addressOf(*binding.binding, plan.kind, plan.dirty->key());
        for (const uint8_t level : planner.levelsToRemove(*plan.dirty)) {
          remove(op::LevelDel{at, level});
        }
      }
    }
  }

  void removeAttachments(const RegionPlanner& planner) {
    for (const BindingPlan& binding : planner.bindings()) {
      for (const AttachmentPlan& plan : binding.attachments) {
        if (plan.step != Step::kRemove && plan.step != Step::kReplace) continue;
        remove(op::AttachmentDel{addressOf(*binding.binding, plan.kind, plan.dirty->key())});
      }
    }
  }

  // A thing that was changed is taken out, and added again; but a scalar by itself is written over.
  void removeThings(const CollectionRow& row, const Region* region,
                    const std::vector<DirtyThing>& things) {
    for (const DirtyThing& thing : things) {
      if (thing.removed() || (thing.changed() && row.of != nullptr)) {
        remove(op::ThingDel{&row, region, thing.key()});
      }
    }
  }

  void addThings(const CollectionRow& row, const Region* region,
                 const std::vector<DirtyThing>& things, Plan::Step step) {
    for (const DirtyThing& thing : things) {
      if (!thing.removed()) plan_[step].emplace_back(op::ThingIs{&row, region, thing.entry});
    }
  }

  // Members that have only a key are removed with their region.
  void removeRegion(const Region& region) {
    for (const auto& [id, binding] : region.portBinding) {
      remove(op::PortBindingDel{region.name, id});
    }
    for (size_t row = 0; row < kPortBindingRow; ++row) {
      if (kRegionCollections[row].of == &kNamed) continue;
      for (const auto& [id, thing] : region.things[row]) {
        remove(op::ThingDel{&kRegionCollections[row], &region, id});
      }
    }
    remove(op::RegionDel{region.name});
  }

  void removeConfiguration() {
    for (const DirtyVlanAssignment& dirty : change_.vlanAssignments) {
      for (const DirtyVlan& vlan : dirty.vlans) {
        if (dirty.changed() && !vlan.after) remove(op::VlanDel{dirty.key(), vlan.vlan});
      }
    }
    for (const DirtyVlanAssignment& dirty : change_.vlanAssignments) {
      if (dirty.removed()) remove(op::VlanAssignmentDel{dirty.key()});
    }
    for (size_t row = 0; row < kConfigCollections.size(); ++row) {
      removeThings(kConfigCollections[row], nullptr, change_.configThings[row]);
    }
  }

  void planConfiguration() {
    const Config& config = state_.config;
    planScalars(change_.configScalars, kConfig, nullptr, config.values, Plan::kConfiguration);
    const double after = regionSyncTimeoutOf(config, settings_.regionSyncTimeout);
    if (after != timeoutBefore()) configure(op::RegionSyncTimeoutIs{after});
    for (size_t row = 0; row < kConfigCollections.size(); ++row) {
      addThings(kConfigCollections[row], nullptr, change_.configThings[row], Plan::kConfiguration);
    }
    for (const DirtyVlanAssignment& dirty : change_.vlanAssignments) {
      if (dirty.added()) configure(op::VlanAssignmentIs{dirty.key(), &dirty.value()});
    }
    for (const DirtyVlanAssignment& dirty : change_.vlanAssignments) {
      for (const DirtyVlan& vlan : dirty.vlans) {
        if (dirty.changed() && vlan.after) {
          configure(op::VlanIs{dirty.key(), vlan.vlan, *vlan.after});
        }
      }
    }
  }

  double timeoutBefore() const {
    Config before;
    before.values = state_.config.values;
    for (const DirtyScalar& dirty : change_.configScalars) before.values[dirty.row] = dirty.before;
    return regionSyncTimeoutOf(before, settings_.regionSyncTimeout);
  }

  void planAdditions() {
    expectAdditions();
    for (const DirtyRegion& dirty : change_.regions) {
      if (dirty.added()) add(op::RegionIs{dirty.value().name});
    }
    for (size_t row = 0; row < kPortBindingRow; ++row) {
      for (const DirtyRegion& dirty : change_.regions) addThings(row, dirty);
    }
    auto planner = planners_.begin();
    for (const DirtyRegion& dirty : change_.regions) {
      if (dirty.removed()) continue;
      if (dirty.added()) {
        for (const auto& [id, binding] : dirty.value().portBinding) addBinding(binding);
        continue;
      }
      for (const BindingPlan& binding : planner->second.bindings()) addTo(binding);
      ++planner;
    }
  }

  // Makes room for the additions of new regions, where most port bindings come to four operations:
  // the binding, one attachment, two levels.
  void expectAdditions() {
    size_t expected = 0;
    for (const DirtyRegion& dirty : change_.regions) {
      if (!dirty.added()) continue;
      const Region& region = dirty.value();
      expected += 1 + 4 * region.portBinding.size();
      for (const Things& things : region.things) expected += things.size();
    }
    plan_[Plan::kAdditions].reserve(expected);
  }

  void addThings(size_t row, const DirtyRegion& dirty) {
    const Region& region = dirty.value();
    if (!dirty.added()) {
      addThings(kRegionCollections[row], &region, dirty.things[row], Plan::kAdditions);
      return;
    }
    for (const ThingEntry& thing : region.things[row]) {
      add(op::ThingIs{&kRegionCollections[row], &region, &thing});
    }
  }

  void addTo(const BindingPlan& plan) {
    if (plan.added) {
      addBinding(*plan.binding);
      return;
    }
    for (const AttachmentPlan& attachment : plan.attachments) {
      const DirtyAttachment& dirty = *attachment.dirty;
      if (attachment.step == Step::kRemove) continue;
      if (attachment.step != Step::kLevels) {
        addAttachment(*plan.binding, attachment.kind, *dirty.entry);
        continue;
      }
      const auto at = addressOf(*plan.binding, attachment.kind, dirty.key());
      for (const Level& level : dirty.value().levels) {
        if (segmentAt(dirty.before.levels, level.level) == level.segment) continue;
        add(op::LevelIs{at, level.level, level.segment->first});
      }
    }
  }

  void addBinding(const PortBinding& binding) {
    add(op::PortBindingIs{binding.region->name, binding.id});
    for (const auto kind : kAttachmentKinds) {
      for (const auto& attachment : binding.of(kind)) addAttachment(binding, kind, attachment);
    }
  }

  void addAttachment(const PortBinding& binding, AttachmentKind kind,
                     const AttachmentEntry& entry) {
    const auto at = addressOf(binding, kind, entry.first);
    add(op::AttachmentIs{at, &entry.second.values});
    for (const Level& level : entry.second.levels) {
      add(op::LevelIs{at, level.level, level.segment->first});
    }
  }

  void planScalars() {
    for (const DirtyRegion& dirty : change_.regions) {
      if (dirty.removed()) continue;
      planScalars(dirty.scalars, kRegion, &dirty.value(), dirty.value().values, Plan::kScalars);
    }
  }

  void planScalars(const std::vector<DirtyScalar>& dirty, const Kind& kind, const Region* region,
                   const Values& values, Plan::Step step) {
    for (const DirtyScalar& scalar : dirty) {
      if (!scalar.written) continue;
      const size_t row = scalar.row;
      plan_[step].emplace_back(
          op::ScalarIs{&kind.scalars[row], region, &valueOf(values, kind, row)});
    }
  }

  const CloudState& state_;
  const Change& change_;
  const PlanSettings& settings_;
  std::vector<std::pair<const DirtyRegion*, RegionPlanner>> planners_;
  Plan plan_;
};

}  // namespace

double regionSyncTimeoutOf(const Config& config, double otherwise) {
  for (const auto row : {rowOf(kConfigScalars, "regionSyncTimeout"),
                         rowOf(kConfigScalars, "defaultRegionSyncTimeout")}) {
    const auto* held = config.values.empty() ? nullptr : std::get_if<double>(&config.values[row]);
    if (held != nullptr) return *held;
  }
  return otherwise;
}

Plan makePlan(const CloudState& state, const Change& change, const PlanSettings& settings) {
  return Planner(state, change, settings).plan();
}

}  // namespace vnagent
