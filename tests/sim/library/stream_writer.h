// Writes a stream as the agent reads it: an empty document, and one event a line.
#pragma once

#include <filesystem>
#include <string>

#include "tests/sim/library/event.h"

namespace sim {

// One line for each event. A patch is the difference between the documents before and after it, and
// names every scalar that it writes.
std::string jsonLines(const Stream& stream);

// Writes FOLDER/NAME.json and FOLDER/NAME.jsonl; returns the command that replays them, which is
// FOLDER/NAME.sh, too.
std::string write(const Stream& stream, const std::filesystem::path& folder,
                  const std::string& name, const std::string& vnagent);

}  // namespace sim
