// The pool of small sizes, from which objects and texts come.
//
// Memory is cut in the order in which it is asked for, whatever the sizes: what is made together
// lies together. A piece that is given back hangs at hand, in a chain for its size, and what was
// given back last is handed out first, while it is in the caches.
//
// When many pieces of a size hang at hand, others are put away: each returns to the block that it
// was cut from. When none is left at hand and the block that is being cut has no room, all pieces
// that a block has are brought back, in the order of their addresses; a block to which all pieces
// have returned is cut anew. So after many objects have gone, in any order, those that come next
// lie side by side again, and memory serves other sizes than before.
//
// One thread at a time.
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
  void* take(std::size_t size) noexcept {
    void* const memory = takeAtOnce(size);
    return memory != nullptr ? memory : takeElsewhere(classOf(size));
  }
  // The same where some hangs at hand or the block that is being cut has room; null where not.
  void* takeAtOnce(std::size_t size) noexcept {
    const std::size_t sizeClass = classOf(size);
    Chain& chain = atHand_[sizeClass];
    Piece* const piece = chain.first;
    if (piece == nullptr) return room() < bytesOf(sizeClass) ? nullptr : cut(sizeClass);
    chain.first = piece->next;
    --chain.count;
    return piece;
  }

  // Takes back what was taken as memory of this size.
  void giveBack(void* memory, std::size_t size) noexcept;
  // The same where it can hang at hand; returns whether it does.
  bool giveBackAtHand(void* memory, std::size_t size) noexcept {
    Chain& chain = atHand_[classOf(size)];
    if (chain.count >= chain.most) return false;
    push(chain, static_cast<Piece*>(memory));
    return true;
  }

 private:
  struct Block;

  // What is written into memory that is free.
  struct Piece {
    Piece* next;
    U32 sizeClass;  // of one that is put away
  };
  struct Chain {
    Piece* first = nullptr;
    U32 count = 0;
    U32 most = kAtHand;  // at the last count
  };

  static constexpr std::size_t kClasses = kLargest / kMemAlignment + 1;
  static constexpr std::size_t kLeast = 2;  // the class that a piece fits in
  static constexpr U32 kAtHand = 2048;      // so many may always hang at hand

  // The size in units of alignment; small sizes are rounded up.
  static constexpr std::size_t classOf(std::size_t size) {
    const std::size_t sizeClass = (size + kMemAlignment - 1) / kMemAlignment;
    return sizeClass < kLeast ? kLeast : sizeClass;
  }

  static constexpr std::size_t bytesOf(std::size_t sizeClass) { return sizeClass * kMemAlignment; }

  static void push(Chain& chain, Piece* piece) noexcept {
    piece->next = chain.first;
    chain.first = piece;
    ++chain.count;
  }

  // Memory that has been given back, or else of another block.
  void* takeElsewhere(std::size_t sizeClass) noexcept;
  // Brings memory of this class to hand, where none is, if any has returned to a block; all that it
  // passes is brought along, so that it passes no piece twice.
  void bring(std::size_t sizeClass) noexcept;
  void bringFrom(Block& block) noexcept;
  // Returns a piece to its block.
  void putAway(Piece* piece, std::size_t sizeClass) noexcept;
  // What is left of the block that is being cut, in bytes.
  std::size_t room() const { return static_cast<std::size_t>(end_ - cut_); }
  // Cuts new memory. REQUIRES: there is room.
  void* cut(std::size_t sizeClass) noexcept {
    ++pieces_[sizeClass];
    return std::exchange(cut_, cut_ + bytesOf(sizeClass));
  }
  // Goes on with another block; returns whether there is one.
  bool nextBlock() noexcept;

  std::array<Chain, kClasses> atHand_{};
  std::array<U32, kClasses> pieces_{};  // how many there are, in use or not
  std::array<U32, kClasses> away_{};    // how many of them have returned to their blocks
  Block* withPieces_ = nullptr;         // the blocks to which pieces have returned, in a list
  Block* unused_ = nullptr;             // those to which all have
  // What is left of the block that is being cut, and of the region: how many blocks, from where on.
  char* cut_ = nullptr;
  char* end_ = nullptr;
  char* fresh_ = nullptr;
  std::size_t freshBlocks_ = 0;
};

}  // namespace detail
}  // namespace Kiv
