// The output document as JSON.
#pragma once

#include "agent/json/json_writer.h"
#include "agent/output/output_document.h"

namespace vnagent {

// Writes the document as one value. All its members are written, also the empty ones.
void writeOutput(const OutputDocument& output, JsonWriter& json);

}  // namespace vnagent
