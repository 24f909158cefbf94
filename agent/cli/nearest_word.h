// Suggestions for a mistyped command or option.
#pragma once

#include <span>
#include <string>
#include <string_view>

namespace vnagent {

// The word of `known` that is nearest to `word`: one that begins with it, or else one that differs
// in the fewest letters (added, left out, replaced, or two swapped). Empty where none is near: more
// than a third of the letters differ.
std::string nearestWord(std::string_view word, std::span<const std::string> known);

}  // namespace vnagent
