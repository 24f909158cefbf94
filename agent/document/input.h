// Reads the events of a stream, and the faults of any JSON input.
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

// True for a line that is no event: an empty one, or a comment.
bool isSkipped(std::string_view line);

// Faults of the text itself: its error, or its flaws. Places below `root`, a value of the tree,
// count from it; others, and all where it is null, from the root of the tree.
std::vector<Fault> faultsOfText(const JsonTree& tree, const JsonValue* root);

}  // namespace vnagent
