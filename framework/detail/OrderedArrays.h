// The table under the larger sets of entries: entries in one total order, in arrays.
//
// An entry is a key, a value, and an order, which is its key's bit-reversed hash. Entries stand in
// ascending order (equal orders by key). Orders, keys and values have an array each, in one block
// of memory: a look-up reads orders that lie side by side, and looks at a key only when its order
// is the one sought.
//
// Up to kDense entries stand without a gap. More stand with gaps: the upper bits of the order
// select the bucket, a place in the arrays, and an entry stands there or as soon behind as those
// that come before it allow. So there is no gap between an entry and its bucket, and walking the
// arrays walks all entries in order, whatever their size. Behind the last bucket there are some
// places more, of which the last stays empty and ends every search.
//
// A set that mirrors another one is filled in its order, which is that of both. While it grows, its
// entries crowd in the buckets of the lowest orders: so a search that does not end at once goes on
// by leaps, and the entry that comes next finds its place free.
#pragma once

#include <algorithm>
#include <array>
#include <concepts>
#include <cstring>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

#include "framework/Allocation.h"
#include "framework/Hash.h"
#include "framework/Ptr.h"
#include "framework/Text.h"

namespace [[gnu::visibility("default")]] Kiv {
namespace detail {

// Whether an object of this class can go on elsewhere as the bytes that it is made of: where
// nothing knows its place, as with numbers and with what is but a counted pointer.
template <class T>
inline constexpr bool kBytesCanBeMoved = std::is_trivially_copyable_v<T>;
template <class T>
requires std::derived_from<T, Text>
inline constexpr bool kBytesCanBeMoved<T> = true;
template <class T>
inline constexpr bool kBytesCanBeMoved<Ptr<T>> = true;

// Places are numbers from 0 on; each change makes those that were taken before it void.
template <class K, class V>
class OrderedArrays {
  static_assert(kBytesCanBeMoved<K> && kBytesCanBeMoved<V>);

 public:
  // No place.
  static constexpr U32 kNowhere = ~U32{0};

  // Room for so many entries at least. Throws std::bad_alloc.
  explicit OrderedArrays(U32 count) { moveTo(shapeFor(count)); }
  OrderedArrays(const OrderedArrays&) = delete;
  OrderedArrays& operator=(const OrderedArrays&) = delete;
  // Takes over what another has; that one may only end then.
  OrderedArrays(OrderedArrays&& other) noexcept
      : orders_(std::exchange(other.orders_, nullptr)),
        count_(std::exchange(other.count_, 0)),
        shape_(other.shape_) {}
  // REQUIRES: it is empty.
  ~OrderedArrays() { freeBlock(); }

  U32 size() const { return count_; }

  // How many buckets there are; 0 while the entries stand without a gap.
  U32 buckets() const { return dense() ? 0 : U32{1} << shape_.log2; }

  // The entry at a place.
  K& key(U32 at) const { return keys(capacity())[at]; }
  V& value(U32 at) const { return values(capacity())[at]; }

  // The place of the entry with this key; kNowhere when absent.
  U32 find(const K& key) const {
    const U32 order = orderOf(key);
    const U32 end = searchEnd();
    for (U32 at = firstNotBelow(order); at < end && orders_[at] == order; ++at) {
      if (this->key(at) == key) return at;
    }
    return kNowhere;
  }

  // Whether the entry of this key stands at this place, which may be none.
  bool stands(const K& key, U32 at) const {
    return at < walkEnd() && orders_[at] != kGap && this->key(at) == key;
  }

  // The first place from this one on where an entry stands; kNowhere when there is none.
  U32 next(U32 at) const {
    const U32 end = walkEnd();
    while (at < end && orders_[at] == kGap) ++at;
    return at < end ? at : kNowhere;
  }

  // The place of the first entry that stands after one of this key, which may be absent.
  U32 after(const K& key) const {
    return next(place(orderOf(key), [&](const K& other) { return !(key < other); }));
  }

  // Returns the value of this key's entry, put in with the given one when absent, and whether it
  // was put in. Throws std::bad_alloc; nothing has changed then.
  std::pair<V*, bool> insert(const K& key, const V& value) {
    const U32 order = orderOf(key);
    U32 at = firstNotBelow(order);
    for (const U32 end = searchEnd(); at < end && orders_[at] == order; ++at) {
      const K& other = this->key(at);
      if (other == key) return {&this->value(at), false};
      if (key < other) break;
    }
    if (count_ >= mostIn(shape_)) {
      grow();
      at = place(order, [&](const K& other) { return other < key; });
    }
    openUp(at);
    put(at, order, K(key), V(value));
    ++count_;
    return {&this->value(at), true};
  }

  // Puts in an entry that stands behind all others. REQUIRES: there is room, without a gap.
  void append(K key, V value) noexcept {
    const U32 order = orderOf(key);
    put(count_, order, std::move(key), std::move(value));
    ++count_;
  }

  // Takes out the entry at this place, and returns it. What comes next then stands there, or
  // behind. The arrays stay as large as they are; see shrink().
  std::pair<K, V> remove(U32 at) noexcept {
    std::pair<K, V> removed = take(at);
    closeUp(at);
    --count_;
    return removed;
  }

  // Lets go of memory of which but little is in use, where the new can be had. Does nothing most of
  // the time.
  void shrink() {
    if (dense() ? count_ <= capacity() / 4
                : count_ <= buckets() / 16 && (count_ & (count_ - 1)) == 0) {
      shrinkNow();
    }
  }

 private:
  // How large the arrays are. Without a gap: log2 is 0, and the step says how many places there
  // are. With gaps: 2^log2 buckets, and the step says how many places follow.
  struct Shape {
    U8 log2 = 0;
    U8 step = 0;
  };
  static constexpr U32 kDense = 16;
  static constexpr U32 kDenseStep = 4;
  static constexpr U32 kGroup = 4;      // so many orders are compared at once
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
    Shape shape;
    if (count > kDense) shape.log2 = 5;
    while (mostIn(shape) < count) ++(count <= kDense ? shape.step : shape.log2);
    return shape;
  }
  bool dense() const { return shape_.log2 == 0; }
  U32 capacity() const { return capacityOf(shape_); }

  // The highest order marks gaps, so an entry that has it counts as one of the order before.
  static U32 orderOf(const K& key) { return std::min(kivOrder(key), kGap - 1); }
  static U32 bucketOf(U32 order, Shape shape) {
    return shape.log2 == 0 ? 0 : order >> (32 - shape.log2);
  }
  // Where a search stops at the latest; a gap stops it among gaps.
  U32 searchEnd() const { return dense() ? count_ : kNowhere; }
  U32 walkEnd() const { return dense() ? count_ : capacity(); }

  // The block: the orders, the keys, the values. Among gaps, a group of orders may begin at any
  // place.
  static constexpr std::size_t rounded(std::size_t bytes) {
    return (bytes + kMemAlignment - 1) & ~(kMemAlignment - 1);
  }
  static constexpr std::size_t keysAt(std::size_t capacity) {
    return rounded((capacity > kDense ? capacity + kGroup : capacity) * sizeof(U32));
  }
  static constexpr std::size_t valuesAt(std::size_t capacity) {
    return keysAt(capacity) + rounded(capacity * sizeof(K));
  }
  static constexpr std::size_t bytes(std::size_t capacity) {
    return valuesAt(capacity) + rounded(capacity * sizeof(V));
  }
  K* keys(U32 capacity) const {
    auto* block = reinterpret_cast<std::byte*>(orders_);
    return std::launder(reinterpret_cast<K*>(block + keysAt(capacity)));
  }
  V* values(U32 capacity) const {
    auto* block = reinterpret_cast<std::byte*>(orders_);
    return std::launder(reinterpret_cast<V*>(block + valuesAt(capacity)));
  }

  // One entry.
  void put(U32 at, U32 order, K&& key, V&& value) noexcept {
    const U32 capacity = this->capacity();
    orders_[at] = order;
    std::construct_at(keys(capacity) + at, std::move(key));
    std::construct_at(values(capacity) + at, std::move(value));
  }
  std::pair<K, V> take(U32 at) noexcept {
    K& key = this->key(at);
    V& value = this->value(at);
    std::pair<K, V> taken(std::move(key), std::move(value));
    std::destroy_at(&key);
    std::destroy_at(&value);
    return taken;
  }
  // Moves so many entries from one place to another; keys and values are such that their bytes can
  // be moved.
  void relocate(U32 from, U32 to, U32 count) noexcept {
    const U32 capacity = this->capacity();
    moveBytes(orders_ + to, orders_ + from, count);
    moveBytes(keys(capacity) + to, keys(capacity) + from, count);
    moveBytes(values(capacity) + to, values(capacity) + from, count);
  }
  template <class T>
  static void moveBytes(T* to, const T* from, std::size_t count) noexcept {
    std::memmove(static_cast<void*>(to), static_cast<const void*>(from), count * sizeof(T));
  }

  // The first place, from the bucket on, that is a gap or whose entry's order is not less. A loop
  // over single orders, which may end anywhere, would cost more than the comparisons that it
  // spares.
  U32 firstNotBelow(U32 order) const {
    if (dense()) {
      U32 at = 0;
      while (at < count_ && orders_[at] < order) ++at;
      return at;
    }
    const U32 at = bucketOf(order, shape_);
    U32 below = 0;
    for (U32 i = 0; i < kGroup; ++i) below += orders_[at + i] < order ? 1 : 0;
    return below < kGroup ? at + below : leapToNotBelow(order, at + kGroup - 1);
  }
  // The same, from a place on whose order is less.
  [[gnu::noinline]] U32 leapToNotBelow(U32 order, U32 below) const {
    const U32 end = capacity();
    U32 leap = kGroup;
    while (leap < end - below && orders_[below + leap] < order) {
      below += leap;
      leap *= 2;
    }
    const U32* orders = orders_;
    const U32* to = orders + std::min(below + leap, end);
    return static_cast<U32>(std::lower_bound(orders + below + 1, to, order) - orders);
  }
  // The first place at which no entry stands that comes before one of this order; of a key of the
  // same order, `passes(key)` says whether it does.
  template <class Passes>
  U32 place(U32 order, Passes passes) const {
    const U32 end = searchEnd();
    U32 at = firstNotBelow(order);
    while (at < end && orders_[at] == order && passes(key(at))) ++at;
    return at;
  }

  // Moves what stands from this place on, up to the next gap, one place on. Throws std::bad_alloc
  // where that takes more places than there are; nothing has changed then.
  void openUp(U32 at) {
    U32 gap = count_;
    if (!dense()) {
      gap = at;
      while (orders_[gap] != kGap) ++gap;
      // Entries keep their places in arrays with more places behind them.
      if (gap == capacity() - 1) moveTo({shape_.log2, static_cast<U8>(shape_.step + 1)});
    }
    if (gap > at) relocate(at, at + 1, gap - at);
  }
  // Moves back what stood on because of the entry that has gone from this place.
  void closeUp(U32 at) noexcept {
    U32 end = at + 1;
    if (dense()) {
      end = count_;
    } else {
      // A gap ends it, and so does an entry that stands in its bucket.
      while (orders_[end] != kGap && bucketOf(orders_[end], shape_) < end) ++end;
    }
    if (end > at + 1) relocate(at + 1, at, end - at - 1);
    if (!dense()) orders_[end - 1] = kGap;
  }

  // Sees to it that one more entry finds a place. Throws std::bad_alloc.
  [[gnu::noinline]] void grow() {
    if (dense()) {
      moveTo(shapeFor(count_ + 1));
    } else {
      // Where there is no memory for more buckets, entries stand closer.
      (void)moved({static_cast<U8>(shape_.log2 + 1), 0});
    }
  }
  [[gnu::noinline]] void shrinkNow() {
    const Shape smaller = shapeFor(dense() ? 2 * count_ : 4 * count_);
    if (capacityOf(smaller) >= capacity()) return;
    // What is left may be crowded, where the rest went in order.
    if (smaller.log2 == 0 || crowd(smaller).distance <= kFar) (void)moved(smaller);
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
    for (U32 at = next(0); at != kNowhere; at = next(at + 1)) {
      const U32 bucket = bucketOf(orders_[at], shape);
      to = std::max(to, bucket);
      crowd.distance = std::max(crowd.distance, to - bucket);
      crowd.last = to++;
    }
    return crowd;
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
    auto* orders = static_cast<U32*>(kivMemAllocOrNull(bytes(capacity)));
    if (orders == nullptr) return false;
    if (shape.log2 != 0) std::memset(orders, 0xff, keysAt(capacity));
    OrderedArrays into(orders, shape);
    if (count_ != 0) relocateAllTo(into);
    std::swap(orders_, into.orders_);
    std::swap(shape_, into.shape_);
    return true;
  }
  // REQUIRES: there is an entry, and so a block to take it from.
  void relocateAllTo(OrderedArrays& into) noexcept {
    const K* keysBefore = keys(capacity());
    const V* valuesBefore = values(capacity());
    K* keysAfter = into.keys(into.capacity());
    V* valuesAfter = into.values(into.capacity());
    for (U32 at = next(0), to = 0; at != kNowhere; at = next(at + 1), ++to) {
      to = std::max(to, bucketOf(orders_[at], into.shape_));
      into.orders_[to] = orders_[at];
      moveBytes(keysAfter + to, keysBefore + at, 1);
      moveBytes(valuesAfter + to, valuesBefore + at, 1);
    }
  }
  OrderedArrays(U32* orders, Shape shape) : orders_(orders), shape_(shape) {}

  void freeBlock() {
    if (orders_ != nullptr) kivMemFree(orders_, bytes(capacity()));
  }

  U32* orders_ = nullptr;  // the block
  U32 count_ = 0;
  Shape shape_;
};

}  // namespace detail
}  // namespace Kiv
