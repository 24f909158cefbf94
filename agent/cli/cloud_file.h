// Reads a cloud document from a file.
#pragma once

#include <cstdint>
#include <string>

#include "agent/cli/input_file.h"
#include "agent/session/source_event.h"

namespace vnagent {

// The file as the event that makes the document of the empty one. "-" is standard input. Throws
// UnreadableFile, also for what is not JSON.
SourceEvent readCloudFile(const std::string& name, uint64_t maxBytes = kDefaultMaxInputBytes);

}  // namespace vnagent
