// Memory of the system for the framework: as huge pages where there is much of it, since each
// access to objects all over many small pages would cost a walk through the page tables.
#pragma once

#include <cstddef>

namespace Kiv {
namespace detail {

// The size of a region of the pool in bytes, and its alignment: those of a huge page.
inline constexpr std::size_t kPoolRegion = 2 * 1024 * 1024;

// Maps a region for the pool, which never unmaps it; null when there is no memory. The first
// sixteen MiB of regions are of small pages, which the system provides as they are used; later ones
// are huge pages, which also spares their page faults. One thread at a time.
char* mapPoolRegion() noexcept;

// Counts so many bytes of the last region as used. One thread at a time.
void countPoolMemory(std::size_t size) noexcept;

// The bytes of the system's memory that the pool's regions use. Any thread.
std::size_t poolMemory() noexcept;

// As std::malloc(), and for std::free() to free; large sizes are of huge pages. Any thread.
void* allocateLarge(std::size_t size) noexcept;

}  // namespace detail
}  // namespace Kiv
