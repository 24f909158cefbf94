// Merges a patch into the cloud document.
//
// A patch is a JSON Merge Patch (RFC 7396): objects merge, null removes, anything else replaces.
// Every value is checked against what its attribute may hold, every member name against what there
// is; what doesn't fit is noted as a fault and the rest is merged all the same, so that one look at
// a document finds all that is wrong with it. Rules between things are not looked at here
// (rules.h).
#pragma once

#include "agent/document/change.h"
#include "agent/document/cloud_state.h"
#include "agent/document/fault.h"
#include "agent/json/json_tree.h"

namespace vnagent {

// Writes what it did to `change`, which must be empty, and what it could not do to `faults`.
void merge(const JsonValue& patch, CloudState& state, Change& change, Faults& faults);

// The two halves of it.
void mergeConfig(const JsonValue& patch, Config& config, Change& change, Faults& faults);
void mergeRegions(const JsonValue& patch, CloudState& state, Change& change, Faults& faults);

// A collection of members that have a name and nothing else. `touch` is null where nobody asks what
// changed.
void mergeNameSet(const JsonValue& patch, NameSet& set, SetTouch* touch, Faults& faults);

// One port binding; `touch` is null for a new one.
void mergePortBinding(const JsonValue& patch, CloudState& state, PortBinding& binding,
                      RegionTouch& region, PortBindingTouch* touch, Faults& faults);

}  // namespace vnagent
