// The system's clocks, timers and random source, replaced for the whole program: time moves when
// the simulation says so, and random bytes follow from the seed.
//
// The program defines clock_gettime(), timerfd_create(), timerfd_settime() and getrandom() itself,
// so that the standard library, Asio and the agent use them without knowing. One thread.
#pragma once

#include <cstdint>

namespace sim {

using Nanoseconds = int64_t;

inline constexpr Nanoseconds kMillisecond = 1'000'000;
inline constexpr Nanoseconds kSecond = 1'000'000'000;
inline constexpr Nanoseconds kNever = INT64_MAX;

// Both clocks, since the beginning of the epoch of each.
Nanoseconds now();
void nowIs(Nanoseconds time);

// The random bytes from now on.
void randomSeedIs(uint64_t seed);

// When the next timer is due that is armed on a descriptor.
Nanoseconds nextSystemTimer();
// Makes the descriptors of those that are due readable.
void fireSystemTimers();

}  // namespace sim
