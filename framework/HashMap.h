// Kiv::HashMap<V, K, E>: a keyed collection of objects that it holds a reference to.
//
// A member derives from Kiv::Member and says its own key with fwkKey(). An object is a member of
// one HashMap at a time. Members stand in the order of their bit-reversed key hashes; the order
// does not change while a member is in.
//
//   for (const auto& region : config->region()) { ... }   // region: Ptr<Region const> const&
//
// The loop body may delete any member, the current one too, and may insert, less than 2^24 times in
// one turn: each member that stays is met once, one that has gone is not met again. It may not end
// the life of the collection.
//
// Threads: the activity thread only.
#pragma once

#include <iterator>
#include <memory>
#include <utility>

#include "framework/Hash.h"
#include "framework/Member.h"
#include "framework/Ptr.h"
#include "framework/detail/MemberTable.h"
#include "framework/detail/Stand.h"

namespace [[gnu::visibility("default")]] Kiv {

// V: the class of the members. K: their key. E: what a member stands for, where that is another
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
  // How many buckets the members stand in; 0 while they are few.
  std::size_t buckets() const { return table_.buckets(); }
  // Rises with each member that comes and each that goes, by one, and when room is made; wraps
  // around at 2^24.
  U32 changes() const { return table_.changes(); }

  // Change
  // Makes room for so many members at once, where there is memory for it: they come faster then.
  void reserve(std::size_t members) noexcept { table_.reserve(static_cast<U32>(members)); }
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
  // Takes out the member with this key and hands it to the caller; null when absent.
  Ptr<V> deleteMember(const K& key) {
    const Found found = foundAt(key);
    return found.member == nullptr ? nullptr : leave(table_.remove(found.at));
  }
  // Takes out every member, in order; also what the end of one puts in.
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
  // Calls each(member) for every member, in order. REQUIRES: it leaves the collection as it is.
  // Costs less than a loop, which takes note of its member.
  template <class Each>
  void forEachAtRest(Each each) const {
    Table::Walk walk = table_.walkFrom(0);
    while (Member* at = table_.next(walk)) each(static_cast<V&>(*at));
  }
  // An iterator at the member with this key; at the end when absent.
  iterator iteratorAt(const K& key) {
    const Found found = foundAt(key);
    return found.member == nullptr ? iterator() : iterator(*this, found.at);
  }

 private:
  using Found = Table::Found;

  static const K& keyOf(const Member& member) { return static_cast<const V&>(member).fwkKey(); }
  static U32 orderOf(const K& key) { return Table::usable(kivOrder(key)); }

  Found foundAt(const K& key) const {
    const Found found = table_.find(orderOf(key));
    if (found.member == nullptr || keyOf(*found.member) == key) return found;
    return foundBehind(found, key);
  }
  // Goes on from a member of the key's order that has another key.
  [[gnu::noinline, gnu::cold]] Found foundBehind(Found found, const K& key) const {
    do {
      found = table_.behind(found.at + 1, orderOf(key));
    } while (found.member != nullptr && !(keyOf(*found.member) == key));
    return found;
  }
  V* find(const K& key) const { return static_cast<V*>(foundAt(key).member); }
  // The place behind all members of this order of whose keys `passes(key)` holds, and how many they
  // are.
  template <class Passes>
  std::pair<U32, U32> behind(U32 order, Passes passes) const {
    Found found = table_.seek(order);
    U32 passed = 0;
    while (found.member != nullptr && passes(keyOf(*found.member))) {
      found = table_.behind(found.at + 1, order);
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
  static Ptr<V> leave(Member* member) {
    detail::Stand::leaves(*member);
    member->collectedIs(false);
    return Ptr<V>::adopt(static_cast<V*>(member));
  }
  void insert(V& member, U32 order) {
    const auto [at, passed] =
        behind(order, [&](const K& other) { return other < member.fwkKey(); });
    table_.insert(at, passed, &member, order);
    enter(member);
  }

  Table table_;
};

// Holds the member that it stands on from the member's deletion on. Stays on its thread.
template <class V, class K, class E>
template <class T>
class HashMap<V, K, E>::Iterator {
 public:
  using value_type = Ptr<T>;
  using difference_type = std::ptrdiff_t;

  Iterator() = default;
  // Another loop that stands on the same member and goes on alone.
  Iterator(const Iterator& other) : Iterator() { *this = other; }
  Iterator& operator=(const Iterator& other) {
    map_ = other.map_;
    walk_ = other.walk_;
    changes_ = other.changes_;
    stand_ = other.stand_;
    show();
    return *this;
  }
  ~Iterator() = default;

  const Ptr<T>& operator*() const { return shown_.pointer; }
  T* operator->() const { return current(); }
  // Its key, also after its deletion.
  const K& key() const { return current()->fwkKey(); }

  Iterator& operator++() {
    // What follows the current one, which may have gone.
    if (map_->changes() != changes_) {
      walkFrom(
          map_->behind(orderOf(key()), [&](const K& other) { return !(key() < other); }).first);
    }
    stand_.goOn(map_->table_.next(walk_));
    show();
    return *this;
  }
  void operator++(int) { ++*this; }

  friend bool operator==(const Iterator& iterator, std::default_sentinel_t) {
    return iterator.stand_.member() == nullptr;
  }

 private:
  friend class HashMap;
  // A pointer that shows the member without counting it.
  union Shown {
    Shown() : pointer() {}
    ~Shown() {}
    Ptr<T> pointer;
  };

  // Stands at the first member at this place or behind, which may be none.
  Iterator(const HashMap& map, U32 place) : map_(&map) {
    walkFrom(place);
    stand_.begin(map_->table_.next(walk_));
    show();
  }

  V* current() const { return static_cast<V*>(stand_.member()); }
  void walkFrom(U32 place) {
    changes_ = map_->changes();
    walk_ = map_->table_.walkFrom(place);
  }
  void show() { std::construct_at(&shown_.pointer, Ptr<T>::adopt(current())); }

  const HashMap* map_ = nullptr;
  detail::Stand stand_;
  Shown shown_;
  Table::Walk walk_;
  U32 changes_ = 0;  // those of the map when the walk was begun
};

}  // namespace Kiv
