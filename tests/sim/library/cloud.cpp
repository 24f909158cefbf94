#include "tests/sim/library/cloud.h"

#include <set>

namespace sim {
namespace {

bool segmentKeepsRules(const Segment& segment) {
  if (segment.type == kVlan) return segment.number >= 1 && segment.number <= 4094;
  if (segment.type == kVxlan) return segment.number >= 1 && segment.number <= 16777215;
  return true;
}

// A segment stands at one level, and VLAN segments have different VLAN ids.
bool levelsKeepRules(const Region& region, const std::map<int, int>& levels) {
  for (auto a = levels.begin(); a != levels.end(); ++a) {
    const auto segment = region.segments.find(a->second);
    if (segment == region.segments.end()) return false;
    for (auto b = levels.begin(); b != a; ++b) {
      if (a->second == b->second) return false;
      const Segment& other = region.segments.at(b->second);
      if (segment->second.type == kVlan && other == segment->second) return false;
    }
  }
  return true;
}

}  // namespace

bool keepsRules(const Cloud& cloud) {
  std::set<int> ports;
  std::map<std::pair<bool, int>, int>
      regionOfHost;  // apart for hosts and for those behind switches
  for (const auto& [name, region] : cloud.regions) {
    for (const auto& [id, segment] : region.segments) {
      if (!segmentKeepsRules(segment)) return false;
    }
    for (const auto& [port, vlanType] : region.ports) {
      if (!ports.insert(port).second) return false;
    }
    for (const auto& [port, places] : region.bindings) {
      if (!region.ports.contains(port)) return false;
      if (!places.empty() && places.begin()->first.onHost() != places.rbegin()->first.onHost()) {
        return false;
      }
      for (const auto& [place, binding] : places) {
        const auto served = regionOfHost.try_emplace({place.onHost(), binding.host}, name);
        if (served.first->second != name) return false;
        if (!levelsKeepRules(region, binding.levels)) return false;
      }
    }
  }
  return true;
}

}  // namespace sim
