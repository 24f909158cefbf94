#include "agent/document/change.h"

namespace vnagent {
namespace {

void rollBackScalars(std::vector<DirtyScalar>& dirty, Values& values) {
  for (auto& scalar : dirty) values[scalar.row] = std::move(scalar.before);
}

void rollBackThings(std::vector<DirtyThing>& dirty, Things& things) {
  for (auto& thing : dirty) {
    const bool held = thing.changed();
    thing.rollBack(things);
    if (!held) continue;
    thing.value().values = std::move(thing.before);
    thing.value().present = true;
  }
}

void rollBackAttachment(CloudState& state, AttachmentKind kind, PortBinding& binding,
                        DirtyAttachment& dirty) {
  const bool removed = dirty.removed();
  if (!removed) state.unindex(kind, binding, *dirty.entry);
  if (!dirty.rollBack(binding.of(kind))) return;
  if (!removed) dirty.value() = std::move(dirty.before);
  state.index(kind, binding, *dirty.entry);
}

void rollBackPortBinding(CloudState& state, Region& region, DirtyPortBinding& dirty) {
  const bool removed = dirty.removed();
  if (dirty.added()) state.unindex(dirty.value());
  if (!dirty.rollBack(region.portBinding)) return;
  if (removed) state.index(dirty.value());
  for (const auto kind : kAttachmentKinds) {
    for (auto& attachment : dirty.of(kind)) {
      rollBackAttachment(state, kind, dirty.value(), attachment);
    }
  }
}

void rollBackRegion(CloudState& state, DirtyRegion& dirty) {
  const bool removed = dirty.removed();
  if (dirty.added()) state.unindex(dirty.value());
  if (!dirty.rollBack(state.region)) return;
  Region& region = dirty.value();
  if (removed) state.index(region);
  // Bindings first: their levels name segments that the patch may have added.
  for (auto& binding : dirty.portBindings) rollBackPortBinding(state, region, binding);
  for (const auto& port : dirty.things[kPortRow]) {
    if (port.added()) state.unindexPort(region, port.key());
    if (port.removed()) state.indexPort(region, port.key());
  }
  for (size_t row = 0; row < region.things.size(); ++row) {
    rollBackThings(dirty.things[row], region.things[row]);
  }
  rollBackScalars(dirty.scalars, region.values);
}

void rollBackAssignment(Config& config, DirtyVlanAssignment& dirty) {
  if (!dirty.rollBack(config.vlanAssignment)) return;
  for (const DirtyVlan& vlan : dirty.vlans) {
    if (vlan.before) {
      dirty.value()[vlan.vlan] = *vlan.before;
    } else {
      dirty.value().erase(vlan.vlan);
    }
  }
}

}  // namespace

void Change::rollBack(CloudState& state) {
  for (auto& region : regions) rollBackRegion(state, region);
  for (auto& assignment : vlanAssignments) rollBackAssignment(state.config, assignment);
  for (size_t row = 0; row < configThings.size(); ++row) {
    rollBackThings(configThings[row], state.config.things[row]);
  }
  rollBackScalars(configScalars, state.config.values);
  *this = {};
}

}  // namespace vnagent
