// Memory of the system for the framework, in huge pages where there is much of it: objects that lie
// all over the memory cost a walk through the page tables each where pages are small.
#pragma once

#include <cstddef>

namespace Kiv {
namespace detail {

struct MemoryBlock {
  char* begin = nullptr;
  std::size_t size = 0;  // bytes
};

// Returns a block for the pool of small sizes to cut up, which never gives it back; of no size when
// there is no memory. It is a huge page when the pool has so many that this one is but little more,
// which also spares the faults of its small pages; else it is much smaller. One thread at a time.
MemoryBlock takePoolBlock() noexcept;

// How many bytes takePoolBlock() has returned. Any thread.
std::size_t poolMemoryTaken() noexcept;

// Returns what std::malloc() returns for this size, which is for std::free() to take back. Any
// thread.
void* takeLargeMemory(std::size_t size) noexcept;

}  // namespace detail
}  // namespace Kiv
