// The table under the larger sets: keys and values in OrderedArrays, a column each.
//
// It adds to the arrays what they leave to their owner: the order of a key, the sorting of keys of
// one order, and the lives of keys and values. These move as bytes when the arrays move them, so
// both are of types that allow that: numbers, and what is only a counted pointer.
//
// Positions are indices from 0 on; every change invalidates them. What needs memory throws
// std::bad_alloc, and has changed nothing then.
#pragma once

#include <concepts>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

#include "framework/Hash.h"
#include "framework/Ptr.h"
#include "framework/Text.h"
#include "framework/detail/OrderedArrays.h"

namespace [[gnu::visibility("default")]] Kiv {
namespace detail {

// Whether an object of this class may be moved as the bytes it is made of (it is trivially
// relocatable): nothing points to it, and it does not point to itself.
template <class T>
inline constexpr bool kMovesAsBytes = std::is_trivially_copyable_v<T>;
template <class T>
requires std::derived_from<T, Text>
inline constexpr bool kMovesAsBytes<T> = true;
template <class T>
inline constexpr bool kMovesAsBytes<Ptr<T>> = true;

// The bytes of an object. Tables whose keys and values are of the same sizes have the same arrays.
template <std::size_t Size, std::size_t Alignment>
struct Bytes {
  alignas(Alignment) std::byte bytes[Size];
};

template <class K, class V>
class EntryTable {
  static_assert(kMovesAsBytes<K> && kMovesAsBytes<V>);
  static_assert(alignof(K) <= kMemAlignment && alignof(V) <= kMemAlignment);

  using Arrays = OrderedArrays<Bytes<sizeof(K), alignof(K)>, Bytes<sizeof(V), alignof(V)>>;

 public:
  static constexpr U32 npos = Arrays::npos;

  // With memory for so many entries. Throws std::bad_alloc.
  explicit EntryTable(U32 capacity) {
    if (!arrays_.reserve(capacity)) throw std::bad_alloc();
  }
  EntryTable(EntryTable&& other) noexcept : arrays_(std::exchange(other.arrays_, Arrays())) {}
  EntryTable& operator=(const EntryTable&) = delete;
  // REQUIRES: it is empty.
  ~EntryTable() { arrays_.release(); }

  // How many entries there are, and how many buckets; 0 buckets if the entries are few.
  U32 size() const { return arrays_.count; }
  U32 buckets() const { return arrays_.shape.dense() ? 0 : arrays_.shape.buckets(); }

  // The entry at a position.
  K& key(U32 at) const { return *std::launder(reinterpret_cast<K*>(&arrays_.first(at))); }
  V& value(U32 at) const {
    return *std::launder(reinterpret_cast<V*>(&arrays_.template other<0>(at)));
  }

  // Search
  // The order that a key has in the table.
  static U32 orderOf(const K& key) { return Arrays::clampOrder(kivOrder(key)); }
  // The position of the entry with this key; npos when absent.
  U32 find(const K& key) const {
    const U32 order = orderOf(key);
    U32 at = arrays_.find(order);
    while (at != npos && !(this->key(at) == key)) {
      ++at;
      if (!arrays_.hasOrder(at, order)) at = npos;
    }
    return at;
  }
  // Whether the entry with this key is at this position, which may be any number.
  bool isAt(U32 at, const K& key) const { return arrays_.occupied(at) && this->key(at) == key; }
  // The position of the first entry from this position on; npos when there is none.
  U32 nextOccupied(U32 at) const { return arrays_.nextOccupied(at); }
  // The position of the first entry after this key, which may be absent; npos when there is none.
  U32 upperBound(const K& key) const {
    const U32 order = orderOf(key);
    U32 at = arrays_.lowerBound(order);
    while (arrays_.hasOrder(at, order) && !(key < this->key(at))) ++at;
    return nextOccupied(at);
  }

  // Change
  // Returns the value of this key's entry, which is added with the given value when absent, and
  // whether it was added. Throws std::bad_alloc.
  std::pair<V*, bool> insert(const K& key, const V& value) {
    const U32 order = orderOf(key);
    U32 at = arrays_.lowerBound(order);
    U32 rank = 0;
    for (; arrays_.hasOrder(at, order); ++at, ++rank) {
      const K& other = this->key(at);
      if (other == key) return {&this->value(at), false};
      if (key < other) break;
    }
    K keyCopy(key);
    V valueCopy(value);
    at = arrays_.insertGap(at, rank, order);
    if (at == npos) throw std::bad_alloc();
    return {&put(at, std::move(keyCopy), std::move(valueCopy)), true};
  }
  // Adds an entry that comes after all others. REQUIRES: it was made with capacity for it.
  void append(K key, V value) noexcept {
    const U32 at = arrays_.insertGap(size(), 0, orderOf(key));
    put(at, std::move(key), std::move(value));
  }
  // Removes the entry at this position, and returns it. The next entry is then at this position or
  // after it. Keeps the memory; see shrink().
  std::pair<K, V> remove(U32 at) noexcept {
    K& key = this->key(at);
    V& value = this->value(at);
    std::pair<K, V> taken(std::move(key), std::move(value));
    std::destroy_at(&key);
    std::destroy_at(&value);
    arrays_.eraseGap(at);
    return taken;
  }
  // Frees memory if few entries are left of many. Mostly, it has nothing to do.
  void shrink() noexcept { (void)arrays_.shrink(); }

 private:
  // Makes the entry at a position that insertGap() has made.
  [[gnu::always_inline]] V& put(U32 at, K&& key, V&& value) noexcept {
    std::construct_at(reinterpret_cast<K*>(&arrays_.first(at)), std::move(key));
    return *std::construct_at(reinterpret_cast<V*>(&arrays_.template other<0>(at)),
                              std::move(value));
  }

  Arrays arrays_;
};

}  // namespace detail
}  // namespace Kiv
