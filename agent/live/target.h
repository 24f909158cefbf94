// The target of a request: its path and query, decoded.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vnagent {

struct Target {
  std::vector<std::string> path;  // "/v1/cloud/" has an empty last one
  std::vector<std::pair<std::string, std::string>> parameters;  // of the query, in order

  // The value of a parameter; null where it is not given. Of several, the first.
  const std::string* parameter(std::string_view name) const;
};

// Reads a target in origin form. Returns why it cannot be read, or nothing.
std::optional<std::string> readTarget(std::string_view text, Target& target);

}  // namespace vnagent
