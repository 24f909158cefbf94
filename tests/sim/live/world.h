// What a simulation runs in: its random choices, the events that are still to come in virtual time,
// the list of what happened, and the first thing that went wrong.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "tests/sim/live/virtual_system.h"

namespace sim {

class World {
 public:
  explicit World(uint64_t seed) : random_(seed) {}

  // Choices.
  uint64_t pick(uint64_t first, uint64_t last) {
    return std::uniform_int_distribution<uint64_t>(first, last)(random_);
  }
  // True once in `times`.
  bool once(uint64_t times) { return pick(1, times) == 1; }
  Nanoseconds between(Nanoseconds first, Nanoseconds last) {
    return static_cast<Nanoseconds>(
        pick(static_cast<uint64_t>(first), static_cast<uint64_t>(last)));
  }
  // Short mostly, and long now and then.
  Nanoseconds delay(Nanoseconds usual) {
    return once(20) ? between(0, 20 * usual) : between(0, usual);
  }

  // Events, in order of time, then of their addition.
  void at(Nanoseconds time, std::function<void()> event) {
    events_.emplace(std::pair(time, ++count_), std::move(event));
  }
  void after(Nanoseconds delay, std::function<void()> event) {
    at(now() + delay, std::move(event));
  }
  Nanoseconds nextEvent() const { return events_.empty() ? kNever : events_.begin()->first.first; }
  // Takes the first event that is due; null where none is.
  std::function<void()> takeEvent() {
    if (nextEvent() > now()) return nullptr;
    auto event = std::move(events_.begin()->second);
    events_.erase(events_.begin());
    return event;
  }

  // What happens.
  void note(std::string text);
  const std::vector<std::string>& notes() const { return notes_; }
  void isVerboseIs(bool isVerbose) { isVerbose_ = isVerbose; }

  // Keeps the first failure; the simulation ends soon then. Nothing is thrown, as this is called
  // from below SQLite, too.
  void fail(const std::string& text);
  const std::string& failure() const { return failure_; }
  bool hasFailed() const { return !failure_.empty(); }

 private:
  std::mt19937_64 random_;
  std::map<std::pair<Nanoseconds, uint64_t>, std::function<void()>> events_;
  uint64_t count_ = 0;
  std::vector<std::string> notes_;
  std::string failure_;
  bool isVerbose_ = false;
};

}  // namespace sim
