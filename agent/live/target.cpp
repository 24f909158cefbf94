#include "agent/live/target.h"

#include <algorithm>

#include "agent/json/utf8.h"

namespace vnagent {
namespace {

int digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool isUtf8(std::string_view text) {
  while (!text.empty()) {
    const size_t length = utf8Length(text);
    if (length == 0) return false;
    text.remove_prefix(length);
  }
  return true;
}

// Decodes percent-encoding; nothing where it is broken, or the result is not UTF-8.
std::optional<std::string> decoded(std::string_view text, bool plusIsSpace) {
  const bool isPlain = std::ranges::all_of(
      text, [](char c) { return c != '%' && c != '+' && static_cast<unsigned char>(c) < 0x80; });
  if (isPlain) return std::string(text);
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '+' && plusIsSpace) {
      out += ' ';
    } else if (text[i] != '%') {
      out += text[i];
    } else {
      if (i + 2 >= text.size()) return std::nullopt;
      const int high = digit(text[i + 1]);
      const int low = digit(text[i + 2]);
      if (high < 0 || low < 0) return std::nullopt;
      out += static_cast<char>(high * 16 + low);
      i += 2;
    }
  }
  return isUtf8(out) ? std::optional(std::move(out)) : std::nullopt;
}

// Calls use(part) for each part between separators; stops when it returns false.
template <class Use>
bool split(std::string_view text, char separator, Use use) {
  while (true) {
    const size_t end = text.find(separator);
    if (!use(text.substr(0, end))) return false;
    if (end == text.npos) return true;
    text.remove_prefix(end + 1);
  }
}

}  // namespace

const std::string* Target::parameter(std::string_view name) const {
  for (const auto& [key, value] : parameters) {
    if (key == name) return &value;
  }
  return nullptr;
}

std::optional<std::string> readTarget(std::string_view text, Target& target) {
  if (!text.starts_with('/')) return "the target is no path";
  if (text.find('#') != text.npos) return "the target has a fragment";
  const size_t mark = text.find('?');
  const bool pathRead = split(text.substr(1, mark == text.npos ? mark : mark - 1), '/',
                              [&](std::string_view segment) {
                                auto name = decoded(segment, false);
                                if (name) target.path.push_back(std::move(*name));
                                return name.has_value();
                              });
  if (!pathRead) return "the path has a bad percent-encoding, or is not UTF-8";
  if (mark == text.npos) return std::nullopt;
  const bool queryRead = split(text.substr(mark + 1), '&', [&](std::string_view part) {
    if (part.empty()) return true;
    const size_t equals = part.find('=');
    auto key = decoded(part.substr(0, equals), true);
    auto value = decoded(equals == part.npos ? "" : part.substr(equals + 1), true);
    if (!key || !value) return false;
    target.parameters.emplace_back(std::move(*key), std::move(*value));
    return true;
  });
  if (!queryRead) return "the query has a bad percent-encoding, or is not UTF-8";
  return std::nullopt;
}

}  // namespace vnagent
