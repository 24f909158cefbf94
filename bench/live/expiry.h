// When the syncs of many regions time out, beside the time at which they are due.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include <nlohmann/json.hpp>

namespace bench {

struct ExpirySettings {
  std::string socket;
  std::uint32_t regions = 1000;
  double timeout = 5;  // that of the agent
  std::size_t connections = 16;
  std::uint32_t ports = 10000;  // that are moved meanwhile
  double rate = 1000;           // moves a second
};

// Syncs all regions, sends each a last heartbeat at a time of its own, and notes when its time-out
// is published: `late` has the microseconds after it was due. What is due is counted from the
// moment at which the heartbeat was sent, so that the way of both messages counts as lateness too,
// and a time-out that comes too early is surely noticed: `early` counts those. Throws
// std::runtime_error where the agent does not do what it should.
nlohmann::json expiries(const ExpirySettings& settings);

}  // namespace bench
