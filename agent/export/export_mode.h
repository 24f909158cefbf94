// What an export may do to a database.
#pragma once

#include <cstdint>

namespace vnagent {

enum class ExportMode : uint8_t {
  kRepair,   // add, change and remove what differs
  kAddOnly,  // remove nothing
  kReport,   // write nothing
};

}  // namespace vnagent
