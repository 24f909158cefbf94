// The trace lines of the machines, for those who look on while an agent runs.
//
// A slow reader misses lines, and reads how many it missed. Activity thread only.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <set>
#include <string>

#include "agent/live/exchange.h"
#include "framework/Trace.h"

namespace vnagent {

class TraceTail;

// Takes the trace lines of the process; one at a time.
class TraceTails {
 public:
  TraceTails();
  ~TraceTails();
  TraceTails(const TraceTails&) = delete;
  TraceTails& operator=(const TraceTails&) = delete;

  static int level();
  static void levelIs(int level);

  // The revision that lines belong to from now on.
  void revisionIs(uint64_t revision) { revision_ = revision; }

  std::unique_ptr<EventStream> newTail();
  void end();

 private:
  friend class TraceTail;

  void add(const Kiv::TraceLine& line);

  std::set<TraceTail*> all_;
  uint64_t revision_ = 0;
  bool ended_ = false;
};

}  // namespace vnagent
