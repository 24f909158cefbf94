#include "agent/document/vocabulary.h"

#include <algorithm>
#include <cmath>

#include <fmt/format.h>

namespace vnagent {
namespace {

constexpr size_t kMaxNameBytes = 255;
constexpr int64_t kMaxUint31 = 2147483647;

std::optional<double> readNumber(const JsonValue& value, Faults& faults) {
  if (value.kind == JsonValue::Kind::kInteger || value.kind == JsonValue::Kind::kReal) {
    return value.real;
  }
  faults.add(value, shown(value) + " is not a number");
  return std::nullopt;
}

std::optional<double> readSeconds(const JsonValue& value, Faults& faults) {
  const auto number = readNumber(value, faults);
  if (!number || *number >= 0) return number;
  faults.add(value, shown(value) + " is not a number of seconds (0 or more)");
  return std::nullopt;
}

std::optional<ScalarValue> readSyncStatus(const JsonValue& value, Faults& faults) {
  if (value.kind == JsonValue::Kind::kString) {
    if (const auto at = indexIn(kSyncStatusWords, value.text)) return static_cast<int64_t>(*at);
  }
  faults.add(value,
             shown(value) + " is none of " + fmt::format("{}", fmt::join(kSyncStatusWords, ", ")));
  return std::nullopt;
}

std::optional<ScalarValue> readText(const JsonValue& value, bool asName, Faults& faults) {
  if (value.kind != JsonValue::Kind::kString) {
    faults.add(value, shown(value) + " is not a string");
    return std::nullopt;
  }
  if (asName && !value.text.empty()) {
    if (auto fault = faultOfName(value.text); !fault.empty()) {
      faults.add(value, std::move(fault));
      return std::nullopt;
    }
  }
  return std::string(value.text);
}

template <class T>
std::optional<ScalarValue> asScalar(std::optional<T> value) {
  if (!value) return std::nullopt;
  return ScalarValue(*value);
}

}  // namespace

std::string faultOfName(std::string_view text) {
  if (text.empty()) return "the empty string is no name (1 to 255 bytes)";
  if (text.size() > kMaxNameBytes) {
    return fmt::format("{} is no name: it has {} bytes (1 to 255)", shown(text), text.size());
  }
  const bool control = std::ranges::any_of(
      text, [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; });
  return control ? shown(text) + " is no name: it has a control character" : std::string();
}

std::optional<uint32_t> plainDecimal(std::string_view text, uint32_t low, uint32_t high) {
  if (text.empty() || text.size() > 9 || (text.size() > 1 && text.front() == '0')) return {};
  uint32_t number = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') return {};
    number = number * 10 + static_cast<uint32_t>(c - '0');
  }
  if (number < low || number > high) return {};
  return number;
}

std::string_view syncStatusWord(SyncStatus status) {
  return kSyncStatusWords.at(static_cast<size_t>(status));
}

std::optional<int64_t> readInteger(const JsonValue& value, int64_t low, int64_t high,
                                   Faults& faults) {
  const bool integer = value.kind == JsonValue::Kind::kInteger;
  if (integer && value.integer >= low && value.integer <= high) return value.integer;
  faults.add(value, fmt::format("{} is not an integer {} to {}", shown(value), low, high));
  return std::nullopt;
}

std::optional<uint8_t> readSegmentationType(const JsonValue& value, Faults& faults) {
  if (value.kind == JsonValue::Kind::kString) {
    if (const auto at = indexIn(kSegmentationTypeWords, value.text)) {
      return static_cast<uint8_t>(*at);
    }
  }
  if (value.kind == JsonValue::Kind::kInteger && value.integer >= 0 && value.integer <= 255) {
    return static_cast<uint8_t>(value.integer);
  }
  faults.add(value, shown(value) + " is not \"vlan\", \"vxlan\" or an integer 0 to 255");
  return std::nullopt;
}

std::optional<double> readPositiveSeconds(const JsonValue& value, Faults& faults) {
  const auto number = readNumber(value, faults);
  if (!number || (*number > 0 && *number <= kMaxSeconds)) return number;
  faults.add(value, shown(value) + " is not a number of seconds (more than 0, at most 1000000000)");
  return std::nullopt;
}

std::optional<ScalarValue> readScalar(const JsonValue& value, ScalarKind kind, Faults& faults) {
  switch (kind) {
    case ScalarKind::kBool:
      if (value.kind == JsonValue::Kind::kBool) return value.boolean;
      faults.add(value, shown(value) + " is not true or false");
      return std::nullopt;
    case ScalarKind::kUint31:
      return asScalar(readInteger(value, 0, kMaxUint31, faults));
    case ScalarKind::kNumber:
      return asScalar(readNumber(value, faults));
    case ScalarKind::kSeconds:
      return asScalar(readSeconds(value, faults));
    case ScalarKind::kPositiveSeconds:
      return asScalar(readPositiveSeconds(value, faults));
    case ScalarKind::kSyncStatus:
      return readSyncStatus(value, faults);
    case ScalarKind::kText:
      return readText(value, false, faults);
    case ScalarKind::kNameOrEmpty:
      return readText(value, true, faults);
  }
  return std::nullopt;
}

ScalarValue defaultOf(ScalarKind kind) {
  switch (kind) {
    case ScalarKind::kBool:
      return false;
    case ScalarKind::kUint31:
    case ScalarKind::kSyncStatus:
      return int64_t{0};
    case ScalarKind::kNumber:
    case ScalarKind::kSeconds:
    case ScalarKind::kPositiveSeconds:
      return 0.0;
    case ScalarKind::kText:
    case ScalarKind::kNameOrEmpty:
      return std::string();
  }
  return false;
}

bool readName(const JsonValue& member, Faults& faults, bool mayBeEmpty) {
  if (mayBeEmpty && member.key.empty()) return true;
  auto fault = faultOfName(member.key);
  if (fault.empty()) return true;
  faults.add(member, std::move(fault));
  return false;
}

bool readObject(const JsonValue& value, std::string_view what, Faults& faults) {
  if (value.isObject()) return true;
  faults.add(value, fmt::format("{} is not an object: {}", shown(value), what));
  return false;
}

void refuseMember(const JsonValue& member, std::string_view owner, Faults& faults) {
  if (member.isNull()) return;  // removing what is not there is no fault
  faults.add(member, fmt::format("{} has no member {}", owner, shown(member.key)));
}

}  // namespace vnagent
