#include "agent/json/json_tree.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <nlohmann/json.hpp>

#include <fmt/format.h>

namespace vnagent {
namespace {

// How much of a string an error message shows.
constexpr size_t kShownBytes = 80;

// Walks over the text for the parser and counts the lines that it has consumed.
class LineCounter {
 public:
  using iterator_category = std::input_iterator_tag;
  using value_type = char;
  using difference_type = std::ptrdiff_t;
  using pointer = const char*;
  using reference = const char&;

  LineCounter(const char* at, uint32_t* line) : at_(at), line_(line) {}

  reference operator*() const { return *at_; }
  LineCounter& operator++() {
    if (*at_ == '\n') ++*line_;
    ++at_;
    return *this;
  }
  bool operator==(const LineCounter& other) const { return at_ == other.at_; }
  bool operator!=(const LineCounter& other) const { return at_ != other.at_; }

 private:
  const char* at_;
  uint32_t* line_;
};

// The parser's own words from the column on, every odd byte replaced: they quote the input.
std::string cleaned(std::string_view message) {
  constexpr std::string_view kLead = ", column ";
  if (const auto at = message.find(kLead); at != message.npos) {
    message.remove_prefix(at + 2);
  }
  std::string result(message);
  for (char& c : result) {
    if (c < 0x20 || c > 0x7e) c = '?';
  }
  return result;
}

}  // namespace

const JsonValue* JsonValue::find(std::string_view wanted) const {
  const auto members_ = all();
  const auto at = std::ranges::lower_bound(members_, wanted, {}, &JsonValue::key);
  return at != members_.end() && (*at)->key == wanted ? *at : nullptr;
}

// Receives the parser's events and builds the tree. Containers that are still open form a chain by
// `parent`; their members so far lie above `base` on one common stack until the container closes.
class JsonTree::Builder {
 public:
  explicit Builder(JsonTree& tree) : tree_(tree) {}

  uint32_t* line() { return &line_; }

  bool null() { return add(JsonValue::Kind::kNull); }
  bool boolean(bool value) {
    add(JsonValue::Kind::kBool)->boolean = value;
    return true;
  }
  bool number_integer(int64_t value) {
    JsonValue* made = add(JsonValue::Kind::kInteger);
    made->integer = value;
    made->real = static_cast<double>(value);
    return true;
  }
  bool number_unsigned(uint64_t value) {
    // Beyond every integer that an attribute takes: it stays a number, but is no longer exact.
    if (value > static_cast<uint64_t>(INT64_MAX)) {
      return number_float(static_cast<double>(value), std::to_string(value));
    }
    return number_integer(static_cast<int64_t>(value));
  }
  bool number_float(double value, const std::string& written) {
    JsonValue* made = add(JsonValue::Kind::kReal);
    made->real = value;
    made->text = kept(written);
    return true;
  }
  bool string(const std::string& value) {
    add(JsonValue::Kind::kString)->text = kept(value);
    return true;
  }
  bool binary(const std::vector<uint8_t>&) { return false; }

  bool start_object(size_t) { return open(JsonValue::Kind::kObject); }
  bool start_array(size_t) { return open(JsonValue::Kind::kArray); }
  bool key(const std::string& value) {
    key_ = kept(value);
    keyLine_ = line_;
    return true;
  }
  bool end_object() {
    const std::span<const JsonValue*> members(stack_.begin() + bases_.back(), stack_.end());
    auto size = members.size();
    if (!std::ranges::is_sorted(members, std::ranges::less_equal{}, &JsonValue::key)) {
      size = sortMembers(members);
    }
    return close(size);
  }
  bool end_array() { return close(stack_.size() - static_cast<size_t>(bases_.back())); }

  bool parse_error(size_t, const std::string&, const nlohmann::detail::exception& fault) {
    const std::string_view message = fault.what();
    JsonError error{JsonError::Kind::kNotJson, line_, {}, cleaned(message)};
    // A number beyond all floating point and half of a surrogate pair are good JSON all the same.
    const bool overflow = fault.id == 406;
    if (overflow || message.find("surrogate U+") != message.npos) {
      error.kind = JsonError::Kind::kUnusable;
      error.text = overflow ? "the number is too large" : "the string is not valid Unicode";
      if (open_ != nullptr) {
        const JsonValue* top = open_;
        while (top->parent != nullptr) top = top->parent;
        error.place = pointerTo(*open_, *top);
        if (!key_.empty()) appendToken(error.place, key_);
      }
    }
    tree_.error_ = std::move(error);
    return false;
  }

 private:
  JsonValue* add(JsonValue::Kind kind) {
    void* memory = tree_.arena_->allocate(sizeof(JsonValue), alignof(JsonValue));
    auto* made = new (memory) JsonValue;
    made->kind = kind;
    made->line = line_;
    made->parent = open_;
    if (open_ == nullptr) {
      tree_.root_ = made;
      return made;
    }
    if (open_->isObject()) {
      made->key = key_;
      made->line = keyLine_;
      key_ = {};
    } else {
      made->key = kept(std::to_string(stack_.size() - static_cast<size_t>(bases_.back())));
    }
    stack_.push_back(made);
    return made;
  }

  bool open(JsonValue::Kind kind) {
    JsonValue* made = add(kind);
    open_ = made;
    bases_.push_back(static_cast<std::ptrdiff_t>(stack_.size()));
    key_ = {};
    return true;
  }

  bool close(size_t size) {
    const auto base = bases_.back();
    const size_t bytes = size * sizeof(JsonValue*);
    auto* members = static_cast<const JsonValue**>(
        tree_.arena_->allocate(std::max<size_t>(bytes, 1), alignof(JsonValue*)));
    std::copy_n(stack_.begin() + base, size, members);
    open_->members = members;
    open_->size = static_cast<uint32_t>(size);
    stack_.resize(static_cast<size_t>(base));
    bases_.pop_back();
    open_ = const_cast<JsonValue*>(open_->parent);  // NOLINT: built here, const for readers only
    key_ = {};
    return true;
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

  // Sorts by key, sets members aside that repeat one, and returns how many are left.
  size_t sortMembers(std::span<const JsonValue*> members) {
    std::vector<Sorted> sorted(members.begin(), members.end());
    std::stable_sort(sorted.begin(), sorted.end());
    std::ranges::transform(sorted, members.begin(), &Sorted::member);
    size_t last = 0;
    for (size_t next = 1; next < members.size(); ++next) {
      if (members[next]->key == members[last]->key) {
        tree_.repeated_.push_back(members[next]);
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

  JsonTree& tree_;
  JsonValue* open_ = nullptr;
  std::vector<const JsonValue*> stack_;
  std::vector<std::ptrdiff_t> bases_;
  std::string_view key_;
  uint32_t keyLine_ = 1;
  uint32_t line_ = 1;
};

JsonTree::JsonTree()
    : arena_(std::make_unique<std::pmr::monotonic_buffer_resource>(size_t{1} << 12)) {}

JsonTree JsonTree::parse(std::string_view text) {
  JsonTree tree;
  // The parser takes a zero byte for the end of the text; there is none in JSON.
  if (const auto zero = text.find('\0'); zero != text.npos) {
    const auto before = text.substr(0, zero);
    const auto line = static_cast<uint32_t>(1 + std::ranges::count(before, '\n'));
    tree.error_ = JsonError{JsonError::Kind::kNotJson, line, {}, "a zero byte"};
  } else {
    Builder builder(tree);
    const LineCounter begin(text.data(), builder.line());
    const LineCounter end(text.data() + text.size(), builder.line());
    nlohmann::json::sax_parse(begin, end, &builder);
  }
  if (tree.error_) tree.root_ = nullptr;
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

uint32_t lineOf(const JsonValue& root, std::string_view pointer) {
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
  return at->line;
}

std::string shown(std::string_view text) {
  auto end = std::min(text.size(), kShownBytes);
  while (end > 0 && end < text.size() && (text[end] & 0xc0) == 0x80) --end;
  std::string result = "\"";
  for (const char c : text.substr(0, end)) {
    if (c == '"' || c == '\\') {
      result += '\\';
      result += c;
    } else if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
      result += fmt::format("\\u{:04x}", static_cast<unsigned>(c));
    } else {
      result += c;
    }
  }
  result += end < text.size() ? "\"..." : "\"";
  return result;
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
