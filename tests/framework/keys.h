// Keys and members for the tests of the keyed collections.
#pragma once

#include <ostream>
#include <random>
#include <string>
#include <type_traits>
#include <utility>

#include "framework/HashMap.h"
#include "framework/Text.h"

namespace Keys {

// A key of which several hash alike: as many hashes as Hashes, at most.
template <Kiv::U32 Hashes>
struct Clashing {
  int number = 0;
  Kiv::U32 hash() const { return static_cast<Kiv::U32>(number) % Hashes * 0x9e3779b1U; }
  friend bool operator==(const Clashing& a, const Clashing& b) { return a.number == b.number; }
  friend bool operator<(const Clashing& a, const Clashing& b) { return a.number < b.number; }
  friend std::ostream& operator<<(std::ostream& stream, const Clashing& key) {
    return stream << key.number;
  }
};
using AllAlike = Clashing<1>;
using FewHashes = Clashing<5>;

// The key for a number, of each type that the tests use.
template <class K>
K keyOf(int number) {
  if constexpr (std::is_integral_v<K>) {
    return static_cast<K>(number);
  } else if constexpr (std::is_same_v<K, Kiv::Name> || std::is_same_v<K, Kiv::String>) {
    return K("key-" + std::to_string(number));
  } else {
    return K{number};
  }
}

// The order of keys in a collection.
template <class K>
struct InOrder {
  bool operator()(const K& a, const K& b) const {
    const Kiv::U32 orderA = Kiv::kivOrder(a);
    const Kiv::U32 orderB = Kiv::kivOrder(b);
    return orderA != orderB ? orderA < orderB : a < b;
  }
};

// A member with nothing but its key.
template <class K>
class Item final : public Kiv::Member {
 public:
  static constexpr std::string_view kTypeName = "Test::Item";
  explicit Item(K key) : key_(std::move(key)) {}
  const K& fwkKey() const { return key_; }
  const Kiv::Type& fwkType() const override { return Kiv::typeRecord<Item>; }

 private:
  const K key_;
};

// What each of the types tested is called in the names of the tests.
class TypeNames {
 public:
  template <class K>
  static std::string GetName(int) {
    if constexpr (std::is_same_v<K, Kiv::U8>) return "U8";
    if constexpr (std::is_same_v<K, Kiv::U16>) return "U16";
    if constexpr (std::is_same_v<K, Kiv::U32>) return "U32";
    if constexpr (std::is_same_v<K, Kiv::Name>) return "Name";
    if constexpr (std::is_same_v<K, Kiv::String>) return "String";
    if constexpr (std::is_same_v<K, AllAlike>) return "AllAlike";
    if constexpr (std::is_same_v<K, FewHashes>) return "FewHashes";
  }
};

}  // namespace Keys
