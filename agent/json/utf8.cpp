#include "agent/json/utf8.h"

#include <array>
#include <iterator>

#include <fmt/format.h>

namespace vnagent {
namespace {

// What the first byte of a character says: how many bytes there are, and what the second may be.
// The narrower ranges of the second byte keep overlong forms, surrogates and what is beyond
// U+10FFFF out.
struct Lead {
  unsigned char first;
  unsigned char last;
  size_t length;
  unsigned char secondLow;
  unsigned char secondHigh;
};
constexpr std::array<Lead, 8> kLeads{{{0xc2, 0xdf, 2, 0x80, 0xbf},
                                      {0xe0, 0xe0, 3, 0xa0, 0xbf},
                                      {0xe1, 0xec, 3, 0x80, 0xbf},
                                      {0xed, 0xed, 3, 0x80, 0x9f},
                                      {0xee, 0xef, 3, 0x80, 0xbf},
                                      {0xf0, 0xf0, 4, 0x90, 0xbf},
                                      {0xf1, 0xf3, 4, 0x80, 0xbf},
                                      {0xf4, 0xf4, 4, 0x80, 0x8f}}};

bool isContinuation(char byte) {
  return (static_cast<unsigned char>(byte) & 0xc0U) == 0x80U;
}

}  // namespace

size_t utf8Length(std::string_view text) {
  if (text.empty()) return 0;
  const auto lead = static_cast<unsigned char>(text.front());
  if (lead < 0x80) return 1;
  for (const Lead& row : kLeads) {
    if (lead < row.first || lead > row.last) continue;
    if (text.size() < row.length) return 0;
    const auto second = static_cast<unsigned char>(text[1]);
    if (second < row.secondLow || second > row.secondHigh) return 0;
    for (size_t i = 2; i < row.length; ++i) {
      if (!isContinuation(text[i])) return 0;
    }
    return row.length;
  }
  return 0;
}

std::string escapeControls(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  while (!text.empty()) {
    const auto byte = static_cast<unsigned char>(text.front());
    const size_t length = utf8Length(text);
    // U+0080 to U+009F are two bytes, of which the second has the value of the character.
    const bool high = length == 2 && byte == 0xc2 && static_cast<unsigned char>(text[1]) < 0xa0;
    if (length == 0) {
      fmt::format_to(std::back_inserter(out), "\\x{:02x}", byte);
    } else if (byte < 0x20 || byte == 0x7f || high) {
      const auto code = high ? static_cast<unsigned char>(text[1]) : byte;
      fmt::format_to(std::back_inserter(out), "\\u{:04x}", code);
    } else {
      out += text.substr(0, length);
    }
    text.remove_prefix(length == 0 ? 1 : length);
  }
  return out;
}

}  // namespace vnagent
