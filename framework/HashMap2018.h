// Kiv::HashMap2018<K, V>: a set of entries, each a key (a small integer, a name, a string) and a
// value: a bool in a value set, a pointer in a collection of references.
//
// Up to four entries live inside the set, so the sets of a few referrers that make up most of the
// output cost nothing beside their owner; more hang in a table. Entries stand in the order of their
// bit-reversed key hashes, wherever they live.
//
//   for (const auto& entry : pool->assignedVlan()) { use(entry.key, entry.value); }
//
// The loop body may delete any entry, the current one too, and may insert.
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
    V value{};  // what the key stands for
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
    if (!hangs()) {
      const unsigned at = indexInside(key);
      return at == inside_ ? nullptr : values() + at;
    }
    const U32 at = table().find(key);
    return at == Table::kNowhere ? nullptr : &table().value(at);
  }
  // The value of the key's entry; that of an empty V (false, null) when absent.
  V operator[](const K& key) const {
    const V* value = find(key);
    return value == nullptr ? V() : *value;
  }
  std::size_t size() const { return hangs() ? table().size() : inside_; }
  bool empty() const { return inside_ == 0; }
  // How many buckets the entries hang in; 0 while they are few.
  std::size_t buckets() const { return hangs() ? table().buckets() : 0; }

  // Change
  // Gives the entry of this key the value, adding it when absent. Returns whether anything changed.
  // Throws std::bad_alloc where there is no memory for it; nothing has changed then.
  bool newMember(const K& key, const V& value) {
    if (!hangs()) {
      const unsigned at = indexInside(key);
      if (at < inside_) return assign(values()[at], value);
      if (inside_ < kInside) {
        insertInside(placeInside(Table::orderOf(key), key), K(key), V(value));
        return true;
      }
      hangAll();
    }
    const auto [entry, added] = table().insert(key, value);
    return added || assign(*entry, value);
  }
  // Deletes the entry of this key. Returns whether there was one.
  bool deleteMember(const K& key) {
    if (!hangs()) {
      const unsigned at = indexInside(key);
      if (at == inside_) return false;
      [[maybe_unused]] const Node dropped = removeInside(at);
      return true;
    }
    const U32 at = table().find(key);
    if (at == Table::kNowhere) return false;
    [[maybe_unused]] const auto dropped = table().remove(at);
    table().shrink();
    if (table().size() <= kBackInside) hangNone();
    return true;
  }
  // Deletes every entry, in order.
  void emptyAllBuckets() {
    // As in HashMap; what an entry's end puts in may hang, or not.
    while (!empty()) {
      while (!hangs() && inside_ > 0) {
        [[maybe_unused]] const Node dropped = removeInside(0);
      }
      for (U32 at = 0; hangs() && (at = table().nextFrom(at)) != Table::kNowhere;) {
        [[maybe_unused]] const auto dropped = table().remove(at);
        if (table().size() == 0) endTable();
      }
    }
  }

  // Iteration
  Iterator begin() const {
    Iterator at(*this);
    at.stand(hangs() ? table().nextFrom(0) : 0);
    return at;
  }
  std::default_sentinel_t end() const { return {}; }
  // An iterator at the entry with this key; at the end when absent.
  Iterator iteratorAt(const K& key) const {
    Iterator at(*this);
    at.stand(hangs() ? table().find(key) : indexInside(key));
    return at;
  }

 private:
  using Table = detail::EntryTable<K, V>;

  static constexpr U8 kInside = 4;
  static constexpr U8 kHang = 255;
  // So many are left in the table, or fewer, when they move back.
  static constexpr U32 kBackInside = 2;

  // Inside, keys and values stand in an array each; the one that needs more alignment comes first.
  static constexpr bool kKeysFirst = alignof(K) >= alignof(V);
  static constexpr std::size_t kKeysAt = kKeysFirst ? 0 : kInside * sizeof(V);
  static constexpr std::size_t kValuesAt = kKeysFirst ? kInside * sizeof(K) : 0;
  static constexpr std::size_t kRoom = std::max(kInside * (sizeof(K) + sizeof(V)), sizeof(Table));

  bool hangs() const { return inside_ == kHang; }
  Table& table() const { return *std::launder(reinterpret_cast<Table*>(room_)); }
  K* keys() const { return std::launder(reinterpret_cast<K*>(room_ + kKeysAt)); }
  V* values() const { return std::launder(reinterpret_cast<V*>(room_ + kValuesAt)); }

  static bool isBefore(U32 order, const K& key, U32 otherOrder, const K& otherKey) {
    return order < otherOrder || (order == otherOrder && key < otherKey);
  }

  // Returns whether that changes anything.
  static bool assign(V& to, const V& value) {
    if (to == value) return false;
    to = value;
    return true;
  }

  // Inside
  // The index of a key; inside_ when absent.
  unsigned indexInside(const K& key) const {
    unsigned at = 0;
    while (at < inside_ && !(keys()[at] == key)) ++at;
    return at;
  }
  // The index of the first entry that does not stand before the given order and key.
  unsigned placeInside(U32 order, const K& key) const {
    unsigned at = 0;
    while (at < inside_ && isBefore(Table::orderOf(keys()[at]), keys()[at], order, key)) ++at;
    return at;
  }
  void insertInside(unsigned at, K&& key, V&& value) noexcept {
    std::construct_at(keys() + inside_);
    std::construct_at(values() + inside_);
    std::move_backward(keys() + at, keys() + inside_, keys() + inside_ + 1);
    std::move_backward(values() + at, values() + inside_, values() + inside_ + 1);
    keys()[at] = std::move(key);
    values()[at] = std::move(value);
    ++inside_;
  }
  Node removeInside(unsigned at) noexcept {
    Node removed{std::move(keys()[at]), std::move(values()[at])};
    std::move(keys() + at + 1, keys() + inside_, keys() + at);
    std::move(values() + at + 1, values() + inside_, values() + at);
    --inside_;
    std::destroy_at(keys() + inside_);
    std::destroy_at(values() + inside_);
    return removed;
  }

  // In the table
  // Moves the entries from the inside into a table with room for one more.
  void hangAll() {
    Table hung(kInside + 1);
    for (unsigned i = 0; i < kInside; ++i) {
      hung.append(std::move(keys()[i]), std::move(values()[i]));
    }
    std::destroy_n(keys(), kInside);
    std::destroy_n(values(), kInside);
    std::construct_at(reinterpret_cast<Table*>(room_), std::move(hung));
    inside_ = kHang;
  }
  // Moves the entries that are left in the table back inside, and ends the table.
  void hangNone() noexcept {
    std::array<std::pair<K, V>, kBackInside> left;
    const U32 count = table().size();
    for (U32 i = 0; i < count; ++i) left[i] = table().remove(table().nextFrom(0));
    endTable();
    for (U32 i = 0; i < count; ++i) {
      insertInside(inside_, std::move(left[i].first), std::move(left[i].second));
    }
  }
  void endTable() {
    std::destroy_at(&table());
    inside_ = 0;
  }

  alignas(std::max({alignof(K), alignof(V), alignof(Table)})) mutable std::byte room_[kRoom];
  U8 inside_ = 0;  // how many entries live inside; kHang when they hang in a table
};

// Keeps a copy of the current entry, so that it stays readable after its deletion.
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

  Iterator& operator++() {
    const HashMap2018& set = *set_;
    if (set.hangs()) {
      const Table& table = set.table();
      stand(table.stands(current_.key, at_) ? table.nextFrom(at_ + 1) : table.after(current_.key));
      return *this;
    }
    // The entry that follows the current one, which may have gone.
    const unsigned at = set.indexInside(current_.key);
    stand(at < set.inside_ ? at + 1 : set.placeInside(Table::orderOf(current_.key), current_.key));
    return *this;
  }
  void operator++(int) { ++*this; }

  friend bool operator==(const Iterator& iterator, std::default_sentinel_t) {
    return iterator.atEnd_;
  }

 private:
  friend class HashMap2018;
  explicit Iterator(const HashMap2018& set) : set_(&set) {}

  // Stands at a place inside or in the table; behind the last one at the end.
  void stand(U32 at) {
    at_ = at;
    if (set_->hangs()) {
      atEnd_ = at == Table::kNowhere;
      if (!atEnd_) current_ = {set_->table().key(at), set_->table().value(at)};
    } else {
      atEnd_ = at >= set_->inside_;
      if (!atEnd_) current_ = {set_->keys()[at], set_->values()[at]};
    }
  }

  const HashMap2018* set_ = nullptr;
  Node current_;
  U32 at_ = 0;  // its place, when the iterator came to it
  bool atEnd_ = true;
};

}  // namespace Kiv
