// The table under the keyed collections of objects: pointers to members, in order.
//
// Nearly all collections are small, so there are four layouts: up to one member is in the table
// itself, up to two and four in an array of pointers, and more in OrderedArrays. The members of the
// first three carry their orders (Member::kivOrder), and a search looks at each member. In the
// arrays of all layouts the pointers grow downwards from the block, as the first column of
// OrderedArrays does.
//
// The table has sixteen bytes: a pointer, the number of members, and in the rest the layout, the
// shape of the OrderedArrays and the version. Only this class packs and unpacks them.
//
// Positions are indices from 0 on; every change invalidates them. Insertions may throw
// std::bad_alloc; nothing else throws. The table counts no reference. What concerns one member is
// inline; the rest is in the library.
#pragma once

#include <bit>

#include "framework/Member.h"
#include "framework/detail/OrderedArrays.h"

namespace [[gnu::visibility("default")]] Kiv {
namespace detail {

class MemberTable {
  using Arrays = OrderedArrays<Member*>;

 public:
  // A position, and the member there; null if there is none of the order sought.
  struct Found {
    Member* member;
    U32 at;
  };

  // A pass over the members in order; invalidated by a change. Up to 64 positions at a time: the
  // bits of those that are still to be visited.
  class Walk {
   public:
    // With no member to visit.
    Walk() = default;

   private:
    friend MemberTable;

    Walk(Member* const* end, U64 left, U32 from = Arrays::npos)
        : end_(end), left_(left), from_(from) {}

    Member* const* end_ = nullptr;  // the positions go on downwards from here
    U64 left_ = 0;                  // a bit for each that is to be visited
    U32 from_ = Arrays::npos;       // the first of the positions; npos if no others follow
  };

  MemberTable() = default;
  MemberTable(const MemberTable&) = delete;
  MemberTable& operator=(const MemberTable&) = delete;
  // REQUIRES: it is empty.
  ~MemberTable() {
    // A block is left only if memory was reserved and never used.
    if (layout_ == Layout::arrays) [[unlikely]]
      arrays().release();
  }

  // How large it is, and its version.
  U32 size() const { return count_; }
  // How many buckets there are; 0 if the members are few.
  U32 buckets() const {
    return layout_ == Layout::arrays && !shape_.dense() ? shape_.buckets() : 0;
  }
  // Rises by one with each member that is added or removed, and when memory is reserved; wraps
  // around at 2^24.
  U32 version() const { return version_; }

  // Search
  // The order that a member has in the table, which may be less than that of its key.
  static constexpr U32 clampOrder(U32 order) { return Arrays::clampOrder(order); }
  // The first member of this order, and its position.
  Found find(U32 order) const {
    if (layout_ != Layout::one) return findInArray(order);
    return {count_ != 0 && only_->kivOrder == order ? only_ : nullptr, 0};
  }
  // The same; without one, the position where a member of this order would be.
  Found lowerBound(U32 order) const {
    if (layout_ != Layout::one) return lowerBoundInArray(order);
    if (count_ == 0 || only_->kivOrder > order) return {nullptr, 0};
    return only_->kivOrder == order ? Found{only_, 0} : Found{nullptr, 1};
  }
  // What is at this position, which is after a member of this order.
  Found nextOfOrder(U32 at, U32 order) const {
    return layout_ == Layout::one ? Found{nullptr, at} : nextOfOrderInArray(at, order);
  }
  // The position of the first member in this bucket or after it. REQUIRES: there is the bucket.
  U32 bucketBegin(U32 bucket) const { return arrays().lowerBound(bucket << (32 - shape_.log2())); }

  // Change
  // Adds a member before what is at this position: that of lowerBound(), after `rank` others of the
  // same order. Throws std::bad_alloc; nothing but positions has changed then.
  void insert(U32 at, U32 rank, Member* member, U32 order) {
    addToVersion(1);  // also if it throws, as the members may be at other positions then
    if (layout_ == Layout::one && count_ == 0) {
      only_ = member;
      count_ = 1;
    } else {
      insertInArray(at, rank, member, order);
    }
    member->kivOrder = order;
  }
  // Reserves memory for so many members, if there is any.
  void reserve(U32 count) noexcept;
  // Puts a member in the place of another one of the same key, and returns that.
  Member* exchange(U32 at, Member* member);
  // Removes the member at this position, and returns it.
  Member* remove(U32 at) {
    if (layout_ != Layout::one) return removeFromArray(at);
    addToVersion(1);
    count_ = 0;
    return std::exchange(only_, nullptr);
  }
  // Removes the first member from this position on, and returns it; null when there is none. What
  // follows is then at `at` or after it. Keeps the memory until the last member is removed.
  Member* removeFrom(U32& at) {
    if (layout_ != Layout::one) return removeFirstFromArray(at);
    return at < count_ ? remove(at) : nullptr;
  }

  // Iteration
  // A walk from this position on.
  Walk walkFrom(U32 at) const {
    if (layout_ == Layout::one) return {&only_ + 1, count_ > at ? U64{1} : U64{0}};
    if (layout_ == Layout::arrays && !shape_.dense()) return walkOf(occupiedFrom(at));
    return {pointers(), at < count_ ? (U64{1} << count_) - (U64{1} << at) : 0};
  }
  // The next member of a walk; null at the end.
  Member* next(Walk& walk) const {
    if (walk.left_ == 0) {
      if (walk.from_ == Arrays::npos) return nullptr;
      walk = walkOf(occupiedFrom(walk.from_ + Arrays::kWord));
      if (walk.left_ == 0) return nullptr;
    }
    const auto at = static_cast<U32>(std::countr_zero(walk.left_));
    walk.left_ &= walk.left_ - 1;
    return *(walk.end_ - 1 - at);
  }

 private:
  enum class Layout : U8 {
    one,     // no block: `only_` is the member, if there is one
    two,     // `block_` is the end of an array of two pointers
    four,    // of four
    arrays,  // `block_` is that of OrderedArrays
  };

  static constexpr U32 kMaxFew = 4;
  static constexpr U32 kBackToFew = 2;  // so many members leave the OrderedArrays again

  static constexpr U32 kCountMask = (U32{1} << 30) - 1;
  static constexpr U32 kVersionMask = (U32{1} << 24) - 1;

  void addToVersion(U32 changes) { version_ = (version_ + changes) & kVersionMask; }
  // The OrderedArrays. REQUIRES: this layout.
  Arrays arrays() const { return {block_, count_, shape_}; }
  // Takes what an operation made of them.
  [[gnu::visibility("hidden")]] void arraysAre(const Arrays& arrays);

  // The few: layouts two and four.
  U32 capacityOfFew() const { return layout_ == Layout::two ? 2 : kMaxFew; }
  Member** pointers() const { return static_cast<Member**>(block_); }
  Member*& memberAt(U32 at) const { return *(pointers() - 1 - at); }

  // As the public operations, but not for layout one.
  Found findInArray(U32 order) const;
  Found lowerBoundInArray(U32 order) const;
  Found nextOfOrderInArray(U32 at, U32 order) const;
  void insertInArray(U32 at, U32 rank, Member* member, U32 order);
  Member* removeFromArray(U32 at);
  Member* removeFirstFromArray(U32& at);

  // 64 positions from `from` on, a multiple of 64, and which of them are to be visited.
  struct Occupied {
    U64 left;
    U32 from;
  };
  // The first word of positions with a member from this position on; with none, left is 0.
  // REQUIRES: probed arrays.
  Occupied occupiedFrom(U32 at) const;
  Walk walkOf(Occupied occupied) const {
    if (occupied.left == 0) return {};
    return {pointers() - occupied.from, occupied.left, occupied.from};
  }

  // In the library alone.
  [[gnu::visibility("hidden")]] Member* takeOut(U32 at);
  [[gnu::visibility("hidden")]] bool growFew() noexcept;
  // Moves the members, which are few, to OrderedArrays for so many; returns whether there was
  // memory.
  [[gnu::visibility("hidden")]] bool fewToArrays(U32 count) noexcept;
  [[gnu::visibility("hidden")]] void arraysToFew() noexcept;
  [[gnu::visibility("hidden")]] void freeFew() noexcept;

  union {
    Member* only_ = nullptr;
    void* block_;
  };
  U32 count_ : 30 = 0;
  Layout layout_ : 2 = Layout::one;
  Shape shape_;  // of the OrderedArrays
  U32 version_ : 24 = 0;
};

}  // namespace detail
}  // namespace Kiv
