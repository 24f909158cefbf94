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
#include "agent/document/vocabulary.h"

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
struct SegmentDel {
  std::string_view region, id;
};
struct PortDel {
  std::string_view region, id;
};
struct RegionSetDel {
  std::string_view region;
  RegionSet set;
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
struct ConfigSetDel {
  ConfigSet set;
  std::string_view key;
};
struct ServiceAclTypeVrfDel {
  std::string_view key;
};

// The agent configuration.
struct ConfigScalarIs {
  ConfigScalar which;
  ScalarValue value;
};
// The timeout that the root machine works with from now on.
struct RegionSyncTimeoutIs {
  double seconds;
};
struct ConfigSetIs {
  ConfigSet set;
  std::string_view key;
};
struct ServiceAclTypeVrfIs {
  std::string_view key, value;
};
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

// Additions.
struct RegionIs {
  std::string_view region;
};
struct RegionSetIs {
  std::string_view region;
  RegionSet set;
  std::string_view key;
};
struct SegmentIs {
  std::string_view region, id;
  SegmentValue value;
};
struct PortIs {
  std::string_view region, id;
  uint8_t vlanType;
};
struct PortBindingIs {
  std::string_view region, port;
};
struct AttachmentIs {
  AttachmentAddress at;
  std::string_view host;  // behind a switch interface
};
struct LevelIs {
  AttachmentAddress at;
  uint8_t level;
  std::string_view segment;
};

// The regions' scalars.
struct RegionScalarIs {
  std::string_view region;
  RegionScalar which;
  const ScalarValue* value;
};

}  // namespace op

using Operation =
    std::variant<op::LevelDel, op::AttachmentDel, op::PortBindingDel, op::SegmentDel, op::PortDel,
                 op::RegionSetDel, op::RegionDel, op::VlanDel, op::VlanAssignmentDel,
                 op::ConfigSetDel, op::ServiceAclTypeVrfDel, op::ConfigScalarIs,
                 op::RegionSyncTimeoutIs, op::ConfigSetIs, op::ServiceAclTypeVrfIs,
                 op::VlanAssignmentIs, op::VlanIs, op::RegionIs, op::RegionSetIs, op::SegmentIs,
                 op::PortIs, op::PortBindingIs, op::AttachmentIs, op::LevelIs, op::RegionScalarIs>;

// The four groups of operations. The activity loop runs until idle after each.
struct Plan {
  enum Step : size_t { kRemovals, kConfiguration, kAdditions, kScalars };
  std::array<std::vector<Operation>, 4> steps;

  std::vector<Operation>& operator[](Step step) { return steps[step]; }
};

// One line for logs and tests: "+level R p host:h 1 seg", "-segment R s", "=syncStatus R 1".
std::string describe(const Operation& operation);

}  // namespace vnagent
