// The table under the keyed collections of objects: pointers to members, in order.
//
// Nearly all collections are small: one member costs no memory beside the table, up to four stand
// in an array of their own, which runs downwards as the column of OrderedArrays does; more in
// those. What is done with one member is done where it is asked for; the rest is in the library.
// The table owns no member; whoever inserts does.
#pragma once

#include <bit>

#include "framework/Member.h"
#include "framework/detail/OrderedArrays.h"

namespace [[gnu::visibility("default")]] Kiv {
namespace detail {

// Places are numbers from 0 on; each change makes those that were taken before it void.
class MemberTable : private OrderedArrays<Member*> {
 public:
  using OrderedArrays::size;
  using OrderedArrays::usable;

  // A place, and the member that stands there; null where none of the order sought stands there.
  struct Found {
    Member* member;
    U32 at;
  };

  // Goes over the members in order. Void after a change.
  class Walk {
   public:
    // Where there is nothing to come.
    Walk() = default;

   private:
    friend MemberTable;
    // The one member of a table has its place where others have the address of their array.
    using Place [[gnu::may_alias]] = Member*;

    Walk(const void* behind, U64 left, U32 from = kNowhere)
        : behind_(static_cast<const Place*>(behind)), left_(left), from_(from) {}

    const Place* behind_ = nullptr;  // the first of 64 places, which go on downwards
    U64 left_ = 0;                   // which of them are still to come
    U32 from_ = kNowhere;            // the number of the first; kNowhere where no others follow
  };

  MemberTable() { form_ = kOne; }
  // REQUIRES: it is empty.
  ~MemberTable() {
    // Arrays are left only where room was made and nobody came. They have no places behind the last
    // bucket, and so a form below the others'.
    if (form_ < kOne) [[unlikely]]
      freeBlock();
  }

  // How many buckets there are; 0 while the members are few.
  U32 buckets() const { return few() ? 0 : OrderedArrays::buckets(); }
  // Rises with each member that comes and each that goes, by one, and when room is made; wraps
  // around at 2^24.
  U32 changes() const { return note_; }

  // The first member of this order, and its place; null when there is none.
  Found find(U32 order) const {
    if (!one()) return findAmong(order);
    auto* const only = static_cast<Member*>(block_);
    return {count_ != 0 && only->kivOrder == order ? only : nullptr, 0};
  }
  // The same; where there is none, the place where one would stand.
  Found seek(U32 order) const {
    if (!one()) return seekAmong(order);
    auto* const only = static_cast<Member*>(block_);
    if (count_ == 0 || only->kivOrder > order) return {nullptr, 0};
    return only->kivOrder == order ? Found{only, 0} : Found{nullptr, 1};
  }
  // What stands at this place, behind a member of this order.
  Found behind(U32 at, U32 order) const {
    return one() ? Found{nullptr, at} : behindAmong(at, order);
  }

  // Puts a member before what stands at this place, which is where one of its order belongs behind
  // `passed` others of the same order. Throws std::bad_alloc; nothing but places has changed then.
  void insert(U32 at, U32 passed, Member* member, U32 order) {
    countChanges(1);  // also where it throws, as the others may stand elsewhere then
    if (count_ == 0 && one()) {
      block_ = member;
      count_ = 1;
    } else {
      insertAmong(at, passed, member, order);
    }
    member->kivOrder = order;
  }
  // Makes room for so many members, where there is memory: they come faster then.
  void reserve(U32 count) noexcept;
  // Puts a member in the place of another one of the same key, and returns that.
  Member* exchange(U32 at, Member* member);
  // Takes out the member at this place, and returns it.
  Member* remove(U32 at) {
    if (!one()) return removeAmong(at);
    countChanges(1);
    count_ = 0;
    return static_cast<Member*>(std::exchange(block_, nullptr));
  }
  // Takes out the first member from this place on, and returns it; null when there is none. What
  // comes next then stands there, or behind. The table stays as large as it is until the last has
  // gone.
  Member* removeFrom(U32& at) {
    if (!one()) return removeAmongFrom(at);
    return at < count_ ? remove(at) : nullptr;
  }

  // The place of the first member in this bucket or after it. REQUIRES: there is such a bucket.
  U32 bucketBegin(U32 bucket) const {
    return firstNotBelow(bucket << (32 - std::countr_zero(OrderedArrays::buckets())));
  }

  // Begins a walk with the first member that stands at this place or behind.
  Walk walkFrom(U32 at) const {
    if (one()) return {&block_ + 1, count_ > at ? U64{1} : U64{0}};
    if (dense()) return {block_, at < count_ ? (U64{1} << count_) - (U64{1} << at) : 0};
    const Places places = placesFrom(at);
    if (places.left == 0) return {};
    return {static_cast<Member**>(block_) - places.from, places.left, places.from};
  }
  // Goes on: the next member, from the first one on; null at the end.
  Member* next(Walk& walk) const {
    if (walk.left_ == 0) {
      if (walk.from_ == kNowhere) return nullptr;
      const Places places = placesFrom(walk.from_ + kWord);
      if (places.left == 0) return nullptr;
      walk = {static_cast<Member**>(block_) - places.from, places.left, places.from};
    }
    const auto at = static_cast<U32>(std::countr_zero(walk.left_));
    walk.left_ &= walk.left_ - 1;
    return *(walk.behind_ - 1 - at);
  }

 private:
  // The forms of those that are few: the block is the one member, or an array for two or four.
  static constexpr U32 kOne = kOwners;
  static constexpr U32 kTwo = kOne + kOwnersStep;
  static constexpr U32 kFour = kTwo + kOwnersStep;
  static constexpr U32 kMostFew = 4;
  // So many go back from the arrays to being few, when the rest has gone.
  static constexpr U32 kBackToFew = 2;

  // Whether there is one member at most, and no array.
  bool one() const { return form_ == kOne; }
  bool few() const { return form_ >= kOne && dense(); }
  U32 capacityOfFew() const { return U32{1} << (form_ - kOne) / kOwnersStep; }
  std::size_t bytesOfFew() const { return capacityOfFew() * sizeof(Member*); }
  Member** beginOfFew() const { return static_cast<Member**>(block_) - capacityOfFew(); }

  void countChanges(U32 more) { note_ = (note_ + more) & ((U32{1} << 24) - 1); }

  // What stands at a place, which may be none; REQUIRES: !one().
  Found foundAt(U32 at) const { return {at == kNowhere ? nullptr : primary(at), at}; }

  // The same for more than one; REQUIRES: !one(), but for insertAmong().
  Found findAmong(U32 order) const;
  Found seekAmong(U32 order) const;
  Found behindAmong(U32 at, U32 order) const;
  void insertAmong(U32 at, U32 passed, Member* member, U32 order);
  Member* removeAmong(U32 at);
  Member* removeAmongFrom(U32& at);

  // Which of 64 places, from a multiple of 64 on, members stand at.
  struct Places {
    U64 left;
    U32 from;
  };
  // The first such places from this one on, of which the others are left out; none at the end.
  // REQUIRES: there are gaps.
  Places placesFrom(U32 at) const;

  // What the library alone calls.
  [[gnu::visibility("hidden")]] Member* takeOut(U32 at);
  [[gnu::visibility("hidden")]] void growFew();
  // Moves the members, which are few, to arrays with room for so many; returns whether there was
  // memory for these.
  [[gnu::visibility("hidden")]] bool toArrays(U32 count) noexcept;
  [[gnu::visibility("hidden")]] void shrinkToFew();
  [[gnu::visibility("hidden")]] void freeFew();
  // Where a new array for so many that are few ends; null when there is no memory.
  [[gnu::visibility("hidden")]] static Member** endOfNew(U32 capacity);
};

}  // namespace detail
}  // namespace Kiv
