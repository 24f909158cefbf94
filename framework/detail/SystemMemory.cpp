#include "framework/detail/SystemMemory.h"

#include <sys/mman.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>

namespace Kiv {
namespace detail {
namespace {

constexpr std::size_t kHugePage = kPoolRegion;
constexpr std::size_t kMuch = 8 * kPoolRegion;

constinit std::atomic<std::size_t> taken{0};
constinit bool lastIsHuge = false;

// Bytes from this address to the next where a huge page can begin.
std::size_t toHugePage(char* address) {
  return -reinterpret_cast<std::uintptr_t>(address) % kHugePage;
}

void take(std::size_t size) noexcept {
  taken.store(poolMemoryTaken() + size, std::memory_order_relaxed);
}

}  // namespace

char* takePoolRegion() noexcept {
  void* mapped =
      ::mmap(nullptr, 2 * kPoolRegion, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (mapped == MAP_FAILED) return nullptr;
  char* memory = static_cast<char*>(mapped);
  const std::size_t before = toHugePage(memory);
  char* region = memory + before;
  (void)::munmap(memory, before);  // refused, without harm, where it is nothing
  (void)::munmap(region + kPoolRegion, kPoolRegion - before);
  lastIsHuge = poolMemoryTaken() >= kMuch;
  (void)::madvise(region, kPoolRegion, lastIsHuge ? MADV_HUGEPAGE : MADV_NOHUGEPAGE);
  if (lastIsHuge) take(kPoolRegion);
  return region;
}

void usePoolRegion(std::size_t size) noexcept {
  if (!lastIsHuge) take(size);
}

std::size_t poolMemoryTaken() noexcept {
  return taken.load(std::memory_order_relaxed);
}

void* takeLargeMemory(std::size_t size) noexcept {
  char* memory = static_cast<char*>(std::malloc(size));
  if (memory == nullptr || size < 2 * kHugePage) return memory;
  const std::size_t before = toHugePage(memory);
  const std::size_t whole = (size - before) / kHugePage * kHugePage;
  (void)::madvise(memory + before, whole, MADV_HUGEPAGE);
  return memory;
}

}  // namespace detail
}  // namespace Kiv
