// JSON text as a tree of values: what a document, a patch or an event is read into.
//
// A tree lives only as long as one document or one line of a stream is worked on. All of its
// values, keys and strings lie in one arena that the tree owns; views and pointers into it end with
// the tree. Reading keeps what the checks need later: the position of each value, the order of keys
// (members are sorted by the bytes of their keys), and the flaws of the text.
//
//   JsonTree tree = JsonTree::parse(text);
//   if (tree.error()) ... no JSON, or none that is taken
//   else use(tree.root());              // and refuse it if there are tree.flaws()
//
// Any thread may use a tree, one at a time.
#pragma once

#include <compare>
#include <cstdint>
#include <memory>
#include <memory_resource>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace vnagent {

// A place in a text; both count from 1, and columns are bytes.
struct JsonPosition {
  uint32_t line = 0;
  uint32_t column = 0;

  friend auto operator<=>(const JsonPosition&, const JsonPosition&) = default;
};

// Why a text is no JSON, or none that is taken.
struct JsonError {
  enum class Kind : uint8_t {
    kSyntax,         // breaks the grammar
    kNotUtf8,        // has bytes that are no UTF-8
    kOtherEncoding,  // looks like UTF-16 or UTF-32
    kByteOrderMark,  // begins with U+FEFF, where that is not allowed
    kTooDeep,        // is nested deeper than allowed
  };
  Kind kind = Kind::kSyntax;
  JsonPosition position;
  std::string text;  // one line of printable ASCII
};

// One value. Plain data; made by JsonTree only.
struct JsonValue {
  enum class Kind : uint8_t { kNull, kBool, kInteger, kReal, kString, kObject, kArray };

  Kind kind = Kind::kNull;
  bool boolean = false;
  bool isFlawed = false;                 // has no usable value; one of the tree's flaws says why
  bool isKeyFlawed = false;              // likewise its key
  uint32_t size = 0;                     // how many members an object or array has
  JsonPosition position;                 // of its key where it has one, else of itself
  int64_t integer = 0;                   // of a kInteger
  double real = 0;                       // of a kInteger and a kReal
  std::string_view key;                  // its key in an object, its index in an array
  std::string_view text;                 // of a kString, and a kReal as it was written
  const JsonValue* parent = nullptr;     // null for the root
  const JsonValue* const* members = {};  // those of an object in ascending byte order of the key

  bool isNull() const { return kind == Kind::kNull; }
  bool isObject() const { return kind == Kind::kObject; }
  std::span<const JsonValue* const> all() const { return {members, size}; }

  // The member of an object with this key, or null.
  const JsonValue* find(std::string_view wanted) const;
};

// What is legal JSON, and nothing that a program can use.
struct JsonFlaw {
  enum class Kind : uint8_t {
    kRepeatedKey,     // `value` has a key that an earlier member of its object has; it is left out
                      // of the tree
    kNumberTooLarge,  // `value` is a number beyond double
    kLoneSurrogate,   // `value` is, or has as its key, a string with half of a surrogate pair
  };
  Kind kind;
  const JsonValue* value;

  // The rule that it breaks, with the key or number.
  std::string message() const;
};

// What is taken, beyond the grammar.
struct JsonLimits {
  size_t depth = SIZE_MAX;           // of objects and arrays in one another
  bool mayHaveByteOrderMark = true;  // in front; it is skipped
};

class JsonTree {
 public:
  // Creation.

  // Reads one JSON text. `text` need not outlive the call. Depth costs no stack.
  static JsonTree parse(std::string_view text, const JsonLimits& limits = {});

  JsonTree(JsonTree&&) = default;
  JsonTree& operator=(JsonTree&&) = default;

  // Lookup.

  // What is wrong with the text, or nothing.
  const std::optional<JsonError>& error() const { return error_; }

  // The value that the text is. REQUIRES: no error().
  const JsonValue& root() const { return *root_; }

  // In no particular order. Of members with the same key the tree holds the first.
  const std::vector<JsonFlaw>& flaws() const { return flaws_; }

 private:
  class Builder;

  JsonTree();
  // Builds the tree from the original text, or from one in which what begins at these offsets was
  // replaced. Returns false when the text is to be repaired.
  bool build(std::string_view original, std::string_view text, const std::vector<size_t>& repaired,
             const JsonLimits& limits);

  std::unique_ptr<std::pmr::monotonic_buffer_resource> arena_;
  const JsonValue* root_ = nullptr;
  std::vector<JsonFlaw> flaws_;
  std::optional<JsonError> error_;
};

// The JSON Pointer (RFC 6901) of a value below `root`; the empty text for `root` itself.
std::string pointerTo(const JsonValue& value, const JsonValue& root);

// Appends one reference token, "/" and the escaped key, to a JSON Pointer.
void appendToken(std::string& pointer, std::string_view key);

// What `pointer` names below `root`, or the nearest value around it.
const JsonValue& nearest(const JsonValue& root, std::string_view pointer);

// The value as an error message shows it: short, on one line, strings in quotes.
std::string shown(const JsonValue& value);
std::string shown(std::string_view text);

}  // namespace vnagent
