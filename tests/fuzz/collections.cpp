// Fuzz target: both keyed collections under a stream of operations, compared with std::map. The
// first byte selects the type of the keys. Iterators are kept over changes: one that goes on meets
// what follows its key at that time, whether its entry is still there or not.
#include <array>
#include <iterator>
#include <map>

#include "framework/Exceptions.h"
#include "framework/HashMap.h"
#include "framework/HashMap2018.h"
#include "tests/framework/keys.h"
#include "tests/fuzz/fuzz.h"

namespace {

using Fuzz::Bytes;
using Fuzz::require;

enum Operation : uint8_t {
  kInsert,
  kDelete,
  kLookup,
  kBegin,
  kBeginAtKey,
  kNext,
  kDeleteAtIterator,
  kInsertMember,
  kWalk,
  kEmpty,
  kOperations
};

// What the two kinds have in common, seen from outside. `Value` is what stands under a key: it is
// told apart by ==.
template <class K>
class Objects {
 public:
  using Item = Keys::Item<K>;
  using Value = Kiv::Ptr<Item>;
  using Iterator = typename Kiv::HashMap<Item, K>::iterator;

  static Value valueFor(const K& key, uint8_t) { return Kiv::make<Item>(key); }
  static const K& keyAt(const Iterator& at) { return at.key(); }
  static bool isAt(const Iterator& at, const Value& value) { return *at == value; }

  // Replaces what stands under the key.
  void put(const K& key, const Value& value) {
    const Value before(map[key]);
    require(map.replaceMember(value) == before, "a replacement gives what was there");
  }
  bool remove(const K& key, const Value& expected) { return map.deleteMember(key) == expected; }
  bool holds(const K& key, const Value& expected) const { return map[key] == expected.get(); }
  // A member cannot be put in again.
  void putAgain(const Value& value) {
    bool refused = false;
    try {
      map.newMember(value);
    } catch (const Kiv::RangeException&) {
      refused = true;
    }
    require(refused, "a member is refused");
  }

  void makeRoomFor(std::size_t members) { map.reserve(members); }

  Kiv::HashMap<Item, K> map;
};

template <class K>
class Values {
 public:
  using Value = int;
  using Iterator = typename Kiv::HashMap2018<K, int>::Iterator;

  static Value valueFor(const K&, uint8_t byte) { return 1 + byte % 3; }
  static const K& keyAt(const Iterator& at) { return at->key; }
  static bool isAt(const Iterator& at, const Value& value) { return at->value == value; }

  void put(const K& key, const Value& value) {
    const int before = map[key];
    require(map.newMember(key, value) == (before != value), "it says whether anything changed");
  }
  bool remove(const K& key, const Value& expected) {
    return map.deleteMember(key) == (expected != 0);
  }
  bool holds(const K& key, const Value& expected) const {
    return map[key] == expected && map.lookupNodeG(key).has_value() == (expected != 0);
  }
  void putAgain(const Value&) {}
  void makeRoomFor(std::size_t) {}

  Kiv::HashMap2018<K, int> map;
};

template <class K, class Subject>
class Run {
 public:
  explicit Run(Bytes& bytes) : bytes_(bytes), keys_(2 + bytes.next()) {}

  void run() {
    while (!bytes_.empty()) step();
    walk();
  }

 private:
  using Value = typename Subject::Value;
  using Reference = std::map<K, Value, Keys::InOrder<K>>;
  using Iterator = typename Subject::Iterator;

  K key() { return Keys::keyOf<K>(bytes_.next() % keys_); }
  Value expected(const K& key) const {
    const auto at = reference_.find(key);
    return at == reference_.end() ? Value() : at->second;
  }
  Iterator& iterator() { return iterators_[bytes_.next() % iterators_.size()]; }
  static bool atEnd(const Iterator& at) { return at == std::default_sentinel; }

  void step() {
    switch (bytes_.next() % kOperations) {
      case kInsert: {
        const K at = key();
        put(at, Subject::valueFor(at, bytes_.next()));
        break;
      }
      case kDelete:
        remove(key());
        break;
      case kLookup: {
        const K at = key();
        require(subject_.holds(at, expected(at)), "a look-up finds what was put in");
        require(subject_.map.contains(at) == reference_.contains(at), "it says what it contains");
        break;
      }
      case kBegin: {
        Iterator& at = iterator();
        at = subject_.map.begin();
        requireAt(at, reference_.begin());
        break;
      }
      case kBeginAtKey: {
        Iterator& at = iterator();
        const K from = key();
        at = subject_.map.iteratorAt(from);
        requireAt(at, reference_.find(from));
        break;
      }
      case kNext:
        next(iterator());
        break;
      case kDeleteAtIterator: {
        const Iterator& at = iterator();
        if (!atEnd(at)) remove(K(Subject::keyAt(at)));
        break;
      }
      case kInsertMember:
        if (!reference_.empty()) subject_.putAgain(reference_.begin()->second);
        break;
      case kWalk:
        walk();
        break;
      case kEmpty: {
        const uint8_t byte = bytes_.next();
        if (byte % 8 != 0) {  // it is emptied rarely, to let it grow
          subject_.makeRoomFor(byte);
          break;
        }
        subject_.map.emptyAllBuckets();
        reference_.clear();
        break;
      }
    }
    require(subject_.map.size() == reference_.size(), "it knows its size");
    require(subject_.map.empty() == reference_.empty(), "it knows whether it is empty");
  }

  void put(const K& key, const Value& value) {
    subject_.put(key, value);
    reference_[key] = value;
  }
  void remove(const K& key) {
    require(subject_.remove(key, expected(key)), "a deletion gives what was put in");
    reference_.erase(key);
  }

  void next(Iterator& at) {
    if (atEnd(at)) return;
    const auto following = reference_.upper_bound(Subject::keyAt(at));
    ++at;
    requireAt(at, following);
  }
  void requireAt(const Iterator& at, typename Reference::const_iterator wanted) const {
    require(atEnd(at) == (wanted == reference_.end()), "an iterator ends with the last one");
    if (atEnd(at)) return;
    require(Subject::keyAt(at) == wanted->first, "an iterator goes in order");
    require(Subject::isAt(at, wanted->second), "an iterator shows what was put in");
  }
  void walk() {
    auto wanted = reference_.cbegin();
    Iterator at = subject_.map.begin();
    for (; !atEnd(at); ++at) requireAt(at, wanted++);
    require(wanted == reference_.cend(), "a walk meets all");
  }

  Bytes& bytes_;
  const int keys_;
  Subject subject_;
  Reference reference_;
  std::array<Iterator, 4> iterators_;
};

template <class K>
void runBoth(Bytes& bytes) {
  if (bytes.next() % 2 == 0) {
    Run<K, Objects<K>>(bytes).run();
  } else {
    Run<K, Values<K>>(bytes).run();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const Fuzz::NothingIsLeft nothingIsLeft;
  Bytes bytes(data, size);
  switch (bytes.next() % 7) {
    case 0:
      runBoth<Kiv::U8>(bytes);
      break;
    case 1:
      runBoth<Kiv::U16>(bytes);
      break;
    case 2:
      runBoth<Kiv::U32>(bytes);
      break;
    case 3:
      runBoth<Kiv::Name>(bytes);
      break;
    case 4:
      runBoth<Kiv::String>(bytes);
      break;
    case 5:
      runBoth<Keys::AllAlike>(bytes);
      break;
    case 6:
      runBoth<Keys::FewHashes>(bytes);
      break;
  }
  return 0;
}
