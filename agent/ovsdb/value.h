// Values of RFC 7047, as they are in JSON: UUIDs, sets and maps.
//
//   ["uuid", "550e8400-e29b-41d4-a716-446655440000"]
//   an atom, or ["set", [ATOM, ...]]
//   ["map", [[KEY, VALUE], ...]]
//
// What has another form throws ProtocolError.
#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include <simdjson.h>

namespace vnagent::ovsdb {

// A value of a message; lasts as long as the message.
using JsonElement = simdjson::dom::element;

// The server sent what the protocol does not know.
class ProtocolError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct Uuid {
  uint64_t high = 0;
  uint64_t low = 0;

  // Nothing for other text than 8-4-4-4-12 hexadecimal digits.
  static std::optional<Uuid> parse(std::string_view text);
  // Of ["uuid", TEXT].
  static Uuid of(JsonElement value);

  std::string text() const;
  // Appends ["uuid", TEXT].
  void appendTo(std::string& json) const;

  friend auto operator<=>(const Uuid&, const Uuid&) = default;
};

// Calls `take` for each element of a set; an atom is a set of one.
void forEachElement(JsonElement set, const std::function<void(JsonElement)>& take);

// Calls `take` for each pair of a map.
void forEachPair(JsonElement map,
                 const std::function<void(JsonElement key, JsonElement value)>& take);

// Atoms.
std::string_view textOf(JsonElement atom);
int64_t integerOf(JsonElement atom);

}  // namespace vnagent::ovsdb

template <>
struct std::hash<vnagent::ovsdb::Uuid> {
  size_t operator()(const vnagent::ovsdb::Uuid& uuid) const {
    return uuid.high ^ (uuid.low * 0x9e3779b97f4a7c15);
  }
};
