// Kiv::Ptr<T>: the strong, intrusive pointer to a framework object.
//
//   Kiv::Ptr<Region> region = Kiv::make<Region>(name);
//
// One machine word. A copy raises the object's count, and the last Ptr to be destroyed frees the
// object. A const Ptr<T> still gives a T; what may not be changed is held by a Ptr<const T>.
// Nothing but make() allocates or throws.
//
// Threads: as PtrInterface.h says.
#pragma once

#include <cstddef>
#include <functional>
#include <type_traits>
#include <utility>

#include "framework/Exceptions.h"
#include "framework/PtrInterface.h"

namespace [[gnu::visibility("default")]] Kiv {

template <class T>
class Ptr {
 public:
  using element_type = T;

  // Creation
  constexpr Ptr() noexcept = default;
  constexpr Ptr(std::nullptr_t) noexcept {}
  // Shares an object that others hold; null is allowed.
  Ptr(T* object) noexcept : object_(object) { inc(); }
  Ptr(const Ptr& other) noexcept : object_(other.object_) { inc(); }
  Ptr(Ptr&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  template <class U>
  requires std::is_convertible_v<U*, T*> Ptr(const Ptr<U>& other)
  noexcept : object_(other.get()) { inc(); }
  template <class U>
  requires std::is_convertible_v<U*, T*> Ptr(Ptr<U>&& other)
  noexcept : object_(other.release()) {}
  ~Ptr() {
    if (object_ != nullptr) object_->referencesDec();
  }

  // Takes over a reference that is the caller's, such as that of a new object, without counting.
  [[nodiscard]] static Ptr adopt(T* object) noexcept {
    Ptr pointer;
    pointer.object_ = object;
    return pointer;
  }

  // Change
  Ptr& operator=(const Ptr& other) noexcept {
    Ptr(other).swap(*this);
    return *this;
  }
  Ptr& operator=(Ptr&& other) noexcept {
    Ptr(std::move(other)).swap(*this);
    return *this;
  }
  // Exchanges the objects.
  void swap(Ptr& other) noexcept { std::swap(object_, other.object_); }
  // Gives the reference to the caller, who is to adopt() or drop it; is null afterwards.
  [[nodiscard]] T* release() noexcept { return std::exchange(object_, nullptr); }

  // Access
  // The object, borrowed for as long as a Ptr holds it; null when there is none.
  T* get() const noexcept { return object_; }
  T* operator->() const noexcept { return object_; }
  T& operator*() const noexcept { return *object_; }
  explicit operator bool() const noexcept { return object_ != nullptr; }

  friend bool operator==(const Ptr& a, const Ptr& b) noexcept { return a.object_ == b.object_; }
  friend bool operator==(const Ptr& a, std::nullptr_t) noexcept { return a.object_ == nullptr; }

 private:
  void inc() const noexcept {
    if (object_ != nullptr) object_->referencesInc();
  }

  T* object_ = nullptr;
};

// Whether two pointers of different classes hold the same object.
template <class T, class U>
bool operator==(const Ptr<T>& a, const Ptr<U>& b) noexcept {
  return static_cast<const void*>(a.get()) == static_cast<const void*>(b.get());
}

// Makes an object of class T, counts it for its type, and returns the only reference to it. Throws
// std::bad_alloc, and what T's constructor throws; nothing is left behind then.
template <class T, class... Arguments>
[[nodiscard]] Ptr<T> make(Arguments&&... arguments) {
  static_assert(alignof(T) <= kMemAlignment, "objects come from kivMemAlloc()");
  T* object = new T(std::forward<Arguments>(arguments)...);
  const Type& type = static_cast<const PtrInterface*>(object)->fwkType();
  AllocTrackTypeInfo::trackAllocation(type.allocations(), type.size());
  return Ptr<T>::adopt(object);
}

// Returns `pointer`, or throws the range exception "null ValidPtr" when it is null.
template <class T>
[[nodiscard]] Ptr<T> validPtr(Ptr<T> pointer) {
  if (!pointer) throwRangeException("null ValidPtr");
  return pointer;
}

}  // namespace Kiv

template <class T>
struct std::hash<Kiv::Ptr<T>> {
  std::size_t operator()(const Kiv::Ptr<T>& pointer) const noexcept {
    return std::hash<T*>()(pointer.get());
  }
};
