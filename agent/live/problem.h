// What the live agent refuses, as problem documents (RFC 9457).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/document/fault.h"
#include "agent/live/exchange.h"

namespace vnagent {

// Who has a lock.
struct LockHolder {
  std::string owner;
  std::string requestId;
};

// One refusal: a row of the table of problem types, and what belongs to this one.
struct Refusal {
  std::string_view type;  // "not-json"
  std::string detail;
  std::vector<Fault> faults = {};  // places at fault; the first is shown as the problem's own
  bool hasHolder = false;          // whether it is about a lock
  std::optional<LockHolder> holder = {};  // of the lock; nothing: nobody
  Headers headers = {};
};

// The status of a type of problem.
unsigned statusOf(std::string_view type);

// The problem document as text, and as a reply.
std::string problemText(const Refusal& refusal);
Reply replyOf(const Refusal& refusal);

}  // namespace vnagent
