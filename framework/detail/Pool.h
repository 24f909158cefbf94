// The pool of small sizes, from which objects and texts come: a slab allocator with a free list for
// each size class.
//
// The terms. A region is 2 MiB of the system's memory, the size of a huge page; it is divided into
// slabs of 16 KiB. Chunks are what is handed out: their sizes are multiples of eight bytes, the
// size classes, and one slab has chunks of any class. The headers of all slabs of a region are at
// its beginning.
//
// Where a chunk comes from, in this order:
//
//   1. From the free list of its size class, last in, first out: what was freed last is in the
//      processor's caches.
//   2. From the slab in use, by bump allocation: the next bytes, whatever the class. So what is
//      allocated together is side by side.
//   3. From the slabs to which chunks have returned (below): all the chunks of one slab go to their
//      free lists, in the order of their addresses. A slab to which all its chunks have returned is
//      empty, and serves any class again.
//   4. From an empty slab, the rest of the region, or a new region, which become the slab in use.
//
// A freed chunk goes to its free list. One of a class that has 2,048 free chunks already, and a
// sixteenth of all its chunks, returns to its slab instead. So after many objects have been freed,
// in any order, the next ones are side by side again, and memory of one class serves others.
//
// Invariants: a chunk is in use, in a free list, or in the list of its slab; a slab is in use for
// bump allocation, in one of the two lists below, or all its chunks are in use or in free lists.
//
// Cost: allocation and deallocation are a few instructions inline, steps 1 and 2; step 3 reads a
// slab's chunks once for each time they returned, and searches no more than eight slabs in vain.
// The pool keeps its regions. Nothing throws; null says that the system has no memory.
//
// Threads: one at a time; see Allocation.cpp for the lock.
#pragma once

#include <array>
#include <cstddef>
#include <utility>

#include "framework/Allocation.h"
#include "framework/Integers.h"

namespace Kiv {
namespace detail {

class Pool {
 public:
  // The largest size that it has.
  static constexpr std::size_t kLargest = 512;

  constexpr Pool() = default;
  Pool(const Pool&) = delete;
  Pool& operator=(const Pool&) = delete;

  // Sizes are in bytes, from 1 to kLargest; memory is aligned to kMemAlignment.

  // Returns memory of this size; null when there is none.
  void* allocate(std::size_t size) noexcept {
    void* const memory = allocateFast(size);
    return memory != nullptr ? memory : allocateSlow(classOf(size));
  }
  // The same from the free list or the slab in use; null when both are empty.
  void* allocateFast(std::size_t size) noexcept {
    const std::size_t sizeClass = classOf(size);
    FreeList& list = freeLists_[sizeClass];
    Chunk* const chunk = list.first;
    if (chunk == nullptr) return bumpLeft() < bytesOf(sizeClass) ? nullptr : bump(sizeClass);
    list.first = chunk->next;
    --list.count;
    return chunk;
  }

  // Frees what was allocated with this size.
  void free(void* memory, std::size_t size) noexcept;
  // The same if the free list takes it; returns whether it did.
  bool freeFast(void* memory, std::size_t size) noexcept {
    FreeList& list = freeLists_[classOf(size)];
    if (list.count >= list.most) return false;
    push(list, static_cast<Chunk*>(memory));
    return true;
  }

 private:
  struct Slab;

  // What is written into a free chunk.
  struct Chunk {
    Chunk* next;
    U32 sizeClass;  // in the list of a slab
  };
  struct FreeList {
    Chunk* first = nullptr;
    U32 count = 0;
    U32 most = kMinFree;  // how many it takes; updated when it is full
  };

  static constexpr std::size_t kClasses = kLargest / kMemAlignment + 1;
  static constexpr std::size_t kLeastClass = 2;  // in which a Chunk fits
  static constexpr U32 kMinFree = 2048;          // so many a free list always takes

  // The size in units of alignment; small sizes are rounded up.
  static constexpr std::size_t classOf(std::size_t size) {
    const std::size_t sizeClass = (size + kMemAlignment - 1) / kMemAlignment;
    return sizeClass < kLeastClass ? kLeastClass : sizeClass;
  }
  static constexpr std::size_t bytesOf(std::size_t sizeClass) { return sizeClass * kMemAlignment; }

  static void push(FreeList& list, Chunk* chunk) noexcept {
    chunk->next = list.first;
    list.first = chunk;
    ++list.count;
  }

  // Steps 3 and 4.
  void* allocateSlow(std::size_t sizeClass) noexcept;
  // Refills the free list of this class, which is empty, from the slabs to which chunks have
  // returned. Those of other classes that it meets go to their free lists too, so that none is
  // searched twice.
  void refill(std::size_t sizeClass) noexcept;
  void refillFrom(Slab& slab) noexcept;
  void returnToSlab(Chunk* chunk, std::size_t sizeClass) noexcept;

  // What is left of the slab in use, in bytes.
  std::size_t bumpLeft() const { return static_cast<std::size_t>(bumpEnd_ - bump_); }
  // Bump allocation. REQUIRES: enough is left.
  void* bump(std::size_t sizeClass) noexcept {
    ++chunks_[sizeClass];
    return std::exchange(bump_, bump_ + bytesOf(sizeClass));
  }
  // Makes another slab the one in use; returns whether there is one.
  bool nextSlab() noexcept;

  // By size class.
  std::array<FreeList, kClasses> freeLists_{};
  std::array<U32, kClasses> chunks_{};    // how many there are, in use or not
  std::array<U32, kClasses> returned_{};  // how many of them have returned to their slabs
  // Slabs, in lists: those to which chunks have returned, and those to which all have.
  Slab* partial_ = nullptr;
  Slab* empty_ = nullptr;
  // What is left of the slab in use, and of the last region: where it goes on, how many slabs.
  char* bump_ = nullptr;
  char* bumpEnd_ = nullptr;
  char* region_ = nullptr;
  std::size_t regionSlabs_ = 0;
};

}  // namespace detail
}  // namespace Kiv
