// Prints what a patch changed of a cloud document: the merge patch from the document as it was
// printed before to the document as it is printed now (write_cloud.h). It has what differs and
// nothing else, whatever the patch named.
#pragma once

#include "agent/document/change.h"
#include "agent/document/cloud_state.h"
#include "agent/json/json_writer.h"

namespace vnagent {

// Writes {} where nothing differs. REQUIRES: `state` is the document after `change`.
void writeChange(const CloudState& state, const Change& change, JsonWriter& json);

}  // namespace vnagent
