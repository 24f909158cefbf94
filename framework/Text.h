// Kiv::Name and Kiv::String: immutable, counted, hash-carrying strings.
//
// Name is for identifiers (of regions, hosts, elements), String for free text (ids, referrers);
// they are two types so that a signature says which it takes.
//
// Each is one pointer to a shared representation: a copy raises its count. Texts of one
// representation are equal, texts of different hashes are not, and only the rest compares
// characters. The empty text owns nothing. Making one throws std::bad_alloc; nothing else throws.
//
// Threads: while enableThreadSafePointers is set, texts may be copied and destroyed on any thread.
#pragma once

#include <atomic>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>
#include <utility>

#include "framework/Allocation.h"
#include "framework/Hash.h"

namespace [[gnu::visibility("default")]] Kiv {

namespace detail {
class TextWord;
}

// What Name and String share. Not used by itself.
class Text {
 public:
  // The characters, borrowed for as long as any string shares them.
  std::string_view view() const {
    return rep_ == nullptr ? std::string_view() : std::string_view(rep_->text(), rep_->size);
  }
  // A copy of the characters.
  std::string str() const { return std::string(view()); }
  bool empty() const { return rep_ == nullptr; }
  std::size_t size() const { return rep_ == nullptr ? 0 : rep_->size; }
  U32 hash() const { return bitReverse(order()); }
  // The order in a keyed collection; see kivOrder().
  U32 order() const { return rep_ == nullptr ? 0 : rep_->order; }

 protected:
  Text() noexcept = default;
  // A text of these characters.
  explicit Text(std::string_view text);
  // The text of `a` followed by that of `b`.
  Text(std::string_view a, std::string_view b);
  Text(const Text& other) noexcept : rep_(other.rep_) { inc(); }
  Text(Text&& other) noexcept : rep_(std::exchange(other.rep_, nullptr)) {}
  Text& operator=(const Text& other) noexcept {
    other.inc();
    dec();
    rep_ = other.rep_;
    return *this;
  }
  Text& operator=(Text&& other) noexcept {
    std::swap(rep_, other.rep_);
    return *this;
  }
  ~Text() { dec(); }

  // Whether the characters are the same.
  bool equals(const Text& other) const {
    return rep_ == other.rep_ || (order() == other.order() && hasSameCharacters(other));
  }

 private:
  friend class detail::TextWord;

  // The shared representation; the characters follow it.
  struct Rep {
    mutable std::atomic<U32> references;
    U32 order;
    U32 size;
    const char* text() const { return reinterpret_cast<const char*>(this + 1); }
    char* text() { return reinterpret_cast<char*>(this + 1); }
  };
  static Rep* newRep(std::size_t size);
  bool hasSameCharacters(const Text& other) const;
  void inc() const noexcept {
    if (rep_ == nullptr) return;
    if (enableThreadSafePointers) {
      rep_->references.fetch_add(1, std::memory_order_relaxed);
    } else {
      rep_->references.store(rep_->references.load(std::memory_order_relaxed) + 1,
                             std::memory_order_relaxed);
    }
  }
  void dec() const noexcept {
    if (rep_ == nullptr) return;
    U32 before;
    if (enableThreadSafePointers) {
      before = rep_->references.fetch_sub(1, std::memory_order_acq_rel);
    } else {
      before = rep_->references.load(std::memory_order_relaxed);
      rep_->references.store(before - 1, std::memory_order_relaxed);
    }
    if (before == 1) free();
  }
  void free() const noexcept;

  const Rep* rep_ = nullptr;
};

// Characters that are not yet one of the string types: a literal, a view, a std::string.
template <class T>
concept Characters = std::convertible_to<const T&, std::string_view> && !std::derived_from<T, Text>;

// The operations of one string type; Self is Name or String.
template <class Self>
class TextOf : public Text {
 public:
  using Text::Text;
  TextOf() noexcept = default;
  // The same text as another type of string; shares the representation.
  explicit TextOf(const Text& text) noexcept : Text(text) {}

  friend bool operator==(const Self& a, const Self& b) { return a.equals(b); }
  friend bool operator<(const Self& a, const Self& b) { return a.view() < b.view(); }
  friend Self operator+(const Self& a, const Self& b) { return Self(a.view(), b.view()); }

  template <Characters T>
  friend bool operator==(const Self& a, const T& b) {
    return a.view() == std::string_view(b);
  }
  template <Characters T>
  friend bool operator<(const Self& a, const T& b) {
    return a.view() < std::string_view(b);
  }
  template <Characters T>
  friend Self operator+(const Self& a, const T& b) {
    return Self(a.view(), std::string_view(b));
  }
  template <Characters T>
  friend Self operator+(const T& a, const Self& b) {
    return Self(std::string_view(a), b.view());
  }
  template <class Stream>
  requires std::derived_from<Stream, std::basic_ostream<char>>
  friend Stream& operator<<(Stream& stream, const Self& text) {
    stream << text.view();
    return stream;
  }
};

class String;

// An identifier.
class Name final : public TextOf<Name> {
 public:
  Name() noexcept = default;
  // A name of these characters; of two texts, the first followed by the second.
  Name(const char* text) : TextOf(std::string_view(text)) {}
  Name(std::string_view text) : TextOf(text) {}
  Name(const std::string& text) : TextOf(std::string_view(text)) {}
  Name(std::string_view a, std::string_view b) : TextOf(a, b) {}
  // The same text as a name; shares the representation.
  explicit Name(const String& text);
};

// Free text.
class String final : public TextOf<String> {
 public:
  String() noexcept = default;
  // A string of these characters; of two texts, the first followed by the second.
  String(const char* text) : TextOf(std::string_view(text)) {}
  String(std::string_view text) : TextOf(text) {}
  String(const std::string& text) : TextOf(std::string_view(text)) {}
  String(std::string_view a, std::string_view b) : TextOf(a, b) {}
  // The same text as a string; shares the representation.
  explicit String(const Name& text);
};

inline Name::Name(const String& text) : TextOf(static_cast<const Text&>(text)) {}
inline String::String(const Name& text) : TextOf(static_cast<const Text&>(text)) {}

}  // namespace Kiv

template <>
struct std::hash<Kiv::Name> {
  std::size_t operator()(const Kiv::Name& name) const noexcept { return name.hash(); }
};
template <>
struct std::hash<Kiv::String> {
  std::size_t operator()(const Kiv::String& text) const noexcept { return text.hash(); }
};
