#include "agent/json/json_scanner.h"

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>

#include <fmt/format.h>

#include "agent/json/utf8.h"

namespace vnagent {
namespace {

constexpr uint32_t kReplacement = 0xfffd;

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

// A byte of a string that stands for itself and is a character of its own.
bool isPlain(char c) {
  return c >= 0x20 && c != '"' && c != '\\' && static_cast<unsigned char>(c) < 0x80;
}

bool isHighSurrogate(uint32_t code) {
  return code >= 0xd800 && code <= 0xdbff;
}

bool isLowSurrogate(uint32_t code) {
  return code >= 0xdc00 && code <= 0xdfff;
}

// The nearest double of a number that the grammar takes.
double nearestDouble(std::string_view written) {
  double real = 0;
  const auto result = std::from_chars(written.data(), written.data() + written.size(), real);
  if (result.ec == std::errc()) return real;
  // Too large, or too small to be told from zero: only this function says which.
  return std::strtod(std::string(written).c_str(), nullptr);
}

}  // namespace

JsonScanner::JsonScanner(std::string_view text)
    : at_(text.data()), end_(text.data() + text.size()), lineStart_(at_) {}

char JsonScanner::next() {
  while (at_ != end_ && (*at_ == ' ' || *at_ == '\n' || *at_ == '\r' || *at_ == '\t')) {
    if (*at_++ != '\n') continue;
    ++line_;
    lineStart_ = at_;
  }
  return at_ == end_ || error_ ? '\0' : *at_;
}

JsonPosition JsonScanner::position() const {
  return {line_, static_cast<uint32_t>(at_ - lineStart_) + 1};
}

bool JsonScanner::skip(char wanted) {
  if (at_ == end_ || error_ || *at_ != wanted) return false;
  ++at_;
  return true;
}

bool JsonScanner::skipWord(std::string_view word) {
  if (error_ || !std::string_view(at_, end_).starts_with(word)) return false;
  at_ += word.size();
  return true;
}

bool JsonScanner::digits() {
  if (at_ == end_ || !isDigit(*at_)) {
    failExpected("a digit");
    return false;
  }
  while (at_ != end_ && isDigit(*at_)) ++at_;
  return true;
}

std::optional<JsonScanner::Number> JsonScanner::number() {
  const char* const start = at_;
  bool isInteger = true;
  skip('-');
  // No further digit may follow a leading zero.
  if (!skip('0') && !digits()) return std::nullopt;
  if (skip('.')) {
    isInteger = false;
    if (!digits()) return std::nullopt;
  }
  if (skip('e') || skip('E')) {
    isInteger = false;
    if (!skip('+')) skip('-');
    if (!digits()) return std::nullopt;
  }
  Number number{false, false, 0, 0, {start, at_}};
  if (isInteger) {
    number.isInteger = std::from_chars(start, at_, number.integer).ec == std::errc();
  }
  number.real =
      number.isInteger ? static_cast<double>(number.integer) : nearestDouble(number.written);
  number.isTooLarge = std::isinf(number.real);
  return number;
}

std::optional<JsonScanner::String> JsonScanner::string() {
  const char* const start = ++at_;
  while (at_ != end_ && isPlain(*at_)) ++at_;
  const std::string_view plain(start, at_);
  if (skip('"')) return String{plain, false};
  buffer_ = plain;
  bool lone = false;
  while (at_ != end_ && static_cast<unsigned char>(*at_) >= 0x20) {
    if (skip('"')) return String{buffer_, lone};
    if (*at_ == '\\') {
      if (!escape(lone)) return std::nullopt;
      continue;
    }
    const size_t length = utf8Length({at_, end_});
    if (length == 0) {
      fail(JsonError::Kind::kNotUtf8, "a string is not UTF-8");
      return std::nullopt;
    }
    buffer_.append(at_, length);
    at_ += length;
  }
  failExpected("the end of the string");
  return std::nullopt;
}

// One escape sequence; one of two halves where they make a surrogate pair.
bool JsonScanner::escape(bool& lone) {
  constexpr std::string_view kNames = "\"\\/bfnrt";
  constexpr std::string_view kMeanings = "\"\\/\b\f\n\r\t";
  ++at_;
  if (at_ != end_ && *at_ != 'u') {
    const auto which = kNames.find(*at_);
    if (which == kNames.npos) {
      failExpected("an escape sequence");
      return false;
    }
    buffer_ += kMeanings[which];
    ++at_;
    return true;
  }
  if (!skip('u')) {
    failExpected("an escape sequence");
    return false;
  }
  const auto code = hexDigits();
  if (!code) return false;
  if (isHighSurrogate(*code) && std::string_view(at_, end_).starts_with("\\u")) {
    const char* const second = at_;
    at_ += 2;
    const auto low = hexDigits();
    if (!low) return false;
    if (isLowSurrogate(*low)) {
      appendUtf8(buffer_, 0x10000 + ((*code - 0xd800) << 10) + (*low - 0xdc00));
      return true;
    }
    at_ = second;  // an escape sequence of its own
  }
  const bool half = isHighSurrogate(*code) || isLowSurrogate(*code);
  lone = lone || half;
  appendUtf8(buffer_, half ? kReplacement : *code);
  return true;
}

std::optional<uint32_t> JsonScanner::hexDigits() {
  constexpr std::string_view kDigits = "0123456789abcdef0123456789ABCDEF";
  uint32_t code = 0;
  for (int i = 0; i < 4; ++i, ++at_) {
    const auto digit = at_ == end_ ? kDigits.npos : kDigits.find(*at_);
    if (digit == kDigits.npos) {
      failExpected("four hexadecimal digits");
      return std::nullopt;
    }
    code = code << 4 | static_cast<uint32_t>(digit % 16);
  }
  return code;
}

void JsonScanner::fail(JsonError::Kind kind, std::string_view text) {
  if (error_) return;
  const auto where = position();
  error_ = JsonError{kind, where, fmt::format("column {}: {}", where.column, text)};
}

void JsonScanner::failExpected(std::string_view expected) {
  std::string found = "the end of the text";
  if (at_ != end_) {
    const bool printable = *at_ > 0x20 && *at_ < 0x7f;
    found = printable ? fmt::format("'{}'", *at_)
                      : fmt::format("byte 0x{:02x}", static_cast<unsigned char>(*at_));
  }
  fail(JsonError::Kind::kSyntax, fmt::format("expected {}, found {}", expected, found));
}

}  // namespace vnagent
