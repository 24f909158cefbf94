// From a change's request to what shows it: joins when each change was sent with when its revision
// was seen by the watchers, whichever is known first. One thread.
#pragma once

#include <cstdint>
#include <deque>

#include "agent/load/latencies.h"

namespace vnagent {

class RevisionTimes {
 public:
  // Changes count as seen by all when so many watchers have seen them; 0: that is not measured.
  explicit RevisionTimes(uint32_t watchers = 0) : watchers_(watchers) {}

  // A change was sent then (steady nanoseconds), and came to be this revision.
  void sent(uint64_t revision, int64_t when);
  // A watcher has seen what a revision changed.
  void seen(uint64_t revision, int64_t when);

  // From a change's request to a watcher's event, for each watcher; to that of the last watcher.
  const Latencies& toWatcher() const { return toWatcher_; }
  const Latencies& toLastWatcher() const { return toLast_; }

 private:
  struct Times {
    int64_t sent = 0;  // 0: not known yet
    uint32_t seen = 0;
    int64_t last = 0;
    std::vector<int64_t> early;  // seen before it was known when it was sent
  };

  // Null for a revision that is older than what is kept.
  Times* at(uint64_t revision);
  void finish(const Times& times);

  uint32_t watchers_;
  uint64_t first_ = 0;  // revision of the first of times_; 0: none yet
  std::deque<Times> times_;
  Latencies toWatcher_;
  Latencies toLast_;
};

}  // namespace vnagent
