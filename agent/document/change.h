// What one patch did to the cloud document: every thing that it touched, as it was before.
//
// Merging a patch changes the document in place and writes this journal. The journal then serves
// three readers: the rules are checked on what was touched, the plan of operations is made from the
// difference, and a refused patch is taken back. What a patch removed lives on in the journal, so
// that nothing in the plan dangles, until the journal goes.
//
// Only what stood in the document before is taken apart here: a new region, port binding or VLAN
// assignment is one entry, and what is in it is read from the document itself.
#pragma once

#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "agent/document/cloud_state.h"

namespace vnagent {

struct SetTouch {
  std::vector<NameSet::node_type> removed;
  std::vector<std::string_view> added;
};

struct SegmentTouch {
  SegmentEntry* segment;
  std::optional<SegmentValue> before;

  bool added() const { return !before && segment->second.value; }
  bool removed() const { return before && !segment->second.value; }
  bool changed() const {
    return before && segment->second.value && before != segment->second.value;
  }
};

struct PortTouch {
  std::string_view id;
  std::optional<uint8_t> before;
  Port* port;               // null when it is gone
  PortMap::node_type gone;  // else empty

  bool changed() const { return before && port != nullptr && *before != port->vlanType; }
};

struct AttachmentTouch {
  AttachmentEntry* attachment;
  bool existed;
  AttachmentMap::node_type gone;  // holds the attachment when it was removed
  Levels levelsBefore;            // these two only where it existed and still does
  std::string hostBefore;

  bool added() const { return !existed; }
  bool removed() const { return !gone.empty(); }
};

struct PortBindingTouch {
  PortBinding* binding;
  bool existed;
  PortBindingMap::node_type gone;
  // In ascending order of the key, by AttachmentKind; of one that existed and still does.
  std::array<std::vector<AttachmentTouch>, 2> attachments;

  bool added() const { return !existed; }
  bool removed() const { return !gone.empty(); }
  const std::vector<AttachmentTouch>& of(AttachmentKind kind) const {
    return attachments[static_cast<size_t>(kind)];
  }
};

struct RegionTouch {
  Region* region;
  bool existed;
  RegionMap::node_type gone;
  std::vector<std::pair<RegionScalar, ScalarValue>> scalars;  // those that the patch names
  // All in ascending order of the key; of a region that existed and still does.
  std::array<SetTouch, kRegionSets.size()> sets;
  std::vector<SegmentTouch> segments;
  std::vector<PortTouch> ports;
  std::vector<PortBindingTouch> portBindings;
  // Segments that may have lost, or never had, their value.
  std::vector<SegmentEntry*> loose;

  bool added() const { return !existed; }
  bool removed() const { return !gone.empty(); }
};

struct VlanTouch {
  uint16_t vlan;
  std::optional<bool> before;
  std::optional<bool> after;
};

struct VlanAssignmentTouch {
  std::string_view assignment;
  VlanSet* vlans;
  bool existed;
  VlanAssignmentMap::node_type gone;
  std::vector<VlanTouch> touched;  // ascending; of one that existed and still does

  bool added() const { return !existed; }
  bool removed() const { return !gone.empty(); }
};

struct ConfigScalarTouch {
  ConfigScalar which;
  std::optional<ScalarValue> before;
  bool written;  // named by the patch, or changed by what it removed
};

struct AclTypeVrfTouch {
  std::string_view key;
  std::optional<std::string> before;
  const std::string* after;  // null when it is gone
  decltype(Config::serviceAclTypeVrfMap)::node_type gone;
};

struct Change {
  std::vector<ConfigScalarTouch> configScalars;  // in the order in which they are written
  std::array<SetTouch, kConfigSets.size()> configSets;
  std::vector<AclTypeVrfTouch> aclTypeVrf;
  std::vector<VlanAssignmentTouch> vlanAssignments;
  std::vector<RegionTouch> regions;  // ascending

  // Puts the document and its indexes back as they were before the patch.
  void undo(CloudState& state);

  // Drops segments that nothing names any more. Views into the change's plan end here.
  void settle(CloudState& state);
};

}  // namespace vnagent
