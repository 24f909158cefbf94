// The output document, and a change of it, as JSON.
#pragma once

#include "agent/cloud/output_document.h"
#include "agent/json/json_writer.h"

namespace vnagent {

// Writes the document as one value: all its members, also the empty ones. Writes a change as a
// merge patch: null for what is removed, {} when there is none.
void writeOutput(const OutputDocument& output, JsonWriter& json);

// Writes the merge patch back of a change, `now` being the change. A set of which few keys differ
// has these only, in an array of two: [[keys that come back], [keys that go]]. Delta::of() reads
// it.
void writeOutputBack(const OutputDocument& before, const OutputDocument& now, JsonWriter& json);

}  // namespace vnagent
