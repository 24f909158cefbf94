// Runs a stream of events through the library and compares it with the model after every event.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "tests/sim/library/event.h"
#include "tests/sim/library/facts.h"

namespace sim {

struct Failure {
  std::size_t events = 0;  // run, with the one that failed
  std::string text;        // what is wrong, a line each
};

// Called after each event: whether it was applied, and what is published then.
using Witness = std::function<void(bool taken, const Picture& picture)>;

// How often the machines are built anew over the same inputs: after so many events.
inline constexpr std::size_t kRebuildEvery = 50;

// The first failure, if any. Counts the events that are done.
std::optional<Failure> run(const Stream& stream, std::atomic<std::uint64_t>& done,
                           std::size_t rebuildEvery = kRebuildEvery, const Witness& witness = {});

}  // namespace sim
