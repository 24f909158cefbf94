#include "tests/sim/library/invariants.h"

#include <algorithm>

namespace sim {
namespace {

// Whether a port is bound where a fact says that it is a referrer.
bool isBound(const Cloud& cloud, const Fact& fact) {
  return std::ranges::any_of(cloud.regions, [&](const auto& entry) {
    const auto& [name, region] = entry;
    if (fact.kind == Fact::domainReferrer && fact.a != static_cast<unsigned>(name)) return false;
    const auto bound = region.bindings.find(fact.who);
    if (bound == region.bindings.end()) return false;
    if (fact.holder != Fact::element) return bound->second.contains(fact.place);
    return std::ranges::any_of(bound->second, [&](const auto& place) {
      return !place.first.onHost() &&
             (place.first.element == fact.place.element || place.second.host == fact.place.element);
    });
  });
}

// Whether there is a fact of another kind about the same entry, whoever it names.
bool has(const Picture& picture, Fact fact, Fact::Kind kind) {
  fact.kind = kind;
  fact.who = 0;
  const auto at = std::ranges::lower_bound(picture.facts, fact);
  if (at == picture.facts.end()) return false;
  fact.who = at->who;
  return *at == fact;
}

// Whether an entry has somebody who needs it, or is one of those that stay without.
bool isNeeded(const Picture& picture, const Fact& fact) {
  switch (fact.kind) {
    case Fact::domain:
      return has(picture, fact, Fact::domainReferrer);
    case Fact::vlan:
      return has(picture, fact, Fact::vlanReferrer);
    case Fact::vni:
      return has(picture, fact, Fact::vniReferrer);
    case Fact::exists:
      if (fact.holder == Fact::switchPort) return has(picture, fact, Fact::referrer);
      if (fact.holder == Fact::interface) {
        return has(picture, fact, Fact::configured) ||
               std::ranges::any_of(picture.facts, [&](const Fact& other) {
                 return other.holder == fact.holder && other.place == fact.place &&
                        other.kind == Fact::vlan;
               });
      }
      return true;
    default:
      return true;
  }
}

}  // namespace

std::string Invariants::check(const Cloud& cloud, const Picture& picture) {
  for (const auto& fault : {checkReferrers(cloud, picture), checkHosts(picture),
                            checkPools(cloud, picture), checkLocks(cloud, picture)}) {
    if (!fault.empty()) return fault;
  }
  return {};
}

std::string Invariants::checkReferrers(const Cloud& cloud, const Picture& picture) const {
  for (const Fact& fact : picture.facts) {
    const bool referrer = fact.kind == Fact::domainReferrer || fact.kind == Fact::vlanReferrer ||
                          fact.kind == Fact::vniReferrer || fact.kind == Fact::referrer;
    if (referrer && !isBound(cloud, fact)) return text(fact) + ": not bound there";
    if (!isNeeded(picture, fact)) return text(fact) + ": nobody needs it";
    if (fact.holder == (toggleOn_ ? Fact::element : Fact::switchPort)) {
      return text(fact) + ": not with this answer of the toggle";
    }
  }
  return {};
}

std::string Invariants::checkHosts(const Picture& picture) const {
  const Fact* last = nullptr;
  for (const Fact& fact : picture.facts) {
    if (fact.kind != Fact::domain) continue;
    if (last != nullptr && last->holder == fact.holder && last->place == fact.place) {
      return text(fact) + ": a second region";
    }
    last = &fact;
  }
  return {};
}

std::string Invariants::checkPools(const Cloud& cloud, const Picture& picture) {
  std::map<int, std::map<Fact::Kind, std::set<unsigned>>> pools;
  for (const Fact& fact : picture.facts) {
    if (fact.holder == Fact::region) pools[fact.place.element][fact.kind].insert(fact.a);
  }
  std::erase_if(sharedVlans_, [&](int region) { return !cloud.regions.contains(region); });
  for (const auto& [name, region] : cloud.regions) {
    std::set<unsigned> used;
    for (const auto& [id, segment] : region.segments) {
      if (segment.type == kVlan && !used.insert(segment.number).second) sharedVlans_.insert(name);
    }
    if (sharedVlans_.contains(name)) continue;
    auto& pool = pools[name];
    if (pool[Fact::allocated] != used) {
      return text(Fact::region, {name}) + ": what is allocated is not what the segments use";
    }
    std::set<unsigned> left;
    std::ranges::set_difference(pool[Fact::assigned], used, std::inserter(left, left.end()));
    if (pool[Fact::available] != left) {
      return text(Fact::region, {name}) + ": available is not assigned without allocated";
    }
  }
  return {};
}

// A lock is not handed over: between two holders there is a step in which it is free.
std::string Invariants::checkLocks(const Cloud& cloud, const Picture& picture) {
  std::map<int, Lock> now;
  for (const Fact& fact : picture.facts) {
    if (fact.kind == Fact::owner) now[fact.place.element].owner = fact.who;
    if (fact.kind == Fact::request) now[fact.place.element].request = fact.who;
  }
  std::erase_if(locks_, [&](const auto& lock) { return !cloud.regions.contains(lock.first); });
  for (const auto& [region, lock] : now) {
    const auto before = locks_.find(region);
    if (lock.request == 0 && lock.owner != 0) {
      return text(Fact::region, {region}) + ": an owner without a request";
    }
    if (before == locks_.end() || before->second.request == 0 || lock.request == 0) continue;
    if (!(before->second == lock)) {
      return text(Fact::region, {region}) + ": the lock went from one holder to another";
    }
  }
  locks_ = std::move(now);
  return {};
}

}  // namespace sim
