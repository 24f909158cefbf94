// Runs work in a child process, so that what stops the process is a failure like any other.
#pragma once

#include <atomic>
#include <functional>

#include "tests/sim/library/run.h"

namespace sim {

// How far the work is; seen from both processes.
struct Progress {
  std::atomic<std::uint64_t> seed;     // of the stream under way
  std::atomic<bool> toggleOn;          // its answer of the toggle
  std::atomic<std::uint64_t> done;     // events of that stream
  std::atomic<std::uint64_t> total;    // events of all streams that are done
  std::atomic<std::uint64_t> streams;  // that were begun
  std::atomic<std::uint64_t> faults;   // that were done
};

// What the work returns; where it stopped the process, a failure that says how, at the event after
// the last that was done.
std::optional<Failure> inChild(Progress& progress,
                               const std::function<std::optional<Failure>()>& work);

// Progress that a child shares with its parent; for the life of the process.
Progress& sharedProgress();

}  // namespace sim
