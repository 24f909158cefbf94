#include "framework/detail/SystemMemory.h"

#include <sys/mman.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>

namespace Kiv {
namespace detail {
namespace {

constexpr std::size_t kSmallBlock = 256 * 1024;
constexpr std::size_t kHugePage = 2 * 1024 * 1024;
constexpr std::size_t kMuch = 8 * kHugePage;

constinit std::atomic<std::size_t> taken{0};

char* mapped(std::size_t size) noexcept {
  void* memory = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  return memory == MAP_FAILED ? nullptr : static_cast<char*>(memory);
}

// Bytes from this address to the next where a huge page can begin.
std::size_t toHugePage(const char* address) {
  return -reinterpret_cast<std::uintptr_t>(address) % kHugePage;
}

// A range that can be a huge page, and is one where the system has one.
char* mappedHuge() noexcept {
  char* memory = mapped(2 * kHugePage);
  if (memory == nullptr) return nullptr;
  const std::size_t before = toHugePage(memory);
  char* begin = memory + before;
  (void)::munmap(memory, before);  // refused, without harm, where it is nothing
  (void)::munmap(begin + kHugePage, kHugePage - before);
  (void)::madvise(begin, kHugePage, MADV_HUGEPAGE);
  return begin;
}

}  // namespace

MemoryBlock takePoolBlock() noexcept {
  const std::size_t before = poolMemoryTaken();
  const bool huge = before >= kMuch;
  const std::size_t size = huge ? kHugePage : kSmallBlock;
  char* begin = huge ? mappedHuge() : mapped(size);
  if (begin == nullptr) return {};
  taken.store(before + size, std::memory_order_relaxed);
  return {begin, size};
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
