// Makes the operations of a change: what the entities must go through so that the machines watching
// them see every change, and nothing that a change makes stale stays behind.
//
// Machines watch the members of collections, not the insides of segments, ports and bindings. So a
// thing that changes inside is taken out and put back, and with it the whole of what hangs on it:
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
