#include "agent/document/change.h"

#include <algorithm>

namespace vnagent {
namespace {

void undoSet(SetTouch& touch, NameSet& set) {
  for (const auto key : touch.added) set.erase(set.find(key));
  for (auto& node : touch.removed) set.insert(std::move(node));
}

void undoAttachment(CloudState& state, AttachmentKind kind, PortBinding& binding,
                    AttachmentTouch& touch) {
  AttachmentMap& map = binding.of(kind);
  if (touch.removed()) {
    map.insert(std::move(touch.gone));
    state.enter(kind, binding, *touch.attachment);
    return;
  }
  state.withdraw(kind, binding, *touch.attachment);
  if (touch.added()) {
    map.erase(map.find(touch.attachment->first));
    return;
  }
  touch.attachment->second.levels = std::move(touch.levelsBefore);
  touch.attachment->second.host = std::move(touch.hostBefore);
  state.enter(kind, binding, *touch.attachment);
}

void undoPortBinding(CloudState& state, Region& region, PortBindingTouch& touch) {
  if (touch.removed()) {
    region.portBinding.insert(std::move(touch.gone));
    state.enter(*touch.binding);
    return;
  }
  if (touch.added()) {
    state.withdraw(*touch.binding);
    region.portBinding.erase(region.portBinding.find(touch.binding->id));
    return;
  }
  for (const auto kind : kAttachmentKinds) {
    for (auto& attachment : touch.attachments[static_cast<size_t>(kind)]) {
      undoAttachment(state, kind, *touch.binding, attachment);
    }
  }
}

void undoPort(CloudState& state, Region& region, PortTouch& touch) {
  if (!touch.before) {
    state.withdrawPort(region, touch.id);
    region.port.erase(region.port.find(touch.id));
  } else if (touch.port == nullptr) {
    region.port.insert(std::move(touch.gone));
    state.enterPort(region, touch.id);
  } else {
    touch.port->vlanType = *touch.before;
  }
}

void undoRegion(CloudState& state, RegionTouch& touch) {
  if (touch.removed()) {
    state.region.insert(std::move(touch.gone));
    state.enter(*touch.region);
    return;
  }
  if (touch.added()) {
    state.withdraw(*touch.region);
    state.region.erase(state.region.find(touch.region->name));
    touch.region = nullptr;
    return;
  }
  for (auto& binding : touch.portBindings) undoPortBinding(state, *touch.region, binding);
  for (auto& segment : touch.segments) segment.segment->second.value = segment.before;
  for (auto& port : touch.ports) undoPort(state, *touch.region, port);
  for (size_t i = 0; i < kRegionSets.size(); ++i) undoSet(touch.sets[i], touch.region->sets[i]);
}

void undoAssignment(Config& config, VlanAssignmentTouch& touch) {
  if (touch.removed()) {
    config.vlanAssignment.insert(std::move(touch.gone));
    return;
  }
  if (touch.added()) {
    config.vlanAssignment.erase(config.vlanAssignment.find(touch.assignment));
    return;
  }
  for (const VlanTouch& vlan : touch.touched) {
    if (vlan.before) {
      (*touch.vlans)[vlan.vlan] = *vlan.before;
    } else {
      touch.vlans->erase(vlan.vlan);
    }
  }
}

void undoConfig(Config& config, Change& change) {
  for (auto& touch : change.configScalars) {
    config.scalars[static_cast<size_t>(touch.which)] = std::move(touch.before);
  }
  for (size_t i = 0; i < kConfigSets.size(); ++i) undoSet(change.configSets[i], config.sets[i]);
  for (auto& touch : change.aclTypeVrf) {
    if (touch.after == nullptr) {
      config.serviceAclTypeVrfMap.insert(std::move(touch.gone));
    } else if (touch.before) {
      config.serviceAclTypeVrfMap.find(touch.key)->second = std::move(*touch.before);
    } else {
      config.serviceAclTypeVrfMap.erase(config.serviceAclTypeVrfMap.find(touch.key));
    }
  }
  for (auto& touch : change.vlanAssignments) undoAssignment(config, touch);
}

}  // namespace

void Change::undo(CloudState& state) {
  for (auto touch = regions.rbegin(); touch != regions.rend(); ++touch) undoRegion(state, *touch);
  undoConfig(state.config, *this);
  settle(state);
}

void Change::settle(CloudState&) {
  for (auto& touch : regions) {
    if (touch.region == nullptr || touch.removed()) continue;
    std::ranges::sort(touch.loose);
    touch.loose.erase(std::unique(touch.loose.begin(), touch.loose.end()), touch.loose.end());
    for (SegmentEntry* segment : touch.loose) {
      if (segment->second.value || !segment->second.users.empty()) continue;
      touch.region->segment.erase(touch.region->segment.find(segment->first));
    }
  }
  *this = {};
}

}  // namespace vnagent
