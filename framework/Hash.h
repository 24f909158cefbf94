// Hashes of keys, and the order in which keyed collections keep their members.
//
// A type of keys needs ==, <, and a member function hash(); integers and strings are known here.
// The order of a key is its hash with the bits reversed: its upper bits select the bucket, so when
// the number of buckets doubles, each bucket is split in place and the order stays.
#pragma once

#include <concepts>
#include <functional>
#include <string_view>

#include "framework/Integers.h"

namespace [[gnu::visibility("default")]] Kiv {

// The bits of `v` in the opposite order.
constexpr U32 bitReverse(U32 v) {
  v = ((v >> 1) & 0x55555555U) | ((v & 0x55555555U) << 1);
  v = ((v >> 2) & 0x33333333U) | ((v & 0x33333333U) << 2);
  v = ((v >> 4) & 0x0f0f0f0fU) | ((v & 0x0f0f0f0fU) << 4);
  return __builtin_bswap32(v);
}

// The hash of text; the same for every type of string, and 0 for the empty one.
inline U32 hashText(std::string_view text) {
  return text.empty() ? 0 : static_cast<U32>(std::hash<std::string_view>()(text));
}

// The hash of a key. Integers of eight bits hash such that collections keyed by one (the levels of
// a binding) iterate in ascending order; other integers hash to themselves, which distributes
// consecutive ids over all buckets.
template <class K>
U32 kivHash(const K& key) {
  if constexpr (std::same_as<K, U8>) {
    return bitReverse(static_cast<U32>(key) << 24);
  } else if constexpr (std::integral<K>) {
    return static_cast<U32>(key);
  } else if constexpr (std::convertible_to<const K&, std::string_view>) {
    return hashText(key);
  } else {
    return key.hash();
  }
}

// The order of a key: members are in ascending order of this, those of equal orders in order of
// their keys. A type of keys that stores its order has a member function order().
template <class K>
U32 kivOrder(const K& key) {
  if constexpr (std::same_as<K, U8>) {
    return static_cast<U32>(key) << 24;
  } else if constexpr (requires { key.order(); }) {
    return key.order();
  } else {
    return bitReverse(kivHash(key));
  }
}

}  // namespace Kiv
