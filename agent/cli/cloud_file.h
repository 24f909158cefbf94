// Reads a cloud document from a file and hands it to the document layer.
#pragma once

#include <cstdint>
#include <string>

#include "agent/cli/input_file.h"
#include "agent/document/cloud_document.h"

namespace vnagent {

// Applies the file to an empty document. The positions of faults are those in the file. "-" is
// standard input. Throws UnreadableFile, also for what is not JSON.
Outcome applyCloudFile(const std::string& name, CloudDocument& document,
                       uint64_t maxBytes = kDefaultMaxInputBytes);

}  // namespace vnagent
