// Kiv::HashMap<V, K, E>: a keyed collection of objects that it holds a reference to.
//
// Intrusive: a member derives from Kiv::Member, which carries its link, and says its own key with
// fwkKey(). An object is a member of one HashMap at a time. Members stand in the order of their
// bit-reversed key hashes; the order does not change while a member is in.
//
//   for (const auto& region : config->region()) { ... }   // region: Ptr<Region const> const&
//
// The loop body may delete any member, the current one too, and may insert: each member that stays
// is met once, one that has gone is not met again. It may not end the life of the collection.
//
// Threads: the activity thread only.
#pragma once

#include <iterator>

#include "framework/Hash.h"
#include "framework/Ptr.h"
#include "framework/detail/OrderedTable.h"

namespace [[gnu::visibility("default")]] Kiv {

// An object that can be a member of a HashMap.
class Member : public PtrInterface {
 protected:
  Member() = default;

 private:
  template <class, class, class>
  friend class HashMap;
  friend class detail::OrderedTable<Member>;

  using PtrInterface::collected;
  using PtrInterface::collectedIs;

  U32 kivOrder = 0;
  Member* kivNext = nullptr;
};

// V: the class of the members. K: their key. E: what a member stands for, where that is another
// object (the entity that a reactor observes).
template <class V, class K, class E = V>
class HashMap {
  using Table = detail::OrderedTable<Member>;

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
  // How many buckets the members hang in; 0 while they are few and hang in one chain.
  std::size_t buckets() const { return table_.buckets(); }
  // Rises by one with each member that comes and each that goes; wraps around.
  U32 changes() const { return table_.changes(); }

  // Change
  // Inserts a member. REQUIRES: no member has its key. Throws a range exception for an object that
  // is a member of a collection already.
  void newMember(const Ptr<V>& member) {
    if (static_cast<Member&>(*member).collected()) {
      throwRangeException("an object can be a member of one collection only");
    }
    static_cast<Member&>(*member).collectedIs(true);
    const K& key = member->fwkKey();
    member->kivOrder = kivOrder(key);
    table_.insert(place(member->kivOrder, key), member.get());
    member->referencesInc();
  }
  // Takes out the member with this key and hands it to the caller; null when absent.
  Ptr<V> deleteMember(const K& key) {
    Member** at = placeOf(key);
    if (at == nullptr) return nullptr;
    Member* removed = table_.remove(at);
    removed->collectedIs(false);
    return Ptr<V>::adopt(static_cast<V*>(removed));
  }
  // Takes out every member, in order.
  void emptyAllBuckets() {
    // Walks, as to look for the first anew would pass by all that are gone, each time. What a
    // member's end puts in behind the walk is for the next.
    while (!empty()) {
      for (iterator at = begin(); !(at == end()); ++at) (void)deleteMember(at.key());
    }
  }

  // Iteration
  iterator begin() { return iterator(*this); }
  const_iterator begin() const { return const_iterator(*this); }
  std::default_sentinel_t end() const { return {}; }
  // Calls each(member) for every member, in order. REQUIRES: it leaves the collection as it is.
  // Costs less than a loop, which holds its member.
  template <class Each>
  void forEachAtRest(Each each) const {
    for (Member* at = table_.first(); at != nullptr; at = table_.following(at)) {
      each(static_cast<V&>(*at));
    }
  }
  // An iterator at the member with this key; at the end when absent.
  iterator iteratorAt(const K& key) { return iterator(*this, find(key)); }

 private:
  static const K& keyOf(const Member& member) { return static_cast<const V&>(member).fwkKey(); }

  Member** place(U32 order, const K& key) const {
    return table_.place(order, [&](const Member& m) { return keyOf(m) < key; });
  }
  Member** placeOf(const K& key) const {
    return table_.find(kivOrder(key), [&](const Member& m) { return keyOf(m) == key; });
  }
  V* find(const K& key) const {
    Member** at = placeOf(key);
    return at == nullptr ? nullptr : static_cast<V*>(*at);
  }
  // The member that follows one with the given key, which may have gone.
  V* findNextG(const K& key) const {
    return static_cast<V*>(
        table_.after(kivOrder(key), [&](const Member& m) { return !(key < keyOf(m)); }));
  }
  // The member that follows one that is still in.
  V* findNextBucket(const V& member) const { return static_cast<V*>(table_.following(&member)); }
  V* findFirst() const { return static_cast<V*>(table_.first()); }

  Table table_;
};

// Holds the current member, so that it stays usable after its deletion.
template <class V, class K, class E>
template <class T>
class HashMap<V, K, E>::Iterator {
 public:
  using value_type = Ptr<T>;
  using difference_type = std::ptrdiff_t;

  Iterator() = default;

  const Ptr<T>& operator*() const { return current_; }
  T* operator->() const { return current_.get(); }
  // Its key, also after its deletion.
  const K& key() const { return current_->fwkKey(); }

  Iterator& operator++() {
    V* next = map_->table_.removals() == removals_ ? map_->findNextBucket(*current_)
                                                   : map_->findNextG(key());
    stand(next);
    return *this;
  }
  void operator++(int) { ++*this; }

  friend bool operator==(const Iterator& iterator, std::default_sentinel_t) {
    return !iterator.current_;
  }

 private:
  friend class HashMap;
  explicit Iterator(const HashMap& map) : Iterator(map, map.findFirst()) {}
  Iterator(const HashMap& map, V* at) : map_(&map) { stand(at); }

  void stand(V* at) {
    removals_ = map_->table_.removals();
    current_ = Ptr<T>(at);
  }

  const HashMap* map_ = nullptr;
  Ptr<T> current_;
  U32 removals_ = 0;
};

}  // namespace Kiv
