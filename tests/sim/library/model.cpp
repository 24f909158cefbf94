#include "tests/sim/library/model.h"

namespace sim {

using Op = Operation;

// Removals take effect at once, additions when the loop runs.
void Model::apply(const Operation& op) {
  const Key key{op.region, op.id, op.place};
  switch (op.kind) {
    case Op::levelDel:
      withdrawLevel(key, op.level);
      return;
    case Op::bindingDel:
      withdraw(key);
      return;
    case Op::portBindingDel:
      withdrawAll(op.region, op.id);
      return;
    case Op::segmentDel: {
      Region& region = regions_.at(op.region);
      segmentGone(region, region.segments.at(op.id));
      region.segments.erase(op.id);
      return;
    }
    case Op::portDel:
      regions_.at(op.region).ports.erase(op.id);
      return;
    case Op::regionDel:
      regions_.erase(op.region);
      return;
    case Op::vlanEntryDel:
      assignments_.at(op.region).erase(op.id);
      waiting_.push_back(op);
      return;
    case Op::vlanEntryIs:
      assignments_.at(op.region)[op.id] = op.value != 0;
      waiting_.push_back(op);
      return;
    case Op::assignmentDel:
      assignments_.erase(op.region);
      refill(op.region);
      return;
    case Op::assignmentIs:
      assignments_[op.region] = *op.assignment;
      refill(op.region);
      return;
    case Op::driverIs:
      driver_ = op.value;
      waiting_.push_back(op);
      return;
    case Op::regionIs:
      regions_[op.region];
      newRegions_.insert(op.region);
      refill(op.region);
      return;
    case Op::segmentIs:
      regions_.at(op.region).segments[op.id] = op.segment;
      waiting_.push_back(op);
      return;
    case Op::portIs:
      regions_.at(op.region).ports[op.id] = op.value;
      return;
    case Op::portBindingIs:
      return;
    case Op::bindingIs:
      bound_[key] = {.host = op.value, .native = regions_.at(op.region).ports.at(op.id) == 1};
      waiting_.push_back(op);
      return;
    case Op::levelIs:
      bound_.at(key).levels[op.level] = regions_.at(op.region).segments.at(op.value);
      newLevels_.emplace(key, op.level);
      return;
    case Op::requesterIs:
      regions_.at(op.region).requester = op.value;
      waiting_.push_back(op);
      return;
    case Op::requestIs:
      regions_.at(op.region).request = op.value;
      waiting_.push_back(op);
      return;
    case Op::heartbeatIs:
      waiting_.push_back(op);
      return;
    case Op::syncStatusIs:
      regions_.at(op.region).wanted = op.value;
      waiting_.push_back(op);
      return;
  }
}

void Model::idle() {
  publishNew();
  for (const Operation& op : waiting_) {
    switch (op.kind) {
      case Op::vlanEntryDel:
      case Op::vlanEntryIs:
        entryChanged(op.region, op.id);
        break;
      case Op::driverIs:
        driverChanged();
        break;
      case Op::segmentIs:
        segmentCame(regions_.at(op.region), op.segment);
        break;
      case Op::requesterIs:
      case Op::requestIs:
        lockRequested(regions_.at(op.region));
        break;
      case Op::heartbeatIs:
        regions_.at(op.region).deadline = now_ + timeout_;
        break;
      case Op::syncStatusIs:
        syncStatusWritten(regions_.at(op.region));
        break;
      default:
        break;
    }
  }
  waiting_.clear();
  newRegions_.clear();
  newLevels_.clear();
}

void Model::advance(double seconds) {
  now_ += seconds;
  for (auto& [name, region] : regions_) {
    if (region.deadline <= now_) timedOut(region);
  }
}

std::vector<Fact> Model::facts() const {
  std::vector<Fact> facts;
  for (const auto& [key, bound] : bound_) tell(key, bound, facts);
  tellPast(facts);
  for (const auto& [name, region] : regions_) {
    const auto say = [&, place = Place{name}](Fact::Kind kind, unsigned a, int who = 0) {
      facts.push_back({.holder = Fact::region, .place = place, .kind = kind, .a = a, .who = who});
    };
    for (const unsigned vlan : region.assigned) say(Fact::assigned, vlan);
    for (const unsigned vlan : region.available) say(Fact::available, vlan);
    for (const unsigned vlan : region.allocated) say(Fact::allocated, vlan);
    say(Fact::syncStatus, static_cast<unsigned>(region.status));
    say(Fact::oldSyncStatus, static_cast<unsigned>(region.oldStatus));
    say(Fact::owner, 0, region.owner);
    say(Fact::request, 0, region.granted);
  }
  settle(facts);
  return facts;
}

// Pools.

void Model::refill(int name) {
  const auto region = regions_.find(name);
  if (driver_ != 0 || region == regions_.end()) return;
  const auto [assigned, available, allocated] =
      std::tie(region->second.assigned, region->second.available, region->second.allocated);
  stamped_.insert(name);
  region->second.hasUuid = true;
  assigned.clear();
  available.clear();
  const auto entries = assignments_.find(name);
  if (entries == assignments_.end()) return;
  for (const auto& [vlan, value] : entries->second) {
    if (!value) continue;
    assigned.insert(static_cast<unsigned>(vlan));
    if (!allocated.contains(static_cast<unsigned>(vlan))) {
      available.insert(static_cast<unsigned>(vlan));
    }
  }
}

void Model::entryChanged(int name, int vlan) {
  const auto region = regions_.find(name);
  const auto entries = assignments_.find(name);
  if (driver_ != 0 || region == regions_.end() || entries == assignments_.end()) return;
  stamped_.insert(name);
  region->second.hasUuid = true;
  const auto number = static_cast<unsigned>(vlan);
  const auto entry = entries->second.find(vlan);
  if (entry != entries->second.end() && entry->second) {
    region->second.assigned.insert(number);
    if (!region->second.allocated.contains(number)) region->second.available.insert(number);
  } else {
    region->second.assigned.erase(number);
    region->second.available.erase(number);
  }
}

// Only regions with an assignment are touched.
void Model::driverChanged() {
  for (const auto& [name, entries] : assignments_) {
    if (driver_ == 0) refill(name);
    const auto region = regions_.find(name);
    if (driver_ != 1 || region == regions_.end()) continue;
    region->second.assigned.clear();
    region->second.available.clear();
  }
}

// Allocation is not counted: of two segments with the same VLAN, the first to go frees it.
void Model::segmentGone(Region& region, const Segment& segment) {
  if (segment.type != kVlan) return;
  region.allocated.erase(segment.number);
  if (region.assigned.contains(segment.number)) region.available.insert(segment.number);
}

void Model::segmentCame(Region& region, const Segment& segment) {
  if (segment.type != kVlan) return;
  region.available.erase(segment.number);
  region.allocated.insert(segment.number);
}

// Sync.

// A held lock is never handed over, and only who leaves both fields empty clears it.
void Model::lockRequested(Region& region) {
  if (region.request == 0) {
    if (region.requester == 0) region.owner = region.granted = 0;
  } else if (region.granted == 0 && (region.owner == 0 || region.owner == region.requester)) {
    region.owner = region.requester;
    region.granted = region.request;
  }
}

void Model::syncStatusWritten(Region& region) {
  constexpr int kInProgress = 1;
  constexpr int kComplete = 3;
  if (region.wanted == kComplete && region.status != kInProgress) return;
  region.oldStatus = region.status;
  region.status = region.wanted;
  if (region.status == kInProgress) region.deadline = now_ + timeout_;
  if (region.status == kComplete) {
    region.deadline = kNever;
    region.owner = region.granted = 0;
  }
}

void Model::timedOut(Region& region) {
  constexpr int kTimedOut = 2;
  region.deadline = kNever;
  region.owner = region.granted = 0;
  region.oldStatus = region.status;
  region.status = kTimedOut;
}

}  // namespace sim
