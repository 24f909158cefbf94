// The replies to changes that carried an idempotency key.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>

#include "agent/live/exchange.h"
#include "agent/live/record.h"

namespace vnagent {

// What two requests with the same key must have in common: method, target and body.
std::string fingerprintOf(const Request& request);

// Activity thread only.
class RememberedReplies {
 public:
  // How many are remembered, at least.
  static constexpr size_t kReplies = 10'000;

  struct Entry {
    std::string fingerprint;
    unsigned status;
    std::string body;
    uint64_t sequence;  // of the record that remembers it
  };

  // The reply to the request of a principal with this key; null where none is remembered.
  const Entry* find(std::string_view principal, std::string_view key) const;

  // Remembers the reply of a record that has a key.
  void add(const Record& record);
  // Forgets those of records after this sequence, which never became durable.
  void truncate(uint64_t sequence);

 private:
  static std::string joined(std::string_view principal, std::string_view key);

  std::unordered_map<std::string, Entry> entries_;
  std::deque<std::pair<std::string, uint64_t>> order_;  // keys with their sequence
};

}  // namespace vnagent
