// The table under the larger sets: entries of a key and a value.
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

// Whether an object of this class can go on elsewhere as the bytes that it is made of: where
// nothing knows its place, as with numbers and with what is but a counted pointer.
template <class T>
inline constexpr bool kBytesCanBeMoved = std::is_trivially_copyable_v<T>;
template <class T>
requires std::derived_from<T, Text>
inline constexpr bool kBytesCanBeMoved<T> = true;
template <class T>
inline constexpr bool kBytesCanBeMoved<Ptr<T>> = true;

// Room for an object. Sets whose keys and values take the same room have the same arrays.
template <std::size_t Size, std::size_t Alignment>
struct Room {
  alignas(Alignment) std::byte bytes[Size];
};

// Places are numbers from 0 on; each change makes those that were taken before it void.
template <class K, class V>
class EntryTable : public OrderedArrays<Room<sizeof(K), alignof(K)>, Room<sizeof(V), alignof(V)>> {
  static_assert(kBytesCanBeMoved<K> && kBytesCanBeMoved<V>);

  using Arrays = OrderedArrays<Room<sizeof(K), alignof(K)>, Room<sizeof(V), alignof(V)>>;

 public:
  using Arrays::buckets;
  using Arrays::kNowhere;
  using Arrays::nextFrom;
  using Arrays::shrink;

  // Room for so many entries at least. Throws std::bad_alloc.
  explicit EntryTable(U32 count) { Arrays::reserve(count); }
  EntryTable(EntryTable&& other) noexcept = default;
  // REQUIRES: it is empty.
  ~EntryTable() { Arrays::freeBlock(); }

  // The entry at a place.
  K& key(U32 at) const { return *std::launder(reinterpret_cast<K*>(&Arrays::primary(at))); }
  V& value(U32 at) const {
    return *std::launder(reinterpret_cast<V*>(&Arrays::template other<0>(at)));
  }

  // The order that a key has in the table.
  static U32 orderOf(const K& key) { return Arrays::usable(kivOrder(key)); }

  // The place of the entry with this key; kNowhere when absent.
  U32 find(const K& key) const {
    const U32 order = orderOf(key);
    U32 at = Arrays::firstOf(order);
    while (at != kNowhere && !(this->key(at) == key)) {
      ++at;
      if (!Arrays::isOf(order, at)) at = kNowhere;
    }
    return at;
  }
  // Whether the entry of this key stands at this place, which may be none.
  bool stands(const K& key, U32 at) const { return Arrays::stands(at) && this->key(at) == key; }
  // The place of the first entry that stands after one of this key, which may be absent.
  U32 after(const K& key) const {
    const U32 order = orderOf(key);
    U32 at = Arrays::firstNotBelow(order);
    while (Arrays::isOf(order, at) && !(key < this->key(at))) ++at;
    return nextFrom(at);
  }

  // Returns the value of this key's entry, put in with the given one when absent, and whether it
  // was put in. Throws std::bad_alloc; nothing has changed then.
  std::pair<V*, bool> insert(const K& key, const V& value) {
    const U32 order = orderOf(key);
    U32 at = Arrays::firstNotBelow(order);
    U32 passed = 0;
    for (; Arrays::isOf(order, at); ++at, ++passed) {
      const K& other = this->key(at);
      if (other == key) return {&this->value(at), false};
      if (key < other) break;
    }
    return {&put(at, passed, order, K(key), V(value)), true};
  }
  // Puts in an entry that stands behind all others. REQUIRES: there is room, without a gap.
  void append(K key, V value) noexcept {
    const U32 order = orderOf(key);
    put(this->size(), 0, order, std::move(key), std::move(value));
  }
  // Takes out the entry at this place, and returns it; see OrderedArrays::close().
  std::pair<K, V> remove(U32 at) noexcept {
    K& key = this->key(at);
    V& value = this->value(at);
    std::pair<K, V> taken(std::move(key), std::move(value));
    std::destroy_at(&key);
    std::destroy_at(&value);
    Arrays::close(at);
    return taken;
  }

 private:
  [[gnu::always_inline]] V& put(U32 at, U32 passed, U32 order, K&& key, V&& value) {
    at = Arrays::open(at, passed, order);
    std::construct_at(reinterpret_cast<K*>(&Arrays::primary(at)), std::move(key));
    return *std::construct_at(reinterpret_cast<V*>(&Arrays::template other<0>(at)),
                              std::move(value));
  }
};

}  // namespace detail
}  // namespace Kiv
