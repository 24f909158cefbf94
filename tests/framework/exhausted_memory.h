// Helps a test to run out of memory. The process that does is one that ends afterwards.
#pragma once

#include <sys/resource.h>

#include <cstddef>
#include <new>
#include <optional>
#include <utility>
#include <vector>

#include "framework/Allocation.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define TEST_SANITIZED true
#elif defined(__has_feature)
#define TEST_SANITIZED (__has_feature(address_sanitizer) || __has_feature(thread_sanitizer))
#else
#define TEST_SANITIZED false
#endif

namespace Memory {

// Whether this is a sanitizer build, whose memory is the system's and which takes its lack as a
// fault of the program.
inline constexpr bool kSanitized = TEST_SANITIZED;

// Lets the process have no more memory of the system while it lives.
class NoMoreMemory {
 public:
  NoMoreMemory() {
    getrlimit(RLIMIT_AS, &before_);
    const rlimit none{0, before_.rlim_max};
    setrlimit(RLIMIT_AS, &none);
  }
  ~NoMoreMemory() { setrlimit(RLIMIT_AS, &before_); }
  NoMoreMemory(const NoMoreMemory&) = delete;
  NoMoreMemory& operator=(const NoMoreMemory&) = delete;

 private:
  rlimit before_{};
};

// Allocated memory, as a linked list.
struct Link {
  Link* next;
};

// All memory of this size that can be had without the system.
inline Link* allocateAllThatIsLeft(std::size_t size) {
  const NoMoreMemory limit;
  Link* first = nullptr;
  while (void* memory = Kiv::kivMemAllocOrNull(size)) first = new (memory) Link{first};
  return first;
}

// Frees it, and returns how much it was.
inline std::size_t freeAll(Link* first, std::size_t size) {
  std::size_t count = 0;
  for (Link* next = nullptr; first != nullptr; first = next, ++count) {
    next = first->next;
    Kiv::kivMemFree(first, size);
  }
  return count;
}

// No memory at all for the framework's objects while it lives: neither of the pool nor of the
// system.
class Exhausted {
 public:
  Exhausted() {
    allocated_.reserve(100);
    // The sizes that are not the pool's, down to the smallest.
    for (std::size_t size = 1 << 20; size >= kLargest; size /= 2) add(size + Kiv::kMemAlignment);
    for (std::size_t size = kLargest; size > 0; size -= Kiv::kMemAlignment) add(size);
    limit_.emplace();
  }
  ~Exhausted() {
    limit_.reset();
    for (const auto& [first, size] : allocated_) freeAll(first, size);
  }
  Exhausted(const Exhausted&) = delete;
  Exhausted& operator=(const Exhausted&) = delete;

 private:
  static constexpr std::size_t kLargest = 512;  // of the pool

  void add(std::size_t size) { allocated_.emplace_back(allocateAllThatIsLeft(size), size); }

  std::vector<std::pair<Link*, std::size_t>> allocated_;
  std::optional<NoMoreMemory> limit_;
};

}  // namespace Memory
