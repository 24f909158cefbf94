// Memory of the framework's objects, and the tracker that says what is alive.
//
// kivMemAlloc() allocates small sizes from a pool (framework/detail/Pool.h), which keeps its memory
// for the life of the process; other sizes come from malloc(). In a sanitizer build, all sizes do,
// so that the sanitizer sees each of them.
//
// Threads: any, once enableThreadSafePointers is set, and a spin lock guards the pool then; else
// the activity thread only. The counters of the tracker may be read on any thread at any time.
#pragma once

#include <atomic>
#include <cstddef>
#include <string_view>
#include <vector>

#include "framework/Integers.h"

namespace [[gnu::visibility("default")]] Kiv {

// Whether reference counts, the allocator and its tracker are safe to use from several threads at
// once. Process-wide; set it before a second thread touches an object, and do not reset it.
extern bool enableThreadSafePointers;

// The alignment of allocated memory in bytes: that of pointers and numbers, not more.
inline constexpr std::size_t kMemAlignment = 8;

// Returns `size` bytes, aligned to kMemAlignment. Throws std::bad_alloc when there is no memory.
[[nodiscard]] void* kivMemAlloc(std::size_t size);

// As kivMemAlloc(), but returns null when there is no memory.
[[nodiscard]] void* kivMemAllocOrNull(std::size_t size) noexcept;

// Frees what kivMemAlloc(size) returned; null is allowed. REQUIRES: `size` is the same.
void kivMemFree(void* memory, std::size_t size) noexcept;

// The bytes of the system's memory that the pool has, in use or not; malloc() counts the rest. 0 in
// a sanitizer build. Any thread.
std::size_t kivMemTaken() noexcept;

// What the tracker knows about one type of object.
struct AllocTrackRecord {
  std::string_view typeName;  // as the class names itself
  U64 liveCount;              // objects alive now
  U64 liveBytes;              // their own size, without what they hold elsewhere
};

// The live count and bytes of one type. One for each type, of static storage; a type is listed from
// its first allocation on.
class AllocTrackTypeInfo {
 public:
  // REQUIRES: the name is of static storage.
  constexpr explicit AllocTrackTypeInfo(std::string_view typeName) : typeName_(typeName) {}
  AllocTrackTypeInfo(const AllocTrackTypeInfo&) = delete;
  AllocTrackTypeInfo& operator=(const AllocTrackTypeInfo&) = delete;

  // Counts one object of this type that was made, with its size in bytes.
  static void trackAllocation(AllocTrackTypeInfo& type, std::size_t size) noexcept;
  // Counts one that was destroyed.
  static void trackDeallocation(AllocTrackTypeInfo& type, std::size_t size) noexcept;

  // Every type that was ever allocated, sorted by name.
  static std::vector<AllocTrackRecord> report();

  // The name.
  std::string_view typeName() const { return typeName_; }
  // Objects alive now.
  U64 liveCount() const { return liveCount_.load(std::memory_order_relaxed); }
  // Their own size, without what they hold elsewhere.
  U64 liveBytes() const { return liveBytes_.load(std::memory_order_relaxed); }

 private:
  std::string_view typeName_;
  std::atomic<U64> liveCount_{0};
  std::atomic<U64> liveBytes_{0};
  std::atomic<bool> listed_{false};
  AllocTrackTypeInfo* next_ = nullptr;
};

}  // namespace Kiv
