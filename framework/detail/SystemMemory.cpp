#include "framework/detail/SystemMemory.h"

#include <sys/mman.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>

namespace Kiv {
namespace detail {
namespace {

constexpr std::size_t kHugePage = kPoolRegion;
// With so much memory, regions are huge pages.
constexpr std::size_t kHugeFrom = 8 * kPoolRegion;

constinit std::atomic<std::size_t> used{0};
constinit bool lastIsHuge = false;

// Bytes from this address to the next one that is aligned to a huge page.
std::size_t toHugePage(char* address) {
  return -reinterpret_cast<std::uintptr_t>(address) % kHugePage;
}

void addUsed(std::size_t size) noexcept {
  used.store(poolMemory() + size, std::memory_order_relaxed);
}

}  // namespace

char* mapPoolRegion() noexcept {
  void* mapped =
      ::mmap(nullptr, 2 * kPoolRegion, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (mapped == MAP_FAILED) return nullptr;
  char* memory = static_cast<char*>(mapped);
  const std::size_t before = toHugePage(memory);
  char* region = memory + before;
  (void)::munmap(memory, before);  // for 0 bytes, refused without harm
  (void)::munmap(region + kPoolRegion, kPoolRegion - before);
  lastIsHuge = poolMemory() >= kHugeFrom;
  (void)::madvise(region, kPoolRegion, lastIsHuge ? MADV_HUGEPAGE : MADV_NOHUGEPAGE);
  if (lastIsHuge) addUsed(kPoolRegion);
  return region;
}

void countPoolMemory(std::size_t size) noexcept {
  if (!lastIsHuge) addUsed(size);
}

std::size_t poolMemory() noexcept {
  return used.load(std::memory_order_relaxed);
}

void* allocateLarge(std::size_t size) noexcept {
  char* memory = static_cast<char*>(std::malloc(size));
  if (memory == nullptr || size < 2 * kHugePage) return memory;
  const std::size_t before = toHugePage(memory);
  const std::size_t whole = (size - before) / kHugePage * kHugePage;
  (void)::madvise(memory + before, whole, MADV_HUGEPAGE);
  return memory;
}

}  // namespace detail
}  // namespace Kiv
