// JSON text as a tree of values in place: what a patch or an event is read into.
//
// A tree lives only as long as one document or one line of the stream is worked on. All of its
// values, keys and strings lie in one arena that the tree owns; views and pointers into it end with
// the tree. Parsing keeps what the checks need later: the line on which each value stands, the
// order of keys (members are sorted by the bytes of their keys) and each key that an object
// repeats.
//
//   JsonTree tree = JsonTree::parse(text);
//   if (tree.error()) ... not JSON, or a value that no document can hold
//   else use(tree.root());
//
// Any thread may use a tree, one at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <memory_resource>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace vnagent {

// One value. Plain data; made by JsonTree only.
struct JsonValue {
  enum class Kind : uint8_t { kNull, kBool, kInteger, kReal, kString, kObject, kArray };

  Kind kind = Kind::kNull;
  bool boolean = false;
  uint32_t line = 0;                     // where its key stands, else it itself; the first is 1
  uint32_t size = 0;                     // how many members an object or array has
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

// Why a text gave no tree.
struct JsonError {
  enum class Kind : uint8_t {
    kNotJson,   // the text is not JSON
    kUnusable,  // it is, but a number or string in it has no value that a program could hold
  };
  Kind kind = Kind::kNotJson;
  uint32_t line = 0;
  std::string place;  // JSON Pointer of the value, for kUnusable
  std::string text;   // one line of printable ASCII
};

class JsonTree {
 public:
  // Creation.

  // Reads one JSON text. `text` need not outlive the call.
  static JsonTree parse(std::string_view text);

  JsonTree(JsonTree&&) = default;
  JsonTree& operator=(JsonTree&&) = default;

  // Lookup.

  // What is wrong with the text, or nothing.
  const std::optional<JsonError>& error() const { return error_; }

  // The value that the text is. REQUIRES: no error().
  const JsonValue& root() const { return *root_; }

  // Members whose key occurred before in the same object, in the order of the text. The tree holds
  // the first of each name only.
  const std::vector<const JsonValue*>& repeated() const { return repeated_; }

 private:
  class Builder;

  JsonTree();

  std::unique_ptr<std::pmr::monotonic_buffer_resource> arena_;
  const JsonValue* root_ = nullptr;
  std::vector<const JsonValue*> repeated_;
  std::optional<JsonError> error_;
};

// The JSON Pointer (RFC 6901) of a value below `root`; the empty text for `root` itself.
std::string pointerTo(const JsonValue& value, const JsonValue& root);

// Appends one reference token, "/" and the escaped key, to a JSON Pointer.
void appendToken(std::string& pointer, std::string_view key);

// The line of what `pointer` names below `root`, or of the nearest value around it.
uint32_t lineOf(const JsonValue& root, std::string_view pointer);

// The value as an error message shows it: short, on one line, strings in quotes.
std::string shown(const JsonValue& value);
std::string shown(std::string_view text);

}  // namespace vnagent
