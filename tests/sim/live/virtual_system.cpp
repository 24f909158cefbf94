#include "tests/sim/live/virtual_system.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <map>
#include <random>

#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

namespace sim {
namespace {

constexpr Nanoseconds kBegin = 1'000'000 * kSecond;

Nanoseconds time_ = kBegin;

std::mt19937_64& source() {
  static std::mt19937_64 source;
  return source;
}

// When the timer of each descriptor is due.
std::map<int, Nanoseconds>& timers() {
  static std::map<int, Nanoseconds> timers;
  return timers;
}

}  // namespace

Nanoseconds now() {
  return time_;
}
void nowIs(Nanoseconds time) {
  time_ = time;
}

void randomSeedIs(uint64_t seed) {
  source().seed(seed);
}

Nanoseconds nextSystemTimer() {
  Nanoseconds next = kNever;
  for (const auto& [descriptor, due] : timers()) next = std::min(next, due);
  return next;
}

void fireSystemTimers() {
  for (auto& [descriptor, due] : timers()) {
    if (due > time_) continue;
    due = kNever;
    eventfd_write(descriptor, 1);
  }
}

}  // namespace sim

extern "C" {

[[gnu::visibility("default")]] int clock_gettime(clockid_t, timespec* time) noexcept {
  time->tv_sec = sim::now() / sim::kSecond;
  time->tv_nsec = sim::now() % sim::kSecond;
  return 0;
}

// A descriptor that becomes readable when the simulation says so.
[[gnu::visibility("default")]] int timerfd_create(clockid_t, int) noexcept {
  const int descriptor = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  sim::timers()[descriptor] = sim::kNever;
  return descriptor;
}

[[gnu::visibility("default")]] int timerfd_settime(int descriptor, int flags,
                                                   const itimerspec* given, itimerspec*) noexcept {
  eventfd_t ignored = 0;
  eventfd_read(descriptor, &ignored);
  const sim::Nanoseconds time = given->it_value.tv_sec * sim::kSecond + given->it_value.tv_nsec;
  const bool isAbsolute = (flags & TFD_TIMER_ABSTIME) != 0;
  sim::timers()[descriptor] = time == 0 ? sim::kNever : isAbsolute ? time : sim::now() + time;
  return 0;
}

[[gnu::visibility("default")]] ssize_t getrandom(void* buffer, size_t size, unsigned) {
  auto* bytes = static_cast<unsigned char*>(buffer);
  for (size_t done = 0; done < size; done += sizeof(uint64_t)) {
    const uint64_t word = sim::source()();
    std::memcpy(bytes + done, &word, std::min(sizeof(word), size - done));
  }
  return static_cast<ssize_t>(size);
}

}  // extern "C"
