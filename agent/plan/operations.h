// What a patch means for the entities: the operations that bring them from the document before it
// to the document after it, in the order in which they must run.
//
// Every operation names what it is about by keys and knows no entity. Texts and pointers are views
// into the document: they are good until it takes the next patch.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "agent/document/cloud_state.h"

namespace vnagent {

// Which attachment of which port binding. Of operations there are several for each port of a cloud,
// so that this one is short.
struct AttachmentAddress {
  const PortBinding* binding;
  const AttachmentKey* key;
  AttachmentKind kind;

  std::string_view region() const { return binding->region->name; }
  std::string_view port() const { return binding->id; }
};

namespace op {

// Removals.
struct LevelDel {
  AttachmentAddress at;
  uint8_t level;
};
struct AttachmentDel {
  AttachmentAddress at;
};
struct PortBindingDel {
  std::string_view region, port;
};
// A member of a region's collection, or of the configuration's where there is no region.
struct ThingDel {
  const CollectionRow* row;
  const Region* region;
  std::string_view key;
};
struct RegionDel {
  std::string_view region;
};
struct VlanDel {
  std::string_view assignment;
  uint16_t vlan;
};
struct VlanAssignmentDel {
  std::string_view assignment;
};

// A scalar of a region, or of the configuration where there is no region.
struct ScalarIs {
  const ScalarRow* row;
  const Region* region;
  const Scalar* value;
};
// The timeout that the root machine works with from now on.
struct RegionSyncTimeoutIs {
  double seconds;
};

// Additions.
// A new assignment with all its entries, which it has before it is added.
struct VlanAssignmentIs {
  std::string_view assignment;
  const VlanSet* vlans;
};
struct VlanIs {
  std::string_view assignment;
  uint16_t vlan;
  bool assigned;
};
struct RegionIs {
  std::string_view region;
};
// A new member of a region, which has its scalars before it is added.
struct ThingIs {
  const CollectionRow* row;
  const Region* region;
  const ThingEntry* thing;
};
struct PortBindingIs {
  std::string_view region, port;
};
struct AttachmentIs {
  AttachmentAddress at;
  const Values* values;
};
struct LevelIs {
  AttachmentAddress at;
  uint8_t level;
  std::string_view segment;
};

}  // namespace op

using Operation =
    std::variant<op::LevelDel, op::AttachmentDel, op::PortBindingDel, op::ThingDel, op::RegionDel,
                 op::VlanDel, op::VlanAssignmentDel, op::ScalarIs, op::RegionSyncTimeoutIs,
                 op::VlanAssignmentIs, op::VlanIs, op::RegionIs, op::ThingIs, op::PortBindingIs,
                 op::AttachmentIs, op::LevelIs>;

// The four groups of operations. The activity loop runs until idle after each.
struct Plan {
  enum Step : size_t { kRemovals, kConfiguration, kAdditions, kScalars };
  std::array<std::vector<Operation>, 4> steps;

  std::vector<Operation>& operator[](Step step) { return steps[step]; }
};

}  // namespace vnagent
