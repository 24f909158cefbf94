// Facts: the outputs of the library, as single statements that can be compared.
//
// "host h2 vlan 100 referrer p03" is one. An entry is a fact, each of its referrers another, so an
// entry that should have been removed is found also without a referrer. A picture is all facts of
// the outputs at one moment.
#pragma once

#include <compare>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tests/sim/library/cloud.h"

namespace sim {

struct Fact {
  // What holds what the fact tells of.
  enum Holder : std::uint8_t { host, switchPort, interface, element, region };
  enum Kind : std::uint8_t {
    exists,
    domain,          // a: the region
    domainReferrer,  // a: the region; who: the port
    vlan,            // a: the VLAN
    vlanReferrer,    // who: the port
    vni,             // a: the VLAN; b: the VNI
    vniReferrer,     // who: the port
    referrer,        // who: the port behind "bm-"
    remoteHost,      // who: an element
    configured,      // who: an element
    hostname,        // who: an element
    assigned,        // a: the VLAN
    available,
    allocated,
    syncStatus,     // a
    oldSyncStatus,  // a
    owner,          // who: a requester
    request,        // who: a request
  };

  Holder holder = host;
  Place place{};  // the region, where the holder is one, as the element
  Kind kind = exists;
  unsigned a = 0;
  unsigned b = 0;
  int who = 0;  // -1 for a name that nobody has

  bool operator==(const Fact&) const = default;
  std::strong_ordering operator<=>(const Fact& other) const {
    if (const auto order = first() <=> other.first(); order != 0) return order;
    return second() <=> other.second();
  }

 private:
  std::uint64_t first() const {
    const auto byte = [](int value) { return static_cast<std::uint64_t>(value & 0xff); };
    return byte(holder) << 56 | byte(place.element) << 48 | byte(place.interface) << 40 |
           byte(kind) << 32 | a;
  }
  std::uint64_t second() const {
    return static_cast<std::uint64_t>(b) << 32 | static_cast<std::uint32_t>(who);
  }
};

std::string text(const Fact& fact);
std::string text(Fact::Holder holder, const Place& place);

struct Picture {
  std::vector<Fact> facts;                     // in order, each once
  std::map<Place, unsigned> natives;           // of each switch port or interface; 0 for none
  std::map<int, std::string> assignmentUuids;  // of each region
};

// All of it, a line each; without the UUIDs.
std::string text(const Picture& picture);

// Puts facts in order, each once.
void settle(std::vector<Fact>& facts);

}  // namespace sim
