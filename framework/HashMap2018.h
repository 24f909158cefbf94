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
#include "framework/detail/OrderedTable.h"

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
    if (V* found = find(key)) {
      const bool changed = !(*found == value);
      *found = value;
      return changed;
    }
    if (inside_ == kInside) hangAll();
    const U32 order = kivOrder(key);
    if (hangs()) {
      table().insert(place(order, key), newHung(order, K(key), V(value)));
    } else {
      insertInside(placeInside(order, key), K(key), V(value));
    }
    return true;
  }
  // Deletes the entry of this key. Returns whether there was one.
  bool deleteMember(const K& key) {
    if (!hangs()) {
      const unsigned at = indexInside(key);
      if (at == inside_) return false;
      [[maybe_unused]] const Node dropped = removeInside(at);
      return true;
    }
    Hung** at = placeOf(key);
    if (at == nullptr) return false;
    [[maybe_unused]] const Node dropped = takeHung(table().remove(at));
    if (table().size() == kBackInside) hangNone();
    return true;
  }
  // Deletes every entry, in order.
  void emptyAllBuckets() {
    while (!hangs() && inside_ > 0) {
      [[maybe_unused]] const Node dropped = removeInside(0);
    }
    // As in HashMap.
    while (!empty()) {
      for (Iterator at = begin(); !(at == end()); ++at) deleteMember(at->key);
    }
  }

  // Iteration
  Iterator begin() const {
    Iterator at(*this);
    if (hangs()) {
      at.stand(table().first());
    } else {
      at.stand(*this, 0);
    }
    return at;
  }
  std::default_sentinel_t end() const { return {}; }
  // An iterator at the entry with this key; at the end when absent.
  Iterator iteratorAt(const K& key) const {
    Iterator at(*this);
    if (const V* value = find(key)) at.stand(key, *value);
    return at;
  }

 private:
  // An entry in the table.
  struct Hung {
    Hung* kivNext = nullptr;
    U32 kivOrder = 0;
    V value{};
    K key{};
  };
  using Table = detail::OrderedTable<Hung>;

  static constexpr U8 kInside = 4;
  static constexpr U8 kHang = 255;
  // So many are left in the table when they move back; one less than would be moved out again.
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

  V* find(const K& key) const {
    if (!hangs()) {
      const unsigned at = indexInside(key);
      return at == inside_ ? nullptr : values() + at;
    }
    Hung** at = placeOf(key);
    return at == nullptr ? nullptr : &(*at)->value;
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
    while (at < inside_ && isBefore(kivOrder(keys()[at]), keys()[at], order, key)) ++at;
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
  Hung** placeOf(const K& key) const {
    return table().find(kivOrder(key), [&](const Hung& hung) { return hung.key == key; });
  }
  Hung** place(U32 order, const K& key) const {
    return table().place(order, [&](const Hung& hung) { return hung.key < key; });
  }
  static Hung* newHung(U32 order, K&& key, V&& value) {
    return new (kivMemAlloc(sizeof(Hung))) Hung{nullptr, order, std::move(value), std::move(key)};
  }
  static Node takeHung(Hung* hung) noexcept {
    Node taken{std::move(hung->key), std::move(hung->value)};
    hung->~Hung();
    kivMemFree(hung, sizeof(Hung));
    return taken;
  }

  // Moves the entries from the inside into a table.
  void hangAll() {
    std::array<void*, kInside> memory{};
    try {
      for (void*& each : memory) each = kivMemAlloc(sizeof(Hung));
    } catch (...) {
      for (void* each : memory) kivMemFree(each, sizeof(Hung));
      throw;
    }
    std::array<Hung*, kInside> hung{};
    for (unsigned i = 0; i < kInside; ++i) {
      const U32 order = kivOrder(keys()[i]);
      hung[i] = new (memory[i]) Hung{nullptr, order, std::move(values()[i]), std::move(keys()[i])};
    }
    std::destroy_n(keys(), kInside);
    std::destroy_n(values(), kInside);
    std::construct_at(reinterpret_cast<Table*>(room_));
    inside_ = kHang;
    for (Hung* each : hung) table().insert(place(each->kivOrder, each->key), each);
  }
  // Moves the entries that are left in the table back inside, and ends the table.
  void hangNone() noexcept {
    std::array<Hung*, kBackInside> left{};
    for (Hung*& each : left) each = table().remove(placeOf(table().first()->key));
    std::destroy_at(&table());
    inside_ = 0;
    for (Hung* each : left) {
      Node moved = takeHung(each);
      insertInside(inside_, std::move(moved.key), std::move(moved.value));
    }
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
      stand(set.table().after(kivOrder(current_.key),
                              [&](const Hung& hung) { return !(current_.key < hung.key); }));
      return *this;
    }
    // The entry that follows the current one, which may have gone.
    if (const unsigned at = set.indexInside(current_.key); at < set.inside_) {
      stand(set, at + 1);
    } else {
      stand(set, set.placeInside(kivOrder(current_.key), current_.key));
    }
    return *this;
  }
  void operator++(int) { ++*this; }

  friend bool operator==(const Iterator& iterator, std::default_sentinel_t) {
    return iterator.atEnd_;
  }

 private:
  friend class HashMap2018;
  explicit Iterator(const HashMap2018& set) : set_(&set) {}

  void stand(const K& key, const V& value) {
    current_ = {key, value};
    atEnd_ = false;
  }
  void stand(const HashMap2018& set, unsigned at) {
    atEnd_ = at >= set.inside_;
    if (!atEnd_) stand(set.keys()[at], set.values()[at]);
  }
  void stand(const Hung* at) {
    atEnd_ = at == nullptr;
    if (!atEnd_) stand(at->key, at->value);
  }

  const HashMap2018* set_ = nullptr;
  Node current_;
  bool atEnd_ = true;
};

}  // namespace Kiv
