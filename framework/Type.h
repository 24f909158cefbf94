// Type records: the name, size and allocation counters of each class of objects.
#pragma once

#include "framework/Allocation.h"

namespace [[gnu::visibility("default")]] Kiv {

// The record of one class of objects: its name as tools report it, and its allocation counters.
// There is one for each class, of static storage; two records are the same type when their names
// are equal.
class Type {
 public:
  // REQUIRES: the name is of static storage.
  constexpr Type(std::string_view name, std::size_t size) : size_(size), allocations_(name) {}

  // The name, as tools report it.
  std::string_view name() const { return allocations_.typeName(); }
  // The size of one object, in bytes.
  std::size_t size() const { return size_; }
  // How many objects of the class are alive.
  AllocTrackTypeInfo& allocations() const { return allocations_; }

  friend bool operator==(const Type& a, const Type& b) { return &a == &b || a.name() == b.name(); }

 private:
  std::size_t size_;
  mutable AllocTrackTypeInfo allocations_;
};

// The record of class T, which names itself with a constant `kTypeName`.
template <class T>
inline constinit const Type typeRecord{T::kTypeName, sizeof(T)};

}  // namespace Kiv
