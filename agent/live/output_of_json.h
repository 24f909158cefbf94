// Reads an output document that the agent has printed before back into its plain form.
#pragma once

#include <nlohmann/json.hpp>

#include "agent/cloud/output_document.h"

namespace vnagent {

// Texts are views into `json`, which outlives the document. REQUIRES: it is a whole document.
OutputDocument outputOf(const nlohmann::json& json);

}  // namespace vnagent
