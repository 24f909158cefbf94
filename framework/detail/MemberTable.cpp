#include "framework/detail/MemberTable.h"

#include <algorithm>
#include <new>

namespace [[gnu::visibility("default")]] Kiv {
namespace detail {
namespace {

// The end of a new array of pointers; null when there is no memory.
Member** endOfNewArray(U32 capacity) {
  auto** begin = static_cast<Member**>(kivMemAllocOrNull(capacity * sizeof(Member*)));
  return begin == nullptr ? nullptr : begin + capacity;
}

}  // namespace

inline void MemberTable::arraysAre(const Arrays& arrays) {
  block_ = arrays.block;
  count_ = arrays.count & kCountMask;
  shape_ = arrays.shape;
}

MemberTable::Found MemberTable::findInArray(U32 order) const {
  if (layout_ == Layout::arrays) [[likely]] {
    const U32 at = arrays().find(order);
    return {at == Arrays::npos ? nullptr : memberAt(at), at};
  }
  for (U32 at = 0; at < count_; ++at) {
    if (memberAt(at)->kivOrder == order) return {memberAt(at), at};
  }
  return {nullptr, 0};
}

MemberTable::Found MemberTable::lowerBoundInArray(U32 order) const {
  if (layout_ == Layout::arrays) [[likely]] {
    const Arrays arrays = this->arrays();
    const U32 at = arrays.lowerBound(order);
    return {arrays.hasOrder(at, order) ? memberAt(at) : nullptr, at};
  }
  U32 at = 0;
  while (at < count_ && memberAt(at)->kivOrder < order) ++at;
  return nextOfOrderInArray(at, order);
}

MemberTable::Found MemberTable::nextOfOrderInArray(U32 at, U32 order) const {
  const bool found = layout_ == Layout::arrays ? arrays().hasOrder(at, order)
                                               : at < count_ && memberAt(at)->kivOrder == order;
  return {found ? memberAt(at) : nullptr, at};
}

Member* MemberTable::exchange(U32 at, Member* member) {
  Member*& place = layout_ == Layout::one ? only_ : memberAt(at);
  member->kivOrder = place->kivOrder;
  addToVersion(2);
  return std::exchange(place, member);
}

void MemberTable::insertInArray(U32 at, U32 rank, Member* member, U32 order) {
  if (layout_ != Layout::arrays && (layout_ == Layout::one || count_ == capacityOfFew()) &&
      !growFew()) {
    throw std::bad_alloc();
  }
  if (layout_ == Layout::arrays) [[likely]] {
    Arrays arrays = this->arrays();
    at = arrays.insertGap(at, rank, order);
    arraysAre(arrays);
    if (at == Arrays::npos) throw std::bad_alloc();
  } else {
    for (U32 i = count_; i > at; --i) memberAt(i) = memberAt(i - 1);
    ++count_;
  }
  memberAt(at) = member;
}

void MemberTable::reserve(U32 count) noexcept {
  bool moved = false;
  if (layout_ != Layout::arrays) {
    moved = count > kMaxFew && fewToArrays(count);
  } else if (count > shape_.maxCount()) {
    Arrays arrays = this->arrays();
    moved = arrays.reserve(count);
    arraysAre(arrays);
  }
  if (moved) addToVersion(1);
}

Member* MemberTable::removeFromArray(U32 at) {
  Member* const removed = takeOut(at);
  if (layout_ != Layout::arrays) {
    if (count_ == 0) freeFew();
  } else if (count_ <= kBackToFew) {
    arraysToFew();
  } else {
    Arrays arrays = this->arrays();
    if (arrays.shrink()) arraysAre(arrays);
  }
  return removed;
}

Member* MemberTable::removeFirstFromArray(U32& at) {
  if (layout_ == Layout::arrays) at = arrays().nextOccupied(at);
  if (at == Arrays::npos || (layout_ != Layout::arrays && at >= count_)) return nullptr;
  Member* const removed = takeOut(at);
  if (count_ == 0) layout_ == Layout::arrays ? arraysToFew() : freeFew();
  return removed;
}

Member* MemberTable::takeOut(U32 at) {
  addToVersion(1);
  Member* const taken = memberAt(at);
  if (layout_ != Layout::arrays) {
    --count_;
    for (; at < count_; ++at) memberAt(at) = memberAt(at + 1);
  } else {
    Arrays arrays = this->arrays();
    arrays.eraseGap(at);
    count_ = arrays.count & kCountMask;
  }
  return taken;
}

MemberTable::Occupied MemberTable::occupiedFrom(U32 at) const {
  const Arrays arrays = this->arrays();
  const U32 end = arrays.end();
  if (at >= end) return {0, Arrays::npos};
  Occupied occupied{0, at / Arrays::kWord * Arrays::kWord};
  occupied.left = arrays.occupiedBits(occupied.from) >> at % Arrays::kWord << at % Arrays::kWord;
  while (occupied.left == 0 && end - occupied.from > Arrays::kWord) {
    occupied.from += Arrays::kWord;
    occupied.left = arrays.occupiedBits(occupied.from);
  }
  return occupied;
}

bool MemberTable::growFew() noexcept {
  if (layout_ == Layout::four) return fewToArrays(kMaxFew + 1);
  const Layout larger = layout_ == Layout::one ? Layout::two : Layout::four;
  Member** const end = endOfNewArray(larger == Layout::two ? 2 : kMaxFew);
  if (end == nullptr) return false;
  if (layout_ == Layout::one) {
    *(end - 1) = only_;
  } else {
    std::copy_n(pointers() - count_, count_, end - count_);
    freeFew();
  }
  block_ = end;
  layout_ = larger;
  return true;
}

bool MemberTable::fewToArrays(U32 count) noexcept {
  Arrays arrays;
  if (!arrays.reserve(count)) return false;
  U32 rank = 0;
  for (U32 i = 0; i < count_; ++i) {
    Member* const moved = layout_ == Layout::one ? only_ : memberAt(i);
    const U32 order = moved->kivOrder;
    const U32 first = arrays.lowerBound(order);
    rank = arrays.hasOrder(first, order) ? rank + 1 : 0;
    // There is memory for all of them.
    arrays.first(arrays.insertGap(first + rank, rank, order)) = moved;
  }
  if (layout_ != Layout::one) freeFew();
  layout_ = Layout::arrays;
  arraysAre(arrays);
  return true;
}

void MemberTable::arraysToFew() noexcept {
  Arrays arrays = this->arrays();
  Member* last = nullptr;
  Member** end = nullptr;
  if (count_ == 1) last = memberAt(arrays.nextOccupied(0));
  if (count_ > 1) {
    end = endOfNewArray(kBackToFew);
    if (end == nullptr) return;
    for (U32 i = 1, at = arrays.nextOccupied(0); i <= count_;
         ++i, at = arrays.nextOccupied(at + 1)) {
      *(end - i) = memberAt(at);
    }
  }
  arrays.release();
  if (end != nullptr) {
    block_ = end;
    layout_ = Layout::two;
  } else {
    only_ = last;
    layout_ = Layout::one;
  }
}

void MemberTable::freeFew() noexcept {
  kivMemFree(pointers() - capacityOfFew(), capacityOfFew() * sizeof(Member*));
  only_ = nullptr;
  layout_ = Layout::one;
}

}  // namespace detail
}  // namespace Kiv
