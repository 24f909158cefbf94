#include "agent/json/json_writer.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <iterator>

#include <fmt/compile.h>
#include <fmt/format.h>

namespace vnagent {
namespace {

// How much text is gathered before it is handed on.
constexpr size_t kDrainBytes = size_t{1} << 16;

void appendEscape(std::string& out, unsigned char byte) {
  fmt::format_to(std::back_inserter(out), FMT_COMPILE("\\u{:04x}"), static_cast<unsigned>(byte));
}

bool needsEscape(char c) {
  return c == '"' || c == '\\' || static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
}

// Whether one of eight bytes may need an escape; it says so of few others.
[[gnu::always_inline]] inline bool mayNeedEscape(uint64_t bytes) {
  constexpr uint64_t kOnes = 0x0101010101010101;
  constexpr uint64_t kHighs = 0x8080808080808080;
  const auto hasZero = [](uint64_t word) { return (word - kOnes) & ~word & kHighs; };
  const uint64_t controls = (bytes - kOnes * 0x20) & ~bytes & kHighs;
  return (controls | hasZero(bytes ^ kOnes * '"') | hasZero(bytes ^ kOnes * '\\') |
          hasZero(bytes ^ kOnes * 0x7f)) != 0;
}

// How many bytes at the beginning need no escape.
size_t plainLength(std::string_view text) {
  const auto mayNeedEscapeAt = [&](size_t begin) {
    uint64_t bytes = 0;
    std::memcpy(&bytes, text.data() + begin, sizeof bytes);
    return mayNeedEscape(bytes);
  };
  size_t length = 0;
  while (length + sizeof(uint64_t) <= text.size() && !mayNeedEscapeAt(length)) {
    length += sizeof(uint64_t);
  }
  // The last few bytes, together with some before them.
  if (length > 0 && text.size() - length < sizeof(uint64_t) &&
      !mayNeedEscapeAt(text.size() - sizeof(uint64_t))) {
    return text.size();
  }
  while (length < text.size() && !needsEscape(text[length])) ++length;
  return length;
}

// The string without its quotes.
void appendEscaped(std::string& out, std::string_view text) {
  while (!text.empty()) {
    const size_t plain = plainLength(text);
    out += text.substr(0, plain);
    text.remove_prefix(plain);
    if (text.empty()) break;
    if (text.front() == '"' || text.front() == '\\') {
      out += '\\';
      out += text.front();
    } else {
      appendEscape(out, static_cast<unsigned char>(text.front()));
    }
    text.remove_prefix(1);
  }
}

}  // namespace

void appendJsonString(std::string& out, std::string_view text) {
  out += '"';
  appendEscaped(out, text);
  out += '"';
}

void appendJsonBytes(std::string& out, std::string_view bytes) {
  out += '"';
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (byte < 0x20 || byte > 0x7e) {
      appendEscape(out, byte);
    } else {
      out += c;
    }
  }
  out += '"';
}

void JsonWriter::newLine() {
  out_ += '\n';
  out_.append(2 * depth_, ' ');
}

// Writes what separates the next key, or a value without one, from what was before.
void JsonWriter::separate() {
  if (afterKey_) {
    afterKey_ = false;
    return;
  }
  const bool ownLine = style_ == Style::kIndented && depth_ > 0 && inArray_ == 0;
  if (!first_) out_ += ownLine ? "," : ", ";
  if (ownLine) newLine();
  first_ = false;
}

JsonWriter& JsonWriter::open(char bracket) {
  separate();
  out_ += bracket;
  ++depth_;
  if (bracket == '[' && inArray_ == 0) inArray_ = depth_;
  first_ = true;
  return *this;
}

JsonWriter& JsonWriter::close(char bracket) {
  const bool ownLine = style_ == Style::kIndented && inArray_ == 0 && !first_;
  if (inArray_ == depth_) inArray_ = 0;
  --depth_;
  if (ownLine) newLine();
  out_ += bracket;
  first_ = false;
  if (drain_ && out_.size() > kDrainBytes) drain_(out_);
  return *this;
}

JsonWriter& JsonWriter::key(std::string_view name) {
  separate();
  appendJsonString(out_, name);
  out_ += ": ";
  afterKey_ = true;
  return *this;
}

JsonWriter& JsonWriter::key(uint64_t number) {
  separate();
  fmt::format_to(std::back_inserter(out_), FMT_COMPILE("\"{}\": "), number);
  afterKey_ = true;
  return *this;
}

JsonWriter& JsonWriter::text(std::string_view value) {
  separate();
  appendJsonString(out_, value);
  return *this;
}

JsonWriter& JsonWriter::texts(std::span<const std::string_view> values) {
  constexpr std::string_view kBetween = "\", \"";
  separate();
  size_t bytes = values.size() * kBetween.size() + 2;
  for (const std::string_view value : values) bytes += value.size();
  const size_t size = out_.size() + bytes;
  if (size > out_.capacity()) out_.reserve(std::max(size, 2 * out_.capacity()));
  out_ += values.empty() ? "[" : "[\"";
  for (size_t i = 0; i < values.size(); ++i) {
    if (i > 0) out_ += kBetween;
    appendEscaped(out_, values[i]);
  }
  out_ += values.empty() ? "]" : "\"]";
  if (drain_ && out_.size() > kDrainBytes) drain_(out_);
  return *this;
}

JsonWriter& JsonWriter::number(uint64_t value) {
  separate();
  fmt::format_to(std::back_inserter(out_), FMT_COMPILE("{}"), value);
  return *this;
}

JsonWriter& JsonWriter::number(double value) {
  // Every whole number up to here has its own double.
  constexpr double kExact = 9007199254740992.0;
  if (value >= 0 && value < kExact && value == std::floor(value)) {
    return number(static_cast<uint64_t>(value));
  }
  separate();
  fmt::format_to(std::back_inserter(out_), FMT_COMPILE("{}"), value);
  return *this;
}

JsonWriter& JsonWriter::boolean(bool value) {
  separate();
  out_ += value ? "true" : "false";
  return *this;
}

JsonWriter& JsonWriter::null() {
  separate();
  out_ += "null";
  return *this;
}

}  // namespace vnagent
