// The output document, and a change of it, as JSON.
#pragma once

#include "agent/cloud/output_document.h"
#include "agent/json/json_writer.h"

namespace vnagent {

// Writes the document as one value: all its members, also the empty ones. Writes a change as a
// merge patch: null for what is removed, {} when there is none.
void writeOutput(const OutputDocument& output, JsonWriter& json);

}  // namespace vnagent
