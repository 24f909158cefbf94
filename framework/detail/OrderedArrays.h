// The arrays under the keyed collections and the larger sets: entries in one total order.
//
// An entry has an order, which is its key's bit-reversed hash, and one part in each column. Entries
// stand in ascending order (equal orders by key, which is the owner's affair). The orders and each
// column have an array, all in one block of memory: a look-up reads orders that lie side by side,
// and looks at an entry only when its order is the one sought. The first column runs downwards from
// where the orders begin, so that either is found without asking how large the arrays are.
//
// Up to kDense entries stand without a gap. More stand with gaps: the upper bits of the order
// select the bucket, a place in the arrays, and an entry stands there or as soon behind as those
// that come before it allow. So there is no gap between an entry and its bucket, and walking the
// arrays walks all entries in order, whatever their size. One bit for each place says whether an
// entry stands there: a walk goes from bit to bit, and never guesses. Behind the last bucket there
// are some places more, of which the last stays empty and ends every search.
//
// What mirrors another collection is filled in its order, which is that of both. While it grows,
// its entries crowd in the buckets of the lowest orders: so a search that does not end at once goes
// on by leaps, and the entry that comes next finds its place free.
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

// Places are numbers from 0 on; each change makes those that were taken before it void. The parts
// of an entry are made and ended by the owner, which derives from this; here they are bytes.
template <class First, class... Others>
class OrderedArrays {
  static_assert(std::is_trivially_copyable_v<First> &&
                (std::is_trivially_copyable_v<Others> && ...));

 public:
  // No place.
  static constexpr U32 kNowhere = ~U32{0};

  OrderedArrays(const OrderedArrays&) = delete;
  OrderedArrays& operator=(const OrderedArrays&) = delete;

  // How many entries there are.
  U32 size() const { return count_; }

 protected:
  // Without a block.
  OrderedArrays() = default;
  // Takes over what another has; that one may only end then.
  OrderedArrays(OrderedArrays&& other) noexcept
      : block_(std::exchange(other.block_, nullptr)),
        count_(std::exchange(other.count_, 0)),
        form_(other.form_),
        note_(other.note_) {}
  ~OrderedArrays() = default;

  // The highest order marks gaps, so an entry that has it counts as one of the order before.
  static constexpr U32 usable(U32 order) { return std::min(order, kGap - 1); }

  // Whether the entries stand without a gap.
  bool dense() const { return log2() == 0; }
  // How many buckets there are; 0 while the entries stand without a gap.
  U32 buckets() const { return dense() ? 0 : U32{1} << log2(); }

  // The parts of the entry at a place, in the first column and in another one.
  First& primary(U32 at) const { return *(static_cast<First*>(block_) - 1 - at); }
  template <std::size_t I>
  auto& other(U32 at) const {
    return column<I>(capacity())[at];
  }

  // Where a search stops at the latest; a gap stops it among gaps.
  U32 searchEnd() const { return dense() ? count_ : kNowhere; }
  // The first place whose entry's order is not less than this one; it may be a gap, which is where
  // such an entry would stand.
  U32 firstNotBelow(U32 order) const {
    if (!dense()) return firstNotBelowAmongGaps(order);
    const U32* orders = this->orders();
    U32 at = 0;
    while (at < count_ && orders[at] < order) ++at;
    return at;
  }
  // The first place whose entry has this order; kNowhere when there is none.
  U32 firstOf(U32 order) const {
    if (!dense()) return firstOfAmongGaps(order);
    const U32* orders = this->orders();
    for (U32 at = 0; at < count_; ++at) {
      if (orders[at] == order) return at;
    }
    return kNowhere;
  }
  // Whether an entry of this order stands at this place, which may be one behind the last.
  bool isOf(U32 order, U32 at) const { return at < searchEnd() && orders()[at] == order; }

  // So many places there are to walk over.
  U32 walkEnd() const { return dense() ? count_ : capacity(); }
  // Where entries stand among the 64 places from this one on, which is a multiple of 64 and less
  // than walkEnd(), or 0.
  U64 standing(U32 from) const {
    return dense() ? (U64{1} << count_) - 1 : bits(capacity())[from / kWord];
  }
  // Whether an entry stands at this place, which may be none.
  bool stands(U32 at) const { return at < walkEnd() && (dense() || orders()[at] != kGap); }
  // The first place from this one on where an entry stands; kNowhere when there is none.
  U32 nextFrom(U32 at) const {
    if (dense()) return at < count_ ? at : kNowhere;
    return nextAmongGaps(at);
  }

  // Makes room for an entry of this order, where the owner then makes its parts: before what stands
  // at this place, which is that of firstNotBelow() behind `passed` others of the same order.
  // Returns its place, which larger arrays may have changed. Throws std::bad_alloc; nothing has
  // changed then.
  U32 open(U32 at, U32 passed, U32 order) {
    if (!dense()) return openAmongGaps(at, passed, order);
    if (count_ == capacity()) {
      reserve(count_ + 1);
      if (!dense()) return openAmongGaps(firstNotBelow(order) + passed, passed, order);
    }
    relocate(at, at + 1, count_ - at);
    orders()[at] = order;
    ++count_;
    return at;
  }
  // Takes away the entry at this place, whose parts the owner has ended. What comes next then
  // stands there, or behind. The arrays stay as large as they are; see shrink().
  void close(U32 at) noexcept {
    if (!dense()) {
      closeAmongGaps(at);
      return;
    }
    --count_;
    relocate(at + 1, at, count_ - at);
  }

  // So many entries find room before the arrays grow.
  U32 room() const { return mostIn(shape()); }
  // Makes room for so many entries at least. REQUIRES: there is no block, or there are arrays in
  // it. Throws std::bad_alloc; nothing has changed then.
  void reserve(U32 count) { moveTo(shapeFor(count)); }
  // The same, without an exception: returns whether there was memory.
  bool reserved(U32 count) noexcept { return moved(shapeFor(count)); }
  // Lets go of memory of which but little is in use, where the new can be had. Does nothing most of
  // the time.
  void shrink() {
    if (dense() ? count_ <= capacity() / 4
                : count_ <= buckets() / 16 && (count_ & (count_ - 1)) == 0) {
      shrinkNow();
    }
  }
  void freeBlock() {
    if (block_ != nullptr) kivMemFree(blockBegin(capacity()), bytes(capacity()));
    block_ = nullptr;
  }

  // Where the orders begin in the block: the first column before them; behind them, among gaps the
  // bits, and the other columns. An owner that has no arrays may keep something else here.
  void* block_ = nullptr;
  U32 count_ = 0;
  // The shape: the lower five bits are the log2, the upper three the step. Forms from kOwners on
  // are the owner's where it has no arrays, in steps of kOwnersStep, up to three of them.
  U32 form_ : 8 = 0;
  U32 note_ : 24 = 0;  // for the owner

  static constexpr U32 kOwners = 4 << 5;
  static constexpr U32 kOwnersStep = 1 << 5;
  static constexpr U32 kWord = 64;  // so many bits stand in one

 private:
  // How large the arrays are. Without a gap: log2 is 0, and the step says how many places there
  // are. With gaps: 2^log2 buckets, and the step says how many places follow.
  struct Shape {
    U32 log2 = 0;
    U32 step = 0;
  };
  static constexpr U32 kDense = 16;
  static constexpr U32 kDenseStep = 4;
  static constexpr U32 kGroup = kOrderGroup;
  static constexpr U32 kFew = 16;       // are moved one by one
  static constexpr U32 kFar = 32;       // from its bucket; farther is slow
  static constexpr U32 kGap = ~U32{0};  // the order of a place where no entry stands

  static constexpr U32 capacityOf(Shape shape) {
    if (shape.log2 == 0) return kDenseStep * (shape.step + U32{1});
    return (U32{1} << shape.log2) + (U32{8} << (4 * shape.step));
  }
  // So many entries are as many as a table of this shape is to hold.
  static constexpr U32 mostIn(Shape shape) {
    return shape.log2 == 0 ? capacityOf(shape) : (U32{1} << shape.log2) / 16 * 13;
  }
  static constexpr Shape shapeFor(U32 count) {
    if (count <= kDense) return {0, (std::max(count, U32{1}) - 1) / kDenseStep};
    Shape shape{5, 0};
    while (mostIn(shape) < count) ++shape.log2;
    return shape;
  }
  U32 log2() const { return form_ & 31; }
  U32 step() const { return form_ >> 5; }
  Shape shape() const { return {log2(), step()}; }
  U32 capacity() const { return capacityOf(shape()); }

  static U32 bucketOf(U32 order, Shape shape) {
    return shape.log2 == 0 ? 0 : order >> (32 - shape.log2);
  }

  // The block. Among gaps, a group of orders may begin at any place.
  static constexpr std::array<std::size_t, sizeof...(Others)> kWidths = {sizeof(Others)...};
  static constexpr std::size_t rounded(std::size_t bytes) {
    return (bytes + kMemAlignment - 1) & ~(kMemAlignment - 1);
  }
  static constexpr std::size_t ordersAt(std::size_t capacity) {
    return rounded(capacity * sizeof(First));
  }
  // From where the orders begin.
  static constexpr std::size_t bitsAt(std::size_t capacity) {
    return rounded((capacity > kDense ? capacity + kGroup : capacity) * sizeof(U32));
  }
  static constexpr std::size_t columnAt(std::size_t column, std::size_t capacity) {
    std::size_t at = bitsAt(capacity);
    if (capacity > kDense) at += (capacity + kWord - 1) / kWord * sizeof(U64);
    for (std::size_t i = 0; i < column; ++i) at += rounded(capacity * kWidths[i]);
    return at;
  }
  static constexpr std::size_t bytes(std::size_t capacity) {
    return ordersAt(capacity) + columnAt(sizeof...(Others), capacity);
  }
  std::byte* bytesAt(std::size_t at) const { return static_cast<std::byte*>(block_) + at; }
  void* blockBegin(U32 capacity) const {
    return static_cast<std::byte*>(block_) - ordersAt(capacity);
  }
  U32* orders() const { return static_cast<U32*>(block_); }
  U64* bits(U32 capacity) const {
    return std::launder(reinterpret_cast<U64*>(bytesAt(bitsAt(capacity))));
  }
  template <std::size_t I>
  auto* column(U32 capacity) const {
    using Part = std::tuple_element_t<I, std::tuple<Others...>>;
    return std::launder(reinterpret_cast<Part*>(bytesAt(columnAt(I, capacity))));
  }

  // Calls each(i) with the number of each of the other columns.
  static constexpr void eachOther(auto&& each) {
    [&]<std::size_t... I>(std::index_sequence<I...>) {
      (each(std::integral_constant<std::size_t, I>()), ...);
    }
    (std::index_sequence_for<Others...>());
  }
  // Moves so many entries from one place to another; their parts are such that their bytes can be
  // moved.
  [[gnu::always_inline]] void relocate(U32 from, U32 to, U32 count) noexcept {
    if (count == 0) return;
    const U32 capacity = this->capacity();
    moveBytes(orders() + to, orders() + from, count);
    moveBytes(&primary(to + count - 1), &primary(from + count - 1), count);
    eachOther(
        [&](auto i) { moveBytes(column<i>(capacity) + to, column<i>(capacity) + from, count); });
  }
  template <class T>
  static void moveBytes(T* to, const T* from, std::size_t count) noexcept {
    std::memmove(static_cast<void*>(to), static_cast<const void*>(from), count * sizeof(T));
  }

  // Among gaps
  // A loop over single orders, which may end anywhere, would cost more than the comparisons that it
  // spares.
  U32 firstNotBelowAmongGaps(U32 order) const {
    const U32 at = order >> (32 - log2());
    const U32 less = lessInGroup(orders() + at, order);
    if (less == (U32{1} << kGroup) - 1) return leapToNotBelow(order, at + kGroup - 1);
    return at + static_cast<U32>(std::countr_one(less));
  }
  U32 firstOfAmongGaps(U32 order) const {
    const U32 at = order >> (32 - log2());
    const U32* group = orders() + at;
    __builtin_prefetch(&primary(at));  // the one that is sought mostly stands there
    if (const U32 equal = equalInGroup(group, order); equal != 0) {
      return at + static_cast<U32>(std::countr_zero(equal));
    }
    return group[kGroup - 1] >= order ? kNowhere : firstOfFar(order, at + kGroup - 1);
  }
  [[gnu::noinline]] U32 firstOfFar(U32 order, U32 below) const {
    const U32 at = leapToNotBelow(order, below);
    return orders()[at] == order ? at : kNowhere;
  }
  // The first place, behind one whose order is less, that is a gap or whose entry's order is not
  // less.
  [[gnu::noinline]] U32 leapToNotBelow(U32 order, U32 below) const {
    const U32* orders = this->orders();
    const U32 end = capacity();
    // Where all crowd from the first place on, this is the last of them.
    if (count_ - 1 > below && orders[count_ - 1] < order) below = count_ - 1;
    U32 leap = kGroup;
    while (leap < end - below && orders[below + leap] < order) {
      below += leap;
      leap *= 2;
    }
    const U32* to = orders + std::min(below + leap, end);
    return static_cast<U32>(std::lower_bound(orders + below + 1, to, order) - orders);
  }
  [[gnu::noinline]] U32 nextAmongGaps(U32 at) const {
    const U32 end = capacity();
    if (at >= end) return kNowhere;
    U32 from = at & ~(kWord - 1);
    U64 left = standing(from) >> (at - from) << (at - from);
    while (left == 0) {
      from += kWord;
      if (from >= end) return kNowhere;
      left = standing(from);
    }
    return from + static_cast<U32>(std::countr_zero(left));
  }
  // The first place from this one on where no entry stands.
  U32 gapFrom(U32 at) const {
    const U64* bits = this->bits(capacity());
    U32 from = at / kWord;
    U64 gaps = ~bits[from] >> at % kWord << at % kWord;
    while (gaps == 0) gaps = ~bits[++from];
    return from * kWord + static_cast<U32>(std::countr_zero(gaps));
  }
  void clearPlaces() noexcept {
    const U32 capacity = this->capacity();
    std::memset(orders(), 0xff, bitsAt(capacity));
    std::memset(bits(capacity), 0, columnAt(0, capacity) - bitsAt(capacity));
  }
  void mark(U32 at) const { bits(capacity())[at / kWord] |= U64{1} << at % kWord; }

  [[gnu::noinline]] U32 openAmongGaps(U32 at, U32 passed, U32 order) {
    // Where there is no memory for more buckets, entries stand closer.
    if (count_ >= mostIn(shape()) && moved({log2() + 1, 0})) at = firstNotBelow(order) + passed;
    const U32 gap = gapFrom(at);
    // Entries keep their places in arrays with more places behind them.
    if (gap == capacity() - 1) moveTo({log2(), step() + 1});
    moveOn(at, gap);
    mark(gap);
    orders()[at] = order;
    ++count_;
    return at;
  }
  // Moves what stands from this place on, up to a gap, one place on.
  void moveOn(U32 at, U32 gap) noexcept {
    if (gap - at > kFew) {
      relocate(at, at + 1, gap - at);
      return;
    }
    U32* const orders = this->orders();
    const U32 capacity = this->capacity();
    for (U32 to = gap; to > at; --to) {
      orders[to] = orders[to - 1];
      primary(to) = primary(to - 1);
      eachOther([&](auto i) { column<i>(capacity)[to] = column<i>(capacity)[to - 1]; });
    }
  }
  [[gnu::noinline]] void closeAmongGaps(U32 at) noexcept {
    // A gap ends what stands on because of this entry, and so does an entry that stands in its
    // bucket.
    const U32* orders = this->orders();
    U32 end = at + 1;
    while (orders[end] != kGap && bucketOf(orders[end], shape()) < end) ++end;
    relocate(at + 1, at, end - at - 1);
    this->orders()[end - 1] = kGap;
    bits(capacity())[(end - 1) / kWord] &= ~(U64{1} << (end - 1) % kWord);
    --count_;
  }

  // Calls each(place) for every entry, in order.
  template <class Each>
  void forEachPlace(Each each) const {
    const U32 end = walkEnd();
    for (U32 from = 0; from < end; from += kWord) {
      for (U64 left = standing(from); left != 0; left &= left - 1) {
        each(from + static_cast<U32>(std::countr_zero(left)));
      }
    }
  }

  // In arrays of this shape: the place of the last entry, and how far behind its bucket one stands
  // at most.
  struct Crowd {
    U32 last = 0;
    U32 distance = 0;
  };
  Crowd crowd(Shape shape) const {
    Crowd crowd;
    U32 to = 0;
    forEachPlace([&](U32 at) {
      const U32 bucket = bucketOf(orders()[at], shape);
      to = std::max(to, bucket);
      crowd.distance = std::max(crowd.distance, to - bucket);
      crowd.last = to++;
    });
    return crowd;
  }

  [[gnu::noinline]] void shrinkNow() {
    const Shape smaller = shapeFor(dense() ? 2 * count_ : 4 * count_);
    if (capacityOf(smaller) >= capacity()) return;
    // What is left may be crowded, where the rest went in order.
    if (smaller.log2 == 0 || crowd(smaller).distance <= kFar) (void)moved(smaller);
  }

  // Moves all entries to arrays of this shape, with more places behind the last bucket where they
  // are needed. Throws std::bad_alloc; nothing has changed then.
  void moveTo(Shape shape) {
    if (!moved(shape)) throw std::bad_alloc();
  }
  // The same, without an exception: returns whether there was memory.
  [[gnu::noinline]] bool moved(Shape shape) noexcept {
    if (shape.log2 != 0) {
      const U32 last = crowd(shape).last;
      while (last + 2 > capacityOf(shape)) ++shape.step;
    }
    const U32 capacity = capacityOf(shape);
    void* block = kivMemAllocOrNull(bytes(capacity));
    if (block == nullptr) return false;
    OrderedArrays into;
    into.block_ = static_cast<std::byte*>(block) + ordersAt(capacity);
    into.form_ = (shape.log2 | shape.step << 5) & 255;
    if (!into.dense()) into.clearPlaces();
    if (count_ != 0) relocateAllTo(into);
    freeBlock();
    block_ = into.block_;
    form_ = into.form_;
    return true;
  }
  // REQUIRES: there is an entry, and so a block to take it from.
  void relocateAllTo(OrderedArrays& into) noexcept {
    const U32 capacity = into.capacity();
    if (dense() && into.dense()) {
      moveBytes(into.orders(), orders(), count_);
      moveBytes(&into.primary(count_ - 1), &primary(count_ - 1), count_);
      eachOther([&](auto i) {
        moveBytes(into.template column<i>(capacity), column<i>(this->capacity()), count_);
      });
      return;
    }
    const Shape shape = into.shape();
    U64* bits = into.bits(capacity);
    U32 to = 0;
    forEachPlace([&](U32 at) {
      to = std::max(to, bucketOf(orders()[at], shape));
      into.orders()[to] = orders()[at];
      if (!into.dense()) bits[to / kWord] |= U64{1} << to % kWord;
      moveBytes(&into.primary(to), &primary(at), 1);
      eachOther([&](auto i) {
        moveBytes(into.template column<i>(capacity) + to, column<i>(this->capacity()) + at, 1);
      });
      ++to;
    });
  }
};

}  // namespace detail
}  // namespace Kiv
