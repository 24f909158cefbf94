// Ordered linear probing on parallel arrays: the hash table under the keyed collections.
//
// The technique: open addressing with linear probing, in which the entries are kept in ascending
// order of their hashes, as in an ordered hash table (Robin Hood hashing whose home buckets are the
// upper bits of the hash). Keys, here called orders, and values are a structure of arrays.
//
// An entry has an order, its key's bit-reversed hash, and a part in each column. The orders are one
// array and so is each column, all in one block of memory:
//
//   [ first column, downwards | orders | occupied bits, if probed | second column | ... ]
//                             ^ block
//
// A look-up reads orders, which are side by side, and an entry only if its order is the one sought.
// The first column grows downwards from the orders, so that both are found without the capacity.
//
// Up to kDense entries are dense: at the positions 0 to count - 1, searched one by one. More are
// probed: there are 2^log2 buckets, which are positions, and some positions more after the last one
// (the overflow). What holds then:
//
//   - Entries are in ascending order. Equal orders are sorted by the owner.
//   - An entry is at its bucket, or after it with no gap between: its displacement.
//   - At a gap, and only there, the order is kGap and the bit is clear.
//   - The last position is a gap, so a search needs no test for the end.
//
// So a search compares a group of orders from the bucket on at once (OrderGroup.h), and an
// iteration visits the entries in order, from bit to bit.
//
// Cost: a search, an insertion and a deletion are constant on average, up to a load of 13/16.
// Insertion and deletion move what is displaced. A collection that mirrors another one is filled in
// ascending order: while it grows, its entries are packed into the lowest buckets, so a search that
// does not end in its group gallops (steps that double), and the insertion itself moves nothing.
//
// Nothing here throws: what needs memory returns whether there was any, and otherwise leaves the
// entries as they are. Positions are indices from 0 on; every change invalidates them.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <memory>
#include <new>
#include <tuple>
#include <type_traits>
#include <utility>

#include "framework/Allocation.h"
#include "framework/Integers.h"
#include "framework/detail/OrderGroup.h"

namespace [[gnu::visibility("default")]] Kiv {
namespace detail {

// How large the arrays are, in one byte.
class Shape {
 public:
  static constexpr U32 kDense = 16;  // the largest capacity of dense arrays

  // Dense arrays of the smallest capacity.
  constexpr Shape() = default;
  // The smallest arrays for so many entries.
  static constexpr Shape forCount(U32 count) {
    if (count <= kDense) return {0, (std::max(count, U32{1}) - 1) / kDenseStep};
    Shape shape{5, 0};
    while (shape.maxCount() < count) shape = shape.doubled();
    return shape;
  }
  // Those with twice the buckets, and those with more overflow.
  constexpr Shape doubled() const { return {log2() + 1, 0}; }
  constexpr Shape extended() const { return {log2(), step() + 1}; }

  constexpr bool dense() const { return log2() == 0; }
  // The binary logarithm of the number of buckets, and this number. REQUIRES: not dense.
  constexpr U32 log2() const { return bits_ & 31; }
  constexpr U32 buckets() const { return U32{1} << log2(); }
  // The number of positions.
  constexpr U32 capacity() const {
    return dense() ? kDenseStep * (step() + 1) : buckets() + (U32{8} << (4 * step()));
  }
  // The number of entries that these arrays are made for.
  constexpr U32 maxCount() const { return dense() ? capacity() : buckets() / 16 * 13; }
  // The bucket of an order. REQUIRES: not dense.
  constexpr U32 bucketOf(U32 order) const { return order >> (32 - log2()); }

 private:
  static constexpr U32 kDenseStep = 4;  // from one capacity of dense arrays to the next

  constexpr Shape(U32 log2, U32 step) : bits_(static_cast<U8>(log2 | step << 5)) {}
  // Which capacity of dense arrays, and how much overflow of probed ones.
  constexpr U32 step() const { return bits_ >> 5; }

  U8 bits_ = 0;  // the lower five are the logarithm, 0 for dense arrays; the others are the step
};

// The operations on a block, a count and a shape, which are the owner's to keep: as an object of
// this class, or in fields of its own, from which it makes one for each operation. A copy is the
// same arrays, not new ones. The owner makes and ends the parts of an entry; here they are bytes.
template <class First, class... Others>
struct OrderedArrays {
  static_assert(std::is_trivially_copyable_v<First> &&
                (std::is_trivially_copyable_v<Others> && ...));

  void* block = nullptr;  // where the orders begin; null when there are no arrays yet
  U32 count = 0;          // the number of entries
  Shape shape;

  // No position.
  static constexpr U32 npos = ~U32{0};
  // The number of positions whose bits are one word.
  static constexpr U32 kWord = 64;

  // The highest order marks gaps, so an entry that has it counts as one of the order below.
  static constexpr U32 clampOrder(U32 order) { return std::min(order, kGap - 1); }

  // Access: the parts of the entry at a position, in the first column and in another one.
  First& first(U32 at) const { return *(static_cast<First*>(block) - 1 - at); }
  template <std::size_t I>
  auto& other(U32 at) const {
    return column<I>(shape.capacity())[at];
  }

  // Search
  // The first position whose entry has this order; npos when there is none.
  U32 find(U32 order) const {
    if (!shape.dense()) return findProbed(order);
    const U32* orders = this->orders();
    for (U32 at = 0; at < count; ++at) {
      if (orders[at] == order) return at;
    }
    return npos;
  }
  // The first position whose entry's order is not less than this one. If it is a gap, or the end of
  // dense arrays, an entry of this order would be there.
  U32 lowerBound(U32 order) const {
    if (!shape.dense()) return lowerBoundProbed(order);
    const U32* orders = this->orders();
    U32 at = 0;
    while (at < count && orders[at] < order) ++at;
    return at;
  }
  // Whether there is an entry of this order at this position, which may be one after the last.
  bool hasOrder(U32 at, U32 order) const {
    return (!shape.dense() || at < count) && orders()[at] == order;
  }

  // Iteration
  // All entries are before this position.
  U32 end() const { return shape.dense() ? count : shape.capacity(); }
  // Which of the 64 positions from this one on are occupied: a bit for each, the first one's the
  // lowest. REQUIRES: `from` is a multiple of 64, and less than end() or 0.
  U64 occupiedBits(U32 from) const {
    return shape.dense() ? (U64{1} << count) - 1 : bits(shape.capacity())[from / kWord];
  }
  // Whether there is an entry at this position, which may be any number.
  bool occupied(U32 at) const { return at < end() && (shape.dense() || orders()[at] != kGap); }
  // The first occupied position from this one on; npos when there is none.
  U32 nextOccupied(U32 at) const {
    if (shape.dense()) return at < count ? at : npos;
    return nextOccupiedProbed(*this, at);
  }

  // Change
  // Adds an entry of this order, whose parts the owner then makes, before what is at this position:
  // that of lowerBound(), after `rank` others of the same order. Returns its position, which is
  // another one if the arrays grew; npos when there is no memory, and no entry has changed then.
  // The block and the shape may be new in either case. REQUIRES: there is a block.
  [[nodiscard]] U32 insertGap(U32 at, U32 rank, U32 order) noexcept {
    if (!shape.dense()) return insertGapProbed(at, rank, order);
    if (count == shape.capacity()) {
      if (!reserve(count + 1)) return npos;
      if (!shape.dense()) return insertGapProbed(lowerBound(order) + rank, rank, order);
    }
    moveEntries(at, at + 1, count - at);
    orders()[at] = order;
    ++count;
    return at;
  }
  // Removes the entry at this position, whose parts the owner has ended. The next entry is then at
  // this position or after it. Keeps the arrays as large as they are; see shrink().
  void eraseGap(U32 at) noexcept {
    if (!shape.dense()) {
      eraseGapProbed(at);
      return;
    }
    --count;
    moveEntries(at + 1, at, count - at);
  }
  // Makes arrays for so many entries; returns whether there was memory.
  [[nodiscard]] bool reserve(U32 entries) noexcept { return rehash(Shape::forCount(entries)); }
  // Moves to smaller arrays if few positions are occupied and there is memory for them; returns
  // whether it did. Mostly, it has nothing to do.
  bool shrink() noexcept {
    return (shape.dense() ? count <= shape.capacity() / 4
                          : count <= shape.buckets() / 16 && (count & (count - 1)) == 0) &&
           shrinkNow();
  }
  // Frees the block, if there is one. REQUIRES: the owner has ended all parts.
  void release() noexcept {
    if (block != nullptr) kivMemFree(blockBegin(shape.capacity()), bytes(shape.capacity()));
    block = nullptr;
  }

 private:
  static constexpr U32 kGroup = kOrderGroup;
  static constexpr U32 kMoveSingly = 16;       // up to so many entries are moved one by one
  static constexpr U32 kMaxDisplacement = 32;  // after shrinking
  static constexpr U32 kGap = ~U32{0};         // the order at a gap

  // The block. A group of orders may begin at any position of probed arrays.
  static constexpr std::array<std::size_t, sizeof...(Others)> kWidths = {sizeof(Others)...};
  static constexpr std::size_t rounded(std::size_t bytes) {
    return (bytes + kMemAlignment - 1) & ~(kMemAlignment - 1);
  }
  static constexpr std::size_t ordersAt(std::size_t capacity) {
    return rounded(capacity * sizeof(First));
  }
  // From where the orders begin.
  static constexpr std::size_t bitsAt(std::size_t capacity) {
    return rounded((capacity > Shape::kDense ? capacity + kGroup : capacity) * sizeof(U32));
  }
  static constexpr std::size_t columnAt(std::size_t column, std::size_t capacity) {
    std::size_t at = bitsAt(capacity);
    if (capacity > Shape::kDense) at += (capacity + kWord - 1) / kWord * sizeof(U64);
    for (std::size_t i = 0; i < column; ++i) at += rounded(capacity * kWidths[i]);
    return at;
  }
  static constexpr std::size_t bytes(std::size_t capacity) {
    return ordersAt(capacity) + columnAt(sizeof...(Others), capacity);
  }
  std::byte* bytesAt(std::size_t at) const { return static_cast<std::byte*>(block) + at; }
  void* blockBegin(U32 capacity) const {
    return static_cast<std::byte*>(block) - ordersAt(capacity);
  }
  U32* orders() const { return static_cast<U32*>(block); }
  U64* bits(U32 capacity) const {
    return std::launder(reinterpret_cast<U64*>(bytesAt(bitsAt(capacity))));
  }
  template <std::size_t I>
  auto* column(U32 capacity) const {
    using Part = std::tuple_element_t<I, std::tuple<Others...>>;
    return std::launder(reinterpret_cast<Part*>(bytesAt(columnAt(I, capacity))));
  }

  // Calls each(i) with the number of each column but the first.
  static constexpr void eachOther(auto&& each) {
    [&]<std::size_t... I>(std::index_sequence<I...>) {
      (each(std::integral_constant<std::size_t, I>()), ...);
    }
    (std::index_sequence_for<Others...>());
  }
  // Moves so many entries from one position to another, as bytes.
  [[gnu::always_inline]] void moveEntries(U32 from, U32 to, U32 entries) noexcept {
    if (entries == 0) return;
    const U32 capacity = shape.capacity();
    moveBytes(orders() + to, orders() + from, entries);
    moveBytes(&first(to + entries - 1), &first(from + entries - 1), entries);
    eachOther(
        [&](auto i) { moveBytes(column<i>(capacity) + to, column<i>(capacity) + from, entries); });
  }
  template <class T>
  static void moveBytes(T* to, const T* from, std::size_t entries) noexcept {
    std::memmove(static_cast<void*>(to), static_cast<const void*>(from), entries * sizeof(T));
  }

  // Probed arrays. A whole group is always compared: a loop over single orders, which may end
  // anywhere, would cost more than the comparisons that it spares.
  U32 findProbed(U32 order) const {
    const U32 at = shape.bucketOf(order);
    const U32* group = orders() + at;
    __builtin_prefetch(&first(at));  // where the entry mostly is
    if (const U32 equal = equalInGroup(group, order); equal != 0) {
      return at + static_cast<U32>(std::countr_zero(equal));
    }
    return group[kGroup - 1] >= order ? npos : findAfter(*this, order, at + kGroup - 1);
  }
  U32 lowerBoundProbed(U32 order) const {
    const U32 at = shape.bucketOf(order);
    const U32 less = lessInGroup(orders() + at, order);
    if (less == (U32{1} << kGroup) - 1) return gallop(*this, order, at + kGroup - 1);
    return at + static_cast<U32>(std::countr_one(less));
  }
  // Functions that are not inlined take the arrays as a value, which is passed in registers.
  [[gnu::noinline]] static U32 findAfter(OrderedArrays arrays, U32 order, U32 below) {
    const U32 at = gallop(arrays, order, below);
    return arrays.orders()[at] == order ? at : npos;
  }
  // The lower bound, which is after this position, whose order is less; by galloping search.
  [[gnu::noinline]] static U32 gallop(OrderedArrays arrays, U32 order, U32 below) {
    const U32* orders = arrays.orders();
    const U32 end = arrays.shape.capacity();
    // If all entries are packed from the first position on, this is the last of them.
    if (arrays.count - 1 > below && orders[arrays.count - 1] < order) below = arrays.count - 1;
    U32 leap = kGroup;
    while (leap < end - below && orders[below + leap] < order) {
      below += leap;
      leap *= 2;
    }
    const U32* to = orders + std::min(below + leap, end);
    return static_cast<U32>(std::lower_bound(orders + below + 1, to, order) - orders);
  }
  [[gnu::noinline]] static U32 nextOccupiedProbed(OrderedArrays arrays, U32 at) {
    const U32 end = arrays.shape.capacity();
    if (at >= end) return npos;
    U32 from = at & ~(kWord - 1);
    U64 left = arrays.occupiedBits(from) >> (at - from) << (at - from);
    while (left == 0) {
      from += kWord;
      if (from >= end) return npos;
      left = arrays.occupiedBits(from);
    }
    return from + static_cast<U32>(std::countr_zero(left));
  }
  // The first gap from this position on. REQUIRES: there is one.
  U32 nextGap(U32 at) const {
    const U64* bits = this->bits(shape.capacity());
    U32 from = at / kWord;
    U64 gaps = ~bits[from] >> at % kWord << at % kWord;
    while (gaps == 0) gaps = ~bits[++from];
    return from * kWord + static_cast<U32>(std::countr_zero(gaps));
  }
  void clear() noexcept {
    const U32 capacity = shape.capacity();
    std::memset(orders(), 0xff, bitsAt(capacity));
    std::memset(bits(capacity), 0, columnAt(0, capacity) - bitsAt(capacity));
  }

  [[gnu::noinline]] U32 insertGapProbed(U32 at, U32 rank, U32 order) noexcept {
    // Without memory for more buckets, the load rises.
    if (count >= shape.maxCount() && rehash(shape.doubled())) at = lowerBound(order) + rank;
    const U32 gap = nextGap(at);
    // With more overflow, all entries keep their positions.
    if (gap == shape.capacity() - 1 && !rehash(shape.extended())) return npos;
    shiftUp(at, gap);
    bits(shape.capacity())[gap / kWord] |= U64{1} << gap % kWord;
    orders()[at] = order;
    ++count;
    return at;
  }
  // Moves the entries from this position up to a gap by one position.
  void shiftUp(U32 at, U32 gap) noexcept {
    if (gap - at > kMoveSingly) {
      moveEntries(at, at + 1, gap - at);
      return;
    }
    U32* const orders = this->orders();
    const U32 capacity = shape.capacity();
    for (U32 to = gap; to > at; --to) {
      orders[to] = orders[to - 1];
      first(to) = first(to - 1);
      eachOther([&](auto i) { column<i>(capacity)[to] = column<i>(capacity)[to - 1]; });
    }
  }
  // Backward-shift deletion.
  [[gnu::noinline]] void eraseGapProbed(U32 at) noexcept {
    // What is displaced because of this entry ends at a gap, or at an entry in its own bucket.
    U32* const orders = this->orders();
    U32 end = at + 1;
    while (orders[end] != kGap && shape.bucketOf(orders[end]) < end) ++end;
    moveEntries(at + 1, at, end - at - 1);
    orders[end - 1] = kGap;
    bits(shape.capacity())[(end - 1) / kWord] &= ~(U64{1} << (end - 1) % kWord);
    --count;
  }

  // Calls each(position) for every entry, in order.
  template <class Each>
  void forEachPosition(Each each) const {
    const U32 end = this->end();
    for (U32 from = 0; from < end; from += kWord) {
      for (U64 left = occupiedBits(from); left != 0; left &= left - 1) {
        each(from + static_cast<U32>(std::countr_zero(left)));
      }
    }
  }

  // How the entries would be in probed arrays of another shape: the position of the last one, and
  // the largest displacement.
  struct Fit {
    U32 last = 0;
    U32 displacement = 0;
  };
  Fit fit(Shape probed) const {
    Fit fit;
    U32 to = 0;
    forEachPosition([&](U32 at) {
      const U32 bucket = probed.bucketOf(orders()[at]);
      to = std::max(to, bucket);
      fit.displacement = std::max(fit.displacement, to - bucket);
      fit.last = to++;
    });
    return fit;
  }

  [[gnu::noinline]] bool shrinkNow() noexcept {
    const Shape smaller = Shape::forCount(shape.dense() ? 2 * count : 4 * count);
    if (smaller.capacity() >= shape.capacity()) return false;
    // What is left may be close together, if the others were removed in order.
    if (!smaller.dense() && fit(smaller).displacement > kMaxDisplacement) return false;
    return rehash(smaller);
  }

  // Moves all entries to arrays of this shape, with more overflow where they need it; returns
  // whether there was memory. REQUIRES: there is enough capacity.
  [[gnu::noinline]] bool rehash(Shape to) noexcept {
    if (!to.dense()) {
      const U32 last = fit(to).last;
      while (last + 2 > to.capacity()) to = to.extended();
    }
    const U32 capacity = to.capacity();
    void* memory = kivMemAllocOrNull(bytes(capacity));
    if (memory == nullptr) return false;
    OrderedArrays moved{static_cast<std::byte*>(memory) + ordersAt(capacity), count, to};
    if (!to.dense()) moved.clear();
    if (count != 0) moveAllTo(moved);
    release();
    *this = moved;
    return true;
  }
  // REQUIRES: there is an entry, and so a block.
  void moveAllTo(OrderedArrays& into) const noexcept {
    const U32 capacity = into.shape.capacity();
    const U32 ownCapacity = shape.capacity();
    if (shape.dense() && into.shape.dense()) {
      moveBytes(into.orders(), orders(), count);
      moveBytes(&into.first(count - 1), &first(count - 1), count);
      eachOther([&](auto i) {
        moveBytes(into.template column<i>(capacity), column<i>(ownCapacity), count);
      });
      return;
    }
    const Shape probed = into.shape;
    U64* const bits = into.bits(capacity);
    U32 to = 0;
    forEachPosition([&](U32 at) {
      const U32 order = orders()[at];
      if (!probed.dense()) {
        to = std::max(to, probed.bucketOf(order));
        bits[to / kWord] |= U64{1} << to % kWord;
      }
      into.orders()[to] = order;
      moveBytes(&into.first(to), &first(at), 1);
      eachOther([&](auto i) {
        moveBytes(into.template column<i>(capacity) + to, column<i>(ownCapacity) + at, 1);
      });
      ++to;
    });
  }
};

}  // namespace detail
}  // namespace Kiv
