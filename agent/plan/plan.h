// Makes the operations of a change: what is done to the entities so that the machines that watch
// them are notified of every change, and no output is left that only the old state explains.
//
// Machines watch the members of collections, not the scalars of segments, ports and bindings. So a
// thing whose scalars change is removed and added again, and with it all that depends on it:
//   - a segment's type or id, a port's VLAN type: all port bindings that used it before;
//   - the host behind a switch interface: that switch-interface binding;
//   - a level: the level; but the whole binding where the level was a VXLAN right above a VLAN that
//     stays, which would keep the VNI otherwise;
//   - with network elements published (toggle off), one of several switch-interface bindings of a
//     port: the port binding, because they share the network element of the host.
#pragma once

#include "agent/document/change.h"
#include "agent/document/cloud_state.h"
#include "agent/plan/operations.h"

namespace vnagent {

struct PlanSettings {
  bool toggle = true;            // the answer of the toggle service
  double regionSyncTimeout = 0;  // what the root machine has where the document says nothing
};

// REQUIRES: `state` is the document after `change` and keeps all rules. The plan's texts are views
// into both.
Plan makePlan(const CloudState& state, const Change& change, const PlanSettings& settings);

// The region sync timeout that a document asks for.
double regionSyncTimeoutOf(const Config& config, double otherwise);

}  // namespace vnagent
