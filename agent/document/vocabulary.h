// The words of the cloud document: what a scalar may be, and what a key. The tables of kinds.h are
// written in them; reading, checking, printing, the schema and the page for operators follow.
#pragma once

#include <array>
#include <cstdint>
#include <limits>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>

#include "agent/document/fault.h"
#include "agent/json/json_tree.h"
#include "agent/json/json_writer.h"

namespace vnagent {

inline constexpr size_t kMaxNameBytes = 255;

// The longest time that an input may name, in seconds.
inline constexpr double kMaxSeconds = 1e9;

enum class SyncStatus : uint8_t { kUnknown, kInProgress, kTimedOut, kComplete };
inline constexpr std::array<std::string_view, 4> kSyncStatusWords{"syncUnknown", "syncInProgress",
                                                                  "syncTimedOut", "syncComplete"};

// Values of a segment's type that the document has a word for; any other is a bare number.
inline constexpr uint8_t kVlanSegment = 0;
inline constexpr uint8_t kVxlanSegment = 1;
inline constexpr std::array<std::string_view, 2> kSegmentationTypeWords{"vlan", "vxlan"};

// A scalar as the document gives it; monostate where it gives none. A word is held by its number.
using Scalar = std::variant<std::monostate, bool, int64_t, double, std::string>;

// What a scalar may be.
struct Form {
  enum class Type : uint8_t { kBool, kInteger, kWord, kNumber, kSeconds, kText, kName };

  Type type;
  double low = -std::numeric_limits<double>::infinity();  // of a number
  double high = std::numeric_limits<double>::infinity();
  bool open = false;                             // more than `low`, not `low` itself
  std::span<const std::string_view> words = {};  // for 0, 1, ...; of a kInteger, kWord
  bool mayBeEmpty = false;                       // of a kName
  std::string_view what = {};                    // names the range, where it has a name
};
namespace form {
inline constexpr Form kFlag{Form::Type::kBool};
inline constexpr Form kUint8{Form::Type::kInteger, 0, 255};
inline constexpr Form kUint31{Form::Type::kInteger, 0, 2147483647};
inline constexpr Form kUint32{Form::Type::kInteger, 0, 4294967295};
inline constexpr Form kVlanSegmentId{
    .type = Form::Type::kInteger, .low = 1, .high = 4094, .what = "an id of a vlan segment"};
inline constexpr Form kVxlanSegmentId{
    .type = Form::Type::kInteger, .low = 1, .high = 16777215, .what = "an id of a vxlan segment"};
inline constexpr Form kSegmentId{.type = Form::Type::kName, .what = "a segment id"};
inline constexpr Form kNumber{Form::Type::kNumber};
inline constexpr Form kSeconds{Form::Type::kSeconds, 0};
inline constexpr Form kPositiveSeconds{Form::Type::kSeconds, 0, kMaxSeconds, true};
inline constexpr Form kText{Form::Type::kText};
inline constexpr Form kName{Form::Type::kName};
inline constexpr Form kNameOrEmpty{.type = Form::Type::kName, .mayBeEmpty = true};
inline constexpr Form kSyncStatus{.type = Form::Type::kWord, .words = kSyncStatusWords};
inline constexpr Form kSegmentationType{
    .type = Form::Type::kInteger, .low = 0, .high = 255, .words = kSegmentationTypeWords};
}  // namespace form

// What a key may be.
struct KeyForm {
  std::string_view what;  // "a name"
  bool number = false;    // in plain decimal, low to high
  uint32_t low = 0;
  uint32_t high = 0;
  bool mayBeEmpty = false;        // of a name
  std::string_view pattern = {};  // regular expression of a number
};
namespace key {
inline constexpr KeyForm kName{.what = "a name"};
inline constexpr KeyForm kNameOrEmpty{.what = "a name, or empty", .mayBeEmpty = true};
inline constexpr KeyForm kLevel{.what = "a level",
                                .number = true,
                                .low = 0,
                                .high = 255,
                                .pattern = "0|[1-9][0-9]?|1[0-9][0-9]|2[0-4][0-9]|25[0-5]"};
inline constexpr KeyForm kVlan{.what = "a VLAN id",
                               .number = true,
                               .low = 1,
                               .high = 4094,
                               .pattern = "[1-9][0-9]{0,2}|[1-3][0-9]{3}|40[0-8][0-9]|409[0-4]"};
}  // namespace key

// Scalars.

// Reads a value; notes a fault and returns nothing when it does not fit.
std::optional<Scalar> read(const JsonValue& value, const Form& form, Faults& faults);

// Reads a string, as a view; notes a fault and returns nothing when the value does not fit.
std::optional<std::string_view> readText(const JsonValue& value, const Form& form, Faults& faults);

// Whether a scalar that is given is one of this form; asked of numbers only.
bool isOf(const Scalar& value, const Form& form);

// The value of a scalar of this form that is not given: false, 0 or the empty text.
const Scalar& defaultOf(const Form& form);

// A scalar that is given, as the document has it.
void write(const Scalar& value, const Form& form, JsonWriter& json);

// What the form takes, in words: "an integer 0 to 255".
std::string describe(const Form& form);

// The word that the documents have for a status.
std::string_view syncStatusWord(SyncStatus status);

std::optional<double> readPositiveSeconds(const JsonValue& value, Faults& faults);

// Keys.

// Says what a legal name looks like and why `text` is none, or returns the empty text.
std::string faultOfName(std::string_view text);

// Notes a fault unless the key of `member`, a name, is legal.
bool readKey(const JsonValue& member, const KeyForm& form, Faults& faults);

// The key of `member`, a number. Notes a fault where it is none, unless `member` is null: to remove
// what cannot be there is no fault.
std::optional<uint32_t> readNumberKey(const JsonValue& member, const KeyForm& form, Faults& faults);

// Objects.

// Notes a fault unless `value` is an object.
bool readObject(const JsonValue& value, std::string_view what, Faults& faults);

// Notes that nothing of this name belongs here, unless it is to be removed.
void refuseMember(const JsonValue& member, std::string_view owner, Faults& faults);

}  // namespace vnagent
