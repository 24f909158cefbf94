// The attributes of a watched entity, as they were published at the last change(); for
// output_watch.cpp alone.
//
// Each kind of attribute is a class with four functions. start() takes the present state as
// published. noteAll() marks everything as dirty, when the entity was replaced by another one with
// its key. change() compares what is dirty, updates the published state, and returns the attribute
// if it differs; `before` gets what leads back. published() returns the published state. A watcher
// lists its attributes once, in visit(), for all four.
#pragma once

#include <algorithm>
#include <functional>
#include <iterator>
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
  bool back = false;  // whether the change back is asked for, too
  std::vector<Kiv::Ptr<const Kiv::PtrInterface>> removed;  // entities whose keys are in the result
  std::vector<Kiv::String> texts;  // which the result has and the entities may have no longer
  size_t keys = 0;                 // the number of keys compared

  // Keeps what views of the result may show.
  template <class T>
  void hold(T&& value) {
    if constexpr (std::is_base_of_v<Kiv::Text, std::remove_cvref_t<T>>) {
      texts.emplace_back(std::forward<T>(value));
    }
  }

  // What was published, as it is shown; good as long as the search.
  template <class T>
  auto keep(const T& value) {
    if constexpr (std::is_base_of_v<Kiv::Text, T>) {
      return texts.emplace_back(value).view();
    } else {
      return readValue(value);
    }
  }
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
  auto published(Search& search) const { return search.keep(shown_); }
  template <class Output>
  Output change(const T& now, Search& search, Output& before) {
    if (shown_ == now) return std::nullopt;
    if (search.back) before = published(search);
    shown_ = now;
    return readValue(now);
  }

 private:
  T shown_{};
};

// A set of keys.
template <class K>
class WatchedSet {
  using Keys = decltype(readSet(std::declval<const Kiv::HashMap2018<K>&>()));

 public:
  void note(const K& key) { noted_.add(key); }

  template <class Set>
  void start(const Set& now) {
    shown_.clear();
    for (const auto& entry : now) {
      if (isShown(entry.value)) shown_.push_back(entry.key);
    }
    std::ranges::sort(shown_, std::less<>());
    shown_.shrink_to_fit();
  }
  template <class Set>
  void noteAll(const Set& now) {
    for (const K& key : shown_) note(key);
    for (const auto& entry : now) note(entry.key);
  }
  Keys published(Search& search) const {
    Keys keys;
    keys.reserve(shown_.size());
    for (const K& key : shown_) keys.push_back(static_cast<Key>(search.keep(key)));
    return keys;
  }
  template <class Set>
  std::optional<Keys> change(const Set& now, Search& search, std::optional<Keys>& before) {
    std::vector<K> noted = noted_.take(search);
    std::erase_if(noted, [&](const K& key) { return isIn(now, key) == isIn(shown_, key); });
    if (noted.empty()) return std::nullopt;
    if (search.back) before = keysOf(shown_);
    toggle(std::move(noted), search);
    return keysOf(shown_);
  }

 private:
  using Key = typename Keys::value_type;

  template <class Set>
  static bool isIn(const Set& set, const K& key) {
    const auto* value = set.find(key);
    return value != nullptr && isShown(*value);
  }
  static bool isIn(const std::vector<K>& keys, const K& key) {
    return std::binary_search(keys.begin(), keys.end(), key);
  }
  static Keys keysOf(const std::vector<K>& shown) {
    Keys keys;
    keys.reserve(shown.size());
    for (const K& key : shown) {
      if constexpr (std::is_base_of_v<Kiv::Text, K>) {
        keys.push_back(key.view());
      } else {
        keys.push_back(key);
      }
    }
    return keys;
  }
  // Takes out those of these keys that are shown, and adds the others.
  void toggle(std::vector<K> keys, Search& search) {
    std::vector<K> next;
    next.reserve(shown_.size() + keys.size());
    auto from = shown_.begin();
    for (K& key : keys) {
      const auto at = std::lower_bound(from, shown_.end(), key);
      next.insert(next.end(), std::move_iterator(from), std::move_iterator(at));
      from = at;
      if (from != shown_.end() && *from == key) {
        search.hold(std::move(*from++));
      } else {
        next.push_back(std::move(key));
      }
    }
    next.insert(next.end(), std::move_iterator(from), std::move_iterator(shown_.end()));
    if (next.size() < next.capacity() / 2) next.shrink_to_fit();
    shown_ = std::move(next);
  }

  std::vector<K> shown_;  // in ascending order
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
  using Outputs = std::vector<Output>;

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
  Outputs published(Search& search) {
    std::vector<W*> watchers;
    watchers.reserve(watchers_.size());
    for (const auto& watcher : watchers_) watchers.push_back(watcher.get());
    std::ranges::sort(watchers, [](const W* a, const W* b) { return a->fwkKey() < b->fwkKey(); });
    Outputs all;
    all.reserve(watchers.size());
    for (W* watcher : watchers) all.push_back(watcher->published(search));
    return all;
  }
  // Calls added(entity) and removed(entity) for each that was.
  template <class Members, class Added, class Removed>
  std::optional<Outputs> change(const Members& now, Search& search, std::optional<Outputs>& before,
                                Added added, Removed removed) {
    Outputs changes;
    Outputs back;
    for (const Key& key : noted_.take(search)) {
      W* watcher = watchers_[key];
      const auto* entity = now[key];
      if (entity == nullptr) {
        if (watcher == nullptr) continue;
        removed(*watcher->notifier());
        if (search.back) back.push_back(watcher->published(search));
        changes.push_back(removedOutput(*watcher->notifier(), search));
        watchers_.deleteMember(key);
      } else if (watcher == nullptr) {
        add(*entity);
        added(*entity);
        changes.push_back(readOutput(*entity));
        if (search.back) back.push_back(removedOutput(*entity, search));
      } else {
        if (watcher->notifier() != entity) watcher->replace(*entity);
        if (auto change = watcher->change(search, back)) changes.push_back(std::move(*change));
      }
    }
    if (changes.empty()) return std::nullopt;
    if (search.back) before = std::move(back);
    return changes;
  }
  template <class Members>
  std::optional<Outputs> change(const Members& now, Search& search,
                                std::optional<Outputs>& before) {
    constexpr auto kIgnore = [](const typename W::Notifier&) {};
    return change(now, search, before, kIgnore, kIgnore);
  }

 private:
  void add(const typename W::Notifier& entity) {
    const auto watcher = Kiv::make<W>(*this);
    watcher->start(entity);
    watchers_.newMember(watcher);
  }
  static Output removedOutput(const typename W::Notifier& entity, Search& search) {
    search.removed.emplace_back(&entity);
    Output removed = readKey(entity);
    removed.removed = true;
    return removed;
  }

  Holder& holder_;
  Kiv::HashMap<W, Key> watchers_;
  NotedKeys<Key> noted_;
};

// The base of watchers: Self watches an entity E, whose plain form is O. Self defines
//   template <class Visit> void visit(const E& now, Visit visit);
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
    visitAll([](auto& watched, const auto& now, auto) { watched.start(now); });
  }

  // Watches this entity instead of the one that had its key before.
  void replace(const E& entity) {
    connect(entity);
    visitAll([](auto& watched, const auto& now, auto) { watched.noteAll(now); });
  }

  // The attributes that differ from what was published; nothing if none does. What leads back is
  // added to `before`, if the search asks for it.
  std::optional<O> change(Search& search, std::vector<O>& before) {
    bool changed = false;
    O output = readKey(*this->notifier());
    O back = output;
    visitAll([&](auto& watched, const auto& now, auto member) {
      output.*member = watched.change(now, search, back.*member);
      changed |= (output.*member).has_value();
    });
    if (!changed) return std::nullopt;
    if (search.back) before.push_back(std::move(back));
    return output;
  }

  // All that was published.
  O published(Search& search) {
    search.removed.emplace_back(this->notifier());
    O output = readKey(*this->notifier());
    visitAll([&](auto& watched, const auto&, auto member) {
      output.*member = watched.published(search);
    });
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
  void visitAll(Visit visit) {
    static_cast<Self&>(*this).visit(*this->notifier(), visit);
  }

  WatchedMembers<Self>& in_;
};

}  // namespace vnagent::detail
