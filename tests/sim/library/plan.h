// The operations that lead from one cloud to the next, in the agent's order: an implementation of
// agent/plan that is independent of it.
//
// There are four phases (removals, configuration, additions, the regions' scalars), and the
// activity loop runs after each. What is removed is removed whole, and nothing is changed in place
// that no machine observes.
#pragma once

#include <array>
#include <vector>

#include "tests/sim/library/event.h"

namespace sim {

struct Operation {
  enum Kind {
    levelDel,
    bindingDel,
    portBindingDel,
    segmentDel,
    portDel,
    regionDel,
    vlanEntryDel,
    assignmentDel,
    driverIs,
    assignmentIs,
    vlanEntryIs,
    regionIs,
    segmentIs,
    portIs,
    portBindingIs,
    bindingIs,
    levelIs,
    requesterIs,
    requestIs,
    heartbeatIs,
    syncStatusIs,
  };
  Kind kind = levelDel;
  int region = 0;
  int id = 0;  // a segment, a port, or a VLAN
  Place place{};
  int level = 0;
  int value = 0;                           // as in the edit of the same name
  Segment segment{};                       // of segmentIs
  const Assignment* assignment = nullptr;  // of assignmentIs; of the cloud after
};

using Phase = std::vector<Operation>;
using Plan = std::array<Phase, 4>;

// REQUIRES: both clouds keep the rules and outlive the plan.
Plan planOf(const Cloud& before, const Cloud& after, const std::vector<Edit>& edits, bool toggleOn);

}  // namespace sim
