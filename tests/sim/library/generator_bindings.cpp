// The generator's edits of port bindings.
#include <algorithm>
#include <string_view>

#include "tests/sim/library/generator.h"
#include "tests/sim/library/names.h"

namespace sim {

std::optional<Generator::Spot> Generator::someSpot(std::optional<bool> onHost) {
  std::vector<Spot> spots;
  for (const auto& [name, region] : cloud_.regions) {
    for (const auto& [port, places] : region.bindings) {
      for (const auto& [place, binding] : places) {
        if (!onHost || place.onHost() == *onHost) spots.push_back({name, port, place});
      }
    }
  }
  if (spots.empty()) return std::nullopt;
  return anyOf(spots);
}

const Binding& Generator::at(const Spot& spot) const {
  return cloud_.regions.at(spot.region).bindings.at(spot.port).at(spot.place);
}

// A host that no other region has, as far as there is one.
int Generator::someHost(int region, bool onHost) {
  std::vector<int> free;
  for (const int host : kHosts) {
    const bool taken = std::ranges::any_of(cloud_.regions, [&](const auto& other) {
      if (other.first == region) return false;
      return std::ranges::any_of(other.second.bindings, [&](const auto& port) {
        return std::ranges::any_of(port.second, [&](const auto& bound) {
          return bound.first.onHost() == onHost && bound.second.host == host;
        });
      });
    });
    if (!taken) free.push_back(host);
  }
  return free.empty() || oneIn(40) ? anyOf(kHosts) : anyOf(free);
}

// A segment of the region that the binding does not use yet, and whose VLAN it does not.
std::optional<int> Generator::freeSegment(int region, const Binding& binding,
                                          std::optional<int> type) {
  const auto& segments = cloud_.regions.at(region).segments;
  std::vector<int> free;
  const auto clashes = [&](int id, const Segment& segment) {
    return std::ranges::any_of(binding.levels, [&](const auto& level) {
      const auto other = segments.find(level.second);
      return level.second == id ||
             (segment.type == kVlan && other != segments.end() && other->second == segment);
    });
  };
  for (const auto& [id, segment] : segments) {
    if ((!type || segment.type == *type) && !clashes(id, segment)) free.push_back(id);
  }
  if (free.empty()) return std::nullopt;
  return anyOf(free);
}

void Generator::level(const Spot& spot, int level, std::optional<int> segment) {
  edit({.what = What::level,
        .gone = !segment,
        .inRegion = spot.region,
        .id = spot.port,
        .place = spot.place,
        .level = level,
        .value = segment.value_or(0)});
}

// Levels for a new binding, mostly a VXLAN segment right above a VLAN segment.
void Generator::addLevels(const Spot& spot) {
  static constexpr std::string_view kShapes[] = {"xv", "xv", "xv",  "xv",  "xv",  "v",  "v",
                                                 "v",  "x",  "vx",  "xvv", "xvv", "vv", "xxv",
                                                 "ov", "xo", "xvx", "vxv", ""};
  static constexpr int kFirst[] = {0, 0, 0, 0, 0, 0, 0, 0, 1, 2, 9, 254, 255, 255};
  int at = anyOf(kFirst);
  for (const char kind : anyOf(kShapes)) {
    const auto type = kind == 'v'   ? std::optional(kVlan)
                      : kind == 'x' ? std::optional(kVxlan)
                                    : std::nullopt;
    const auto segment = freeSegment(spot.region, this->at(spot), type);
    if (segment) level(spot, at & 0xff, segment);
    ++at;
  }
}

bool Generator::bindsOther(const PortBinding& places, bool onHost) {
  return !places.empty() && places.begin()->first.onHost() != onHost;
}

void Generator::bindHost() {
  const auto region = someRegion();
  const int port = region ? somePort(*region) : -1;
  if (port < 0) return;
  const auto& bindings = cloud_.regions[*region].bindings;
  const auto bound = bindings.find(port);
  if (bound != bindings.end() && bindsOther(bound->second, true) && !oneIn(30)) return;
  if (oneIn(12)) return edit({.what = What::portBinding, .inRegion = *region, .id = port});
  const Spot spot{*region, port, Place{someHost(*region, true)}};
  if (bound != bindings.end() && bound->second.contains(spot.place)) return;
  edit({.what = What::binding, .inRegion = *region, .id = port, .place = spot.place});
  addLevels(spot);
}

void Generator::bindSwitch() {
  const auto region = someRegion();
  const int port = region ? somePort(*region) : -1;
  if (port < 0) return;
  const auto& bindings = cloud_.regions[*region].bindings;
  const auto bound = bindings.find(port);
  if (bound != bindings.end() && bindsOther(bound->second, false) && !oneIn(30)) return;
  const int interface = oneIn(12) ? 0 : 1 + below(kInterfaces - 1);
  const Place place{oneIn(3) ? anyOf(kSwitches) : kSwitches[2 + below(2)], interface};
  if (bound != bindings.end() && bound->second.contains(place)) return;
  edit({.what = What::binding,
        .inRegion = *region,
        .id = port,
        .place = place,
        .value = someHost(*region, false)});
  addLevels({*region, port, place});
}

void Generator::unbind() {
  if (const auto spot = someSpot()) {
    edit({.what = What::binding,
          .gone = true,
          .inRegion = spot->region,
          .id = spot->port,
          .place = spot->place});
  }
}

void Generator::dropPortBinding() {
  if (const auto spot = someSpot()) {
    edit({.what = What::portBinding, .gone = true, .inRegion = spot->region, .id = spot->port});
  }
}

// A live migration: another host, the same levels.
void Generator::moveHost() {
  const auto spot = someSpot(true);
  if (!spot) return;
  const Spot to{spot->region, spot->port, Place{someHost(spot->region, true)}};
  if (cloud_.regions[to.region].bindings[to.port].contains(to.place)) return;
  const auto levels = at(*spot).levels;
  edit({.what = What::binding,
        .gone = true,
        .inRegion = spot->region,
        .id = spot->port,
        .place = spot->place});
  edit({.what = What::binding, .inRegion = to.region, .id = to.port, .place = to.place});
  for (const auto& [level, segment] : levels) this->level(to, level, segment);
}

// Takes a host from all ports of its region, and binds two ports of another region to it. Later one
// of the two is unbound, and then the first region binds to the host: to be refused.
void Generator::moveHostToRegion() {
  const auto spot = someSpot(true);
  const auto to = someRegion();
  if (!spot || *to == spot->region) return;
  while (cloud_.regions[*to].ports.size() < 2 && !oneIn(10)) somePort(*to);
  std::vector<int> ports;
  const auto& bindings = cloud_.regions[*to].bindings;
  for (const auto& [port, vlanType] : cloud_.regions[*to].ports) {
    const auto bound = bindings.find(port);
    if (bound == bindings.end() || !bindsOther(bound->second, true)) ports.push_back(port);
  }
  if (ports.size() < 2) return;
  std::ranges::shuffle(ports, random_);
  const auto left = cloud_.regions[spot->region].bindings;
  for (const auto& [port, places] : left) {
    if (!places.contains(spot->place)) continue;
    edit({.what = What::binding,
          .gone = true,
          .inRegion = spot->region,
          .id = port,
          .place = spot->place});
  }
  for (std::size_t i = 0; i < 2; ++i) {
    edit({.what = What::binding, .inRegion = *to, .id = ports[i], .place = spot->place});
    addLevels({*to, ports[i], spot->place});
  }
  const Edit unbindOne{.what = What::binding,
                       .gone = true,
                       .inRegion = *to,
                       .id = ports.front(),
                       .place = spot->place};
  const Edit bindAgain{
      .what = What::binding, .inRegion = spot->region, .id = spot->port, .place = spot->place};
  nextEdits_ = {{unbindOne}, {bindAgain}};
}

void Generator::changeRemoteHost() {
  if (const auto spot = someSpot(false)) {
    edit({.what = What::binding,
          .inRegion = spot->region,
          .id = spot->port,
          .place = spot->place,
          .value = someHost(spot->region, false)});
  }
}

void Generator::addLevel() {
  static constexpr int kLevels[] = {0, 0, 1, 1, 2, 3, 9, 10, 254, 255};
  const auto spot = someSpot();
  if (!spot) return;
  const Binding& binding = at(*spot);
  int to = anyOf(kLevels);
  if (!binding.levels.empty() && !oneIn(4)) {
    to = (anyOf(binding.levels).first + (oneIn(3) ? 255 : 1)) & 0xff;
  }
  if (binding.levels.contains(to)) return;
  if (const auto segment = freeSegment(spot->region, binding, std::nullopt)) {
    level(*spot, to, segment);
  }
}

void Generator::dropLevel() {
  const auto spot = someSpot();
  if (spot && !at(*spot).levels.empty()) {
    level(*spot, anyOf(at(*spot).levels).first, std::nullopt);
  }
}

void Generator::changeLevel() {
  const auto spot = someSpot();
  if (!spot || at(*spot).levels.empty()) return;
  if (const auto segment = freeSegment(spot->region, at(*spot), std::nullopt)) {
    level(*spot, anyOf(at(*spot).levels).first, segment);
  }
}

// Takes away or changes a VXLAN level that stands above another.
void Generator::disturbVxlan() {
  const auto spot = someSpot();
  if (!spot) return;
  const auto levels = at(*spot).levels;
  const auto& segments = cloud_.regions[spot->region].segments;
  for (const auto& [above, id] : levels) {
    const auto segment = segments.find(id);
    if (segment == segments.end() || segment->second.type != kVxlan) continue;
    if (!levels.contains((above + 1) & 0xff)) continue;
    return level(*spot, above,
                 oneIn(2) ? std::nullopt : freeSegment(spot->region, at(*spot), std::nullopt));
  }
}

void Generator::swapLevels() {
  const auto spot = someSpot();
  if (!spot || at(*spot).levels.size() < 2) return;
  const auto first = *at(*spot).levels.begin();
  const auto second = *at(*spot).levels.rbegin();
  level(*spot, first.first, second.second);
  level(*spot, second.first, first.second);
}

// A port moves from hosts to a switch interface, or back.
void Generator::switchKind() {
  const auto spot = someSpot();
  if (!spot) return;
  const bool toHost = !spot->place.onHost();
  edit({.what = What::portBinding, .gone = true, .inRegion = spot->region, .id = spot->port});
  const Place place = toHost ? Place{someHost(spot->region, true)} : Place{kSwitches[2], 1};
  edit({.what = What::binding,
        .inRegion = spot->region,
        .id = spot->port,
        .place = place,
        .value = toHost ? 0 : someHost(spot->region, false)});
  addLevels({spot->region, spot->port, place});
}

// A port moves to another region, and stays on its host.
void Generator::moveRegion() {
  const auto spot = someSpot();
  const auto to = someRegion();
  if (!spot || *to == spot->region) return;
  const int vlanType = cloud_.regions[spot->region].ports[spot->port];
  const int host = at(*spot).host;
  edit({.what = What::portBinding, .gone = true, .inRegion = spot->region, .id = spot->port});
  edit({.what = What::port, .gone = true, .inRegion = spot->region, .id = spot->port});
  edit({.what = What::port, .inRegion = *to, .id = spot->port, .value = vlanType});
  edit({.what = What::binding,
        .inRegion = *to,
        .id = spot->port,
        .place = spot->place,
        .value = host});
  addLevels({*to, spot->port, spot->place});
}

}  // namespace sim
