// Attributes: what an entity is made of. Each kind is written once, here: how it stores, and how it
// tells its entity's notifiees of a change.
//
//   Scalar<T>             one value
//   Collection<V, K>      children that the entity owns, by key
//   References<E, K>      references to other entities, by key
//   ValueSet<K>           entries of a key and a bool
//
// The entity's class declares one as a private member and forwards to it by name; the mutators take
// the entity and the notifications to raise:
//
//   Kiv::Ptr<Segment> segmentIs(const Kiv::String& id) {
//     return segment_.is(*this, kOnSegment, id);
//   }
//
// A change of a collection calls on...kivImmediate() at once, after the change, and queues the
// keyed notification and then the one without a key; a write of a scalar queues its notification,
// also when the value is unchanged. A mutator that changes nothing tells nobody, nothing is queued
// for a notifiee that has left the handler empty, and nothing is allocated to tell nobody. What an
// immediate handler throws leaves the mutator, after every notifiee has been told; the change
// stands. Activity thread only.
#pragma once

#include <exception>

#include "framework/Activity.h"
#include "framework/HashMap2018.h"

namespace [[gnu::visibility("default")]] Kiv {

// The three notifications of a keyed attribute, as members of its NotifieeConst class.
template <class N, class K>
struct On {
  void (N::*keyed)(KeyArgument<K>);  // from the loop, with the member's key
  void (N::*immediate)();            // at once, inside the mutator
  void (N::*whole)();                // from the loop, after the keyed one
};

// The change that a mutator is telling of: which member of which collection. A reactor that was in
// line with the collection before it needs to look at this member only.
struct ChangeUnderWay {
  const void* collection;  // the changed collection
  const void* key;         // the changed member's, of the collection's key type
  U32 before;              // the collection's changes() before it
  ChangeUnderWay* outer;   // the change within whose notification this one happens; or null

  // The innermost change under way in the process; null when there is none.
  static ChangeUnderWay*& innermost() { return innermost_; }

 private:
  inline static constinit ChangeUnderWay* innermost_ = nullptr;
};

// Queues a notification without a key for every notifiee that listens.
template <class N>
void notify(const EntityBase& entity, void (N::*handler)()) {
  NotifieeList& list = *entity.notifieeList();
  if (list.empty()) return;
  ActivityManager& loop = ActivityManager::instance();
  list.forEachAtRest([&](NotifieeBase& n) {
    if (!NotifieeBase::ignores(static_cast<N&>(n), handler))
      loop.queue(static_cast<N&>(n), handler);
  });
}

// Tells of a change of one member: at once, then keyed and whole from the loop.
template <class N, class K>
void notifyChange(const EntityBase& entity, const On<N, K>& on, const K& changedKey,
                  const void* collection, U32 before) {
  NotifieeList& list = *entity.notifieeList();
  if (list.empty()) return;
  const Ptr<const EntityBase> hold(&entity);
  const K key = changedKey;  // its owner may go with what a handler does
  std::exception_ptr thrown;
  {
    ChangeUnderWay change{collection, &key, before, ChangeUnderWay::innermost()};
    ChangeUnderWay::innermost() = &change;
    list.forEach([&](NotifieeBase& n) {
      try {
        (static_cast<N&>(n).*on.immediate)();
      } catch (...) {
        if (!thrown) thrown = std::current_exception();
      }
    });
    ChangeUnderWay::innermost() = change.outer;
  }
  ActivityManager& loop = ActivityManager::instance();
  list.forEachAtRest([&](NotifieeBase& n) {
    if (!NotifieeBase::ignores(static_cast<N&>(n), on.keyed)) {
      loop.queue(static_cast<N&>(n), on.keyed, key);
    }
  });
  list.forEachAtRest([&](NotifieeBase& n) {
    if (!NotifieeBase::ignores(static_cast<N&>(n), on.whole))
      loop.queue(static_cast<N&>(n), on.whole);
  });
  if (thrown) std::rethrow_exception(thrown);
}

// One value.
template <class T>
class Scalar {
 public:
  Scalar() = default;
  explicit Scalar(T value) : value_(std::move(value)) {}

  // The value; as made, the default of its type.
  const T& get() const { return value_; }

  // Writes it, and tells.
  template <class N>
  void is(const EntityBase& entity, void (N::*handler)(), T value) {
    value_ = std::move(value);
    notify(entity, handler);
  }

 private:
  T value_{};
};

// Children that the entity owns. V is made from its key alone.
template <class V, class K>
class Collection : public HashMap<V, K> {
  using Map = HashMap<V, K>;

 public:
  // Returns the child with this key, made when absent.
  template <class N>
  Ptr<V> is(const EntityBase& entity, const On<N, K>& on, const K& key) {
    if (V* existing = (*this)[key]) return existing;
    return add(entity, on, make<V>(key));
  }

  // Takes in a child that was made before, in place of one with its key; returns it. Throws a range
  // exception when null, or when it is a member of a collection already.
  template <class N>
  Ptr<V> is(const EntityBase& entity, const On<N, K>& on, const Ptr<V>& child) {
    if (!child) throwRangeException("null entity given to a collection");
    if ((*this)[child->fwkKey()] == child.get()) return child;
    return add(entity, on, child);
  }

  // Takes the child out and returns it; null when absent.
  template <class N>
  Ptr<V> del(const EntityBase& entity, const On<N, K>& on, const K& key) {
    const U32 before = this->changes();
    Ptr<V> removed = Map::deleteMember(key);
    if (removed) notifyChange(entity, on, removed->fwkKey(), this, before);
    return removed;
  }

  // Takes out every child, one after the other.
  template <class N>
  void delAll(const EntityBase& entity, const On<N, K>& on) {
    const Ptr<const EntityBase> hold(&entity);  // a handler may let go of it
    for (const auto& child : std::as_const(*this)) del(entity, on, child->fwkKey());
  }

 private:
  using Map::deleteMember;
  using Map::emptyAllBuckets;
  using Map::newMember;
  using Map::replaceMember;

  template <class N>
  Ptr<V> add(const EntityBase& entity, const On<N, K>& on, const Ptr<V>& child) {
    const U32 before = this->changes();
    const Ptr<V> replaced = Map::replaceMember(child);
    notifyChange(entity, on, child->fwkKey(), this, before);
    return child;
  }
};

// References to entities that others own.
template <class E, class K>
class References : public HashMap2018<K, Ptr<const E>> {
  using Map = HashMap2018<K, Ptr<const E>>;

 public:
  // Makes the key refer to this entity. Throws a range exception when null.
  template <class N>
  void is(const EntityBase& entity, const On<N, K>& on, const K& key,
          const Ptr<const E>& referred) {
    if (!referred) throwRangeException("null entity given to a collection");
    if (Map::newMember(key, referred)) notifyChange(entity, on, key, this, 0);
  }

  // Drops the reference; does nothing when absent.
  template <class N>
  void del(const EntityBase& entity, const On<N, K>& on, const K& key) {
    const K gone = key;
    if (Map::deleteMember(key)) notifyChange(entity, on, gone, this, 0);
  }

  // Drops every reference, one after the other.
  template <class N>
  void delAll(const EntityBase& entity, const On<N, K>& on) {
    const Ptr<const EntityBase> hold(&entity);  // a handler may let go of it
    for (const auto& entry : *this) del(entity, on, entry.key);
  }

 private:
  using Map::deleteMember;
  using Map::emptyAllBuckets;
  using Map::newMember;
};

// Entries of a key and a bool.
template <class K>
class ValueSet : public HashMap2018<K, bool> {
  using Map = HashMap2018<K, bool>;

 public:
  // Gives the key's entry this value, made when absent; does nothing when it has it.
  template <class N>
  void is(const EntityBase& entity, const On<N, K>& on, const K& key, bool value) {
    if (Map::newMember(key, value)) notifyChange(entity, on, key, this, 0);
  }

  // Deletes the key's entry; does nothing when absent.
  template <class N>
  void del(const EntityBase& entity, const On<N, K>& on, const K& key) {
    const K gone = key;
    if (Map::deleteMember(key)) notifyChange(entity, on, gone, this, 0);
  }

  // Deletes every entry, one after the other.
  template <class N>
  void delAll(const EntityBase& entity, const On<N, K>& on) {
    const Ptr<const EntityBase> hold(&entity);  // a handler may let go of it
    for (const auto& entry : *this) del(entity, on, entry.key);
  }

 private:
  using Map::deleteMember;
  using Map::emptyAllBuckets;
  using Map::newMember;
};

}  // namespace Kiv
