// The conditions of a request: If-Match and If-None-Match (RFC 9110, section 13).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "agent/live/exchange.h"
#include "agent/live/problem.h"

namespace vnagent {

// The value of one of the two headers.
struct EntityTags {
  bool any = false;                                // *
  std::vector<std::pair<bool, std::string>> tags;  // whether it is weak, and its text

  bool has(uint64_t etag, bool mayBeWeak) const;
};

class Conditions {
 public:
  // Returns why they cannot be read.
  std::optional<Refusal> read(const Request& request);

  bool given() const { return ifMatch_ || ifNoneMatch_; }

  // Of a change: why it is refused. `etag` is that of the place; nothing where it does not exist.
  std::optional<Refusal> refuseChange(std::optional<uint64_t> etag) const;

  // Of a read of what exists: why it is refused, and whether the client has it already.
  std::optional<Refusal> refuseRead(uint64_t etag) const;
  bool isNotModified(uint64_t etag) const;

 private:
  static bool readTags(std::string_view text, EntityTags& tags);

  std::optional<EntityTags> ifMatch_;
  std::optional<EntityTags> ifNoneMatch_;
};

// An ETag as a header has it.
std::string etagText(uint64_t etag);

}  // namespace vnagent
