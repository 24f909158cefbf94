// Reads the tokens of a JSON text (RFC 8259), one after the other.
//
// What stands where is the caller's business: it looks at the next byte and asks for the token that
// begins with it. The first thing that is wrong ends the scan: the call returns nothing, and so
// does every later one, while error() says what it was and where. Two things are legal JSON and
// have no value all the same, a number beyond double and half of a surrogate pair: they are marked
// on the token, and the scan goes on.
//
//   JsonScanner scanner(text);
//   if (scanner.next() == '"') {
//     const auto string = scanner.string();
//     ...
//
// The text must outlive the scanner. Any thread, one at a time.
#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

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
    kNotUtf8,        // holds bytes that are no UTF-8
    kOtherEncoding,  // looks like UTF-16 or UTF-32
    kByteOrderMark,  // begins with U+FEFF, where that is not allowed
    kTooDeep,        // is nested deeper than allowed
  };
  Kind kind = Kind::kSyntax;
  JsonPosition position;
  std::string text;  // one line of printable ASCII
};

class JsonScanner {
 public:
  struct Number {
    bool isInteger;  // written without fraction and exponent, and within 64 bits
    bool isTooLarge;
    int64_t integer;           // where isInteger
    double real;               // the nearest double; infinite where isTooLarge
    std::string_view written;  // as in the text
  };
  struct String {
    std::string_view text;  // UTF-8; good until the next call. U+FFFD for a lone surrogate
    bool hasLoneSurrogate;
  };

  // Creation.

  explicit JsonScanner(std::string_view text);

  // Lookup.

  // The next byte that is no white space; 0 at the end of the text, and after an error.
  char next();

  // Where the byte stands that next() gave.
  JsonPosition position() const;

  bool isAtEnd() const { return at_ == end_; }
  const std::optional<JsonError>& error() const { return error_; }

  // Tokens. REQUIRES: next() was called, and its byte begins such a token.

  // Steps over the next byte if it is this one.
  bool skip(char wanted);
  // Steps over a word: true, false or null. False where it is another.
  bool skipWord(std::string_view word);
  std::optional<Number> number();
  std::optional<String> string();

  // Ends the scan with an error at position().
  void fail(JsonError::Kind kind, std::string_view text);
  // The same for a byte that the grammar does not have here.
  void failExpected(std::string_view expected);

 private:
  bool digits();
  bool escape(bool& lone);
  std::optional<uint32_t> hexDigits();

  const char* at_;
  const char* end_;
  const char* lineStart_;
  uint32_t line_ = 1;
  std::string buffer_;  // a string whose bytes are not those of the text
  std::optional<JsonError> error_;
};

}  // namespace vnagent
