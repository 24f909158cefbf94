#include "agent/json/json_writer.h"

#include <algorithm>
#include <cmath>
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

}  // namespace

void appendJsonString(std::string& out, std::string_view text) {
  const auto needsEscape = [](char c) {
    return c == '"' || c == '\\' || static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
  };
  out += '"';
  while (!text.empty()) {
    const auto plain = static_cast<size_t>(std::ranges::find_if(text, needsEscape) - text.begin());
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
