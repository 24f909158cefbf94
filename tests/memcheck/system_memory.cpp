// Gives the library's objects memory of the system, one piece each, in place of its own blocks:
// then valgrind sees the end of each. Preloaded, it takes the place of the library's allocator.
#include <cstdlib>
#include <new>

#include "framework/Allocation.h"

namespace [[gnu::visibility("default")]] Kiv {

void* kivMemAllocOrNull(std::size_t size) noexcept {
  return std::malloc(size);
}

void* kivMemAlloc(std::size_t size) {
  void* memory = std::malloc(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

void kivMemFree(void* memory, std::size_t /*size*/) noexcept {
  std::free(memory);
}

}  // namespace Kiv
