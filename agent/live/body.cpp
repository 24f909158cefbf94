#include "agent/live/body.h"

#include <algorithm>
#include <cctype>

#include "agent/json/json_writer.h"

namespace vnagent {
namespace {

constexpr size_t kMaxDepth = 64;

std::string_view trimmed(std::string_view text) {
  const size_t first = text.find_first_not_of(" \t");
  if (first == text.npos) return {};
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return std::ranges::equal(
      a, b, [](unsigned char x, unsigned char y) { return std::tolower(x) == std::tolower(y); });
}

// Whether a range of an Accept header ("application/*; q=0.5") takes a type.
bool takes(std::string_view range, std::string_view type) {
  const size_t end = range.find(';');
  std::string_view parameters = end == range.npos ? "" : range.substr(end + 1);
  const std::string_view name = trimmed(range.substr(0, end));
  while (!parameters.empty()) {
    const size_t next = parameters.find(';');
    const std::string_view parameter = trimmed(parameters.substr(0, next));
    if (parameter.size() > 2 && equalsIgnoringCase(parameter.substr(0, 2), "q=") &&
        parameter.find_first_not_of("0.", 2) == parameter.npos) {
      return false;
    }
    parameters = next == parameters.npos ? "" : parameters.substr(next + 1);
  }
  if (name == "*/*") return true;
  if (name.ends_with("/*")) {
    return equalsIgnoringCase(name.substr(0, name.size() - 1), type.substr(0, name.size() - 1));
  }
  return equalsIgnoringCase(name, type);
}

void append(const JsonValue& value, std::string& out) {
  switch (value.kind) {
    case JsonValue::Kind::kNull:
      out += "null";
      break;
    case JsonValue::Kind::kBool:
      out += value.boolean ? "true" : "false";
      break;
    case JsonValue::Kind::kInteger:
      out += std::to_string(value.integer);
      break;
    case JsonValue::Kind::kReal:
      out += value.text;
      break;
    case JsonValue::Kind::kString:
      appendJsonString(out, value.text);
      break;
    case JsonValue::Kind::kObject:
    case JsonValue::Kind::kArray: {
      const bool isObject = value.isObject();
      out += isObject ? '{' : '[';
      bool isFirst = true;
      for (const JsonValue* member : value.all()) {
        if (!isFirst) out += ',';
        isFirst = false;
        if (isObject) {
          appendJsonString(out, member->key);
          out += ':';
        }
        append(*member, out);
      }
      out += isObject ? '}' : ']';
      break;
    }
  }
}

}  // namespace

std::optional<Refusal> checkMediaType(const Request& request, std::string_view wanted) {
  const std::string* given = request.header("content-type");
  const std::string_view type =
      given == nullptr ? "" : trimmed(std::string_view(*given).substr(0, given->find(';')));
  if (equalsIgnoringCase(type, wanted)) return std::nullopt;
  return Refusal{"unsupported-media-type", "the body is to be " + std::string(wanted)};
}

std::optional<Refusal> readBody(const Request& request, std::optional<JsonTree>& tree) {
  tree = JsonTree::parse(request.body, {.depth = kMaxDepth, .mayHaveByteOrderMark = false});
  if (const auto& error = tree->error()) return Refusal{"not-json", error->text};
  if (!tree->flaws().empty()) return Refusal{"not-json", tree->flaws().front().message()};
  return std::nullopt;
}

bool isAcceptable(const Request& request, std::string_view type) {
  bool isGiven = false;
  for (const auto& [name, value] : request.headers) {
    if (name != "accept") continue;
    std::string_view rest = value;
    while (!rest.empty()) {
      const size_t next = rest.find(',');
      const std::string_view range = trimmed(rest.substr(0, next));
      isGiven |= !range.empty();
      if (!range.empty() && takes(range, type)) return true;
      rest = next == rest.npos ? "" : rest.substr(next + 1);
    }
  }
  return !isGiven;
}

std::string jsonText(const JsonValue& value) {
  std::string text;
  append(value, text);
  return text;
}

}  // namespace vnagent
