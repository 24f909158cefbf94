// The model's view of port bindings: what they ask for, and what is left of them.
#include <algorithm>
#include <optional>

#include "tests/sim/library/model.h"

namespace sim {

bool Model::hasNames(const Place& place) {
  // Number 0 is the empty name, which the machines take as no switch interface.
  return place.element != 0 && place.interface != 0;
}

const Segment* Model::at(const Bound& bound, int level) {
  const auto found = bound.levels.find(level & 0xff);
  return found == bound.levels.end() ? nullptr : &found->second;
}

// Withdrawal.

void Model::withdrawLevel(const Key& key, int level) {
  Bound& bound = bound_.at(key);
  const Place& place = std::get<Place>(key);
  const bool vlan = bound.levels.at(level).type == kVlan;
  bound.levels.erase(level);
  if (!vlan) return;
  if (level == 0) bound.wrapped = false;
  // Whether or not others still need it.
  if (bound.native && !place.onHost()) natives_[place] = {0};
}

void Model::withdraw(const Key& key) {
  Bound& bound = bound_.at(key);
  while (!bound.levels.empty()) withdrawLevel(key, bound.levels.begin()->first);
  const int host = bound.host;
  const Place place = std::get<Place>(key);
  bound_.erase(key);
  if (place.onHost()) return;
  if (!toggleOn_) return withdrawInterface(key, host);
  const bool shared = std::ranges::any_of(
      bound_, [&](const auto& other) { return std::get<Place>(other.first) == place; });
  if (shared) return;
  remoteHosts_.erase(place);
  natives_.erase(place);
}

// An interface keeps the host behind it while anybody else uses the host's element.
void Model::withdrawInterface(const Key& key, int host) {
  const Place& place = std::get<Place>(key);
  const auto hosts = configured_.find(place);
  if (hosts == configured_.end() || usesElement(std::get<1>(key), host)) return;
  hosts->second.erase(host);
  if (!hosts->second.empty() || carriesVlan(place)) return;
  configured_.erase(hosts);
  natives_.erase(place);
}

void Model::withdrawAll(int region, int port) {
  std::vector<Key> keys;
  for (const auto& [key, bound] : bound_) {
    if (std::get<0>(key) == region && std::get<1>(key) == port) keys.push_back(key);
  }
  for (const Key& key : keys) withdraw(key);
}

bool Model::usesElement(int exceptPort, int element) const {
  return std::ranges::any_of(bound_, [&](const auto& other) {
    const auto& [region, port, place] = other.first;
    return port != exceptPort && !place.onHost() &&
           (place.element == element || other.second.host == element);
  });
}

bool Model::carriesVlan(const Place& place) const {
  return hasNames(place) && std::ranges::any_of(bound_, [&](const auto& other) {
           return std::get<Place>(other.first) == place &&
                  std::ranges::any_of(other.second.levels,
                                      [](const auto& level) { return level.second.type == kVlan; });
         });
}

// Publication: what new bindings and levels leave in the past.

void Model::publishNew() {
  for (const Operation& op : waiting_) {
    if (op.kind != Operation::bindingIs) continue;
    if (op.place.onHost()) {
      hosts_.insert(op.place.element);
      continue;
    }
    natives_.try_emplace(op.place, std::set<unsigned>{0});
    if (toggleOn_) {
      remoteHosts_[op.place].insert(op.value);
    } else {
      elements_.insert(op.place.element);
      elements_.insert(op.value);
      named_.insert(op.value);
      configured_[op.place].insert(op.value);
    }
  }
  for (const auto& [key, level] : newLevels_) {
    if (level == 255) publishWrapped(bound_.at(key));
  }
  publishNatives();
}

// A VXLAN segment at level 255 is right above level 0, but a VLAN at level 0 looks for nothing
// above it: so the two meet only when the VXLAN comes to a VLAN that is there, or with it.
void Model::publishWrapped(Bound& bound) {
  const Segment* vxlan = at(bound, 255);
  const Segment* vlan = at(bound, 0);
  bound.wrapped = vxlan->type == kVxlan && vlan != nullptr && vlan->type == kVlan;
}

// The last native port wins. Regions that are new come before all others. The ports of new regions
// come in any order, and so do the levels of one port.
void Model::publishNatives() {
  struct Writer {
    bool old = false;  // of a region that is not new
    int region = 0, port = 0;
    auto operator<=>(const Writer&) const = default;
  };
  std::map<Place, std::pair<Writer, std::set<unsigned>>> last;
  for (const auto& [key, level] : newLevels_) {
    const auto& [region, port, place] = key;
    const Bound& bound = bound_.at(key);
    const Segment& segment = bound.levels.at(level);
    if (place.onHost() || !bound.native || segment.type != kVlan || !hasNames(place)) continue;
    const bool old = !newRegions_.contains(region);
    const Writer writer = old ? Writer{true, region, port} : Writer{};
    auto& [best, vlans] = last[place];
    if (!vlans.empty() && writer < best) continue;
    if (writer != best) vlans.clear();
    best = writer;
    vlans.insert(segment.number);
  }
  for (const auto& [place, writers] : last) natives_[place] = writers.second;
}

// Facts.

void Model::tell(const Key& key, const Bound& bound, std::vector<Fact>& facts) const {
  const auto& [region, port, place] = key;
  const auto say = [&, port = port](Fact::Holder holder, Place where, Fact::Kind kind, int a = 0) {
    facts.push_back({.holder = holder,
                     .place = where,
                     .kind = kind,
                     .a = static_cast<unsigned>(a),
                     .who = port});
  };
  const auto sayDomain = [&, region = region](Fact::Holder holder, int host) {
    facts.push_back({.holder = holder,
                     .place = {host},
                     .kind = Fact::domain,
                     .a = static_cast<unsigned>(region)});
    say(holder, {host}, Fact::domainReferrer, region);
  };
  if (place.onHost()) {
    sayDomain(Fact::host, bound.host);
  } else if (toggleOn_) {
    say(Fact::switchPort, place, Fact::referrer);
  } else {
    say(Fact::element, {place.element}, Fact::referrer);
    say(Fact::element, {bound.host}, Fact::referrer);
    sayDomain(Fact::element, bound.host);
  }
  if (place.onHost() || hasNames(place)) tellVlans(key, bound, facts);
}

void Model::tellVlans(const Key& key, const Bound& bound, std::vector<Fact>& facts) const {
  const auto& [region, port, place] = key;
  const Fact::Holder holder = place.onHost() ? Fact::host
                              : toggleOn_    ? Fact::switchPort
                                             : Fact::interface;
  const auto say = [&, port = port, place = place](Fact::Kind kind, unsigned vlan, unsigned vni,
                                                   bool referred) {
    facts.push_back({holder, place, kind, vlan, vni, referred ? port : 0});
  };
  for (const auto& [level, segment] : bound.levels) {
    if (segment.type != kVlan) continue;
    say(Fact::vlan, segment.number, 0, false);
    say(Fact::vlanReferrer, segment.number, 0, true);
    const Segment* above = at(bound, level - 1);
    if (above == nullptr || above->type != kVxlan || (level == 0 && !bound.wrapped)) continue;
    say(Fact::vni, segment.number, above->number, false);
    say(Fact::vniReferrer, segment.number, above->number, true);
  }
}

void Model::tellPast(std::vector<Fact>& facts) const {
  const auto say = [&](Fact::Holder holder, const Place& place, Fact::Kind kind, int who = 0) {
    facts.push_back({.holder = holder, .place = place, .kind = kind, .who = who});
  };
  for (const int host : hosts_) say(Fact::host, {host}, Fact::exists);
  for (const int element : elements_) {
    say(Fact::element, {element}, Fact::exists);
    say(Fact::element, {element}, Fact::hostname, named_.contains(element) ? element : 0);
  }
  for (const auto& [place, hosts] : remoteHosts_) {
    say(Fact::switchPort, place, Fact::exists);
    for (const int host : hosts) say(Fact::switchPort, place, Fact::remoteHost, host);
  }
  for (const auto& [place, hosts] : configured_) {
    say(Fact::interface, place, Fact::exists);
    for (const int host : hosts) say(Fact::interface, place, Fact::configured, host);
  }
}

}  // namespace sim
