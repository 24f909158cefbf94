#include "agent/plan/plan.h"

#include <algorithm>
#include <unordered_set>

namespace vnagent {
namespace {

std::optional<uint8_t> typeOf(const SegmentEntry& segment) {
  return segment.second.value ? std::optional(segment.second.value->type) : std::nullopt;
}

// How one attachment of a port binding that stays gets from before to after.
enum class Way : uint8_t { kGoes, kComes, kGoesAndComesBack, kLevels };

struct AttachmentPlan {
  const AttachmentTouch* touch;
  AttachmentKind kind;
  Way way;
};

struct BindingPlan {
  const PortBinding* binding;
  bool goes;   // whole
  bool comes;  // whole, again or for the first time
  std::vector<AttachmentPlan> attachments;
};

// Plans one region that existed before and still does, first binding by binding.
class RegionPlanner {
 public:
  RegionPlanner(const RegionTouch& touch, bool toggle) : touch_(touch), toggle_(toggle) {
    for (const SegmentTouch& segment : touch.segments) {
      before_.emplace_back(segment.segment, segment.before);
      if (segment.changed()) changed_.insert(segment.segment);
    }
    std::ranges::sort(before_, {}, &SegmentBefore::first);
    collectReplaced();
    collectBindings();
  }

  // In ascending order of the port id.
  const std::vector<BindingPlan>& bindings() const { return bindings_; }

  // The levels that go from a binding that stays: VLANs first, then the others, each ascending.
  std::vector<uint8_t> levelsGoing(const AttachmentTouch& touch) const {
    std::vector<uint8_t> vlans;
    std::vector<uint8_t> others;
    for (const Level& level : touch.levelsBefore) {
      if (stays(touch, level)) continue;
      (typeBefore(*level.segment) == kVlanSegment ? vlans : others).push_back(level.level);
    }
    vlans.insert(vlans.end(), others.begin(), others.end());
    return vlans;
  }

  static bool stays(const AttachmentTouch& touch, const Level& before) {
    return segmentAt(touch.attachment->second.levels, before.level) == before.segment;
  }

 private:
  using SegmentBefore = std::pair<const SegmentEntry*, std::optional<SegmentValue>>;

  const PortBindingTouch* touchOf(const PortBinding& binding) const {
    const auto id = [](const PortBindingTouch& touch) { return touch.binding->id; };
    const auto at = std::ranges::lower_bound(touch_.portBindings, binding.id, {}, id);
    return at != touch_.portBindings.end() && at->binding == &binding ? &*at : nullptr;
  }

  std::optional<uint8_t> typeBefore(const SegmentEntry& segment) const {
    const auto at = std::ranges::lower_bound(before_, &segment, {}, &SegmentBefore::first);
    if (at == before_.end() || at->first != &segment) return typeOf(segment);
    return at->second ? std::optional(at->second->type) : std::nullopt;
  }

  bool namesChanged(const Levels& levels) const {
    return std::ranges::any_of(
        levels, [&](const Level& level) { return changed_.contains(level.segment); });
  }

  // Finds the port bindings that used a changed segment or port before and still exist.
  void collectReplaced() {
    for (const PortTouch& port : touch_.ports) {
      if (!port.changed()) continue;
      const auto at = touch_.region->portBinding.find(port.id);
      if (at == touch_.region->portBinding.end()) continue;
      const PortBindingTouch* touch = touchOf(at->second);
      if (touch == nullptr || touch->existed) replaced_.insert(&at->second);
    }
    if (changed_.empty()) return;
    for (const PortBindingTouch& touch : touch_.portBindings) {
      if (touch.added() || touch.removed()) continue;
      for (const auto kind : kAttachmentKinds) {
        for (const AttachmentTouch& attachment : touch.of(kind)) {
          const Levels& levels =
              attachment.removed() ? attachment.attachment->second.levels : attachment.levelsBefore;
          if (attachment.existed && namesChanged(levels)) replaced_.insert(touch.binding);
        }
      }
    }
    for (const SegmentEntry* segment : changed_) {
      for (const SegmentUse& use : segment->second.users) {
        if (leftAlone(use)) replaced_.insert(use.binding);
      }
    }
  }

  // True where the patch did not touch what uses the segment, which so used it before, too.
  bool leftAlone(const SegmentUse& use) const {
    const PortBindingTouch* touch = touchOf(*use.binding);
    if (touch == nullptr) return true;
    if (touch->added()) return false;
    return std::ranges::none_of(touch->attachments, [&](const auto& attachments) {
      return std::ranges::find(attachments, use.attachment, &AttachmentTouch::attachment) !=
             attachments.end();
    });
  }

  void collectBindings() {
    for (const PortBindingTouch& touch : touch_.portBindings) {
      if (replaced_.contains(touch.binding)) continue;
      if (touch.added() || touch.removed()) {
        bindings_.push_back({touch.binding, touch.removed(), touch.added(), {}});
      } else {
        bindings_.push_back(planBinding(touch));
      }
    }
    for (const PortBinding* binding : replaced_) bindings_.push_back({binding, true, true, {}});
    const auto id = [](const BindingPlan& plan) { return plan.binding->id; };
    std::ranges::sort(bindings_, {}, id);
  }

  BindingPlan planBinding(const PortBindingTouch& touch) const {
    BindingPlan plan{touch.binding, false, false, {}};
    for (const auto kind : kAttachmentKinds) {
      for (const AttachmentTouch& attachment : touch.of(kind)) {
        plan.attachments.push_back({&attachment, kind, wayOf(attachment)});
      }
    }
    if (!toggle_ && losesSharedElement(plan)) return {touch.binding, true, true, {}};
    return plan;
  }

  Way wayOf(const AttachmentTouch& touch) const {
    if (touch.added()) return Way::kComes;
    if (touch.removed()) return Way::kGoes;
    if (touch.attachment->second.host != touch.hostBefore) return Way::kGoesAndComesBack;
    return strandsVni(touch) ? Way::kGoesAndComesBack : Way::kLevels;
  }

  // True where a VXLAN level goes or changes right above a VLAN level that stays.
  bool strandsVni(const AttachmentTouch& touch) const {
    return std::ranges::any_of(touch.levelsBefore, [&](const Level& vxlan) {
      if (typeBefore(*vxlan.segment) != kVxlanSegment || stays(touch, vxlan)) return false;
      const auto below = static_cast<uint8_t>(vxlan.level + 1);
      const SegmentEntry* vlan = segmentAt(touch.levelsBefore, below);
      return vlan != nullptr && typeOf(*vlan) == kVlanSegment &&
             segmentAt(touch.attachment->second.levels, below) == vlan;
    });
  }

  // True where a switch-interface binding goes, for good or for a while, and another one was there
  // before and is there after.
  static bool losesSharedElement(const BindingPlan& plan) {
    size_t come = 0;
    bool gone = false;
    bool back = false;
    for (const AttachmentPlan& attachment : plan.attachments) {
      if (attachment.kind != AttachmentKind::kSwitchInterface) continue;
      come += attachment.way == Way::kComes ? 1 : 0;
      gone = gone || attachment.way == Way::kGoes;
      back = back || attachment.way == Way::kGoesAndComesBack;
    }
    const auto kept = plan.binding->of(AttachmentKind::kSwitchInterface).size() - come;
    return (gone && kept >= 1) || (back && kept >= 2);
  }

  const RegionTouch& touch_;
  bool toggle_;
  std::vector<SegmentBefore> before_;
  std::unordered_set<const SegmentEntry*> changed_;
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
    for (const RegionTouch& touch : change.regions) {
      if (!touch.added() && !touch.removed()) {
        planners_.emplace_back(&touch, RegionPlanner(touch, settings.toggle));
      }
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
    for (const auto& [touch, planner] : planners_) removeLevels(planner);
    for (const auto& [touch, planner] : planners_) removeAttachments(planner);
    for (const auto& [touch, planner] : planners_) {
      for (const BindingPlan& binding : planner.bindings()) {
        if (binding.goes) remove(op::PortBindingDel{touch->region->name, binding.binding->id});
      }
    }
    for (const auto& [touch, planner] : planners_) {
      for (const SegmentTouch& segment : touch->segments) {
        if (segment.before) remove(op::SegmentDel{touch->region->name, segment.segment->first});
      }
    }
    for (const auto& [touch, planner] : planners_) {
      for (const PortTouch& port : touch->ports) {
        if (port.before) remove(op::PortDel{touch->region->name, port.id});
      }
    }
    for (const auto& [touch, planner] : planners_) removeSets(*touch);
    for (const RegionTouch& touch : change_.regions) {
      if (touch.removed()) removeRegion(*touch.region);
    }
    removeConfiguration();
  }

  void removeLevels(const RegionPlanner& planner) {
    for (const BindingPlan& binding : planner.bindings()) {
      for (const AttachmentPlan& plan : binding.attachments) {
        if (plan.way != Way::kLevels) continue;
        const auto at = addressOf(*binding.binding, plan.kind, plan.touch->attachment->first);
        for (const uint8_t level : planner.levelsGoing(*plan.touch)) {
          remove(op::LevelDel{at, level});
        }
      }
    }
  }

  void removeAttachments(const RegionPlanner& planner) {
    for (const BindingPlan& binding : planner.bindings()) {
      for (const AttachmentPlan& plan : binding.attachments) {
        if (plan.way != Way::kGoes && plan.way != Way::kGoesAndComesBack) continue;
        remove(op::AttachmentDel{
            addressOf(*binding.binding, plan.kind, plan.touch->attachment->first)});
      }
    }
  }

  void removeSets(const RegionTouch& touch) {
    for (size_t i = 0; i < kRegionSets.size(); ++i) {
      for (const auto& node : touch.sets[i].removed) {
        remove(op::RegionSetDel{touch.region->name, static_cast<RegionSet>(i), node.value()});
      }
    }
  }

  void removeRegion(const Region& region) {
    for (const auto& [id, binding] : region.portBinding)
      remove(op::PortBindingDel{region.name, id});
    for (const auto& [id, segment] : region.segment) {
      if (segment.value) remove(op::SegmentDel{region.name, id});
    }
    for (const auto& [id, port] : region.port) remove(op::PortDel{region.name, id});
    remove(op::RegionDel{region.name});
  }

  void removeConfiguration() {
    for (const VlanAssignmentTouch& touch : change_.vlanAssignments) {
      if (touch.added() || touch.removed()) continue;
      for (const VlanTouch& vlan : touch.touched) {
        if (!vlan.after) remove(op::VlanDel{touch.assignment, vlan.vlan});
      }
    }
    for (const VlanAssignmentTouch& touch : change_.vlanAssignments) {
      if (touch.removed()) remove(op::VlanAssignmentDel{touch.assignment});
    }
    for (size_t i = 0; i < kConfigSets.size(); ++i) {
      for (const auto& node : change_.configSets[i].removed) {
        remove(op::ConfigSetDel{static_cast<ConfigSet>(i), node.value()});
      }
    }
    for (const AclTypeVrfTouch& touch : change_.aclTypeVrf) {
      if (touch.after == nullptr) remove(op::ServiceAclTypeVrfDel{touch.key});
    }
  }

  void planConfiguration() {
    const Config& config = state_.config;
    for (const ConfigScalarTouch& touch : change_.configScalars) {
      if (!touch.written) continue;
      const auto index = static_cast<size_t>(touch.which);
      const auto& held = config.scalars[index];
      configure(
          op::ConfigScalarIs{touch.which, held ? *held : defaultOf(kConfigScalars[index].kind)});
    }
    const double after = regionSyncTimeoutOf(config, settings_.regionSyncTimeout);
    if (after != timeoutBefore()) configure(op::RegionSyncTimeoutIs{after});
    for (size_t i = 0; i < kConfigSets.size(); ++i) {
      for (const auto key : change_.configSets[i].added) {
        configure(op::ConfigSetIs{static_cast<ConfigSet>(i), key});
      }
    }
    for (const AclTypeVrfTouch& touch : change_.aclTypeVrf) {
      if (touch.after != nullptr) configure(op::ServiceAclTypeVrfIs{touch.key, *touch.after});
    }
    for (const VlanAssignmentTouch& touch : change_.vlanAssignments) {
      if (touch.added()) configure(op::VlanAssignmentIs{touch.assignment, touch.vlans});
    }
    for (const VlanAssignmentTouch& touch : change_.vlanAssignments) {
      if (touch.added() || touch.removed()) continue;
      for (const VlanTouch& vlan : touch.touched) {
        if (vlan.after) configure(op::VlanIs{touch.assignment, vlan.vlan, *vlan.after});
      }
    }
  }

  double timeoutBefore() const {
    Config before;
    before.scalars = state_.config.scalars;
    for (const ConfigScalarTouch& touch : change_.configScalars) {
      before.scalars[static_cast<size_t>(touch.which)] = touch.before;
    }
    return regionSyncTimeoutOf(before, settings_.regionSyncTimeout);
  }

  void planAdditions() {
    expectAdditions();
    for (const RegionTouch& touch : change_.regions) {
      if (touch.added()) add(op::RegionIs{touch.region->name});
    }
    for (const RegionTouch& touch : change_.regions) addSets(touch);
    for (const RegionTouch& touch : change_.regions) addSegments(touch);
    for (const RegionTouch& touch : change_.regions) addPorts(touch);
    auto planner = planners_.begin();
    for (const RegionTouch& touch : change_.regions) {
      if (touch.removed()) continue;
      if (touch.added()) {
        for (const auto& [id, binding] : touch.region->portBinding) addBinding(binding);
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
    for (const RegionTouch& touch : change_.regions) {
      if (!touch.added()) continue;
      const Region& region = *touch.region;
      expected += 1 + region.segment.size() + region.port.size() + 4 * region.portBinding.size();
    }
    plan_[Plan::kAdditions].reserve(expected);
  }

  void addSets(const RegionTouch& touch) {
    if (touch.removed()) return;
    const auto name = touch.region->name;
    for (size_t i = 0; i < kRegionSets.size(); ++i) {
      const auto set = static_cast<RegionSet>(i);
      if (touch.added()) {
        for (const auto& key : touch.region->sets[i]) add(op::RegionSetIs{name, set, key});
      } else {
        for (const auto key : touch.sets[i].added) add(op::RegionSetIs{name, set, key});
      }
    }
  }

  void addSegments(const RegionTouch& touch) {
    if (touch.removed()) return;
    const auto name = touch.region->name;
    if (touch.added()) {
      for (const auto& [id, segment] : touch.region->segment) {
        if (segment.value) add(op::SegmentIs{name, id, *segment.value});
      }
      return;
    }
    for (const SegmentTouch& segment : touch.segments) {
      const auto& value = segment.segment->second.value;
      if (value) add(op::SegmentIs{name, segment.segment->first, *value});
    }
  }

  void addPorts(const RegionTouch& touch) {
    if (touch.removed()) return;
    const auto name = touch.region->name;
    if (touch.added()) {
      for (const auto& [id, port] : touch.region->port) add(op::PortIs{name, id, port.vlanType});
      return;
    }
    for (const PortTouch& port : touch.ports) {
      if (port.port != nullptr) add(op::PortIs{name, port.id, port.port->vlanType});
    }
  }

  void addTo(const BindingPlan& plan) {
    if (plan.comes) {
      addBinding(*plan.binding);
      return;
    }
    for (const AttachmentPlan& attachment : plan.attachments) {
      if (attachment.way == Way::kGoes) continue;
      if (attachment.way != Way::kLevels) {
        addAttachment(*plan.binding, attachment.kind, *attachment.touch->attachment);
        continue;
      }
      const AttachmentEntry& entry = *attachment.touch->attachment;
      const auto at = addressOf(*plan.binding, attachment.kind, entry.first);
      for (const Level& level : entry.second.levels) {
        if (segmentAt(attachment.touch->levelsBefore, level.level) == level.segment) continue;
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
    add(op::AttachmentIs{at, entry.second.host});
    for (const Level& level : entry.second.levels) {
      add(op::LevelIs{at, level.level, level.segment->first});
    }
  }

  void planScalars() {
    for (const RegionTouch& touch : change_.regions) {
      for (const auto& [which, value] : touch.scalars) {
        plan_[Plan::kScalars].emplace_back(op::RegionScalarIs{touch.region->name, which, &value});
      }
    }
  }

  const CloudState& state_;
  const Change& change_;
  const PlanSettings& settings_;
  std::vector<std::pair<const RegionTouch*, RegionPlanner>> planners_;
  Plan plan_;
};

}  // namespace

double regionSyncTimeoutOf(const Config& config, double otherwise) {
  for (const auto which :
       {ConfigScalar::kRegionSyncTimeout, ConfigScalar::kDefaultRegionSyncTimeout}) {
    const auto& held = config.scalars[static_cast<size_t>(which)];
    if (held) return std::get<double>(*held);
  }
  return otherwise;
}

Plan makePlan(const CloudState& state, const Change& change, const PlanSettings& settings) {
  return Planner(state, change, settings).plan();
}

}  // namespace vnagent
