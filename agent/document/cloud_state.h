// The cloud document as the agent holds it: typed, with the reverse indexes that make a patch cost
// what the patch is, not what the cloud is.
//
// The structs are plain data for reading. Whatever touches an index (which bindings use a segment,
// which region a host or a port id is in) goes through the functions of CloudState, each of which
// has an opposite: a patch that turns out to break a rule is taken back with the same functions in
// the other direction (see change.h).
//
// Addresses are stable: a segment, port, port binding or region keeps its place in memory, its key
// included, until it is erased; an extracted map node keeps it too. One thread.
#pragma once

#include <array>
#include <cstdint>
#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "agent/document/vocabulary.h"

namespace vnagent {

struct PortBinding;
struct Region;

using NameSet = std::set<std::string, std::less<>>;

struct SegmentValue {
  uint8_t type = 0;
  uint32_t id = 0;
  friend bool operator==(const SegmentValue&, const SegmentValue&) = default;
};

struct Attachment;
struct AttachmentKey;
using AttachmentEntry = std::pair<const AttachmentKey, Attachment>;

// One level that names a segment.
struct SegmentUse {
  PortBinding* binding;
  AttachmentEntry* attachment;
  uint8_t level;
};

// A segment. It has no value where a level names one that does not exist; that happens only while a
// patch is being looked at.
struct Segment {
  std::optional<SegmentValue> value;
  std::vector<SegmentUse> users;  // in no order
};
using SegmentMap = std::map<std::string, Segment, std::less<>>;
using SegmentEntry = SegmentMap::value_type;

struct Port {
  uint8_t vlanType = 0;
};
using PortMap = std::map<std::string, Port, std::less<>>;

struct Level {
  uint8_t level = 0;
  SegmentEntry* segment = nullptr;
  size_t position = 0;  // of this use among the segment's

  friend bool operator==(const Level& a, const Level& b) {
    return a.level == b.level && a.segment == b.segment;
  }
};

// The levels of one attachment in ascending order; two are usual, 256 the most.
using Levels = std::vector<Level>;
SegmentEntry* segmentAt(const Levels& levels, uint8_t level);

// Where a port is attached: a host binding or a switch-interface binding of its port binding.
enum class AttachmentKind : uint8_t { kHost, kSwitchInterface };
inline constexpr std::array<std::string_view, 2> kAttachmentWords{"portToHostBinding",
                                                                  "portToSwitchInterfaceBinding"};
inline constexpr std::array kAttachmentKinds{AttachmentKind::kHost,
                                             AttachmentKind::kSwitchInterface};

// The host of a host binding (and nothing), or the switch identifier and the interface name.
struct AttachmentKey {
  std::string first;
  std::string second;
};
using AttachmentKeyView = std::pair<std::string_view, std::string_view>;

struct AttachmentKeyLess {
  using is_transparent = void;
  static AttachmentKeyView view(const AttachmentKey& key) { return {key.first, key.second}; }
  static AttachmentKeyView view(const AttachmentKeyView& key) { return key; }
  bool operator()(const auto& a, const auto& b) const { return view(a) < view(b); }
};

struct Attachment {
  std::string host;  // the host behind a switch interface; empty in a host binding
  Levels levels;
};
using AttachmentMap = std::map<AttachmentKey, Attachment, AttachmentKeyLess>;

struct PortBinding {
  Region* region = nullptr;
  std::string_view id;                       // the key that it stands under, its port's id
  std::array<AttachmentMap, 2> attachments;  // by AttachmentKind

  AttachmentMap& of(AttachmentKind kind) { return attachments[static_cast<size_t>(kind)]; }
  const AttachmentMap& of(AttachmentKind kind) const {
    return attachments[static_cast<size_t>(kind)];
  }
};
using PortBindingMap = std::map<std::string, PortBinding, std::less<>>;
using PortBindingEntry = PortBindingMap::value_type;

// A region. Its scalars are not held: they are written whenever a patch names them, whatever they
// were before.
struct Region {
  std::string_view name;  // the key that it stands under
  SegmentMap segment;
  PortMap port;
  PortBindingMap portBinding;
  std::array<NameSet, kRegionSets.size()> sets;
};
using RegionMap = std::map<std::string, Region, std::less<>>;
using RegionEntry = RegionMap::value_type;

using VlanSet = std::map<uint16_t, bool>;
using VlanAssignmentMap = std::map<std::string, VlanSet, std::less<>>;

struct Config {
  std::array<std::optional<ScalarValue>, kConfigScalars.size()> scalars;
  std::array<NameSet, kConfigSets.size()> sets;
  std::map<std::string, std::string, std::less<>> serviceAclTypeVrfMap;
  VlanAssignmentMap vlanAssignment;
};

// Where a key stands in a map, or where it belongs. Keys mostly come in ascending order, so that
// the end is looked at first.
template <class Map, class Key>
typename Map::iterator placeFor(Map& map, const Key& key) {
  const bool atEnd = map.empty() || map.key_comp()(std::prev(map.end())->first, key);
  return atEnd ? map.end() : map.lower_bound(key);
}

// Which regions something is in, and how often in each; more than one only while a patch is being
// looked at, or refused.
class Occupancy {
 public:
  void add(std::string_view what, const Region& region);
  void remove(std::string_view what, const Region& region);

  // A region other than `region` that has it too, or null.
  const Region* elsewhere(std::string_view what, const Region& region) const;

 private:
  struct Share {
    const Region* region = nullptr;
    uint64_t count = 0;
  };
  struct Shares {
    Share first;
    std::vector<Share> others;
  };
  struct Hash {
    using is_transparent = void;
    size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
  };

  std::unordered_map<std::string, Shares, Hash, std::equal_to<>> shares_;
  size_t shared_ = 0;  // entries with others
};

// Which region a port id is in; more than one only while a patch is being looked at, or refused.
// Holds views of the ids, as the regions keep them.
class PortRegions {
 public:
  void add(std::string_view id, const Region& region);
  void remove(std::string_view id, const Region& region);

  // A region other than `region` that has it too, or null.
  const Region* elsewhere(std::string_view id, const Region& region) const;

  // Makes room, ahead of many ids.
  void expect(size_t many);

 private:
  std::unordered_map<std::string_view, const Region*> first_;        // one region of each id
  std::unordered_multimap<std::string_view, const Region*> others_;  // the rest: mostly empty
};

// The whole document with its indexes.
class CloudState {
 public:
  Config config;
  RegionMap region;

  // Indexes: what the functions below have entered.
  const PortRegions& ports() const { return ports_; }
  const Occupancy& hosts(AttachmentKind kind) const { return hosts_[static_cast<size_t>(kind)]; }

  // The host that an attachment occupies.
  static std::string_view hostOf(AttachmentKind kind, const AttachmentEntry& attachment);

  // Enter or withdraw one thing, or all that is in it. Nothing else changes.
  // An id of a port is as its region keeps it, and withdrawn before that goes.
  void enterPort(const Region& in, std::string_view id) { ports_.add(id, in); }
  void withdrawPort(const Region& in, std::string_view id) { ports_.remove(id, in); }
  void enter(AttachmentKind kind, PortBinding& binding, AttachmentEntry& attachment);
  void withdraw(AttachmentKind kind, PortBinding& binding, const AttachmentEntry& attachment);
  void enter(PortBinding& binding);
  void withdraw(PortBinding& binding);
  void enter(Region& whole);
  void withdraw(Region& whole);

  // Makes room for the entries of many ports.
  void expectPorts(size_t many) { ports_.expect(many); }

 private:
  PortRegions ports_;
  std::array<Occupancy, 2> hosts_;
};

}  // namespace vnagent
