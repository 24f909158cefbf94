#include "agent/json/json_tree.h"

#include <algorithm>
#include <cstring>

#include <fmt/format.h>

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

// Builds the tree while it reads. Containers that are still open form a chain by `parent`; their
// members so far lie above `base` on one common stack until the container closes.
class JsonTree::Builder {
 public:
  Builder(JsonTree& tree, std::string_view text, const JsonLimits& limits)
      : tree_(tree), scanner_(text), limits_(limits) {}

  // Reads the whole text. The tree has an error where that fails.
  void read() {
    bool good = value();
    while (good && open_ != nullptr) good = open_->isObject() ? member() : element();
    if (good && scanner_.next(), good && !scanner_.isAtEnd()) {
      scanner_.failExpected("the end of the text");
    }
    tree_.error_ = scanner_.error();
  }

 private:
  using Kind = JsonValue::Kind;

  // Each of these reads on and returns whether all is well so far.

  bool value() {
    switch (scanner_.next()) {
      case '{':
        return openContainer(Kind::kObject, '{');
      case '[':
        return openContainer(Kind::kArray, '[');
      case '"':
        return string();
      case 'n':
        return word("null", Kind::kNull);
      case 't':
        return word("true", Kind::kBool);
      case 'f':
        return word("false", Kind::kBool);
      case '-':
      case '0':
      case '1':
      case '2':
      case '3':
      case '4':
      case '5':
      case '6':
      case '7':
      case '8':
      case '9':
        return number();
      default:
        scanner_.failExpected("a value");
        return false;
    }
  }

  bool word(std::string_view text, Kind kind) {
    JsonValue* made = add(kind);
    made->boolean = text == "true";
    if (scanner_.skipWord(text)) return true;
    scanner_.failExpected("a value");
    return false;
  }

  bool number() {
    JsonValue* made = add(Kind::kReal);
    const auto number = scanner_.number();
    if (!number) return false;
    made->real = number->real;
    if (number->isInteger) {
      made->kind = Kind::kInteger;
      made->integer = number->integer;
    } else {
      made->text = kept(number->written);
    }
    if (number->isTooLarge) addFlaw(JsonFlaw::Kind::kNumberTooLarge, made);
    return true;
  }

  bool string() {
    JsonValue* made = add(Kind::kString);
    const auto string = scanner_.string();
    if (!string) return false;
    made->text = kept(string->text);
    if (string->hasLoneSurrogate) addFlaw(JsonFlaw::Kind::kLoneSurrogate, made);
    return true;
  }

  bool openContainer(Kind kind, char bracket) {
    if (bases_.size() >= limits_.depth) {
      scanner_.fail(JsonError::Kind::kTooDeep,
                    fmt::format("nested deeper than {} objects and arrays", limits_.depth));
      return false;
    }
    open_ = add(kind);
    bases_.push_back(stack_.size());
    return scanner_.skip(bracket);
  }

  // The next member of the open object, or its end.
  bool member() {
    const char next = scanner_.next();
    if (next == '}') {
      closeObject();
      return scanner_.skip('}');
    }
    if (openSize() > 0 && !comma("',' or '}'")) return false;
    if (scanner_.next() != '"') {
      scanner_.failExpected(openSize() > 0 ? "a key in quotes" : "a key in quotes or '}'");
      return false;
    }
    key_.position = scanner_.position();
    const auto key = scanner_.string();
    if (!key) return false;
    key_.text = kept(key->text);
    key_.isFlawed = key->hasLoneSurrogate;
    scanner_.next();
    if (scanner_.skip(':')) return value();
    scanner_.failExpected("':'");
    return false;
  }

  // The next element of the open array, or its end.
  bool element() {
    if (scanner_.next() == ']') {
      close(openSize());
      return scanner_.skip(']');
    }
    return (openSize() == 0 || comma("',' or ']'")) && value();
  }

  bool comma(std::string_view expected) {
    if (scanner_.skip(',')) return true;
    scanner_.failExpected(expected);
    return false;
  }

  JsonValue* add(Kind kind) {
    void* memory = tree_.arena_->allocate(sizeof(JsonValue), alignof(JsonValue));
    auto* made = new (memory) JsonValue;
    made->kind = kind;
    made->position = scanner_.position();
    made->parent = open_;
    if (open_ == nullptr) {
      tree_.root_ = made;
      return made;
    }
    if (open_->isObject()) {
      made->key = key_.text;
      made->position = key_.position;
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

  void closeObject() {
    const std::span members(stack_.data() + bases_.back(), openSize());
    auto size = members.size();
    if (!std::ranges::is_sorted(members, std::ranges::less_equal{}, &JsonValue::key)) {
      size = sortMembers(members);
    }
    close(size);
  }

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
  JsonScanner scanner_;
  const JsonLimits& limits_;
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
  }
  Builder(tree, text, limits).read();
  if (tree.error_) {
    tree.root_ = nullptr;
    tree.flaws_.clear();
  }
  return tree;
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
