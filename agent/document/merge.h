// Merges a patch into the cloud document.
//
// A patch is a JSON Merge Patch (RFC 7396): objects merge, null removes, anything else replaces.
// Every value is checked against what its row of kinds.h takes, every member name against what
// there is; what doesn't fit is noted as a fault and the rest is merged all the same, so that one
// look at a document finds all that is wrong with it. Rules between things are not looked at here
// (rules.h).
#pragma once

#include "agent/document/change.h"
#include "agent/document/cloud_state.h"
#include "agent/document/fault.h"
#include "agent/json/json_tree.h"

namespace vnagent {

// Writes what it did to `change`, which must be empty, and what it could not do to `faults`.
void merge(const JsonValue& patch, CloudState& state, Change& change, Faults& faults);

// The walk that all collections share: null removes all members; of an object, each null removes
// one, and each other member that has a legal key and is an object where it must be is merged.
// `map` is anything like std::map with keys of one part. remove(at) and merge(member, at, exists),
// where `at` is the member's entry, or where it belongs.
template <class Map, class Remove, class Merge>
void mergeMembers(const JsonValue& patch, const CollectionRow& row, Map& map, Faults& faults,
                  Remove remove, Merge merge) {
  if (patch.isNull()) {
    for (auto at = map.begin(); at != map.end();) remove(at++);
    return;
  }
  if (!readObject(patch, row.what, faults)) return;
  for (const JsonValue* member : patch.all()) {
    const auto at = placeFor(map, member->key);
    const bool exists = at != map.end() && at->first == member->key;
    if (member->isNull()) {
      if (exists) remove(at);
    } else if (readKey(*member, row.key, faults) &&
               (row.of == nullptr || readObject(*member, row.of->name, faults))) {
      merge(*member, at, exists);
    }
  }
}

// The parts of it.

// The members of a configuration, or of a region that is new or was changed.
void mergeConfig(const JsonValue& patch, Config& config, Change& change, Faults& faults);
void mergeRegion(const JsonValue& patch, CloudState& state, DirtyRegion& dirty, Faults& faults);

// One port binding that is new or was changed. `segments` takes the segments that its levels are
// the first to name; null where it is not needed.
void mergePortBinding(const JsonValue& patch, CloudState& state, DirtyPortBinding& dirty,
                      std::vector<DirtyThing>* segments, Faults& faults);

// A collection of things. `dirty` is null where changes are not recorded; `state` where no thing of
// the collection is in an index.
struct ThingCollection {
  const CollectionRow& row;
  Things& things;
  std::vector<DirtyThing>* dirty;
  const Region* region;  // null in the configuration
  CloudState* state;
};
void mergeThings(const JsonValue& patch, const ThingCollection& collection, Faults& faults);

// Scalars.

// Of a thing that is written: merges them in place. With the thing itself removed (null), the
// scalars that it had count as written where that changes them.
void mergeWritten(const JsonValue& patch, const Kind& kind, Values& values,
                  std::vector<DirtyScalar>& dirty, Faults& faults);

// Of a thing that is replaced: what they are after the patch; `before` is null for a new one.
Values mergeReplaced(const JsonValue& patch, const Kind& kind, const Values* before,
                     Faults& faults);

// Notes members that the kind does not have.
void refuseUnknown(const JsonValue& patch, const Kind& kind, Faults& faults);

}  // namespace vnagent
