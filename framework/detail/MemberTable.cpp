#include "framework/detail/MemberTable.h"

#include <algorithm>
#include <new>

namespace [[gnu::visibility("default")]] Kiv {
namespace detail {

MemberTable::Found MemberTable::findAmong(U32 order) const {
  if (!few()) [[likely]]
    return foundAt(firstOf(order));
  for (U32 at = 0; at < count_; ++at) {
    if (primary(at)->kivOrder == order) return {primary(at), at};
  }
  return {nullptr, 0};
}

MemberTable::Found MemberTable::seekAmong(U32 order) const {
  if (!few()) return behindAmong(firstNotBelow(order), order);
  U32 at = 0;
  while (at < count_ && primary(at)->kivOrder < order) ++at;
  return behindAmong(at, order);
}

MemberTable::Found MemberTable::behindAmong(U32 at, U32 order) const {
  const bool is = few() ? at < count_ && primary(at)->kivOrder == order : isOf(order, at);
  return {is ? primary(at) : nullptr, at};
}

Member* MemberTable::exchange(U32 at, Member* member) {
  Member* const replaced = one() ? static_cast<Member*>(block_) : primary(at);
  if (one()) {
    block_ = member;
  } else {
    primary(at) = member;
  }
  member->kivOrder = replaced->kivOrder;
  countChanges(2);
  return replaced;
}

void MemberTable::insertAmong(U32 at, U32 passed, Member* member, U32 order) {
  if (few() && count_ == capacityOfFew()) growFew();
  if (few()) {
    for (U32 i = count_; i > at; --i) primary(i) = primary(i - 1);
    ++count_;
  } else {
    at = open(at, passed, order);
  }
  primary(at) = member;
}

void MemberTable::reserve(U32 count) noexcept {
  const bool larger = few() ? count > kMostFew : count > room();
  if (larger && (few() ? toArrays(count) : reserved(count))) countChanges(1);
}

Member* MemberTable::takeOut(U32 at) {
  countChanges(1);
  Member* const taken = primary(at);
  if (few()) {
    --count_;
    for (; at < count_; ++at) primary(at) = primary(at + 1);
  } else {
    close(at);
  }
  return taken;
}

Member* MemberTable::removeAmong(U32 at) {
  Member* const removed = takeOut(at);
  if (few()) {
    if (count_ == 0) freeFew();
  } else if (count_ <= kBackToFew) {
    shrinkToFew();
  } else {
    shrink();
  }
  return removed;
}

Member* MemberTable::removeAmongFrom(U32& at) {
  at = nextFrom(at);
  if (at == kNowhere) return nullptr;
  Member* const removed = takeOut(at);
  if (count_ == 0) few() ? freeFew() : shrinkToFew();
  return removed;
}

MemberTable::Places MemberTable::placesFrom(U32 at) const {
  const U32 end = walkEnd();
  if (at >= end) return {0, kNowhere};
  Places places{0, at / kWord * kWord};
  places.left = standing(places.from) >> at % kWord << at % kWord;
  while (places.left == 0 && end - places.from > kWord) {
    places.from += kWord;
    places.left = standing(places.from);
  }
  return places;
}

void MemberTable::growFew() {
  if (form_ == kFour) {
    if (!toArrays(kMostFew + 1)) throw std::bad_alloc();
    return;
  }
  Member** const larger = endOfNew(2 * capacityOfFew());
  if (larger == nullptr) throw std::bad_alloc();
  if (one()) {
    *(larger - 1) = static_cast<Member*>(block_);
  } else {
    std::copy_n(beginOfFew(), count_, larger - count_);
    kivMemFree(beginOfFew(), bytesOfFew());
  }
  block_ = larger;
  form_ = (form_ == kOne ? kTwo : kFour) & 255;
}

bool MemberTable::toArrays(U32 count) noexcept {
  MemberTable arrays;
  arrays.form_ = 0;
  if (!arrays.reserved(count)) return false;
  U32 passed = 0;
  for (U32 at = 0; at < count_; ++at) {
    Member* const member = one() ? static_cast<Member*>(block_) : primary(at);
    const U32 order = member->kivOrder;
    const U32 first = arrays.firstNotBelow(order);
    passed = arrays.isOf(order, first) ? passed + 1 : 0;
    arrays.primary(arrays.open(first + passed, passed, order)) = member;
  }
  if (!one()) kivMemFree(beginOfFew(), bytesOfFew());
  block_ = std::exchange(arrays.block_, nullptr);
  form_ = arrays.form_;
  return true;
}

void MemberTable::shrinkToFew() {
  void* few = nullptr;
  if (count_ == 1) few = primary(nextFrom(0));
  if (count_ > 1) {
    Member** const end = endOfNew(kBackToFew);
    if (end == nullptr) return;
    for (U32 i = 1, at = nextFrom(0); i <= count_; ++i, at = nextFrom(at + 1))
      *(end - i) = primary(at);
    few = end;
  }
  freeBlock();
  block_ = few;
  form_ = (count_ > 1 ? kTwo : kOne) & 255;
}

void MemberTable::freeFew() {
  kivMemFree(beginOfFew(), bytesOfFew());
  block_ = nullptr;
  form_ = kOne;
}

Member** MemberTable::endOfNew(U32 capacity) {
  auto** begin = static_cast<Member**>(kivMemAllocOrNull(capacity * sizeof(Member*)));
  return begin == nullptr ? nullptr : begin + capacity;
}

}  // namespace detail
}  // namespace Kiv
