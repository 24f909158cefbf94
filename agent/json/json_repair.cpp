#include "agent/json/json_repair.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <optional>

namespace vnagent {
namespace {

constexpr std::string_view kNumberBytes = "+-.0123456789Ee";
// An escape sequence for one unit of UTF-16: a backslash, u, four digits.
constexpr size_t kUnitLength = 6;

bool isHighSurrogate(uint16_t unit) {
  return unit >= 0xd800 && unit <= 0xdbff;
}
bool isLowSurrogate(uint16_t unit) {
  return unit >= 0xdc00 && unit <= 0xdfff;
}

// The unit of UTF-16 that an escape sequence at this offset stands for.
std::optional<uint16_t> unitAt(std::string_view text, size_t at) {
  const std::string_view escape = text.substr(std::min(at, text.size()), kUnitLength);
  if (escape.size() < kUnitLength || !escape.starts_with("\\u")) return std::nullopt;
  uint16_t unit = 0;
  const char* const end = escape.data() + escape.size();
  const auto [stop, error] = std::from_chars(escape.data() + 2, end, unit, 16);
  return error == std::errc{} && stop == end ? std::optional(unit) : std::nullopt;
}

// Whether this is a number in the grammar of JSON, as a whole.
bool isNumber(std::string_view text) {
  const auto digits = [&text] {
    const size_t count = std::min(text.find_first_not_of("0123456789"), text.size());
    text.remove_prefix(count);
    return count;
  };
  const auto skip = [&text](std::string_view any) {
    const bool found = !text.empty() && any.find(text.front()) != any.npos;
    text.remove_prefix(found ? 1 : 0);
    return found;
  };
  skip("-");
  const bool leadingZero = text.starts_with('0');
  const size_t whole = digits();
  if (whole == 0 || (leadingZero && whole > 1)) return false;
  if (skip(".") && digits() == 0) return false;
  if (skip("eE")) {
    skip("+-");
    if (digits() == 0) return false;
  }
  return text.empty();
}

class Repair {
 public:
  explicit Repair(std::string_view text) : result_{std::string(text), {}} {}

  RepairedJson run() {
    std::string& text = result_.text;
    size_t at = 0;
    while (at < text.size()) {
      if (text[at] == '"') {
        const size_t end = endOfString(text, at);
        string(at, end);
        at = end;
      } else if (text[at] == '-' || (text[at] >= '0' && text[at] <= '9')) {
        const size_t end = endOfNumber(text, at);
        number(at, end);
        at = end;
      } else {
        ++at;
      }
    }
    return std::move(result_);
  }

 private:
  void number(size_t begin, size_t end) {
    const std::string written = result_.text.substr(begin, end - begin);
    if (!isNumber(written) || !std::isinf(std::strtod(written.c_str(), nullptr))) return;
    std::string replacement(written.size(), ' ');
    replacement.front() = '0';
    result_.text.replace(begin, replacement.size(), replacement);
    result_.offsets.push_back(begin);
  }

  void string(size_t begin, size_t end) {
    for (size_t at = begin + 1; at < end; ++at) {
      if (result_.text[at] != '\\') continue;
      const auto unit = unitAt(result_.text, at);
      if (!unit) {
        ++at;  // what is escaped is no escape itself
        continue;
      }
      const auto next = unitAt(result_.text, at + kUnitLength);
      const bool isPair = isHighSurrogate(*unit) && next && isLowSurrogate(*next);
      if (!isPair && (isHighSurrogate(*unit) || isLowSurrogate(*unit))) {
        result_.text.replace(at, kUnitLength, "\\ufffd");
        result_.offsets.push_back(at);
      }
      at += (isPair ? 2 * kUnitLength : kUnitLength) - 1;
    }
  }

  RepairedJson result_;
};

}  // namespace

RepairedJson repairJson(std::string_view text) {
  return Repair(text).run();
}

size_t endOfNumber(std::string_view text, size_t begin) {
  return std::min(text.find_first_not_of(kNumberBytes, begin), text.size());
}

size_t endOfString(std::string_view text, size_t begin) {
  for (size_t at = begin + 1; at < text.size(); ++at) {
    if (text[at] == '"') return at + 1;
    if (text[at] == '\\') ++at;
  }
  return text.size();
}

}  // namespace vnagent
