#include "agent/json/json_tree.h"

#include <algorithm>
#include <cstring>
#include <nlohmann/json.hpp>

#include <fmt/format.h>

#include "agent/json/json_repair.h"
#include "agent/json/utf8.h"

namespace vnagent {
namespace {

// How much of a string an error message shows.
constexpr size_t kShownBytes = 80;

// The encoding that a text other than UTF-8 gives away by its first bytes: a byte order mark, or
// zero bytes beside the first character. Empty for none.
std::string_view otherEncoding(std::string_view text) {
  using namespace std::string_view_literals;
  if (text.starts_with("\xff\xfe\0\0"sv) || text.starts_with("\0\0\xfe\xff"sv)) return "UTF-32";
  if (text.starts_with("\xff\xfe"sv) || text.starts_with("\xfe\xff"sv)) return "UTF-16";
  if (text.size() < 2 || (text[0] != 0) == (text[1] != 0)) {
    return text.starts_with("\0\0\0"sv) ? "UTF-32" : "";
  }
  return text.substr(1).starts_with("\0\0\0"sv) ? "UTF-32" : "UTF-16";
}

// Finds the tokens of the text that the parser has reported, one after the other, as the parser
// does not say where they are.
class TokenFinder {
 public:
  explicit TokenFinder(std::string_view text) : text_(text) {}

  // Goes to the next token and past it. REQUIRES: the parser has reported that there is one.
  void bracket() { end_ = begin() + 1; }
  void word() { end_ = std::min(text_.find_first_not_of("aeflnrstu", begin()), text_.size()); }
  void number() { end_ = endOfNumber(text_, begin()); }
  void string() { end_ = endOfString(text_, begin()); }

  // The last token.
  size_t beginOffset() const { return begin_; }
  size_t endOffset() const { return end_; }
  JsonPosition position() const { return position_; }

 private:
  size_t begin() {
    begin_ = end_;
    for (; begin_ < text_.size(); ++begin_) {
      const char c = text_[begin_];
      if (c == '\n') {
        ++position_.line;
        lineStart_ = begin_ + 1;
      } else if (c != ' ' && c != '\t' && c != '\r' && c != ',' && c != ':') {
        break;
      }
    }
    position_.column = static_cast<uint32_t>(begin_ - lineStart_ + 1);
    return begin_;
  }

  std::string_view text_;
  size_t begin_ = 0;
  size_t end_ = 0;
  size_t lineStart_ = 0;
  JsonPosition position_{1, 1};
};

JsonPosition positionOf(std::string_view text, size_t offset) {
  const auto before = text.substr(0, offset);
  const auto lineStart = before.rfind('\n') + 1;  // npos + 1 is 0
  return {static_cast<uint32_t>(1 + std::ranges::count(before, '\n')),
          static_cast<uint32_t>(before.size() - lineStart + 1)};
}

// The parser's own words after the place, with every odd byte replaced: they quote the input.
std::string cleaned(std::string_view message) {
  const auto place = message.find(", column ");
  const auto lead = message.find(": ", place == message.npos ? 0 : place);
  if (lead != message.npos) message.remove_prefix(lead + 2);
  std::string result(message);
  for (char& c : result) {
    if (c < 0x20 || c > 0x7e) c = '?';
  }
  return result;
}

JsonError errorAt(JsonError::Kind kind, JsonPosition position, std::string_view text) {
  return {kind, position, fmt::format("column {}: {}", position.column, text)};
}

}  // namespace

const JsonValue* JsonValue::find(std::string_view wanted) const {
  const auto members_ = all();
  const auto at = std::ranges::lower_bound(members_, wanted, {}, &JsonValue::key);
  return at != members_.end() && (*at)->key == wanted ? *at : nullptr;
}

std::string JsonFlaw::message() const {
  switch (kind) {
    case Kind::kRepeatedKey:
      return fmt::format("the key {} is repeated in its object", shown(value->key));
    case Kind::kNumberTooLarge:
      return fmt::format("the number {} is too large", shown(*value));
    case Kind::kLoneSurrogate:
      return "the string is not valid Unicode: it has half of a surrogate pair";
  }
  return {};
}

// Receives the parser's events and builds the tree. Containers that are still open form a chain by
// `parent`; their members so far are above the last of `bases_` on one common stack until the
// container closes.
class JsonTree::Builder {
 public:
  // `original` is the text before its repair, in which what begins at `repaired` was replaced.
  Builder(JsonTree& tree, std::string_view original, std::string_view text,
          const std::vector<size_t>& repaired, const JsonLimits& limits)
      : tree_(tree), original_(original), repaired_(repaired), tokens_(text), limits_(limits) {}

  // Whether the parser has refused what is legal JSON, and can be repaired.
  bool wantsRepair() const { return wantsRepair_; }

  // What the parser calls. Each returns whether it is to go on.

  bool null() {
    tokens_.word();
    add(Kind::kNull);
    return true;
  }
  bool boolean(bool value) {
    tokens_.word();
    add(Kind::kBool)->boolean = value;
    return true;
  }
  bool number_integer(int64_t value) {
    JsonValue* made = number();
    if (made->isFlawed) return true;
    made->kind = Kind::kInteger;
    made->integer = value;
    made->real = static_cast<double>(value);
    return true;
  }
  bool number_unsigned(uint64_t value) {
    // Beyond every integer that an attribute takes: it stays a number, but is no longer exact.
    if (value > static_cast<uint64_t>(INT64_MAX))
      return number_float(static_cast<double>(value), {});
    return number_integer(static_cast<int64_t>(value));
  }
  bool number_float(double value, const std::string&) {
    number()->real = value;
    return true;
  }
  bool string(const std::string& value) {
    tokens_.string();
    JsonValue* made = add(Kind::kString);
    made->text = kept(value);
    if (isRepaired()) addFlaw(JsonFlaw::Kind::kLoneSurrogate, made);
    return true;
  }
  bool binary(const std::vector<uint8_t>&) { return false; }

  bool start_object(size_t) { return open(Kind::kObject); }
  bool start_array(size_t) { return open(Kind::kArray); }
  bool key(const std::string& value) {
    tokens_.string();
    key_ = {kept(value), tokens_.position(), isRepaired()};
    return true;
  }
  bool end_object() {
    tokens_.bracket();
    const std::span members(stack_.data() + bases_.back(), openSize());
    auto size = members.size();
    if (!std::ranges::is_sorted(members, std::ranges::less_equal{}, &JsonValue::key)) {
      size = sortMembers(members);
    }
    close(size);
    return true;
  }
  bool end_array() {
    tokens_.bracket();
    close(openSize());
    return true;
  }

  bool parse_error(size_t bytesRead, const std::string&,
                   const nlohmann::detail::exception& exception) {
    constexpr int kNumberOverflow = 406;
    const std::string_view message = exception.what();
    // What follows quotes the input.
    const std::string_view reason = message.substr(0, message.find("; last read: "));
    wantsRepair_ = exception.id == kNumberOverflow || reason.find("surrogate U+") != reason.npos;
    const bool notUtf8 = reason.find("ill-formed UTF-8") != reason.npos;
    const auto position = positionOf(original_, bytesRead == 0 ? 0 : bytesRead - 1);
    tree_.error_ = notUtf8 ? errorAt(JsonError::Kind::kNotUtf8, position, "a string is not UTF-8")
                           : errorAt(JsonError::Kind::kSyntax, position, cleaned(message));
    return false;
  }

 private:
  using Kind = JsonValue::Kind;

  // Whether the last token had something in it that was replaced.
  bool isRepaired() const {
    const auto at = std::ranges::lower_bound(repaired_, tokens_.beginOffset());
    return at != repaired_.end() && *at < tokens_.endOffset();
  }

  JsonValue* number() {
    tokens_.number();
    JsonValue* made = add(Kind::kReal);
    const size_t begin = tokens_.beginOffset();
    made->text = kept(original_.substr(begin, endOfNumber(original_, begin) - begin));
    if (isRepaired()) addFlaw(JsonFlaw::Kind::kNumberTooLarge, made);
    return made;
  }

  bool open(Kind kind) {
    tokens_.bracket();
    if (bases_.size() >= limits_.depth) {
      tree_.error_ =
          errorAt(JsonError::Kind::kTooDeep, tokens_.position(),
                  fmt::format("nested deeper than {} objects and arrays", limits_.depth));
      return false;
    }
    open_ = add(kind);
    bases_.push_back(stack_.size());
    return true;
  }

  JsonValue* add(Kind kind) {
    void* memory = tree_.arena_->allocate(sizeof(JsonValue), alignof(JsonValue));
    auto* made = new (memory) JsonValue;
    made->kind = kind;
    made->position = tokens_.position();
    made->parent = open_;
    if (open_ == nullptr) {
      tree_.root_ = made;
      return made;
    }
    if (open_->isObject()) {
      made->key = key_.text;
      made->position = key_.position;
      made->isKeyFlawed = key_.isFlawed;
      if (key_.isFlawed) tree_.flaws_.push_back({JsonFlaw::Kind::kLoneSurrogate, made});
    } else {
      made->key = kept(std::to_string(openSize()));
    }
    stack_.push_back(made);
    return made;
  }

  void addFlaw(JsonFlaw::Kind kind, JsonValue* value) {
    value->isFlawed = true;
    tree_.flaws_.push_back({kind, value});
  }

  // How many members the open container has so far.
  size_t openSize() const { return stack_.size() - bases_.back(); }

  void close(size_t size) {
    const auto base = bases_.back();
    const size_t bytes = size * sizeof(JsonValue*);
    auto* members = static_cast<const JsonValue**>(
        tree_.arena_->allocate(std::max<size_t>(bytes, 1), alignof(JsonValue*)));
    std::copy_n(stack_.data() + base, size, members);
    open_->members = members;
    open_->size = static_cast<uint32_t>(size);
    stack_.resize(base);
    bases_.pop_back();
    open_ = const_cast<JsonValue*>(open_->parent);  // NOLINT: built here, const for readers only
  }

  // A member with the first bytes of its key as a number, which decide most comparisons without a
  // look at the member itself.
  struct Sorted {
    uint64_t start;
    const JsonValue* member;

    explicit Sorted(const JsonValue* of) : start(0), member(of) {
      for (size_t i = 0; i < sizeof(start); ++i) {
        start = start << 8 | (i < of->key.size() ? static_cast<unsigned char>(of->key[i]) : 0U);
      }
    }
    friend bool operator<(const Sorted& a, const Sorted& b) {
      return a.start != b.start ? a.start < b.start : a.member->key < b.member->key;
    }
  };

  // Sorts by key, leaves members out that repeat one, and returns how many remain.
  size_t sortMembers(std::span<const JsonValue*> members) {
    std::vector<Sorted> sorted(members.begin(), members.end());
    std::stable_sort(sorted.begin(), sorted.end());
    std::ranges::transform(sorted, members.begin(), &Sorted::member);
    size_t last = 0;
    for (size_t next = 1; next < members.size(); ++next) {
      if (members[next]->key == members[last]->key) {
        // Different keys may be the same after their repair.
        if (members[next]->isKeyFlawed) continue;
        tree_.flaws_.push_back({JsonFlaw::Kind::kRepeatedKey, members[next]});
      } else {
        members[++last] = members[next];
      }
    }
    return last + 1;
  }

  std::string_view kept(std::string_view text) {
    if (text.empty()) return "";
    auto* copy = static_cast<char*>(tree_.arena_->allocate(text.size(), 1));
    std::memcpy(copy, text.data(), text.size());
    return {copy, text.size()};
  }

  struct Key {
    std::string_view text;
    JsonPosition position;
    bool isFlawed = false;
  };

  JsonTree& tree_;
  std::string_view original_;
  const std::vector<size_t>& repaired_;
  TokenFinder tokens_;
  const JsonLimits& limits_;
  bool wantsRepair_ = false;
  JsonValue* open_ = nullptr;
  std::vector<const JsonValue*> stack_;
  std::vector<size_t> bases_;
  Key key_;  // of the member that is read
};

JsonTree::JsonTree()
    : arena_(std::make_unique<std::pmr::monotonic_buffer_resource>(size_t{1} << 12)) {}

JsonTree JsonTree::parse(std::string_view text, const JsonLimits& limits) {
  constexpr std::string_view kByteOrderMark = "\xef\xbb\xbf";
  JsonTree tree;
  const auto encoding = otherEncoding(text);
  if (!encoding.empty()) {
    tree.error_ = JsonError{JsonError::Kind::kOtherEncoding,
                            {1, 1},
                            fmt::format("the text is {}, and must be UTF-8", encoding)};
    return tree;
  }
  if (text.starts_with(kByteOrderMark)) {
    if (!limits.mayHaveByteOrderMark) {
      tree.error_ = JsonError{
          JsonError::Kind::kByteOrderMark, {1, 1}, "the text begins with a byte order mark"};
      return tree;
    }
    text.remove_prefix(kByteOrderMark.size());
    // The parser would skip another one.
    if (text.starts_with(kByteOrderMark)) {
      tree.error_ = errorAt(JsonError::Kind::kSyntax, {1, 1}, "a second byte order mark");
      return tree;
    }
  }
  // The parser takes a zero byte for the end of the text; there is none in JSON.
  if (const auto zero = text.find('\0'); zero != text.npos) {
    tree.error_ = errorAt(JsonError::Kind::kSyntax, positionOf(text, zero), "a zero byte");
    return tree;
  }
  if (!tree.build(text, text, {}, limits)) {
    const RepairedJson repaired = repairJson(text);
    tree.build(text, repaired.text, repaired.offsets, limits);
  }
  return tree;
}

bool JsonTree::build(std::string_view original, std::string_view text,
                     const std::vector<size_t>& repaired, const JsonLimits& limits) {
  error_.reset();
  flaws_.clear();
  Builder builder(*this, original, text, repaired, limits);
  nlohmann::json::sax_parse(text, &builder);
  if (error_) {
    root_ = nullptr;
    flaws_.clear();
  }
  return !builder.wantsRepair();
}

void appendToken(std::string& pointer, std::string_view key) {
  pointer += '/';
  for (const char c : key) {
    if (c == '~') {
      pointer += "~0";
    } else if (c == '/') {
      pointer += "~1";
    } else {
      pointer += c;
    }
  }
}

std::string pointerTo(const JsonValue& value, const JsonValue& root) {
  std::vector<std::string_view> keys;
  for (const JsonValue* at = &value; at != &root && at->parent != nullptr; at = at->parent) {
    keys.push_back(at->key);
  }
  std::string pointer;
  for (auto key = keys.rbegin(); key != keys.rend(); ++key) appendToken(pointer, *key);
  return pointer;
}

const JsonValue& nearest(const JsonValue& root, std::string_view pointer) {
  const JsonValue* at = &root;
  while (pointer.starts_with('/') && at->isObject()) {
    pointer.remove_prefix(1);
    const auto end = std::min(pointer.find('/'), pointer.size());
    std::string key;
    for (size_t i = 0; i < end; ++i) {
      const bool escaped = pointer[i] == '~' && i + 1 < end;
      key += !escaped ? pointer[i] : pointer[++i] == '0' ? '~' : '/';
    }
    pointer.remove_prefix(end);
    const JsonValue* next = at->find(key);
    if (next == nullptr) break;
    at = next;
  }
  return *at;
}

std::string shown(std::string_view text) {
  auto end = std::min(text.size(), kShownBytes);
  while (end > 0 && end < text.size() && (text[end] & 0xc0) == 0x80) --end;
  std::string quoted = "\"";
  for (const char c : text.substr(0, end)) {
    if (c == '"' || c == '\\') quoted += '\\';
    quoted += c;
  }
  quoted += end < text.size() ? "\"..." : "\"";
  return escapeControls(quoted);
}

std::string shown(const JsonValue& value) {
  switch (value.kind) {
    case JsonValue::Kind::kNull:
      return "null";
    case JsonValue::Kind::kBool:
      return value.boolean ? "true" : "false";
    case JsonValue::Kind::kInteger:
      return std::to_string(value.integer);
    case JsonValue::Kind::kReal:
      return std::string(value.text.substr(0, kShownBytes));
    case JsonValue::Kind::kString:
      return shown(value.text);
    case JsonValue::Kind::kObject:
      return "an object";
    case JsonValue::Kind::kArray:
      return "an array";
  }
  return {};
}

}  // namespace vnagent
