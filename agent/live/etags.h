// When each place of the cloud document changed last, as revisions: the ETags of the live agent.
//
// Regions, their collections and the members of these have their own; every other place has that of
// the document. What was added together shares one entry, so that a region that was written as a
// whole takes next to nothing. Activity thread only.
#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>

#include "agent/document/cloud_state.h"
#include "agent/json/json_tree.h"
#include "agent/json/json_writer.h"
#include "agent/live/place.h"

namespace vnagent {

class Etags {
 public:
  // There is a new revision of the document.
  void revisionIs(uint64_t revision) { document_ = revision; }

  // Notes what differs in a new revision: a place that its exact merge patch has a value for. `now`
  // is the document after it.
  void changed(std::span<const std::string_view> place, const CloudState& now, uint64_t revision);

  // Later revisions never were: what changed in them counts as changed in this one.
  void goBackTo(uint64_t revision);

  // After that, for each change that never was, the latest first: `patch` is the one that took it
  // back, and `now` the document without any of them. What they removed is there again, and counts
  // as changed in `revision`.
  void takenBack(const JsonValue& patch, const CloudState& now, uint64_t revision);

  // The revision of the last change of a place; of one that exists.
  uint64_t of(const Place& place) const;

  // For a snapshot, and back. Throws std::runtime_error where the text is none.
  void write(JsonWriter& json) const;
  static Etags read(const JsonValue& value);

 private:
  struct Collection {
    uint64_t last = 0;   // of the last change of any member
    uint64_t first = 0;  // when the collection was added; of members that have no entry
    std::unordered_map<std::string, uint64_t> member;
  };
  struct Region {
    uint64_t last = 0;
    std::map<std::string, Collection, std::less<>> collection;
  };

  uint64_t document_ = 0;
  std::map<std::string, Region, std::less<>> region_;
};

}  // namespace vnagent
