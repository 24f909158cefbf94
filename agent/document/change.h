// What one patch did to the cloud document: every thing that it made dirty, with its before-image.
//
// Merging a patch changes the document in place and notes that here. The change then serves three
// readers: the rules are checked on what is dirty, the plan of operations is made from the
// difference, and a refused patch is rolled back. What a patch removed lives on in the change, so
// that nothing in the plan dangles, until the change is dropped.
//
// Only what existed before is listed member by member: a new region, port binding or VLAN
// assignment is one entry, and what is in it is read from the document itself.
#pragma once

#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "agent/document/cloud_state.h"

namespace vnagent {

// A member of a map that was added, removed or changed.
template <class Map>
struct Dirty {
  typename Map::value_type* entry;  // good until the next patch, also when it was removed
  bool existed;
  typename Map::node_type gone = {};  // holds the entry once it was removed

  const auto& key() const { return entry->first; }
  auto& value() const { return entry->second; }
  bool added() const { return !existed; }
  bool removed() const { return !gone.empty(); }
  bool changed() const { return existed && gone.empty(); }

  // Puts the entry back where it was removed, takes it out where it was added, and returns whether
  // it stays.
  bool rollBack(Map& map) {
    if (removed()) map.insert(std::move(gone));
    if (added()) map.erase(map.find(entry->first));
    return existed;
  }
};

struct DirtyThing : Dirty<Things> {
  Values before = {};  // where it was changed
};

// A scalar of the configuration or a region.
struct DirtyScalar {
  size_t row;
  Scalar before;
  bool written;  // named by the patch, or changed by what it removed
};

struct DirtyAttachment : Dirty<AttachmentMap> {
  Attachment before = {};  // where it was changed
};

struct DirtyPortBinding : Dirty<PortBindingMap> {
  // In ascending order of the key, by AttachmentKind; of one that was changed.
  std::array<std::vector<DirtyAttachment>, 2> attachments = {};

  std::vector<DirtyAttachment>& of(AttachmentKind kind) {
    return attachments[static_cast<size_t>(kind)];
  }
  const std::vector<DirtyAttachment>& of(AttachmentKind kind) const {
    return attachments[static_cast<size_t>(kind)];
  }
};

struct DirtyRegion : Dirty<RegionMap> {
  std::vector<DirtyScalar> scalars = {};  // in the order in which they are written
  // All in ascending order of the key; of a region that was changed.
  std::array<std::vector<DirtyThing>, kRegionCollections.size()> things = {};
  std::vector<DirtyPortBinding> portBindings = {};
};

struct DirtyVlan {
  uint16_t vlan;
  std::optional<bool> before;
  std::optional<bool> after;

  bool added() const { return !before; }
  bool removed() const { return !after; }
};

struct DirtyVlanAssignment : Dirty<VlanAssignmentMap> {
  std::vector<DirtyVlan> vlans = {};  // ascending; of one that was changed
};

struct Change {
  std::vector<DirtyScalar> configScalars;  // in the order in which they are written
  std::array<std::vector<DirtyThing>, kConfigCollections.size()> configThings;
  std::vector<DirtyVlanAssignment> vlanAssignments;
  std::vector<DirtyRegion> regions;  // ascending

  // Puts the document and its indexes back as they were before the patch, and empties the change.
  void rollBack(CloudState& state);
};

}  // namespace vnagent
