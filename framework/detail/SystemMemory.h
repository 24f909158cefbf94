// Memory of the system for the framework, in huge pages where there is much of it: objects that lie
// all over the memory cost a walk through the page tables each where pages are small.
#pragma once

#include <cstddef>

namespace Kiv {
namespace detail {

// So many bytes has a region of the pool of small sizes, and is aligned to as many: those of a huge
// page.
inline constexpr std::size_t kPoolRegion = 2 * 1024 * 1024;

// Returns a region for the pool, which never gives it back; null when there is no memory. It is a
// huge page when the pool has so many that this one is but little more, which also spares the
// faults of its small pages; else it takes memory as it is used. One thread at a time.
char* takePoolRegion() noexcept;

// Says that so many bytes more of the region that was taken last are used.
void usePoolRegion(std::size_t size) noexcept;

// How many bytes the pool's regions have taken of the system. Any thread.
std::size_t poolMemoryTaken() noexcept;

// Returns what std::malloc() returns for this size, which is for std::free() to take back. Any
// thread.
void* takeLargeMemory(std::size_t size) noexcept;

}  // namespace detail
}  // namespace Kiv
