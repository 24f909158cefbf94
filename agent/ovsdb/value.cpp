#include "agent/ovsdb/value.h"

#include <array>

namespace vnagent::ovsdb {
namespace {

constexpr size_t kUuidLength = 36;

bool isDash(size_t index) {
  return index == 8 || index == 13 || index == 18 || index == 23;
}

// The value of each hexadecimal digit, and kNoDigit of every other byte.
constexpr uint8_t kNoDigit = 16;
constexpr auto kDigitOf = [] {
  std::array<uint8_t, 256> digits{};
  digits.fill(kNoDigit);
  for (uint8_t i = 0; i < 10; ++i) digits[size_t{'0'} + i] = i;
  for (uint8_t i = 0; i < 6; ++i) {
    digits[size_t{'a'} + i] = digits[size_t{'A'} + i] = static_cast<uint8_t>(10 + i);
  }
  return digits;
}();

// X of [tag, X].
std::optional<JsonElement> tagged(JsonElement value, std::string_view tag) {
  simdjson::dom::array pair;
  std::string_view first;
  if (value.get(pair) || pair.size() != 2) return std::nullopt;
  auto at = pair.begin();
  if ((*at).get(first) || first != tag) return std::nullopt;
  return *++at;
}

ProtocolError unexpected(const char* what, JsonElement value) {
  return ProtocolError(std::string(what) + " is expected in place of " +
                       simdjson::minify(value).substr(0, 80));
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
    const uint8_t digit = kDigitOf[static_cast<uint8_t>(text[i])];
    if (digit == kNoDigit) return std::nullopt;
    uint64_t& half = i < 18 ? uuid.high : uuid.low;
    half = half << 4 | digit;
  }
  return uuid;
}

Uuid Uuid::of(JsonElement value) {
  std::string_view text;
  if (const auto tail = tagged(value, "uuid"); tail && !tail->get(text)) {
    if (const auto uuid = parse(text)) return *uuid;
  }
  throw unexpected("a UUID", value);
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

void forEachElement(JsonElement set, const std::function<void(JsonElement)>& take) {
  const auto tail = tagged(set, "set");
  if (!tail) {
    take(set);
    return;
  }
  simdjson::dom::array elements;
  if (tail->get(elements)) throw ProtocolError("a set without its elements");
  for (const JsonElement element : elements) take(element);
}

void forEachPair(JsonElement map,
                 const std::function<void(JsonElement key, JsonElement value)>& take) {
  const auto tail = tagged(map, "map");
  simdjson::dom::array pairs;
  if (!tail || tail->get(pairs)) throw unexpected("a map", map);
  for (const JsonElement one : pairs) {
    simdjson::dom::array pair;
    if (one.get(pair) || pair.size() != 2) throw ProtocolError("a map with an incomplete pair");
    auto at = pair.begin();
    const JsonElement key = *at;
    take(key, *++at);
  }
}

std::string_view textOf(JsonElement atom) {
  std::string_view text;
  if (atom.get(text)) throw unexpected("a string", atom);
  return text;
}

int64_t integerOf(JsonElement atom) {
  int64_t number = 0;
  if (atom.get(number)) throw unexpected("an integer", atom);
  return number;
}

}  // namespace vnagent::ovsdb
