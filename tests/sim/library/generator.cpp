#include "tests/sim/library/generator.h"

#include <algorithm>

#include "tests/sim/library/names.h"

namespace sim {
namespace {

constexpr double kTimeouts[] = {60, 60, 30, 0.5, 12.25};

}  // namespace

Generator::Generator(std::uint64_t seed, bool toggleOn)
    : random_(seed * 2 + (toggleOn ? 1 : 0)),
      seed_(seed),
      toggleOn_(toggleOn),
      regions_(1 + below(kRegions)),
      sharesVlans_(oneIn(3)),
      timeout_(anyOf(kTimeouts)) {
  constexpr int kLeanings[][4] = {{6, 1, 1, 1}, {1, 6, 1, 1}, {5, 5, 1, 1},
                                  {5, 5, 1, 1}, {2, 2, 7, 1}, {2, 2, 1, 7}};
  const auto& [hosts, switches, sync, pool] = kLeanings[below(6)];
  const std::pair<Action, int> weights[] = {
      {&Generator::addRegion, 3},
      {&Generator::dropRegion, 1},
      {&Generator::addSegment, 10},
      {&Generator::dropSegment, 2},
      {&Generator::replaceSegment, 2},
      {&Generator::addPort, 7},
      {&Generator::dropPort, 1},
      {&Generator::changeVlanType, 1},
      {&Generator::bindHost, 3 * hosts},
      {&Generator::bindSwitch, 3 * switches},
      {&Generator::unbind, 3},
      {&Generator::dropPortBinding, 2},
      {&Generator::moveHost, hosts},
      {&Generator::moveHostToRegion, hosts},
      {&Generator::changeRemoteHost, switches},
      {&Generator::addLevel, 6},
      {&Generator::dropLevel, 4},
      {&Generator::changeLevel, 3},
      {&Generator::disturbVxlan, 3},
      {&Generator::swapLevels, 1},
      {&Generator::switchKind, 1},
      {&Generator::moveRegion, 1},
      {&Generator::writeDriver, pool},
      {&Generator::setVlanEntry, 3 * pool},
      {&Generator::dropVlanEntry, 2 * pool},
      {&Generator::addAssignment, 2 * pool},
      {&Generator::dropAssignment, pool},
      {&Generator::requestLock, 3 * sync},
      {&Generator::writeStatus, 3 * sync},
      {&Generator::writeHeartbeat, 2 * sync},
  };
  for (const auto& [action, weight] : weights)
    actions_.insert(actions_.end(), static_cast<std::size_t>(weight), action);
}

Stream Generator::stream(int events) {
  Stream made{.seed = seed_, .toggleOn = toggleOn_, .timeout = timeout_, .events = {}};
  while (static_cast<int>(made.events.size()) < events - 2) made.events.push_back(event());
  made.events.push_back(removals(true));
  made.events.push_back(removals(false));
  return made;
}

// Events.

Event Generator::event() {
  const int dice = below(1000);
  if (dice < 90) return advance();
  if (dice < 100) {
    timeout_ = anyOf(kTimeouts);
    return {.kind = Event::timeout, .seconds = timeout_};
  }
  if (dice < 105) return {.kind = Event::misuse, .value = below(5)};
  if (dice < 109) return removals(oneIn(2));
  return patch();
}

Event Generator::advance() {
  const double choices[] = {
      0, 0.25, 1, 7, timeout_ / 2, timeout_ - 0.25, timeout_, timeout_ + 0.25, 1000, 1e9};
  return {.kind = Event::advance, .seconds = anyOf(choices)};
}

Event Generator::patch() {
  constexpr int kEdits[] = {1, 1, 1, 1, 2, 2, 3, 5};
  const Cloud before = cloud_;
  if (!nextEdits_.empty() && oneIn(2)) {
    edits_.clear();
    for (const Edit& next : nextEdits_.front()) edit(next);
    nextEdits_.erase(nextEdits_.begin());
    if (!keepsRules(cloud_)) cloud_ = before;
    return {.kind = Event::patch, .edits = edits_};
  }
  for (int attempt = 0; attempt < 4; ++attempt) {
    edits_.clear();
    for (int left = anyOf(kEdits); left > 0; --left) {
      const bool small = cloud_.regions.empty() || oneIn(40);
      (this->*(small ? &Generator::addRegion : anyOf(actions_)))();
    }
    const bool kept = keepsRules(cloud_);
    if (!kept) cloud_ = before;
    if (!edits_.empty() && (kept || oneIn(4))) break;
  }
  return {.kind = Event::patch, .edits = edits_};
}

// Takes out every port binding, or everything.
Event Generator::removals(bool bindingsOnly) {
  edits_.clear();
  const Cloud before = cloud_;
  for (const auto& [name, region] : before.regions) {
    if (bindingsOnly) {
      for (const auto& [port, places] : region.bindings) {
        edit({.what = What::portBinding, .gone = true, .inRegion = name, .id = port});
      }
    } else {
      edit({.what = What::region, .gone = true, .inRegion = name});
    }
  }
  for (const auto& [name, entries] : before.assignments) {
    if (!bindingsOnly) edit({.what = What::assignment, .gone = true, .inRegion = name});
  }
  return {.kind = Event::patch, .edits = edits_};
}

void Generator::edit(const Edit& edit) {
  edits_.push_back(edit);
  apply(edit, cloud_);
}

// Regions, segments and ports.

void Generator::addRegion() {
  edit({.what = What::region, .inRegion = below(regions_)});
}

void Generator::dropRegion() {
  if (const auto region = someRegion()) {
    edit({.what = What::region, .gone = true, .inRegion = *region});
  }
}

Edit Generator::newSegment(int region, int id) {
  static constexpr unsigned kVlans[] = {1, 10, 11, 12, 13, 14, 20, 4094};
  static constexpr unsigned kVnis[] = {1, 5000, 5000, 5001, 16777215};
  static constexpr unsigned kOthers[] = {0, 10, 4294967295};
  const int dice = below(100);
  if (dice >= 60) {
    if (dice < 94) {
      return {.what = What::segment,
              .inRegion = region,
              .id = id,
              .value = kVxlan,
              .number = anyOf(kVnis)};
    }
    return {.what = What::segment,
            .inRegion = region,
            .id = id,
            .value = oneIn(2) ? 2 : 255,
            .number = anyOf(kOthers)};
  }
  unsigned vlan = anyOf(kVlans);
  const auto taken = [&](unsigned number) {
    return std::ranges::any_of(cloud_.regions.at(region).segments, [&](const auto& segment) {
      return segment.first != id && segment.second == Segment{kVlan, number};
    });
  };
  for (int attempt = 0; !sharesVlans_ && taken(vlan) && attempt < 50; ++attempt) {
    vlan = anyOf(kVlans);
  }
  return {.what = What::segment, .inRegion = region, .id = id, .value = kVlan, .number = vlan};
}

void Generator::addSegment() {
  const auto region = someRegion();
  if (!region) return;
  const int id = below(kSegments);
  if (!cloud_.regions[*region].segments.contains(id)) edit(newSegment(*region, id));
}

void Generator::dropSegment() {
  const auto region = someRegion();
  if (!region || cloud_.regions[*region].segments.empty()) return;
  const int id = anyOf(cloud_.regions[*region].segments).first;
  const auto bindings = cloud_.regions[*region].bindings;
  for (const auto& [port, places] : bindings) {
    for (const auto& [place, binding] : places) {
      for (const auto& [level, segment] : binding.levels) {
        if (segment == id && !oneIn(20)) this->level({*region, port, place}, level, std::nullopt);
      }
    }
  }
  edit({.what = What::segment, .gone = true, .inRegion = *region, .id = id});
}

void Generator::replaceSegment() {
  const auto region = someRegion();
  if (!region || cloud_.regions[*region].segments.empty()) return;
  edit(newSegment(*region, anyOf(cloud_.regions[*region].segments).first));
}

void Generator::addPort() {
  if (const auto region = someRegion()) somePort(*region);
}

// A port of the region; often a new one, of an id that no region has.
int Generator::somePort(int region) {
  auto& ports = cloud_.regions.at(region).ports;
  if (!ports.empty() && !oneIn(3)) return anyOf(ports).first;
  const int id = below(kPorts);
  const bool taken = std::ranges::any_of(
      cloud_.regions, [&](const auto& other) { return other.second.ports.contains(id); });
  if (!taken || oneIn(50)) {
    constexpr int kTypes[] = {0, 0, 1, 1, 2};
    edit({.what = What::port, .inRegion = region, .id = id, .value = anyOf(kTypes)});
  }
  return ports.empty() ? -1 : anyOf(ports).first;
}

void Generator::dropPort() {
  const auto region = someRegion();
  if (!region || cloud_.regions[*region].ports.empty()) return;
  const int id = anyOf(cloud_.regions[*region].ports).first;
  if (!oneIn(10)) edit({.what = What::portBinding, .gone = true, .inRegion = *region, .id = id});
  edit({.what = What::port, .gone = true, .inRegion = *region, .id = id});
}

void Generator::changeVlanType() {
  const auto region = someRegion();
  if (!region || cloud_.regions[*region].ports.empty()) return;
  const auto [id, vlanType] = anyOf(cloud_.regions[*region].ports);
  edit({.what = What::port, .inRegion = *region, .id = id, .value = vlanType == 1 ? 0 : 1});
}

// Configuration.

void Generator::writeDriver() {
  constexpr int kDrivers[] = {0, 0, 0, 1, 1, 2};
  edit({.what = What::driver, .value = anyOf(kDrivers)});
}

void Generator::setVlanEntry() {
  static constexpr int kVlans[] = {1, 10, 11, 12, 13, 14, 20, 4094};
  edit({.what = What::vlanEntry,
        .inRegion = below(regions_),
        .id = anyOf(kVlans),
        .value = oneIn(5) ? 0 : 1});
}

void Generator::dropVlanEntry() {
  if (cloud_.assignments.empty()) return;
  const auto [region, entries] = anyOf(cloud_.assignments);
  if (entries.empty()) return;
  edit({.what = What::vlanEntry, .gone = true, .inRegion = region, .id = anyOf(entries).first});
}

void Generator::addAssignment() {
  edit({.what = What::assignment, .inRegion = below(regions_)});
  for (int left = below(5); left > 0; --left) setVlanEntry();
}

void Generator::dropAssignment() {
  if (cloud_.assignments.empty()) return;
  edit({.what = What::assignment, .gone = true, .inRegion = anyOf(cloud_.assignments).first});
}

// Two drivers that compete for the lock, with little regard for each other.

void Generator::requestLock() {
  const auto region = someRegion();
  if (!region) return;
  const int driver = 1 + below(2);
  const int request = 1 + below(4);
  const auto write = [&](What what, int value) {
    edit({.what = what, .inRegion = *region, .value = value});
  };
  switch (below(8)) {
    case 0:
    case 1:
      write(What::requester, 0);
      return write(What::request, 0);
    case 2:
      return write(What::request, oneIn(2) ? 0 : request);
    case 3:
      return write(What::requester, oneIn(2) ? 0 : driver);
    case 4:
      write(What::syncStatus, 1);
      [[fallthrough]];
    default:
      write(What::requester, driver);
      return write(What::request, request);
  }
}

void Generator::writeStatus() {
  constexpr int kStatuses[] = {0, 1, 1, 1, 2, 3, 3, 3};
  if (const auto region = someRegion()) {
    edit({.what = What::syncStatus, .inRegion = *region, .value = anyOf(kStatuses)});
  }
}

void Generator::writeHeartbeat() {
  if (const auto region = someRegion()) {
    edit({.what = What::heartbeat, .inRegion = *region, .value = below(3)});
  }
}

std::optional<int> Generator::someRegion() {
  if (cloud_.regions.empty()) return std::nullopt;
  return anyOf(cloud_.regions).first;
}

}  // namespace sim
