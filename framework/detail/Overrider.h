// Pointers to virtual handlers, taken apart: which function one comes down to in an object, so that
// a notification which nobody would hear is not queued; and its place, so that what waits is short.
// Pointers and tables of virtual functions stand as the common C++ ABI of the compilers in use lays
// them out.
#pragma once

#include <cstdint>
#include <cstring>

#include "framework/Integers.h"

namespace [[gnu::visibility("default")]] Kiv {
namespace detail {

// What a pointer to a member function is made of.
struct HandlerParts {
  std::uintptr_t pointer;
  std::ptrdiff_t adjustment;
};

// How a virtual handler of an object's first base is told from others, and what it is made of; the
// offset is that in the table of virtual functions, in bytes.
#if defined(__arm__) || defined(__aarch64__)
constexpr bool isVirtual(HandlerParts parts) {
  return parts.adjustment == 1;
}
constexpr HandlerParts virtualAt(std::uintptr_t offset) {
  return {offset, 1};
}
#else
constexpr bool isVirtual(HandlerParts parts) {
  return parts.adjustment == 0 && (parts.pointer & 1) != 0;
}
constexpr HandlerParts virtualAt(std::uintptr_t offset) {
  return {offset | 1, 0};
}
#endif

// The place of a virtual handler of an object's first base in the table of virtual functions: its
// offset in bytes, with the lowest bit set. Less than 2^16; 0 for any other handler.
template <class Handler>
U32 placeOf(Handler handler) {
  HandlerParts parts;
  static_assert(sizeof(parts) == sizeof(handler));
  std::memcpy(&parts, &handler, sizeof(parts));
  const bool near = parts.pointer >> 16 == 0;
  return isVirtual(parts) && near ? static_cast<U32>(parts.pointer) | 1 : 0;
}

// The handler at this place. REQUIRES: not 0.
template <class Handler>
Handler handlerAt(std::uintptr_t place) {
  const HandlerParts parts = virtualAt(place & ~std::uintptr_t{1});
  Handler handler;
  static_assert(sizeof(parts) == sizeof(handler));
  std::memcpy(&handler, &parts, sizeof(parts));
  return handler;
}

// The final overrider of a virtual member function in an object of this class; null where it cannot
// be told.
template <class N, class Handler>
const void* overrider(const N& object, Handler handler) {
  const U32 place = placeOf(handler);
  if (place == 0) return nullptr;
  const char* table = nullptr;
  std::memcpy(&table, static_cast<const void*>(&object), sizeof(table));
  const void* function = nullptr;
  std::memcpy(&function, table + (place & ~U32{1}), sizeof(function));
  return function;
}

// Whether a notifiee leaves this handler as its class was declared with, which is empty. `deaf` is
// one of that class that overrides nothing.
template <class N, class Handler>
bool ignores(const N& notifiee, const N* deaf, Handler handler) {
  const void* function = overrider(notifiee, handler);
  return function != nullptr && deaf != nullptr && function == overrider(*deaf, handler);
}

}  // namespace detail
}  // namespace Kiv
