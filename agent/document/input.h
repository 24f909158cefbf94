// The two things that a run reads: a cloud document, and the events of a stream.
#pragma once

#include <optional>
#include <string_view>
#include <variant>
#include <vector>

#include "agent/document/fault.h"
#include "agent/json/json_tree.h"

namespace vnagent {

// Applies a merge patch. The value lies in the tree that the event was read into.
struct PatchEvent {
  const JsonValue* patch;
};
// Moves the clock forward.
struct AdvanceEvent {
  double seconds;
};
// Gives the root machine another region sync timeout.
struct RegionSyncTimeoutEvent {
  double seconds;
};
using Event = std::variant<PatchEvent, AdvanceEvent, RegionSyncTimeoutEvent>;

struct EventReading {
  std::optional<Event> event;
  std::vector<Fault> faults;  // why there is no event, or why it must be refused
};

// Reads one line of a stream. REQUIRES: the tree outlives the reading.
EventReading readEvent(const JsonTree& line);

// True for a line that stands for nothing: empty, or a comment.
bool isSkipped(std::string_view line);

// Faults of the text itself: what the parser could not make a value of, and keys that an object
// repeats. Places count from `root`.
std::vector<Fault> faultsOfText(const JsonTree& tree, const JsonValue* root);

}  // namespace vnagent
