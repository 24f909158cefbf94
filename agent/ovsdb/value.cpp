#include "agent/ovsdb/value.h"

namespace vnagent::ovsdb {
namespace {

constexpr size_t kUuidLength = 36;

bool isDash(size_t index) {
  return index == 8 || index == 13 || index == 18 || index == 23;
}

int digitOf(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool isTagged(const Json& value, const char* tag) {
  return value.is_array() && value.size() == 2 && value[0].is_string() &&
         value[0].get_ref<const std::string&>() == tag;
}

}  // namespace

std::optional<Uuid> Uuid::parse(std::string_view text) {
  if (text.size() != kUuidLength) return std::nullopt;
  Uuid uuid;
  for (size_t i = 0; i < kUuidLength; ++i) {
    if (isDash(i)) {
      if (text[i] != '-') return std::nullopt;
      continue;
    }
    const int digit = digitOf(text[i]);
    if (digit < 0) return std::nullopt;
    uint64_t& half = i < 18 ? uuid.high : uuid.low;
    half = half << 4 | static_cast<uint64_t>(digit);
  }
  return uuid;
}

Uuid Uuid::of(const Json& value) {
  if (isTagged(value, "uuid") && value[1].is_string()) {
    if (const auto uuid = parse(value[1].get_ref<const std::string&>())) return *uuid;
  }
  throw ProtocolError("a UUID is expected in place of " + value.dump().substr(0, 80));
}

std::string Uuid::text() const {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text(kUuidLength, '-');
  size_t nibble = 0;
  for (size_t i = 0; i < kUuidLength; ++i) {
    if (isDash(i)) continue;
    const uint64_t half = nibble < 16 ? high : low;
    text[i] = kDigits[half >> (60 - 4 * (nibble % 16)) & 0xf];
    ++nibble;
  }
  return text;
}

void Uuid::appendTo(std::string& json) const {
  json += "[\"uuid\",\"";
  json += text();
  json += "\"]";
}

void forEachElement(const Json& set, const std::function<void(const Json&)>& take) {
  if (!isTagged(set, "set")) {
    take(set);
    return;
  }
  if (!set[1].is_array()) throw ProtocolError("a set without its elements");
  for (const Json& element : set[1]) take(element);
}

void forEachPair(const Json& map,
                 const std::function<void(const Json& key, const Json& value)>& take) {
  if (!isTagged(map, "map") || !map[1].is_array()) {
    throw ProtocolError("a map is expected in place of " + map.dump().substr(0, 80));
  }
  for (const Json& pair : map[1]) {
    if (!pair.is_array() || pair.size() != 2) throw ProtocolError("a map with an incomplete pair");
    take(pair[0], pair[1]);
  }
}

const std::string& textOf(const Json& atom) {
  if (!atom.is_string()) throw ProtocolError("a string is expected in place of " + atom.dump());
  return atom.get_ref<const std::string&>();
}

int64_t integerOf(const Json& atom) {
  if (!atom.is_number_integer()) {
    throw ProtocolError("an integer is expected in place of " + atom.dump());
  }
  return atom.get<int64_t>();
}

}  // namespace vnagent::ovsdb
