// Makes a failing stream smaller for as long as it fails.
#pragma once

#include <functional>

#include "tests/sim/library/run.h"

namespace sim {

// Takes out events, then edits, as long as `failure(stream)` finds one. Runs it `attempts` times at
// most.
Stream shrunk(Stream stream, const std::function<std::optional<Failure>(const Stream&)>& failure,
              int attempts = 3000);

}  // namespace sim
