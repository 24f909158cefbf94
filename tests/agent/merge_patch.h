// What the tests of changes share: the smallest merge patch between two documents.
#pragma once

#include <nlohmann/json.hpp>
#include <utility>

namespace vnagent {

// The merge patch from one document to the other, which has what differs and nothing else.
inline nlohmann::json difference(const nlohmann::json& before, const nlohmann::json& after) {
  nlohmann::json patch = nlohmann::json::object();
  for (const auto& [key, value] : before.items()) {
    if (!after.contains(key)) patch[key] = nullptr;
  }
  for (const auto& [key, value] : after.items()) {
    if (!before.contains(key)) {
      patch[key] = value;
    } else if (value.is_object()) {
      nlohmann::json inner = difference(before[key], value);
      if (!inner.empty()) patch[key] = std::move(inner);
    } else if (value != before[key]) {
      patch[key] = value;
    }
  }
  return patch;
}

}  // namespace vnagent
