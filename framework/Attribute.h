// Attributes: what an entity is made of. Each kind is written once, here: how it stores, and how it
// notifies its entity's notifiees of a change.
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
// What a mutator does, in this order:
//
//   1. It queues the deferred notifications, for each notifiee that listens and has overridden the
//      handler: that of a scalar; of a collection the keyed one, then the argument-less one.
//   2. It makes the change.
//   3. For a collection, it calls on...kivImmediate() of each notifiee that was registered at 1 and
//      still listens.
//
// So a notifiee that registers in a handler of step 3 is not notified of this change, and what such
// a handler changes is queued behind this change. What was queued for a notifiee stays queued when
// it changes to another entity in step 3; one that becomes active there gets the immediate call
// alone. A mutator that throws in 1 or 2, as when memory
// runs out, has changed nothing, and nothing of it is queued. One that finds nothing to change
// notifies nobody; but a scalar notifies of each write, also of the value that it has.
//
// What an immediate handler throws leaves the mutator after every notifiee was called, of several
// exceptions the first; the change and what was queued stay. Nothing is allocated for a
// change that nobody observes. Activity thread only.
#pragma once

#include <exception>
#include <type_traits>

#include "framework/Activity.h"
#include "framework/HashMap2018.h"
#include "framework/detail/SingleChange.h"

namespace [[gnu::visibility("default")]] Kiv {

// The three notifications of a keyed attribute, as members of its NotifieeConst class.
template <class N, class K>
struct On {
  void (N::*keyed)(KeyArgument<K>);  // from the loop, with the member's key
  void (N::*immediate)();            // at once, inside the mutator
  void (N::*whole)();                // from the loop, after the keyed one
  std::string_view name = {};        // the attribute's, where its mutator takes an entity
};

namespace detail {

// Queues one notification for each notifiee that listens and has overridden its handler. Throws
// std::bad_alloc, when some may be queued.
template <class N, class... K>
[[gnu::always_inline]] inline void queueForEach(const NotifieeList& list, ActivityManager& loop,
                                                void (N::*handler)(KeyArgument<K>...),
                                                const K&... key) {
  list.forEachUnguarded([&](NotifieeBase & notifiee) __attribute__((always_inline)) {
    N& to = static_cast<N&>(notifiee);
    if (NotifieeBase::overrides(to, handler)) loop.queue<N, K...>(to, handler, key...);
  });
}

// One change of a member of an observed collection. REQUIRES: the entity is observed.
template <class N, class K>
class ObservedChange {
 public:
  // Before the change: queues its deferred notifications. Throws std::bad_alloc; nothing was queued
  // then. `version` is the collection's, for SingleChange.
  ObservedChange(const EntityBase& entity, const On<N, K>& on, const K& key, const void* collection,
                 U64 version)
      : entity_(&entity),
        key_(key),
        immediate_(on.immediate),
        queued_(ActivityManager::instance()),
        single_(collection, version, &key_) {
    const NotifieeList& list = *entity.notifieeList();
    queueForEach<N, K>(list, queued_.loop(), on.keyed, key_);
    queueForEach<N>(list, queued_.loop(), on.whole);
  }

  // The key; valid also when the owner of the key that the mutator was given was freed.
  const K& key() const { return key_; }

  // After the change: calls the immediate handler of each notifiee that listens; throws in the end
  // what the first of those that threw has thrown. Without this call, what was queued is
  // removed again.
  void made() {
    queued_.keep();
    std::exception_ptr thrown;
    entity_->notifieeList()->forEach([&](NotifieeBase& notifiee) {
      try {
        (static_cast<N&>(notifiee).*immediate_)();
      } catch (...) {
        if (!thrown) thrown = std::current_exception();
      }
    });
    if (thrown) std::rethrow_exception(thrown);
  }

 private:
  const Ptr<const EntityBase> entity_;  // which a handler may drop
  const K key_;
  void (N::*immediate_)();
  ActivityManager::TentativeQueueing queued_;
  SingleChange single_;
};

// A keyed collection whose changes are notified of. Map is the collection, K its key.
template <class Map, class K>
class Observed : public Map {
 protected:
  // Changes one member. `change(key)` makes the change and returns whether there was any to make;
  // the key that it is given equals `key` and outlives the member.
  template <class N, class Change>
  void changeMember(const EntityBase& entity, const On<N, K>& on, const K& key, Change change) {
    if (entity.notifieeList()->empty()) {
      change(key);
    } else {
      changeObserved(entity, on, key, change);
    }
  }

 private:
  template <class N, class Change>
  [[gnu::noinline]] void changeObserved(const EntityBase& entity, const On<N, K>& on, const K& key,
                                        Change& change) {
    ObservedChange<N, K> observed(entity, on, key, this, version());
    if (change(observed.key())) observed.made();
  }
  U64 version() const {
    if constexpr (requires { this->changes(); }) {
      return this->changes();
    } else {
      return 0;
    }
  }
};

// Entries of a key and a value, which lie in the collection itself.
template <class K, class V>
class Entries : public Observed<HashMap2018<K, V>, K> {
  using Map = HashMap2018<K, V>;

 public:
  // Deletes the key's entry; does nothing when absent.
  template <class N>
  void del(const EntityBase& entity, const On<N, K>& on, const K& key) {
    this->changeMember(entity, on, key, [this](const K& k) { return Map::deleteMember(k); });
  }

  // Deletes every entry, one after the other.
  template <class N>
  void delAll(const EntityBase& entity, const On<N, K>& on) {
    const Ptr<const EntityBase> hold(&entity);  // a handler may drop it
    for (const auto& entry : *this) del(entity, on, entry.key);
  }

 protected:
  // Gives the key's entry this value, adding it when absent; does nothing when it has it.
  template <class N>
  void assign(const EntityBase& entity, const On<N, K>& on, const K& key, const V& value) {
    this->changeMember(entity, on, key,
                       [this, &value](const K& k) { return Map::newMember(k, value); });
  }

 private:
  using Map::deleteMember;
  using Map::emptyAllBuckets;
  using Map::newMember;
};

}  // namespace detail

// One value.
template <class T>
class Scalar {
  static_assert(std::is_nothrow_move_assignable_v<T>, "a write is queued before it is made");

 public:
  Scalar() = default;
  explicit Scalar(T value) : value_(std::move(value)) {}

  // The value; as made, the default of its type.
  const T& get() const { return value_; }

  // Writes the value, and notifies.
  template <class N>
  void is(const EntityBase& entity, void (N::*handler)(), T value) {
    const NotifieeList& list = *entity.notifieeList();
    if (!list.empty()) {
      ActivityManager& loop = ActivityManager::instance();
      ActivityManager::TentativeQueueing queued(loop);
      detail::queueForEach(list, loop, handler);
      queued.keep();
    }
    value_ = std::move(value);
  }

 private:
  T value_{};
};

// Children that the entity owns. V is made from its key alone.
template <class V, class K>
class Collection : public detail::Observed<HashMap<V, K>, K> {
  using Map = HashMap<V, K>;

 public:
  // Returns the child with this key, made when absent.
  template <class N>
  Ptr<V> is(const EntityBase& entity, const On<N, K>& on, const K& key) {
    if (V* existing = (*this)[key]) return existing;
    return add(entity, on, make<V>(key));
  }

  // Adds a child that the caller has made, or replaces the one with its key by it; returns it.
  // Throws a range exception when null, or when it is a member of a collection already.
  template <class N>
  Ptr<V> is(const EntityBase& entity, const On<N, K>& on, const Ptr<V>& child) {
    if (!child) throwNullArgument(on.name, entity.fwkType().name());
    if ((*this)[child->fwkKey()] == child.get()) return child;
    return add(entity, on, child);
  }

  // Takes the child out and returns it; null when absent.
  template <class N>
  Ptr<V> del(const EntityBase& entity, const On<N, K>& on, const K& key) {
    Ptr<V> removed;
    this->changeMember(entity, on, key, [&](const K& k) {
      removed = Map::deleteMember(k);
      return removed.get() != nullptr;
    });
    return removed;
  }

  // Takes out every child, one after the other.
  template <class N>
  void delAll(const EntityBase& entity, const On<N, K>& on) {
    const Ptr<const EntityBase> hold(&entity);  // a handler may drop it
    for (const auto& child : std::as_const(*this)) del(entity, on, child->fwkKey());
  }

  // The key of the change that is being notified of, when it is the only change since changes() was
  // `version`; null when there is none such, or when another collection changes meanwhile.
  const K* singleChangeSince(U32 version) const {
    return static_cast<const K*>(detail::SingleChange::keySince(this, version));
  }

 private:
  using Map::deleteMember;
  using Map::emptyAllBuckets;
  using Map::newMember;
  using Map::replaceMember;

  template <class N>
  Ptr<V> add(const EntityBase& entity, const On<N, K>& on, Ptr<V> child) {
    Ptr<V> replaced;
    this->changeMember(entity, on, child->fwkKey(), [&](const K&) {
      replaced = Map::replaceMember(child);
      return true;
    });
    return child;
  }
};

// References to entities that others own.
template <class E, class K>
class References : public detail::Entries<K, Ptr<const E>> {
 public:
  // Makes the key refer to this entity. Throws a range exception when null.
  template <class N>
  void is(const EntityBase& entity, const On<N, K>& on, const K& key,
          const Ptr<const E>& referred) {
    if (!referred) throwNullArgument(on.name, entity.fwkType().name());
    this->assign(entity, on, key, referred);
  }
};

// Entries of a key and a bool.
template <class K>
class ValueSet : public detail::Entries<K, bool> {
 public:
  // Gives the key's entry this value, made when absent; does nothing when it has it.
  template <class N>
  void is(const EntityBase& entity, const On<N, K>& on, const K& key, bool value) {
    this->assign(entity, on, key, value);
  }
};

}  // namespace Kiv
