// Kiv::HashMap2018<K, V>: a map of entries by value, each a key (a small integer, a name, a string)
// and a value: a bool in a value set, a pointer in a collection of references.
//
// Small-buffer optimisation: up to four entries are in the set itself, so the sets of a few
// referrers, which make up most of the output, allocate nothing. With a fifth, the entries spill
// into a table of the heap, and return to the buffer when two are left.
//
// Entries are in ascending order of their bit-reversed key hashes, entries of equal hashes in order
// of their keys, wherever they are stored.
//
//   for (const auto& entry : pool->assignedVlan()) { use(entry.key, entry.value); }
//
// The loop body may delete any entry, the current one too, and may insert, any number of times;
// HashMap.h says what is visited then. An iterator holds a copy of its entry and is not registered.
//
// Cost: that of at most four comparisons, or else constant on average. What may throw: newMember(),
// std::bad_alloc.
//
// Threads: the activity thread only.
#pragma once

#include <algorithm>
#include <array>
#include <iterator>
#include <memory>
#include <new>
#include <optional>

#include "framework/Hash.h"
#include "framework/detail/EntryTable.h"

namespace [[gnu::visibility("default")]] Kiv {

template <class K, class V = bool>
class HashMap2018 {
  static_assert(std::is_nothrow_move_constructible_v<K> && std::is_nothrow_move_assignable_v<K>);
  static_assert(std::is_nothrow_move_constructible_v<V> && std::is_nothrow_move_assignable_v<V>);

 public:
  using Key = K;

  // One entry.
  struct Node {
    K key{};    // unique in its set
    V value{};  // what is stored under the key
  };

  class Iterator;
  using iterator = Iterator;
  using const_iterator = Iterator;

  HashMap2018() = default;
  HashMap2018(const HashMap2018&) = delete;
  HashMap2018& operator=(const HashMap2018&) = delete;
  ~HashMap2018() { emptyAllBuckets(); }

  // Lookup
  // A copy of the entry with this key; none when absent.
  std::optional<Node> lookupNodeG(const K& key) const {
    const V* value = find(key);
    return value == nullptr ? std::nullopt : std::optional<Node>({key, *value});
  }
  bool contains(const K& key) const { return find(key) != nullptr; }
  // The value of the key's entry, borrowed until the set changes; null when absent.
  const V* find(const K& key) const {
    if (!spilled()) {
      const unsigned at = indexInBuffer(key);
      return at == buffered_ ? nullptr : values() + at;
    }
    const U32 at = table().find(key);
    return at == Table::npos ? nullptr : &table().value(at);
  }
  // The value of the key's entry; that of an empty V (false, null) when absent.
  V operator[](const K& key) const {
    const V* value = find(key);
    return value == nullptr ? V() : *value;
  }
  std::size_t size() const { return spilled() ? table().size() : buffered_; }
  bool empty() const { return buffered_ == 0; }
  // How many buckets there are; 0 while the entries are so few that there are none.
  std::size_t buckets() const { return spilled() ? table().buckets() : 0; }

  // Change
  // Gives the entry of this key the value, adding it when absent. Returns whether anything changed.
  // Throws std::bad_alloc where there is no memory for it; nothing has changed then.
  bool newMember(const K& key, const V& value) {
    if (!spilled()) {
      const unsigned at = indexInBuffer(key);
      if (at < buffered_) return assign(values()[at], value);
      if (buffered_ < kBuffered) {
        insertInBuffer(lowerBoundInBuffer(Table::orderOf(key), key), K(key), V(value));
        return true;
      }
      const K ownKey(key);  // either may be in the buffer, which ends
      const V ownValue(value);
      spill();
      table().insert(ownKey, ownValue);
      return true;
    }
    const auto [entry, added] = table().insert(key, value);
    return added || assign(*entry, value);
  }
  // Deletes the entry of this key. Returns whether there was one.
  bool deleteMember(const K& key) {
    if (!spilled()) {
      const unsigned at = indexInBuffer(key);
      if (at == buffered_) return false;
      [[maybe_unused]] const Node dropped = removeFromBuffer(at);
      return true;
    }
    const U32 at = table().find(key);
    if (at == Table::npos) return false;
    [[maybe_unused]] const auto dropped = table().remove(at);
    table().shrink();
    if (table().size() <= kReturn) returnToBuffer();
    return true;
  }
  // Deletes every entry, in order; also what the destructor of one inserts.
  void emptyAllBuckets() {
    while (!empty()) {
      while (!spilled() && buffered_ > 0) {
        [[maybe_unused]] const Node dropped = removeFromBuffer(0);
      }
      for (U32 at = 0; spilled() && (at = table().nextOccupied(at)) != Table::npos;) {
        [[maybe_unused]] const auto dropped = table().remove(at);
        if (table().size() == 0) endTable();
      }
    }
  }

  // Iteration
  Iterator begin() const {
    Iterator at(*this);
    at.goTo(spilled() ? table().nextOccupied(0) : 0);
    return at;
  }
  std::default_sentinel_t end() const { return {}; }
  // An iterator at the entry with this key; at the end when absent.
  Iterator iteratorAt(const K& key) const {
    Iterator at(*this);
    at.goTo(spilled() ? table().find(key) : indexInBuffer(key));
    return at;
  }

 private:
  using Table = detail::EntryTable<K, V>;

  static constexpr U8 kBuffered = 4;  // the capacity of the buffer
  static constexpr U8 kSpilled = 255;
  static constexpr U32 kReturn = 2;  // so many entries return to the buffer

  // The buffer holds an array of keys and one of values; the one of the larger alignment comes
  // first. After a spill, it holds the table.
  static constexpr bool kKeysFirst = alignof(K) >= alignof(V);
  static constexpr std::size_t kKeysAt = kKeysFirst ? 0 : kBuffered * sizeof(V);
  static constexpr std::size_t kValuesAt = kKeysFirst ? kBuffered * sizeof(K) : 0;
  static constexpr std::size_t kBytes =
      std::max(kBuffered * (sizeof(K) + sizeof(V)), sizeof(Table));

  bool spilled() const { return buffered_ == kSpilled; }
  Table& table() const { return *std::launder(reinterpret_cast<Table*>(buffer_)); }
  K* keys() const { return std::launder(reinterpret_cast<K*>(buffer_ + kKeysAt)); }
  V* values() const { return std::launder(reinterpret_cast<V*>(buffer_ + kValuesAt)); }

  static bool isBefore(U32 order, const K& key, U32 otherOrder, const K& otherKey) {
    return order < otherOrder || (order == otherOrder && key < otherKey);
  }

  // Returns whether that changes anything.
  static bool assign(V& to, const V& value) {
    if (to == value) return false;
    to = value;
    return true;
  }

  // In the buffer
  // The index of a key; buffered_ when absent.
  unsigned indexInBuffer(const K& key) const {
    unsigned at = 0;
    while (at < buffered_ && !(keys()[at] == key)) ++at;
    return at;
  }
  // The index of the first entry that is not before the given order and key.
  unsigned lowerBoundInBuffer(U32 order, const K& key) const {
    unsigned at = 0;
    while (at < buffered_ && isBefore(Table::orderOf(keys()[at]), keys()[at], order, key)) ++at;
    return at;
  }
  void insertInBuffer(unsigned at, K&& key, V&& value) noexcept {
    std::construct_at(keys() + buffered_);
    std::construct_at(values() + buffered_);
    std::move_backward(keys() + at, keys() + buffered_, keys() + buffered_ + 1);
    std::move_backward(values() + at, values() + buffered_, values() + buffered_ + 1);
    keys()[at] = std::move(key);
    values()[at] = std::move(value);
    ++buffered_;
  }
  Node removeFromBuffer(unsigned at) noexcept {
    Node removed{std::move(keys()[at]), std::move(values()[at])};
    std::move(keys() + at + 1, keys() + buffered_, keys() + at);
    std::move(values() + at + 1, values() + buffered_, values() + at);
    --buffered_;
    std::destroy_at(keys() + buffered_);
    std::destroy_at(values() + buffered_);
    return removed;
  }

  // Moves the entries from the buffer into a table with memory for one more.
  void spill() {
    Table table(kBuffered + 1);
    for (unsigned i = 0; i < kBuffered; ++i) {
      table.append(std::move(keys()[i]), std::move(values()[i]));
    }
    std::destroy_n(keys(), kBuffered);
    std::destroy_n(values(), kBuffered);
    std::construct_at(reinterpret_cast<Table*>(buffer_), std::move(table));
    buffered_ = kSpilled;
  }
  // Moves the entries that are left in the table back into the buffer, and frees the table.
  void returnToBuffer() noexcept {
    std::array<std::pair<K, V>, kReturn> left;
    const U32 count = table().size();
    for (U32 i = 0; i < count; ++i) left[i] = table().remove(table().nextOccupied(0));
    endTable();
    for (U32 i = 0; i < count; ++i) {
      insertInBuffer(buffered_, std::move(left[i].first), std::move(left[i].second));
    }
  }
  void endTable() {
    std::destroy_at(&table());
    buffered_ = 0;
  }

  alignas(std::max({alignof(K), alignof(V), alignof(Table)})) mutable std::byte buffer_[kBytes];
  U8 buffered_ = 0;  // how many entries are in the buffer; kSpilled if they are in the table
};

// An input iterator. Holds a copy of its entry, which can be read after the entry's deletion.
template <class K, class V>
class HashMap2018<K, V>::Iterator {
 public:
  using value_type = Node;
  using difference_type = std::ptrdiff_t;

  Iterator() = default;

  // The current entry, as it was when the iterator came to it; it may have changed or gone since.
  const Node& currNodeMaybeStale() const { return current_; }
  const Node& operator*() const { return current_; }
  const Node* operator->() const { return &current_; }

  // Goes to the entry that follows the current one in order, deleted or not.
  Iterator& operator++() {
    const HashMap2018& set = *set_;
    if (set.spilled()) {
      const Table& table = set.table();
      goTo(table.isAt(at_, current_.key) ? table.nextOccupied(at_ + 1)
                                         : table.upperBound(current_.key));
      return *this;
    }
    const unsigned at = set.indexInBuffer(current_.key);
    goTo(at < set.buffered_ ? at + 1
                            : set.lowerBoundInBuffer(Table::orderOf(current_.key), current_.key));
    return *this;
  }
  void operator++(int) { ++*this; }

  friend bool operator==(const Iterator& iterator, std::default_sentinel_t) {
    return iterator.atEnd_;
  }

 private:
  friend class HashMap2018;
  explicit Iterator(const HashMap2018& set) : set_(&set) {}

  // Goes to a position in the buffer or in the table; to the end if there is no entry.
  void goTo(U32 at) {
    at_ = at;
    if (set_->spilled()) {
      atEnd_ = at == Table::npos;
      if (!atEnd_) current_ = {set_->table().key(at), set_->table().value(at)};
    } else {
      atEnd_ = at >= set_->buffered_;
      if (!atEnd_) current_ = {set_->keys()[at], set_->values()[at]};
    }
  }

  const HashMap2018* set_ = nullptr;
  Node current_;
  U32 at_ = 0;  // its position when the iterator came to it
  bool atEnd_ = true;
};

}  // namespace Kiv
