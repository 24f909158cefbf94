// Which function a virtual handler of an object comes down to, so that a notification which nobody
// would hear is not queued. Read off the object's table of virtual functions, which stands as the
// common C++ ABI of the compilers in use lays it out.
#pragma once

#include <cstdint>
#include <cstring>

namespace [[gnu::visibility("default")]] Kiv {
namespace detail {

// The final overrider of a virtual member function in an object of this class; null where it cannot
// be told.
template <class N, class Handler>
const void* overrider(const N& object, Handler handler) {
  struct {
    std::uintptr_t pointer;
    std::ptrdiff_t adjustment;
  } parts;
  static_assert(sizeof(parts) == sizeof(handler));
  std::memcpy(&parts, &handler, sizeof(parts));
#if defined(__arm__) || defined(__aarch64__)
  const bool isVirtual = parts.adjustment == 1;
  const std::uintptr_t offset = parts.pointer;
#else
  const bool isVirtual = parts.adjustment == 0 && (parts.pointer & 1) != 0;
  const std::uintptr_t offset = parts.pointer - 1;
#endif
  if (!isVirtual) return nullptr;
  const char* table = nullptr;
  std::memcpy(&table, static_cast<const void*>(&object), sizeof(table));
  const void* function = nullptr;
  std::memcpy(&function, table + offset, sizeof(function));
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
