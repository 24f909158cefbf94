// The cloud document as the agent holds it: typed, with the reverse indexes that make a patch cost
// what the patch is, not what the cloud is.
//
// The structs are plain data for reading. Whatever is in an index (which bindings use a segment,
// which region a host or a port id is in) is indexed and unindexed by the functions of CloudState:
// a patch that turns out to break a rule is rolled back with the same functions (see change.h).
//
// Addresses are stable: a thing, port binding or region keeps its place in memory, its key
// included, until it is erased; an extracted map node keeps it too. One thread.
#pragma once

#include <array>
#include <cstdint>
#include <iterator>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "agent/document/kinds/document.h"

namespace vnagent {

struct PortBinding;
struct Region;
struct Attachment;
struct AttachmentKey;
using AttachmentEntry = std::pair<const AttachmentKey, Attachment>;

// One level that names a segment.
struct SegmentUse {
  PortBinding* binding;
  AttachmentEntry* attachment;
  uint8_t level;
};

// A member of a collection that has scalars only, or nothing but its key; a segment has its users
// too, in no order.
struct Thing {
  Values values;
  std::vector<SegmentUse> users;
  bool present = true;  // false of a segment that a level names but that is not there; that happens
                        // only while a patch is being looked at
};
using Things = std::map<std::string, Thing, std::less<>>;
using ThingEntry = Things::value_type;

// A segment's type and id; nothing where it has none that could be read.
std::optional<int64_t> segmentType(const Values& segment);
std::optional<int64_t> segmentNumber(const Values& segment);

struct Level {
  uint8_t level = 0;
  ThingEntry* segment = nullptr;
  size_t position = 0;  // of this use among the segment's

  friend bool operator==(const Level& a, const Level& b) {
    return a.level == b.level && a.segment == b.segment;
  }
};

// The levels of one attachment in ascending order; two are usual, 256 the most.
using Levels = std::vector<Level>;
ThingEntry* segmentAt(const Levels& levels, uint8_t level);

// Where a port is attached: a host binding or a switch-interface binding of its port binding.
enum class AttachmentKind : uint8_t { kHost, kSwitchInterface };
inline constexpr std::array kAttachmentKinds{AttachmentKind::kHost,
                                             AttachmentKind::kSwitchInterface};
constexpr const CollectionRow& rowOf(AttachmentKind kind) {
  return kAttachments[static_cast<size_t>(kind)];
}

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
  Values values;
  Levels levels;
};
using AttachmentMap = std::map<AttachmentKey, Attachment, AttachmentKeyLess>;

// The host that an attachment occupies: that of a host binding, or the one behind a switch
// interface; empty where it has none that could be read.
std::string_view hostOf(AttachmentKind kind, const AttachmentEntry& attachment);

struct PortBinding {
  Region* region = nullptr;
  std::string_view id;                       // its key, the id of its port
  std::array<AttachmentMap, 2> attachments;  // by AttachmentKind

  AttachmentMap& of(AttachmentKind kind) { return attachments[static_cast<size_t>(kind)]; }
  const AttachmentMap& of(AttachmentKind kind) const {
    return attachments[static_cast<size_t>(kind)];
  }
};
using PortBindingMap = std::map<std::string, PortBinding, std::less<>>;

struct Region {
  std::string_view name;  // its key
  Values values;
  std::array<Things, kRegionCollections.size()> things;  // by row; those that have a writer
  PortBindingMap portBinding;

  Things& segments() { return things[kSegmentRow]; }
  const Things& ports() const { return things[kPortRow]; }
};
using RegionMap = std::map<std::string, Region, std::less<>>;

using VlanSet = std::map<uint16_t, bool>;
using VlanAssignmentMap = std::map<std::string, VlanSet, std::less<>>;

struct Config {
  Values values;
  std::array<Things, kConfigCollections.size()> things;  // by row; those that have a writer
  VlanAssignmentMap vlanAssignment;
};

// The entry of a key in a map, or where it would be inserted. Keys mostly come in ascending order,
// so that the end is looked at first.
template <class Map, class Key>
typename Map::iterator placeFor(Map& map, const Key& key) {
  const bool atEnd = map.empty() || map.key_comp()(std::prev(map.end())->first, key);
  return atEnd ? map.end() : map.lower_bound(key);
}

// Which regions a name is in, and how often in each; in more than one only while a patch is being
// looked at, or refused. Key is std::string, or std::string_view where the text outlives its entry.
template <class Key>
class Occupancy {
 public:
  void add(std::string_view name, const Region& region) {
    auto [share, end] = shares_.equal_range(name);
    if (share != end) ++beyondFirst_;
    for (; share != end; ++share) {
      if (share->second.region != &region) continue;
      ++share->second.count;
      --beyondFirst_;
      return;
    }
    shares_.emplace(name, Share{&region, 1});
  }

  void remove(std::string_view name, const Region& region) {
    const auto [first, end] = shares_.equal_range(name);
    auto share = first;
    while (share != end && share->second.region != &region) ++share;
    if (share == end || --share->second.count > 0) return;
    if (std::next(first) != end) --beyondFirst_;
    shares_.erase(share);
  }

  // A region other than `region` that has it too, or null.
  const Region* elsewhere(std::string_view name, const Region& region) const {
    if (beyondFirst_ == 0) return nullptr;
    auto [share, end] = shares_.equal_range(name);
    while (share != end && share->second.region == &region) ++share;
    return share == end ? nullptr : share->second.region;
  }

  // Makes room ahead of many names. For a few it is not worth a look at all entries.
  void expect(size_t many) {
    if (many > shares_.size()) shares_.reserve(shares_.size() + many);
  }

 private:
  struct Share {
    const Region* region;
    size_t count;
  };
  // Looks keys up by views of them.
  struct Hash {
    using is_transparent = void;
    size_t operator()(std::string_view name) const { return std::hash<std::string_view>()(name); }
  };
  std::unordered_multimap<Key, Share, Hash, std::equal_to<>> shares_;
  size_t beyondFirst_ = 0;  // shares that are not the only one of their name
};

// The whole document with its indexes.
class CloudState {
 public:
  Config config;
  RegionMap region;

  // Indexes. Port ids are those that the regions keep.
  const Occupancy<std::string_view>& ports() const { return ports_; }
  const Occupancy<std::string>& hosts(AttachmentKind kind) const {
    return hosts_[static_cast<size_t>(kind)];
  }

  // Index or unindex one thing, or all that is in it. Nothing else changes.
  // An id of a port is as its region keeps it, and unindexed before it is erased.
  void indexPort(const Region& in, std::string_view id) { ports_.add(id, in); }
  void unindexPort(const Region& in, std::string_view id) { ports_.remove(id, in); }
  void index(AttachmentKind kind, PortBinding& binding, AttachmentEntry& attachment);
  void unindex(AttachmentKind kind, PortBinding& binding, const AttachmentEntry& attachment);
  void index(PortBinding& binding);
  void unindex(PortBinding& binding);
  void index(Region& whole);
  void unindex(Region& whole);

  // Makes room for the entries of many ports.
  void expectPorts(size_t many) { ports_.expect(many); }

 private:
  Occupancy<std::string_view> ports_;
  std::array<Occupancy<std::string>, 2> hosts_;
};

}  // namespace vnagent
