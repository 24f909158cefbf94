#include "framework/Allocation.h"

#include <algorithm>
#include <cstdlib>
#include <mutex>
#include <new>

#include "framework/detail/Pool.h"
#include "framework/detail/SystemMemory.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KIV_SYSTEM_ALLOCATOR 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define KIV_SYSTEM_ALLOCATOR 1
#endif
#endif
#ifndef KIV_SYSTEM_ALLOCATOR
#define KIV_SYSTEM_ALLOCATOR 0
#endif

namespace [[gnu::visibility("default")]] Kiv {

bool enableThreadSafePointers = false;

namespace {

constinit detail::Pool pool;
constinit std::atomic_flag poolBusy = ATOMIC_FLAG_INIT;
// The types that are listed, each once, in a linked list.
constinit std::mutex listing;
constinit std::atomic<AllocTrackTypeInfo*> listedTypes{nullptr};

// Locks the pool if there are other threads: a spin lock, as it is held for moments.
class PoolLock {
 public:
  PoolLock() : locked_(enableThreadSafePointers) {
    if (!locked_) return;
    while (poolBusy.test_and_set(std::memory_order_acquire)) {
      while (poolBusy.test(std::memory_order_relaxed)) {
      }
    }
  }
  ~PoolLock() {
    if (locked_) poolBusy.clear(std::memory_order_release);
  }
  PoolLock(const PoolLock&) = delete;
  PoolLock& operator=(const PoolLock&) = delete;

 private:
  bool locked_;
};

// The largest size that comes from the pool.
constexpr std::size_t kLargestPooled = KIV_SYSTEM_ALLOCATOR ? 0 : detail::Pool::kLargest;

bool pooled(std::size_t size) {
  return size != 0 && size <= kLargestPooled;
}

[[gnu::noinline]] void* allocateSlow(std::size_t size) noexcept {
  if (!pooled(size)) return detail::allocateLarge(size);
  const PoolLock lock;
  return pool.allocate(size);
}

[[gnu::noinline]] void freeSlow(void* memory, std::size_t size) noexcept {
  if (!pooled(size) || memory == nullptr) {
    std::free(memory);
    return;
  }
  const PoolLock lock;
  pool.free(memory, size);
}

void add(std::atomic<U64>& counter, U64 amount) noexcept {
  if (enableThreadSafePointers) {
    counter.fetch_add(amount, std::memory_order_relaxed);
  } else {
    counter.store(counter.load(std::memory_order_relaxed) + amount, std::memory_order_relaxed);
  }
}

}  // namespace

void* kivMemAllocOrNull(std::size_t size) noexcept {
  if (pooled(size) && !enableThreadSafePointers) [[likely]] {
    if (void* memory = pool.allocateFast(size)) [[likely]]
      return memory;
  }
  return allocateSlow(size);
}

void* kivMemAlloc(std::size_t size) {
  void* memory = kivMemAllocOrNull(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

void kivMemFree(void* memory, std::size_t size) noexcept {
  if (pooled(size) && memory != nullptr && !enableThreadSafePointers) [[likely]] {
    if (pool.freeFast(memory, size)) [[likely]]
      return;
  }
  freeSlow(memory, size);
}

std::size_t kivMemTaken() noexcept {
  return detail::poolMemory();
}

void AllocTrackTypeInfo::trackAllocation(AllocTrackTypeInfo& type, std::size_t size) noexcept {
  add(type.liveCount_, 1);
  add(type.liveBytes_, size);
  if (type.listed_.load(std::memory_order_relaxed)) return;
  const std::lock_guard lock(listing);
  if (type.listed_.exchange(true)) return;
  type.next_ = listedTypes.load(std::memory_order_relaxed);
  listedTypes.store(&type);
}

void AllocTrackTypeInfo::trackDeallocation(AllocTrackTypeInfo& type, std::size_t size) noexcept {
  add(type.liveCount_, ~U64{0});
  add(type.liveBytes_, ~static_cast<U64>(size) + 1);
}

std::vector<AllocTrackRecord> AllocTrackTypeInfo::report() {
  std::vector<AllocTrackRecord> records;
  for (const AllocTrackTypeInfo* type = listedTypes.load(); type != nullptr; type = type->next_) {
    records.push_back({type->typeName(), type->liveCount(), type->liveBytes()});
  }
  std::sort(records.begin(), records.end(),
            [](const auto& a, const auto& b) { return a.typeName < b.typeName; });
  return records;
}

}  // namespace Kiv
