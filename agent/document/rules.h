// The rules between the things of a cloud document, checked on what a change touched:
//
//   a port binding names a port of its region, a level a segment of its region;
//   a port binding has host bindings or switch-interface bindings, not both;
//   a host occurs in the host bindings, and behind the switch interfaces, of one region at most;
//   a port id occurs in one region at most;
//   a segment is at one level of a binding at most, and the VLAN segments of one binding have
//   different VLAN ids.
//
// The machines take all of them for granted.
#pragma once

#include "agent/document/change.h"
#include "agent/document/cloud_state.h"
#include "agent/document/fault.h"

namespace vnagent {

// REQUIRES: `state` is the document after `change`.
void checkRules(const CloudState& state, const Change& change, Faults& faults);

}  // namespace vnagent
