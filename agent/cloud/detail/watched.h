// The attributes of a watched entity, as they were published at the last change(); for
// output_watch.cpp alone.
//
// Each kind of attribute is a class with three functions. start() takes the present state as
// published. noteAll() marks everything as dirty, when the entity was replaced by another one with
// its key. change() compares what is dirty, updates the published state, and returns the attribute
// if it differs. A watcher lists its attributes once, in visit(), for all three.
#pragma once

#include <algorithm>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>
#include <vector>

#include "agent/cloud/output_reading.h"
#include "framework/HashMap.h"
#include "framework/HashMap2018.h"

namespace vnagent::detail {

// One pass of change() over the watchers.
struct Search {
  std::vector<Kiv::Ptr<const Kiv::PtrInterface>> removed;  // entities whose keys are in the result
  size_t keys = 0;                                         // the number of keys compared
};

// The dirty keys of an attribute: those that notifications have named. One pointer while empty.
template <class K>
class NotedKeys {
 public:
  // Returns whether it is the first.
  bool add(const K& key) {
    const bool first = keys_ == nullptr;
    if (first) keys_ = std::make_unique<std::vector<K>>();
    if (first || !(keys_->back() == key)) keys_->push_back(key);
    return first;
  }

  // Removes all and returns them, sorted and unique.
  std::vector<K> take(Search& search) {
    if (keys_ == nullptr) return {};
    std::vector<K> keys = std::move(*keys_);
    keys_.reset();
    std::sort(keys.begin(), keys.end());
    keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
    search.keys += keys.size();
    return keys;
  }

 private:
  std::unique_ptr<std::vector<K>> keys_;
};

// One value.
template <class T>
class WatchedScalar {
 public:
  void start(const T& now) { shown_ = now; }
  void noteAll(const T&) {}
  auto change(const T& now, Search&) {
    const bool changed = !(shown_ == now);
    if (changed) shown_ = now;
    return changed ? std::optional(readValue(now)) : std::nullopt;
  }

 private:
  T shown_{};
};

// A set of keys.
template <class K>
class WatchedSet {
 public:
  void note(const K& key) { noted_.add(key); }

  template <class Set>
  void start(const Set& now) {
    for (const auto& entry : now) {
      if (isShown(entry.value)) shown_.newMember(entry.key, true);
    }
  }
  template <class Set>
  void noteAll(const Set& now) {
    for (const auto& entry : shown_) note(entry.key);
    for (const auto& entry : now) note(entry.key);
  }
  template <class Set>
  auto change(const Set& now, Search& search) {
    bool changed = false;
    for (const K& key : noted_.take(search)) {
      const auto* value = now.find(key);
      const bool shown = value != nullptr && isShown(*value);
      changed |= shown ? shown_.newMember(key, true) : shown_.deleteMember(key);
    }
    return changed ? std::optional(readSet(now)) : std::nullopt;
  }

 private:
  Kiv::HashMap2018<K> shown_;
  NotedKeys<K> noted_;
};

// A watcher of an entity with collections.
class Holder {
 public:
  // Called when something in one of them becomes dirty.
  virtual void noted() = 0;

 protected:
  ~Holder() = default;
};

// A collection of entities, each with a watcher W. Those that have one were published.
template <class W>
class WatchedMembers {
  using Key = typename W::Key;
  using Output = typename W::Output;

 public:
  explicit WatchedMembers(Holder& holder) : holder_(holder) {}

  // The member with this key was added or removed, or has changed inside.
  void note(const Key& key) {
    if (noted_.add(key)) holder_.noted();
  }

  template <class Members>
  void start(const Members& now) {
    for (const auto& member : now) add(*member);
  }
  template <class Members>
  void noteAll(const Members& now) {
    for (const auto& watcher : watchers_) note(watcher->fwkKey());
    for (const auto& member : now) note(member->fwkKey());
  }
  // Calls added(entity) and removed(entity) for each that was.
  template <class Members, class Added, class Removed>
  std::optional<std::vector<Output>> change(const Members& now, Search& search, Added added,
                                            Removed removed) {
    std::vector<Output> changes;
    for (const Key& key : noted_.take(search)) {
      W* watcher = watchers_[key];
      const auto* entity = now[key];
      if (entity == nullptr) {
        if (watcher == nullptr) continue;
        removed(*watcher->notifier());
        changes.push_back(remove(*watcher, search));
      } else if (watcher == nullptr) {
        add(*entity);
        added(*entity);
        changes.push_back(readOutput(*entity));
      } else {
        if (watcher->notifier() != entity) watcher->replace(*entity);
        if (auto change = watcher->change(search)) changes.push_back(std::move(*change));
      }
    }
    if (changes.empty()) return std::nullopt;
    return changes;
  }
  template <class Members>
  std::optional<std::vector<Output>> change(const Members& now, Search& search) {
    constexpr auto kIgnore = [](const typename W::Notifier&) {};
    return change(now, search, kIgnore, kIgnore);
  }

 private:
  void add(const typename W::Notifier& entity) {
    const auto watcher = Kiv::make<W>(*this);
    watcher->start(entity);
    watchers_.newMember(watcher);
  }
  Output remove(W& watcher, Search& search) {
    search.removed.emplace_back(watcher.notifier());
    Output removed = readKey(*watcher.notifier());
    removed.removed = true;
    watchers_.deleteMember(watcher.fwkKey());
    return removed;
  }

  Holder& holder_;
  Kiv::HashMap<W, Key> watchers_;
  NotedKeys<Key> noted_;
};

// The base of watchers: Self watches an entity E, whose plain form is O. Self defines
//   template <class Visit> void visit(const E& now, O& output, Visit visit);
// which calls visit(watched, value, member) for each attribute: its published state, its present
// value, and the member of the plain form.
template <class Self, class E, class O>
class Watcher : public E::NotifieeConst, protected Holder {
 public:
  using Key = std::remove_cvref_t<decltype(std::declval<const E&>().fwkKey())>;
  using Output = O;

  explicit Watcher(WatchedMembers<Self>& in) : in_(in) {}

  const Key& fwkKey() const { return this->notifier()->fwkKey(); }

  // Watches this entity, and takes its present state as published.
  void start(const E& entity) {
    connect(entity);
    visitAll([](auto& watched, const auto& now, auto&) { watched.start(now); });
  }

  // Watches this entity instead of the one that had its key before.
  void replace(const E& entity) {
    connect(entity);
    visitAll([](auto& watched, const auto& now, auto&) { watched.noteAll(now); });
  }

  // The attributes that differ from what was published; nothing if none does.
  std::optional<O> change(Search& search) {
    bool changed = false;
    O output = visitAll([&](auto& watched, const auto& now, auto& shown) {
      shown = watched.change(now, search);
      changed |= shown.has_value();
    });
    if (!changed) return std::nullopt;
    return output;
  }

 protected:
  void noted() final { in_.note(fwkKey()); }

 private:
  void connect(const E& entity) {
    this->notifierIs(Kiv::Ptr(&entity));
    this->isRegisteredNotifieeIs(true);
    this->hasNotificationActiveIs(true);
  }
  template <class Visit>
  O visitAll(Visit visit) {
    O output = readKey(*this->notifier());
    static_cast<Self&>(*this).visit(*this->notifier(), output, visit);
    return output;
  }

  WatchedMembers<Self>& in_;
};

}  // namespace vnagent::detail
