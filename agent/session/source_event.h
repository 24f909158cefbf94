// An event as a source hands it to a session: what was read, and the tree that it was read into.
#pragma once

#include <optional>
#include <string_view>

#include "agent/document/input.h"
#include "agent/json/json_tree.h"

namespace vnagent {

struct SourceEvent {
  // A line of a stream.
  static SourceEvent ofLine(std::string_view line);
  // A whole cloud document, which is a patch on the empty one.
  static SourceEvent ofDocument(std::string_view text);

  std::optional<JsonTree> tree;
  EventReading reading;  // refers to the tree
};

}  // namespace vnagent
