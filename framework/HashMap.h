// Kiv::HashMap<V, K, E>: a keyed collection of objects, to each of which it holds a reference.
//
// A member derives from Kiv::Member and stores its own key, which it returns from fwkKey(). The key
// stays the same for as long as the object is a member: look-ups and iterators compare it. An
// object is a member of one HashMap at a time.
//
// Members are in ascending order of their bit-reversed key hashes, members of equal hashes in order
// of their keys. The order depends on the keys alone, not on how the collection came to be.
//
//   for (const auto& region : config->region()) { ... }   // region: Ptr<Region const> const&
//
// The loop body may delete any member, the current one too, and may insert, any number of times:
// each member that stays is visited once, one that was deleted before its turn is not visited, and
// one that was inserted is visited if it comes after the current one in order. What the destructor
// of a deleted member removes is still visited if it comes right after it: the loop has advanced by
// then. The body may not end the life of the collection.
//
// Cost: a look-up, an insertion and a deletion take constant time on average; a step of a loop too,
// and it counts no reference. An empty collection is two words, one with one member as well. What
// may throw: insertions, std::bad_alloc and, for an object that is a member already, a range
// exception.
//
// Threads: the activity thread only.
#pragma once

#include <iterator>
#include <memory>
#include <utility>

#include "framework/Hash.h"
#include "framework/Member.h"
#include "framework/Ptr.h"
#include "framework/detail/Cursor.h"
#include "framework/detail/MemberTable.h"

namespace [[gnu::visibility("default")]] Kiv {

// V: the class of the members. K: their key. E: what a member represents, where that is another
// object (the entity that a reactor observes).
template <class V, class K, class E = V>
class HashMap {
  using Table = detail::MemberTable;

 public:
  using Key = K;
  using Value = V;
  using Entity = E;

  template <class T>
  class Iterator;
  using iterator = Iterator<V>;
  using const_iterator = Iterator<const V>;

  HashMap() = default;
  HashMap(const HashMap&) = delete;
  HashMap& operator=(const HashMap&) = delete;
  ~HashMap() { emptyAllBuckets(); }

  // Lookup. Null when absent; what is returned is borrowed until the member is deleted.
  V* operator[](const K& key) { return find(key); }
  const V* operator[](const K& key) const { return find(key); }
  bool contains(const K& key) const { return find(key) != nullptr; }
  std::size_t size() const { return table_.size(); }
  bool empty() const { return table_.size() == 0; }
  // How many buckets there are; 0 while the members are so few that there are none.
  std::size_t buckets() const { return table_.buckets(); }
  // The version: rises by one with each member that is added or removed, and when memory is
  // reserved. Wraps around at 2^24.
  U32 changes() const { return table_.version(); }

  // Change
  // Reserves memory for so many members, so that they are inserted faster; does nothing where there
  // is no such memory.
  void reserve(std::size_t members) noexcept {
    Cursor::invalidate(this);
    table_.reserve(static_cast<U32>(members));
  }
  // Inserts a member. REQUIRES: no member has its key. Throws a range exception for an object that
  // is a member of a collection already, and std::bad_alloc; nothing has changed then.
  void newMember(const Ptr<V>& member) {
    requireFree(*member);
    insert(*member, orderOf(member->fwkKey()));
  }
  // Inserts a member in place of the one with its key, which it hands to the caller; null when
  // there was none. Throws as newMember() does.
  Ptr<V> replaceMember(const Ptr<V>& member) {
    requireFree(*member);
    const Found found = foundAt(member->fwkKey());
    if (found.member == nullptr) {
      insert(*member, orderOf(member->fwkKey()));
      return nullptr;
    }
    (void)table_.exchange(found.at, member.get());
    enter(*member);
    return leave(found.member);
  }
  // Removes the member with this key and returns it; null when absent.
  Ptr<V> deleteMember(const K& key) {
    const Found found = foundAt(key);
    return found.member == nullptr ? nullptr : leave(table_.remove(found.at));
  }
  // Removes every member, in order; also what the destructor of one inserts.
  void emptyAllBuckets() {
    while (!empty()) {
      U32 at = 0;
      while (Member* removed = table_.removeFrom(at)) (void)leave(removed);
    }
  }

  // Iteration
  iterator begin() { return iterator(*this, 0); }
  const_iterator begin() const { return const_iterator(*this, 0); }
  std::default_sentinel_t end() const { return {}; }
  // An iterator at the member with this key; at the end when absent.
  iterator iteratorAt(const K& key) {
    const Found found = foundAt(key);
    return found.member == nullptr ? iterator() : iterator(*this, found.at);
  }
  // The steps of an iteration by hand, which keeps a key and nothing else, so that anything may
  // happen between two of them:
  //
  //   for (V* v = map.findNextBucket(0); v != nullptr; v = map.findNextG(key)) key = v->fwkKey();
  //
  // The first member in this bucket or in one after it; null when there is none. Without buckets,
  // all members are in bucket 0. What is returned is borrowed until the member is deleted.
  V* findNextBucket(std::size_t bucket) { return nextBucket(bucket); }
  const V* findNextBucket(std::size_t bucket) const { return nextBucket(bucket); }
  // The member that follows this key in order, whether the key is present or not; null at the end.
  V* findNextG(const K& key) { return nextAfter(key); }
  const V* findNextG(const K& key) const { return nextAfter(key); }
  // Calls each(member) for every member, in order, without a cursor. REQUIRES: `each` does not
  // change the collection.
  template <class Each>
  void forEachUnguarded(Each each) const {
    Table::Walk walk = table_.walkFrom(0);
    while (Member* at = table_.next(walk)) each(static_cast<V&>(*at));
  }

 private:
  using Cursor = detail::Cursor;
  using Found = Table::Found;

  static const K& keyOf(const Member& member) { return static_cast<const V&>(member).fwkKey(); }
  static U32 orderOf(const K& key) { return Table::clampOrder(kivOrder(key)); }

  Found foundAt(const K& key) const {
    const Found found = table_.find(orderOf(key));
    if (found.member == nullptr || keyOf(*found.member) == key) return found;
    return foundAfter(found, key);
  }
  // Goes on from a member that has the key's order and another key.
  [[gnu::noinline, gnu::cold]] Found foundAfter(Found found, const K& key) const {
    do {
      found = table_.nextOfOrder(found.at + 1, orderOf(key));
    } while (found.member != nullptr && !(keyOf(*found.member) == key));
    return found;
  }
  V* find(const K& key) const { return static_cast<V*>(foundAt(key).member); }
  V* firstFrom(U32 at) const {
    Table::Walk walk = table_.walkFrom(at);
    return static_cast<V*>(table_.next(walk));
  }
  V* nextBucket(std::size_t bucket) const {
    if (bucket == 0) return firstFrom(0);
    return bucket < buckets() ? firstFrom(table_.bucketBegin(static_cast<U32>(bucket))) : nullptr;
  }
  V* nextAfter(const K& key) const { return firstFrom(placeAfter(key)); }
  // The place of the first member that comes after this key, or of the gap where it would be.
  U32 placeAfter(const K& key) const {
    return partition(orderOf(key), [&](const K& other) { return !(key < other); }).first;
  }
  // The place after all members of this order of whose keys `passes(key)` holds, and how many they
  // are.
  template <class Passes>
  std::pair<U32, U32> partition(U32 order, Passes passes) const {
    Found found = table_.lowerBound(order);
    U32 passed = 0;
    while (found.member != nullptr && passes(keyOf(*found.member))) {
      found = table_.nextOfOrder(found.at + 1, order);
      ++passed;
    }
    return {found.at, passed};
  }

  static void requireFree(const Member& member) {
    if (member.collected()) throwRangeException("an object can be a member of one collection only");
  }
  static void enter(Member& member) {
    member.collectedIs(true);
    member.referencesInc();
  }
  Ptr<V> leave(Member* member) {
    Cursor::remove(this, *member);
    member->collectedIs(false);
    return Ptr<V>::adopt(static_cast<V*>(member));
  }
  void insert(V& member, U32 order) {
    const auto [at, rank] =
        partition(order, [&](const K& other) { return other < member.fwkKey(); });
    Cursor::invalidate(this);  // also where the insertion throws, which may have moved members
    table_.insert(at, rank, &member, order);
    enter(member);
  }

  Table table_;
};

// An input iterator. From the deletion of its member on, it holds a reference to it. Copies iterate
// on their own. Stays on its thread.
template <class V, class K, class E>
template <class T>
class HashMap<V, K, E>::Iterator {
 public:
  using value_type = Ptr<T>;
  using difference_type = std::ptrdiff_t;

  Iterator() = default;
  // A second iterator at the same position; holds the member too where that was deleted.
  Iterator(const Iterator& other) : Iterator() { *this = other; }
  Iterator& operator=(const Iterator& other) {
    map_ = other.map_;
    walk_ = other.walk_;
    cursor_ = other.cursor_;
    show();
    return *this;
  }
  ~Iterator() = default;

  // REQUIRES, of all but the comparison: it is not at the end.
  const Ptr<T>& operator*() const { return shown_.pointer; }
  T* operator->() const { return current(); }
  // The key of the current member, also after its deletion.
  const K& key() const { return current()->fwkKey(); }

  // Goes to the member that follows the current one in order, deleted or not.
  Iterator& operator++() {
    if (cursor_.stale()) [[unlikely]]
      walk_ = map_->table_.walkFrom(map_->placeAfter(key()));
    cursor_.advance(map_->table_.next(walk_));
    show();
    return *this;
  }
  void operator++(int) { ++*this; }

  friend bool operator==(const Iterator& iterator, std::default_sentinel_t) {
    return iterator.cursor_.object() == nullptr;
  }

 private:
  friend class HashMap;
  // A pointer to the current member that counts no reference.
  union Shown {
    Shown() : pointer() {}
    ~Shown() {}
    Ptr<T> pointer;
  };

  // At the first member at this place or after it, or at the end.
  Iterator(const HashMap& map, U32 place) : map_(&map), walk_(map.table_.walkFrom(place)) {
    cursor_.begin(map_, map_->table_.next(walk_));
    show();
  }

  V* current() const { return static_cast<V*>(cursor_.object()); }
  void show() { std::construct_at(&shown_.pointer, Ptr<T>::adopt(current())); }

  const HashMap* map_ = nullptr;
  detail::Cursor cursor_;
  Shown shown_;
  Table::Walk walk_;
};

}  // namespace Kiv
