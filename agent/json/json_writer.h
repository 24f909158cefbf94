// Writes JSON text: indented for people and files, or on one line for streams.
//
// The text is gathered in a string that the caller owns and may hand on in pieces. Commas, line
// breaks and escapes are the writer's business; nesting is the caller's:
//
//   std::string out;
//   JsonWriter json(out, JsonWriter::Style::kOneLine);
//   json.open('{').key("step").number(3).key("ok").boolean(true).close('}');
//
// An array is written on one line in either style: it holds names or numbers.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>

namespace vnagent {

class JsonWriter {
 public:
  enum class Style : uint8_t { kOneLine, kIndented };

  JsonWriter(std::string& out, Style style) : out_(out), style_(style) {}

  // Called between values with the text so far once it has grown large; may take and clear it.
  void drainIs(std::function<void(std::string&)> drain) { drain_ = std::move(drain); }

  // '{' or '[', and the bracket that matches the innermost open one.
  JsonWriter& open(char bracket);
  JsonWriter& close(char bracket);

  // The key of the next member.
  JsonWriter& key(std::string_view name);
  JsonWriter& key(uint64_t number);

  JsonWriter& text(std::string_view value);
  // An array of strings.
  JsonWriter& texts(std::span<const std::string_view> values);
  JsonWriter& number(uint64_t value);
  // Whole numbers without fraction or exponent, others in the fewest digits that give them back.
  JsonWriter& number(double value);
  JsonWriter& boolean(bool value);
  JsonWriter& null();

 private:
  void separate();
  void newLine();

  std::string& out_;
  Style style_;
  std::function<void(std::string&)> drain_;
  size_t depth_ = 0;
  size_t inArray_ = 0;     // depth of the innermost array, 0 for none
  bool first_ = true;      // the innermost bracket is empty so far
  bool afterKey_ = false;  // the next value belongs to a key
};

// What write(json) writes, on one line.
template <class Write>
std::string jsonText(Write write) {
  std::string text;
  JsonWriter json(text, JsonWriter::Style::kOneLine);
  write(json);
  return text;
}

// Appends a string in quotes; UTF-8 stays as it is.
void appendJsonString(std::string& out, std::string_view text);

// Appends a string in quotes in which every byte outside printable ASCII is \u00XX, so that any
// sequence of bytes gets through.
void appendJsonBytes(std::string& out, std::string_view bytes);

}  // namespace vnagent
