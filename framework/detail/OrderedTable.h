// The hash table under the keyed collections: members in one total order, cut into buckets.
//
// A link carries its order, which is its key's bit-reversed hash. Chains are kept in ascending
// order (equal orders by key), and the upper bits of the order select the bucket; so walking the
// buckets one after the other walks all members in order, whatever the number of buckets. Growth
// cuts each chain in place and changes nothing that an iterator could see.
//
// Beside each bucket stands a byte that says which orders may hang in it, told apart by the three
// bits that follow those that select the bucket. A look-up of what is absent mostly ends there, and
// what comes first or alone in its bucket is put in without a look at the others.
//
// Up to kSmall links hang in one chain that needs no bucket array; an empty table owns nothing. A
// bucket array that cannot be had is done without: chains are then longer, nothing else changes.
#pragma once

#include <cstring>
#include <utility>

#include "framework/Allocation.h"
#include "framework/Integers.h"

namespace [[gnu::visibility("default")]] Kiv {
namespace detail {

// `Link` has the members `Link* kivNext` and `U32 kivOrder`. The table owns no link; whoever
// inserts does.
template <class Link>
class OrderedTable {
 public:
  OrderedTable() = default;
  OrderedTable(const OrderedTable&) = delete;
  OrderedTable& operator=(const OrderedTable&) = delete;
  ~OrderedTable() { freeBuckets(); }

  U32 size() const { return count_; }

  // How many buckets there are; 0 while the links hang in one chain.
  U32 buckets() const { return log2_ == 0 ? 0 : U32{1} << log2_; }

  // Changes whenever a link has left; a position that was taken before must then be looked up anew.
  U32 removals() const { return removals_; }

  // Rises by one with each link that comes and each that goes; wraps around.
  U32 changes() const { return (count_ + 2 * removals_) & kRemovalsMask; }

  // The place where a link with this order stands or would stand: the first that is not before it.
  // `before(link)` says of a link of equal order whether its key is less than the one sought.
  template <class Before>
  Link** place(U32 order, Before before) const {
    Link** at = bucketOf(order);
    if (log2_ != 0 && (filterOf(order) & (2 * bitOf(order) - 1)) == 0) return at;
    while (*at != nullptr &&
           ((*at)->kivOrder < order || ((*at)->kivOrder == order && before(**at)))) {
      at = &(*at)->kivNext;
    }
    return at;
  }

  // The place where the link with this order stands of which `is(link)` holds; null when absent.
  template <class Is>
  Link** find(U32 order, Is is) const {
    if (log2_ != 0 && (filterOf(order) & bitOf(order)) == 0) return nullptr;
    for (Link** at = bucketOf(order); *at != nullptr && (*at)->kivOrder <= order;
         at = &(*at)->kivNext) {
      if ((*at)->kivOrder == order && is(**at)) return at;
    }
    return nullptr;
  }

  // Puts `link`, whose order is set, before what stands at `at`, a place of this table.
  void insert(Link** at, Link* link) {
    link->kivNext = *at;
    *at = link;
    ++count_;
    if (log2_ != 0) addToFilter(link);
    if (count_ > (log2_ == 0 ? kSmall : U32{1} << log2_)) resize(log2_ == 0 ? 3 : log2_ + 1);
  }

  // Takes out the link that stands at `at`, and returns it.
  Link* remove(Link** at) {
    Link* link = *at;
    *at = link->kivNext;
    link->kivNext = nullptr;
    // The bit of one of several stays, as others may have it too.
    if (log2_ != 0 && *bucketOf(link->kivOrder) == nullptr) filterOf(link->kivOrder) = 0;
    --count_;
    removals_ = (removals_ + 1) & kRemovalsMask;
    if (count_ == 0) {
      freeBuckets();
    } else if (log2_ > 3 && count_ < (U32{1} << log2_) / 8) {
      resize(log2_ - 2);
    }
    return link;
  }

  // The first link of all; null when there is none.
  Link* first() const {
    if (log2_ == 0) return head_;
    return firstFrom(0);
  }

  // The link that follows `link`, which is in this table.
  Link* following(const Link* link) const {
    if (link->kivNext != nullptr || log2_ == 0) return link->kivNext;
    return firstFrom((link->kivOrder >> (32 - log2_)) + 1);
  }

  // The first link that stands after the given order and key; `upTo(link)` says of a link of equal
  // order whether its key is not greater.
  template <class UpTo>
  Link* after(U32 order, UpTo upTo) const {
    if (Link* found = *place(order, upTo)) return found;
    return log2_ == 0 ? nullptr : firstFrom((order >> (32 - log2_)) + 1);
  }

 private:
  static constexpr U32 kSmall = 4;
  static constexpr U32 kAhead = 8;  // so many buckets ahead a walk asks for what hangs in one
  static constexpr U32 kRemovalsMask = (U32{1} << 27) - 1;

  Link** bucketOf(U32 order) const {
    return log2_ == 0 ? const_cast<Link**>(&head_) : &buckets_[order >> (32 - log2_)];
  }

  U8& filterOf(U32 order) const {
    return reinterpret_cast<U8*>(buckets_ + (std::size_t{1} << log2_))[order >> (32 - log2_)];
  }
  U32 bitOf(U32 order) const { return U32{1} << ((order << log2_) >> 29); }

  Link* firstFrom(U32 bucket) const {
    for (const U32 end = U32{1} << log2_; bucket < end; ++bucket) {
      if (bucket + kAhead < end) __builtin_prefetch(buckets_[bucket + kAhead]);
      if (buckets_[bucket] != nullptr) return buckets_[bucket];
    }
    return nullptr;
  }

  static std::size_t bytes(U32 log2) { return (sizeof(Link*) + sizeof(U8)) << log2; }

  void freeBuckets() {
    if (log2_ != 0) kivMemFree(buckets_, bytes(log2_));
    log2_ = 0;
    head_ = nullptr;
  }

  // Hangs all links into 2^log2 buckets.
  void resize(U32 log2) {
    auto** buckets = static_cast<Link**>(kivMemAllocOrNull(bytes(log2)));
    if (buckets == nullptr) return;
    std::memset(static_cast<void*>(buckets), 0, bytes(log2));
    OrderedTable into;
    into.buckets_ = buckets;
    into.log2_ = log2 & 31;
    if (log2_ != 0 && log2 == log2_ + 1U) {
      splitInto(into);
    } else {
      hangInto(into);
    }
    freeBuckets();
    buckets_ = std::exchange(into.buckets_, nullptr);
    log2_ = log2 & 31;
    into.log2_ = 0;
  }

  // Into twice as many buckets: cuts each chain in two. Most are of one link, and stay as they are.
  void splitInto(OrderedTable& into) const {
    const U32 end = U32{1} << log2_;
    for (U32 bucket = 0; bucket < end; ++bucket) {
      if (bucket + kAhead < end) __builtin_prefetch(buckets_[bucket + kAhead]);
      Link* link = buckets_[bucket];
      if (link == nullptr) continue;
      into.beginChain(link);
      for (Link* next = link->kivNext; next != nullptr; link = next, next = link->kivNext) {
        if (into.bucketOf(next->kivOrder) == into.bucketOf(link->kivOrder)) {
          into.addToFilter(next);
        } else {
          link->kivNext = nullptr;
          into.beginChain(next);
        }
      }
    }
  }

  // Into any number of buckets. Walks all links in order, so each goes to the end of its chain.
  void hangInto(OrderedTable& into) const {
    Link* last = nullptr;
    for (Link* link = first(); link != nullptr;) {
      Link* next = following(link);
      link->kivNext = nullptr;
      if (last != nullptr && into.bucketOf(last->kivOrder) == into.bucketOf(link->kivOrder)) {
        last->kivNext = link;
        into.addToFilter(link);
      } else {
        into.beginChain(link);
      }
      last = link;
      link = next;
    }
  }

  // Hangs a link, and what hangs on it, into its bucket, which is empty.
  void beginChain(Link* link) {
    *bucketOf(link->kivOrder) = link;
    addToFilter(link);
  }
  void addToFilter(const Link* link) {
    filterOf(link->kivOrder) |= static_cast<U8>(bitOf(link->kivOrder));
  }

  union {
    Link* head_ = nullptr;  // while log2_ is 0
    Link** buckets_;
  };
  U32 count_ = 0;
  U32 log2_ : 5 = 0;
  U32 removals_ : 27 = 0;
};

}  // namespace detail
}  // namespace Kiv
