// Holds a test to leaving nothing behind: declare one before everything else that makes objects.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <string>

#include "framework/Allocation.h"

namespace Support {

// The live objects of each type, as the tracker counts them.
inline std::map<std::string, Kiv::U64> liveCounts() {
  std::map<std::string, Kiv::U64> counts;
  for (const Kiv::AllocTrackRecord& record : Kiv::AllocTrackTypeInfo::report()) {
    // Types may share a name.
    if (record.liveCount != 0) counts[std::string(record.typeName)] += record.liveCount;
  }
  return counts;
}

// Fails the test whose scope it leaves when that has more, or fewer, objects than it came with.
class LiveObjects {
 public:
  LiveObjects() = default;
  LiveObjects(const LiveObjects&) = delete;
  LiveObjects& operator=(const LiveObjects&) = delete;
  ~LiveObjects() { EXPECT_EQ(liveCounts(), before_) << "objects left behind, or freed twice"; }

 private:
  const std::map<std::string, Kiv::U64> before_ = liveCounts();
};

}  // namespace Support
