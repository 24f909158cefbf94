#include "framework/detail/Pool.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <new>
#include <utility>

#include "framework/detail/SystemMemory.h"

namespace Kiv {
namespace detail {
namespace {

constexpr std::size_t kSlabSize = 16 * 1024;
constexpr std::size_t kSlabs = kPoolRegion / kSlabSize;  // in a region
constexpr std::size_t kCacheLine = 64;
// A free list takes one of so many of the chunks of its class.
constexpr U32 kFreeFraction = 16;
// So many slabs are searched for an empty one.
constexpr int kMaxSearch = 8;

}  // namespace

// The header of a slab. All headers of a region are at its beginning, where the first slab is that
// much smaller.
struct Pool::Slab {
  Slab* next = nullptr;       // in one of the pool's two lists
  Chunk* returned = nullptr;  // the chunks that have returned, in any order
  U32 bytes = 0;              // of these
  U32 unused = 0;             // at the end, too few for the chunk that was wanted

  static Slab& of(void* chunk) {
    const auto at = reinterpret_cast<std::uintptr_t>(chunk) % kPoolRegion;
    auto* headers = reinterpret_cast<Slab*>(static_cast<char*>(chunk) - at);
    return *std::launder(headers + at / kSlabSize);
  }
  char* begin() {
    const auto at = reinterpret_cast<std::uintptr_t>(this) % kPoolRegion;
    return reinterpret_cast<char*>(this) - at + at / sizeof(Slab) * kSlabSize;
  }
};

void* Pool::allocateSlow(std::size_t sizeClass) noexcept {
  refill(sizeClass);
  if (freeLists_[sizeClass].first == nullptr && !nextSlab()) return nullptr;
  return allocateFast(bytesOf(sizeClass));
}

void Pool::free(void* memory, std::size_t size) noexcept {
  const std::size_t sizeClass = classOf(size);
  FreeList& list = freeLists_[sizeClass];
  auto* chunk = static_cast<Chunk*>(memory);
  list.most = std::max(kMinFree, chunks_[sizeClass] / kFreeFraction);
  if (list.count < list.most) {
    push(list, chunk);
  } else {
    returnToSlab(chunk, sizeClass);
  }
}

void Pool::refill(std::size_t sizeClass) noexcept {
  const FreeList& list = freeLists_[sizeClass];
  for (int searched = 0; list.first == nullptr && partial_ != nullptr; ++searched) {
    if (returned_[sizeClass] == 0 && searched >= kMaxSearch) break;
    Slab& slab = *partial_;
    partial_ = slab.next;
    if (slab.bytes + slab.unused < kSlabSize) {
      refillFrom(slab);
      continue;
    }
    for (const Chunk* chunk = slab.returned; chunk != nullptr; chunk = chunk->next) {
      --chunks_[chunk->sizeClass];
      --returned_[chunk->sizeClass];
    }
    slab = {.next = std::exchange(empty_, &slab)};
  }
}

void Pool::refillFrom(Slab& slab) noexcept {
  constexpr std::size_t kPositions = kSlabSize / kMemAlignment;
  std::array<U64, kPositions / 64> free{};
  char* const begin = slab.begin();
  // The list is in any order: without this, each chunk would be a cache miss to wait for.
  for (std::size_t at = 0; at < kSlabSize; at += kCacheLine) __builtin_prefetch(begin + at, 1);
  for (Chunk* chunk = slab.returned; chunk != nullptr; chunk = chunk->next) {
    const auto at = static_cast<std::size_t>(reinterpret_cast<char*>(chunk) - begin);
    free[at / kMemAlignment / 64] |= U64{1} << at / kMemAlignment % 64;
  }
  slab.returned = nullptr;
  slab.bytes = 0;
  // The last address first, as what is pushed last is allocated first.
  for (std::size_t word = free.size(); word-- > 0;) {
    for (U64 bits = free[word]; bits != 0;) {
      const auto bit = static_cast<std::size_t>(std::bit_width(bits)) - 1;
      bits ^= U64{1} << bit;
      auto* chunk = reinterpret_cast<Chunk*>(begin + (word * 64 + bit) * kMemAlignment);
      --returned_[chunk->sizeClass];
      push(freeLists_[chunk->sizeClass], chunk);
    }
  }
}

void Pool::returnToSlab(Chunk* chunk, std::size_t sizeClass) noexcept {
  Slab& slab = Slab::of(chunk);
  if (slab.returned == nullptr) slab.next = std::exchange(partial_, &slab);
  ++returned_[sizeClass];
  chunk->sizeClass = static_cast<U32>(sizeClass);
  chunk->next = std::exchange(slab.returned, chunk);
  slab.bytes += static_cast<U32>(bytesOf(sizeClass));
}

bool Pool::nextSlab() noexcept {
  if (empty_ == nullptr && regionSlabs_ == 0) {
    char* const region = mapPoolRegion();
    if (region == nullptr) return false;
    region_ = region;
    regionSlabs_ = kSlabs;
  }
  if (bump_ != bumpEnd_) Slab::of(bump_).unused = static_cast<U32>(bumpLeft());
  if (empty_ != nullptr) {
    bump_ = empty_->begin();
    bumpEnd_ = bump_ + kSlabSize;
    empty_ = std::exchange(empty_->next, nullptr);
    return true;
  }
  countPoolMemory(kSlabSize);
  bump_ = region_;
  bumpEnd_ = region_ + kSlabSize;
  if (regionSlabs_ == kSlabs) {
    for (std::size_t i = 0; i < kSlabs; ++i, bump_ += sizeof(Slab)) new (bump_) Slab;
  }
  region_ = bumpEnd_;
  --regionSlabs_;
  return true;
}

}  // namespace detail
}  // namespace Kiv
