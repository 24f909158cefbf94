// Replaces what the JSON parser refuses although it is legal JSON: numbers beyond double, and
// halves of surrogate pairs. Such a text is refused in any case, but what else is wrong with it is
// to be reported too, and the parser ends at the first of them.
//
// The replacement has the length of the original, so that positions stay what they are. Runs only
// after the parser has refused a text. Any thread.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace vnagent {

struct RepairedJson {
  std::string text;             // of the length of the original; what is not JSON in it remains
  std::vector<size_t> offsets;  // in ascending order: the numbers and escapes that were replaced
};

RepairedJson repairJson(std::string_view text);

// The end of the number or string that begins at an offset, or that of the text. A string begins
// with its quote.
size_t endOfNumber(std::string_view text, size_t begin);
size_t endOfString(std::string_view text, size_t begin);

}  // namespace vnagent
