#include "tests/sim/library/plan.h"

#include <algorithm>
#include <set>
#include <tuple>

namespace sim {
namespace {

using Op = Operation;

template <class Map>
const auto* find(const Map& map, const typename Map::key_type& key) {
  const auto at = map.find(key);
  return at == map.end() ? nullptr : &at->second;
}

// Whether both have the key, with the same value.
template <class Map>
bool same(const Map& a, const Map& b, const typename Map::key_type& key) {
  const auto* left = find(a, key);
  const auto* right = find(b, key);
  return left != nullptr && right != nullptr && *left == *right;
}

int below(int level) {
  return (level + 1) % 256;
}

// What of one region is taken out first and, where the new cloud has it, put back.
struct Cut {
  std::set<int> whole;                              // port bindings
  std::set<std::pair<int, Place>> bindings;         // of port bindings that stay
  std::vector<std::tuple<int, Place, int>> levels;  // of bindings that stay
};

class RegionPlan {
 public:
  RegionPlan(int name, const Region& old, const Region& now, bool toggleOn)
      : name_(name), old_(old), now_(now), toggleOn_(toggleOn) {
    for (const auto& [port, places] : old.bindings) cutPort(port, places);
  }

  void removeLevels(Phase& phase) const {
    for (const auto& [port, place, level] : cut_.levels) {
      phase.push_back(
          {.kind = Op::levelDel, .region = name_, .id = port, .place = place, .level = level});
    }
  }
  void removeBindings(Phase& phase) const {
    for (const auto& [port, place] : cut_.bindings) {
      phase.push_back({.kind = Op::bindingDel, .region = name_, .id = port, .place = place});
    }
  }
  void removePortBindings(Phase& phase) const {
    for (const int port : cut_.whole) {
      phase.push_back({.kind = Op::portBindingDel, .region = name_, .id = port});
    }
  }
  void removeSegments(Phase& phase) const {
    for (const auto& [id, segment] : old_.segments) {
      if (!same(old_.segments, now_.segments, id)) {
        phase.push_back({.kind = Op::segmentDel, .region = name_, .id = id});
      }
    }
  }
  void removePorts(Phase& phase) const {
    for (const auto& [id, vlanType] : old_.ports) {
      if (!same(old_.ports, now_.ports, id)) {
        phase.push_back({.kind = Op::portDel, .region = name_, .id = id});
      }
    }
  }

  void addSegments(Phase& phase) const {
    for (const auto& [id, segment] : now_.segments) {
      if (!same(now_.segments, old_.segments, id)) {
        phase.push_back({.kind = Op::segmentIs, .region = name_, .id = id, .segment = segment});
      }
    }
  }
  void addPorts(Phase& phase) const {
    for (const auto& [id, vlanType] : now_.ports) {
      if (!same(now_.ports, old_.ports, id)) {
        phase.push_back({.kind = Op::portIs, .region = name_, .id = id, .value = vlanType});
      }
    }
  }
  void addBindings(Phase& phase) const {
    for (const auto& [port, places] : now_.bindings) {
      const PortBinding* kept = cut_.whole.contains(port) ? nullptr : find(old_.bindings, port);
      if (kept == nullptr) {
        phase.push_back({.kind = Op::portBindingIs, .region = name_, .id = port});
      }
      for (const auto& [place, binding] : places) {
        addBinding(phase, port, place, binding, kept == nullptr ? nullptr : find(*kept, place));
      }
    }
  }

 private:
  void cutPort(int port, const PortBinding& was) {
    const PortBinding* becomes = find(now_.bindings, port);
    const int* vlanType = find(now_.ports, port);
    const bool portChanges = vlanType != nullptr && *vlanType != old_.ports.at(port);
    if (becomes == nullptr || portChanges || usesChangedSegment(was)) {
      cut_.whole.insert(port);
      return;
    }
    std::vector<Place> going;
    std::size_t staying = 0;  // places of a switch that both clouds have
    for (const auto& [place, binding] : was) {
      const Binding* after = find(*becomes, place);
      if (after == nullptr || goesWhole(binding, *after)) going.push_back(place);
      if (after != nullptr && !place.onHost()) ++staying;
    }
    if (!toggleOn_ && std::ranges::any_of(going, [&](const Place& place) {
          return !place.onHost() && staying > (becomes->contains(place) ? 1U : 0U);
        })) {
      cut_.whole.insert(port);
      return;
    }
    for (const Place& place : going) cut_.bindings.emplace(port, place);
    for (const auto& [place, binding] : was) {
      if (!cut_.bindings.contains({port, place}))
        cutLevels(port, place, binding, becomes->at(place));
    }
  }

  bool usesChangedSegment(const PortBinding& places) const {
    for (const auto& [place, binding] : places) {
      for (const auto& [level, id] : binding.levels) {
        const Segment* now = find(now_.segments, id);
        if (now != nullptr && !(*now == old_.segments.at(id))) return true;
      }
    }
    return false;
  }

  // Whether a VXLAN level goes or changes right above a VLAN level that stays, or the host changes.
  bool goesWhole(const Binding& was, const Binding& becomes) const {
    if (was.host != becomes.host) return true;
    for (const auto& [level, id] : was.levels) {
      if (typeOf(id) != kVxlan || same(was.levels, becomes.levels, level)) continue;
      const int* vlan = find(was.levels, below(level));
      if (vlan != nullptr && typeOf(*vlan) == kVlan &&
          same(was.levels, becomes.levels, below(level))) {
        return true;
      }
    }
    return false;
  }

  // VLAN levels first, then the others, each in ascending order.
  void cutLevels(int port, const Place& place, const Binding& was, const Binding& becomes) {
    for (const bool vlans : {true, false}) {
      for (const auto& [level, id] : was.levels) {
        if ((typeOf(id) == kVlan) == vlans && !same(was.levels, becomes.levels, level)) {
          cut_.levels.emplace_back(port, place, level);
        }
      }
    }
  }

  void addBinding(Phase& phase, int port, const Place& place, const Binding& binding,
                  const Binding* kept) const {
    if (cut_.bindings.contains({port, place})) kept = nullptr;
    if (kept == nullptr) {
      phase.push_back({.kind = Op::bindingIs,
                       .region = name_,
                       .id = port,
                       .place = place,
                       .value = binding.host});
    }
    for (const auto& [level, id] : binding.levels) {
      if (kept == nullptr || !same(binding.levels, kept->levels, level)) {
        phase.push_back({.kind = Op::levelIs,
                         .region = name_,
                         .id = port,
                         .place = place,
                         .level = level,
                         .value = id});
      }
    }
  }

  int typeOf(int segment) const { return old_.segments.at(segment).type; }

  int name_;
  const Region& old_;
  const Region& now_;
  bool toggleOn_;
  Cut cut_;
};

// A region that goes takes everything with it, port bindings first.
void removeRegion(Phase& phase, int name, const Region& region) {
  for (const auto& [port, places] : region.bindings) {
    phase.push_back({.kind = Op::portBindingDel, .region = name, .id = port});
  }
  for (const auto& [id, segment] : region.segments) {
    phase.push_back({.kind = Op::segmentDel, .region = name, .id = id});
  }
  for (const auto& [id, vlanType] : region.ports) {
    phase.push_back({.kind = Op::portDel, .region = name, .id = id});
  }
  phase.push_back({.kind = Op::regionDel, .region = name});
}

void removeAssignments(Phase& phase, const Cloud& before, const Cloud& after) {
  for (const auto& [name, entries] : before.assignments) {
    const Assignment* now = find(after.assignments, name);
    if (now == nullptr) continue;
    for (const auto& [vlan, value] : entries) {
      if (!now->contains(vlan)) {
        phase.push_back({.kind = Op::vlanEntryDel, .region = name, .id = vlan});
      }
    }
  }
  for (const auto& [name, entries] : before.assignments) {
    if (!after.assignments.contains(name)) {
      phase.push_back({.kind = Op::assignmentDel, .region = name});
    }
  }
}

Phase configuration(const Cloud& before, const Cloud& after, const std::vector<Edit>& edits) {
  Phase phase;
  if (std::ranges::any_of(edits, [](const Edit& edit) { return edit.what == What::driver; })) {
    phase.push_back({.kind = Op::driverIs, .value = after.driver});
  }
  for (const auto& [name, entries] : after.assignments) {
    const Assignment* old = find(before.assignments, name);
    if (old == nullptr) {
      phase.push_back({.kind = Op::assignmentIs, .region = name, .assignment = &entries});
      continue;
    }
    for (const auto& [vlan, value] : entries) {
      if (!same(entries, *old, vlan)) {
        phase.push_back({.kind = Op::vlanEntryIs, .region = name, .id = vlan, .value = value});
      }
    }
  }
  return phase;
}

// The last edit of each scalar counts; they are written in a fixed order.
Phase scalars(const Cloud& after, const std::vector<Edit>& edits) {
  using Scalar = std::pair<What, Op::Kind>;
  static constexpr Scalar kScalars[] = {{What::requester, Op::requesterIs},
                                        {What::request, Op::requestIs},
                                        {What::heartbeat, Op::heartbeatIs},
                                        {What::syncStatus, Op::syncStatusIs}};
  Phase phase;
  for (const auto& [name, region] : after.regions) {
    for (const auto& [what, kind] : kScalars) {
      const Edit* last = nullptr;
      for (const Edit& edit : edits) {
        if (edit.what == what && edit.inRegion == name) last = &edit;
      }
      if (last != nullptr) {
        phase.push_back({.kind = kind, .region = name, .value = last->value});
      }
    }
  }
  return phase;
}

}  // namespace

Plan planOf(const Cloud& before, const Cloud& after, const std::vector<Edit>& edits,
            bool toggleOn) {
  static const Region kNothing;
  std::vector<RegionPlan> stays;  // regions before and after
  std::vector<RegionPlan> is;     // regions after
  Plan plan;
  auto& [removals, config, additions, scalarWrites] = plan;
  for (const auto& [name, region] : after.regions) {
    const Region* old = find(before.regions, name);
    if (old == nullptr) additions.push_back({.kind = Op::regionIs, .region = name});
    if (old != nullptr && *old == region) continue;
    is.emplace_back(name, old == nullptr ? kNothing : *old, region, toggleOn);
    if (old != nullptr) stays.push_back(is.back());
  }
  for (const RegionPlan& region : stays) region.removeLevels(removals);
  for (const RegionPlan& region : stays) region.removeBindings(removals);
  for (const RegionPlan& region : stays) region.removePortBindings(removals);
  for (const RegionPlan& region : stays) region.removeSegments(removals);
  for (const RegionPlan& region : stays) region.removePorts(removals);
  for (const auto& [name, region] : before.regions) {
    if (!after.regions.contains(name)) removeRegion(removals, name, region);
  }
  removeAssignments(removals, before, after);
  config = configuration(before, after, edits);
  for (const RegionPlan& region : is) region.addSegments(additions);
  for (const RegionPlan& region : is) region.addPorts(additions);
  for (const RegionPlan& region : is) region.addBindings(additions);
  scalarWrites = scalars(after, edits);
  return plan;
}

}  // namespace sim
