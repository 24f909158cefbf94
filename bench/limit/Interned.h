// Interned text: equal texts are one object, identified by its address and counted by its handles.
#pragma once

#include <absl/container/flat_hash_set.h>
#include <absl/hash/hash.h>

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>

namespace bench {

// A counted handle of an interned text. One thread only, as the machines are.
class Interned {
 public:
  Interned() noexcept = default;
  // The text, interned now or before.
  static Interned of(std::string_view text);
  // The text if it is interned already; else one that is not.
  static Interned find(std::string_view text);

  Interned(const Interned& other) noexcept : rep_(other.rep_) {
    if (rep_ != nullptr) ++rep_->references;
  }
  Interned(Interned&& other) noexcept : rep_(std::exchange(other.rep_, nullptr)) {}
  Interned& operator=(Interned other) noexcept {
    std::swap(rep_, other.rep_);
    return *this;
  }
  ~Interned() {
    if (rep_ != nullptr && --rep_->references == 0) drop(rep_);
  }

  explicit operator bool() const noexcept { return rep_ != nullptr; }
  std::string_view view() const { return rep_->view(); }

  friend bool operator==(const Interned& a, const Interned& b) noexcept { return a.rep_ == b.rep_; }
  template <class H>
  friend H AbslHashValue(H state, const Interned& text) {
    return H::combine(std::move(state), text.rep_);
  }

 private:
  // The characters follow it.
  struct Rep {
    std::uint32_t references;
    std::uint32_t size;
    const char* text() const { return reinterpret_cast<const char*>(this + 1); }
    char* text() { return reinterpret_cast<char*>(this + 1); }
    std::string_view view() const { return {text(), size}; }
  };
  struct Hash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const {
      return absl::Hash<std::string_view>()(text);
    }
    std::size_t operator()(const Rep* rep) const { return (*this)(rep->view()); }
  };
  struct Equal {
    using is_transparent = void;
    bool operator()(const Rep* a, const Rep* b) const { return a == b; }
    bool operator()(const Rep* a, std::string_view b) const { return a->view() == b; }
  };
  using Table = absl::flat_hash_set<Rep*, Hash, Equal>;

  explicit Interned(Rep* rep) noexcept : rep_(rep) { ++rep->references; }
  static Table& table();
  static Rep* newRep(std::string_view text);
  static void drop(Rep* rep) noexcept;

  Rep* rep_ = nullptr;
};

}  // namespace bench
