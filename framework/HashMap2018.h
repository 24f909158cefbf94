// Kiv::HashMap2018<K, V>: a set of entries, each a key (a small integer, a name, a string) and a
// value: a bool in a value set, a pointer in a collection of references.
//
// The first entry lives inside the set, so the sets of one referrer that make up most of the output
// cost nothing beside their owner. Entries stand in the order of their bit-reversed key hashes.
//
//   for (const auto& entry : pool->assignedVlan()) { use(entry.key, entry.value); }
//
// The loop body may delete any entry, the current one too, and may insert.
//
// Threads: the activity thread only.
#pragma once

#include <iterator>
#include <new>

#include "framework/Hash.h"
#include "framework/detail/OrderedTable.h"

namespace [[gnu::visibility("default")]] Kiv {

template <class K, class V = bool>
class HashMap2018 {
 public:
  using Key = K;

  // One entry.
  struct Node {
    Node* kivNext = nullptr;  // the set's own
    U32 kivOrder = 0;         // the set's own
    V value{};                // what the key stands for
    K key{};                  // unique in its set
  };

  class Iterator;
  using iterator = Iterator;
  using const_iterator = Iterator;

  HashMap2018() = default;
  HashMap2018(const HashMap2018&) = delete;
  HashMap2018& operator=(const HashMap2018&) = delete;
  ~HashMap2018() { emptyAllBuckets(); }

  // Lookup
  // The entry with this key, borrowed until it is deleted; null when absent.
  const Node* lookupNodeG(const K& key) const {
    const U32 order = kivOrder(key);
    const Node* found = *place(order, key);
    return found != nullptr && found->kivOrder == order && found->key == key ? found : nullptr;
  }
  bool contains(const K& key) const { return lookupNodeG(key) != nullptr; }
  // The value of the key's entry; that of an empty V (false, null) when absent.
  V operator[](const K& key) const {
    const Node* node = lookupNodeG(key);
    return node == nullptr ? V() : node->value;
  }
  std::size_t size() const { return table_.size(); }
  // How many buckets the entries hang in; 0 while they are few and hang in one chain.
  std::size_t buckets() const { return table_.buckets(); }
  bool empty() const { return table_.size() == 0; }

  // Change
  // Gives the entry of this key the value, adding it when absent. Returns whether anything changed.
  bool newMember(const K& key, const V& value) {
    const U32 order = kivOrder(key);
    Node** at = place(order, key);
    if (Node* found = *at; found != nullptr && found->kivOrder == order && found->key == key) {
      const bool changed = !(found->value == value);
      found->value = value;
      return changed;
    }
    table_.insert(at, newNode(order, key, value));
    return true;
  }
  // Deletes the entry of this key. Returns whether there was one.
  bool deleteMember(const K& key) {
    Node** at = place(kivOrder(key), key);
    if (*at == nullptr || !((*at)->key == key)) return false;
    freeNode(table_.remove(at));
    return true;
  }
  // Deletes every entry, in order.
  void emptyAllBuckets() {
    // As in HashMap.
    while (!empty()) {
      for (Iterator at = begin(); !(at == end()); ++at) deleteMember(at->key);
    }
  }

  // Iteration
  Iterator begin() const { return Iterator(*this); }
  std::default_sentinel_t end() const { return {}; }
  // An iterator at the entry with this key; at the end when absent.
  Iterator iteratorAt(const K& key) const { return Iterator(*this, lookupNodeG(key)); }

 private:
  Node** place(U32 order, const K& key) const {
    return table_.place(order, [&](const Node& node) { return node.key < key; });
  }
  // The entry that follows the given key, whose own entry may have gone.
  const Node* findNextG(const K& key) const {
    return table_.after(kivOrder(key), [&](const Node& node) { return !(key < node.key); });
  }

  Node* newNode(U32 order, const K& key, const V& value) {
    void* memory = insideUsed_ ? kivMemAlloc(sizeof(Node)) : inside_;
    insideUsed_ = true;
    return new (memory) Node{nullptr, order, value, key};
  }
  void freeNode(Node* node) {
    node->~Node();
    if (static_cast<void*>(node) == inside_) {
      insideUsed_ = false;
    } else {
      kivMemFree(node, sizeof(Node));
    }
  }

  detail::OrderedTable<Node> table_;
  alignas(Node) std::byte inside_[sizeof(Node)];
  bool insideUsed_ = false;
};

// Keeps a copy of the current entry, so that it stays readable after its deletion.
template <class K, class V>
class HashMap2018<K, V>::Iterator {
 public:
  using value_type = Node;
  using difference_type = std::ptrdiff_t;

  Iterator() = default;

  // The current entry, as it was when the iterator came to it; it may have changed or gone since.
  const Node& currNodeMaybeStale() const { return current_; }
  const Node& operator*() const { return current_; }
  const Node* operator->() const { return &current_; }

  Iterator& operator++() {
    stand(set_->findNextG(current_.key));
    return *this;
  }
  void operator++(int) { ++*this; }

  friend bool operator==(const Iterator& iterator, std::default_sentinel_t) {
    return iterator.atEnd_;
  }

 private:
  friend class HashMap2018;
  explicit Iterator(const HashMap2018& set) : Iterator(set, set.table_.first()) {}
  Iterator(const HashMap2018& set, const Node* at) : set_(&set) { stand(at); }

  void stand(const Node* at) {
    atEnd_ = at == nullptr;
    if (at != nullptr) current_ = *at;
  }

  const HashMap2018* set_ = nullptr;
  Node current_;
  bool atEnd_ = true;
};

}  // namespace Kiv
