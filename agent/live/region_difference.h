// The difference between a region as it is and as a driver wants it.
#pragma once

#include <string>

#include "agent/document/cloud_state.h"

namespace vnagent {

struct RegionDifference {
  std::string patch;   // a merge patch on the region, one line of JSON; "{}" for none
  size_t members = 0;  // of its collections: how many it adds, removes or changes
};

// `now` is null where there is no such region yet. Scalars that `wanted` has not given stay as they
// are. REQUIRES: both keep the rules of a document.
RegionDifference regionDifference(const Region* now, const Region& wanted);

}  // namespace vnagent
