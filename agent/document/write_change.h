// Prints what a patch changed of a cloud document: the merge patch from the document as it was
// printed before to the document as it is printed now (write_cloud.h), or the one back. It has what
// differs and nothing else, whatever the patch named.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string_view>

#include "agent/document/change.h"
#include "agent/document/cloud_state.h"
#include "agent/json/json_writer.h"

namespace vnagent {

enum class Direction : uint8_t {
  kForward,  // to the document after the change
  kBack,     // to the document before it
};

// Writes {} where nothing differs. REQUIRES: `state` is the document after `change`.
void writeChange(const CloudState& state, const Change& change, JsonWriter& json,
                 Direction direction = Direction::kForward);

// Called before each member that is written as a whole or as null, with the names of the objects
// around it and its own. They are good during the call.
using OnWritten = std::function<void(std::span<const std::string_view> place)>;

// The same, forward.
void writeChange(const CloudState& state, const Change& change, JsonWriter& json,
                 const OnWritten& onWritten);

}  // namespace vnagent
