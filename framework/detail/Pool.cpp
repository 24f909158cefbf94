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

constexpr std::size_t kBlockSize = 16 * 1024;
constexpr std::size_t kBlocks = kPoolRegion / kBlockSize;
constexpr std::size_t kLine = 64;  // of a cache
// At hand is one of so many parts of all pieces of a size, at most.
constexpr U32 kMany = 16;
// So many blocks are searched for one that is to be cut anew.
constexpr int kSearched = 8;

}  // namespace

// The record of a block. All records of a region stand at its beginning, where the first block is
// that much smaller.
struct Pool::Block {
  Block* next = nullptr;      // in the list of those with pieces
  Piece* returned = nullptr;  // the pieces
  U32 bytes = 0;              // of them
  U32 rest = 0;               // bytes that were too few for a piece

  static Block& of(void* piece) {
    const auto at = reinterpret_cast<std::uintptr_t>(piece) % kPoolRegion;
    auto* records = reinterpret_cast<Block*>(static_cast<char*>(piece) - at);
    return *std::launder(records + at / kBlockSize);
  }
  char* begin() {
    const auto at = reinterpret_cast<std::uintptr_t>(this) % kPoolRegion;
    return reinterpret_cast<char*>(this) - at + at / sizeof(Block) * kBlockSize;
  }
};

void* Pool::takeElsewhere(std::size_t sizeClass) noexcept {
  bring(sizeClass);
  if (atHand_[sizeClass].first == nullptr && !nextBlock()) return nullptr;
  return takeAtOnce(bytesOf(sizeClass));
}

void Pool::giveBack(void* memory, std::size_t size) noexcept {
  const std::size_t sizeClass = classOf(size);
  Chain& chain = atHand_[sizeClass];
  auto* piece = static_cast<Piece*>(memory);
  chain.most = std::max(kAtHand, pieces_[sizeClass] / kMany);
  if (chain.count < chain.most) {
    push(chain, piece);
  } else {
    putAway(piece, sizeClass);
  }
}

void Pool::bring(std::size_t sizeClass) noexcept {
  const Chain& chain = atHand_[sizeClass];
  for (int searched = 0; chain.first == nullptr && withPieces_ != nullptr; ++searched) {
    if (away_[sizeClass] == 0 && searched >= kSearched) break;
    Block& block = *withPieces_;
    withPieces_ = block.next;
    if (block.bytes + block.rest < kBlockSize) {
      bringFrom(block);
      continue;
    }
    for (const Piece* piece = block.returned; piece != nullptr; piece = piece->next) {
      --pieces_[piece->sizeClass];
      --away_[piece->sizeClass];
    }
    block = {.next = std::exchange(unused_, &block)};
  }
}

void Pool::bringFrom(Block& block) noexcept {
  constexpr std::size_t kPlaces = kBlockSize / kMemAlignment;
  std::array<U64, kPlaces / 64> standing{};
  char* const begin = block.begin();
  // They hang in any order: without this, each would be waited for.
  for (std::size_t at = 0; at < kBlockSize; at += kLine) __builtin_prefetch(begin + at, 1);
  for (Piece* piece = block.returned; piece != nullptr; piece = piece->next) {
    const auto at = static_cast<std::size_t>(reinterpret_cast<char*>(piece) - begin);
    standing[at / kMemAlignment / 64] |= U64{1} << at / kMemAlignment % 64;
  }
  block.returned = nullptr;
  block.bytes = 0;
  // The last comes first, as what hangs last is handed out first.
  for (std::size_t word = standing.size(); word-- > 0;) {
    for (U64 bits = standing[word]; bits != 0;) {
      const auto bit = static_cast<std::size_t>(std::bit_width(bits)) - 1;
      bits ^= U64{1} << bit;
      auto* piece = reinterpret_cast<Piece*>(begin + (word * 64 + bit) * kMemAlignment);
      --away_[piece->sizeClass];
      push(atHand_[piece->sizeClass], piece);
    }
  }
}

void Pool::putAway(Piece* piece, std::size_t sizeClass) noexcept {
  Block& block = Block::of(piece);
  if (block.returned == nullptr) block.next = std::exchange(withPieces_, &block);
  ++away_[sizeClass];
  piece->sizeClass = static_cast<U32>(sizeClass);
  piece->next = std::exchange(block.returned, piece);
  block.bytes += static_cast<U32>(bytesOf(sizeClass));
}

bool Pool::nextBlock() noexcept {
  if (unused_ == nullptr && freshBlocks_ == 0) {
    char* const region = takePoolRegion();
    if (region == nullptr) return false;
    fresh_ = region;
    freshBlocks_ = kBlocks;
  }
  if (cut_ != end_) Block::of(cut_).rest = static_cast<U32>(room());
  if (unused_ != nullptr) {
    cut_ = unused_->begin();
    end_ = cut_ + kBlockSize;
    unused_ = std::exchange(unused_->next, nullptr);
    return true;
  }
  usePoolRegion(kBlockSize);
  cut_ = fresh_;
  end_ = fresh_ + kBlockSize;
  if (freshBlocks_ == kBlocks) {
    for (std::size_t i = 0; i < kBlocks; ++i, cut_ += sizeof(Block)) new (cut_) Block;
  }
  fresh_ = end_;
  --freshBlocks_;
  return true;
}

}  // namespace detail
}  // namespace Kiv
