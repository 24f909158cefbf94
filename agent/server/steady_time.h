// The steady clock as a number, which fits into an atomic variable.
#pragma once

#include <chrono>
#include <cstdint>

namespace vnagent {

// Any thread.
inline int64_t steadyNanoseconds() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::nanoseconds>(now).count();
}

}  // namespace vnagent
