// Bodies of requests.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "agent/json/json_tree.h"
#include "agent/live/exchange.h"
#include "agent/live/problem.h"

namespace vnagent {

// Checks the media type of a body.
std::optional<Refusal> checkMediaType(const Request& request, std::string_view wanted);

// Reads a body; returns why it is not taken. The body need not outlive the tree.
std::optional<Refusal> readBody(const Request& request, std::optional<JsonTree>& tree);

// Whether the request takes what a reply of this media type is.
bool isAcceptable(const Request& request, std::string_view type);

// The value as compact JSON text.
std::string jsonText(const JsonValue& value);

}  // namespace vnagent
