// A random cloud, as plain data: the content of the agent's input document, with numbers for names.
#pragma once

#include <compare>
#include <map>
#include <string>

namespace sim {

inline constexpr int kVlan = 0;
inline constexpr int kVxlan = 1;

struct Segment {
  int type = kVlan;     // kVlan, kVxlan, or anything else up to 255
  unsigned number = 0;  // VLAN id or VNI
  bool operator==(const Segment&) const = default;
};

// Where a port is bound: a host, or an interface of a switch. Hosts come first.
struct Place {
  static constexpr int kNone = -1;
  int element = 0;        // the host or the switch
  int interface = kNone;  // kNone for a host

  bool onHost() const { return interface == kNone; }
  bool operator==(const Place&) const = default;
  // As their keys stand in the document: hosts, then switches with their interfaces.
  std::strong_ordering operator<=>(const Place& other) const {
    if (onHost() != other.onHost()) return other.onHost() <=> onHost();
    if (element != other.element) return element <=> other.element;
    return interface <=> other.interface;
  }
};

struct Binding {
  int host = 0;               // the host itself, or the one behind the switch interface
  std::map<int, int> levels;  // the segment at each level
  bool operator==(const Binding&) const = default;
};

using PortBinding = std::map<Place, Binding>;

struct Region {
  std::map<int, Segment> segments;
  std::map<int, int> ports;  // with their VLAN type
  std::map<int, PortBinding> bindings;
  bool operator==(const Region&) const = default;
};

using Assignment = std::map<int, bool>;  // VLAN ids, with their entry

struct Cloud {
  int driver = 0;
  std::map<int, Assignment> assignments;
  std::map<int, Region> regions;
  bool operator==(const Cloud&) const = default;
};

// Whether the agent takes this cloud; otherwise it refuses the change that leads to it.
bool keepsRules(const Cloud& cloud);

}  // namespace sim
