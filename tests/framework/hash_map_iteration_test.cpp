// Iterators of both families of keyed collections, while members are added and removed.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <iterator>
#include <optional>
#include <random>
#include <set>
#include <vector>

#include "framework/HashMap.h"
#include "framework/HashMap2018.h"
#include "tests/framework/keys.h"
#include "tests/support/live_objects.h"

namespace {

using Keys::keyOf;
using Kiv::make;

// The two families behind one interface.
template <class Key>
class Objects {
 public:
  using K = Key;
  using Item = Keys::Item<K>;
  void add(const K& key) {
    if (!map_.contains(key)) map_.newMember(make<Item>(key));
  }
  void remove(const K& key) { (void)map_.deleteMember(key); }
  void removeAll() { map_.emptyAllBuckets(); }
  bool contains(const K& key) const { return map_.contains(key); }
  std::size_t size() const { return map_.size(); }
  auto begin() { return map_.begin(); }
  auto end() { return map_.end(); }
  template <class Iterator>
  static K keyAt(const Iterator& at) {
    return (*at)->fwkKey();
  }

 private:
  Kiv::HashMap<Item, K> map_;
};

template <class Key>
class Values {
 public:
  using K = Key;
  void add(const K& key) { set_.newMember(key, true); }
  void remove(const K& key) { set_.deleteMember(key); }
  void removeAll() { set_.emptyAllBuckets(); }
  bool contains(const K& key) const { return set_.contains(key); }
  std::size_t size() const { return set_.size(); }
  auto begin() { return set_.begin(); }
  auto end() { return set_.end(); }
  template <class Iterator>
  static K keyAt(const Iterator& at) {
    return at.currNodeMaybeStale().key;
  }

 private:
  Kiv::HashMap2018<K> set_;
};

template <class Collection>
class IterationTest : public testing::Test {
 protected:
  using K = typename Collection::K;
  using Sorted = std::set<K, Keys::InOrder<K>>;

  void fill(int count) {
    for (int n = 0; n < count; ++n) add(n);
  }
  void add(int n) { addKey(keyOf<K>(n)); }
  void addKey(const K& key) {
    collection_.add(key);
    reference_.insert(key);
  }
  void removeKey(const K& key) {
    collection_.remove(key);
    reference_.erase(key);
  }
  // The key after this one, by the reference.
  std::optional<K> after(const K& key) const {
    const auto next = reference_.upper_bound(key);
    return next == reference_.end() ? std::nullopt : std::optional<K>(*next);
  }
  // Iterates over all; calls `at(key)` for each, and checks each step against the reference.
  void iterate(const std::function<void(const K&)>& at) {
    std::optional<K> expected =
        reference_.empty() ? std::nullopt : std::optional<K>(*reference_.begin());
    std::size_t steps = 0;
    for (auto i = collection_.begin(); i != collection_.end(); ++i) {
      ASSERT_TRUE(expected.has_value()) << "continued after the last";
      const K key = Collection::keyAt(i);
      ASSERT_EQ(key, *expected);
      at(key);
      ASSERT_EQ(Collection::keyAt(i), key) << "the current member changed";
      expected = after(key);
      ++steps;
      ASSERT_LT(steps, 10000U);
    }
    EXPECT_FALSE(expected.has_value()) << "ended before the last";
  }

 private:
  Support::LiveObjects nothingIsLeft_;

 protected:
  Collection collection_;
  Sorted reference_;
};

class FamilyNames {
 public:
  template <class C>
  static std::string GetName(int) {
    const bool objects = std::is_same_v<C, Objects<typename C::K>>;
    return (objects ? "Objects" : "Values") + Keys::TypeNames::GetName<typename C::K>(0);
  }
};

using Collections = testing::Types<Objects<Kiv::String>, Objects<Kiv::U8>, Objects<Keys::AllAlike>,
                                   Objects<Keys::FewHashes>, Values<Kiv::U16>, Values<Kiv::Name>,
                                   Values<Keys::AllAlike>, Values<Keys::FewHashes>>;
TYPED_TEST_SUITE(IterationTest, Collections, FamilyNames);

constexpr int kSizes[] = {0, 1, 2, 4, 5, 9, 60};

TYPED_TEST(IterationTest, VisitsEachMemberOnce) {
  for (const int size : kSizes) {
    this->fill(size);
    int visited = 0;
    this->iterate([&](const auto&) { ++visited; });
    EXPECT_EQ(visited, size);
  }
}

TYPED_TEST(IterationTest, ContinuesAfterTheDeletionOfTheCurrentMember) {
  for (const int size : kSizes) {
    this->fill(size);
    int visited = 0;
    this->iterate([&](const auto& key) {
      ++visited;
      this->removeKey(key);
    });
    EXPECT_EQ(visited, size);
    EXPECT_EQ(this->collection_.size(), 0U);
  }
}

TYPED_TEST(IterationTest, DoesNotVisitAMemberThatIsDeletedBeforeItsTurn) {
  this->fill(60);
  int visited = 0;
  this->iterate([&](const auto& key) {
    ++visited;
    if (const auto next = this->after(key)) this->removeKey(*next);
  });
  EXPECT_EQ(visited, 30);
}

TYPED_TEST(IterationTest, IsNotDisturbedByTheDeletionOfVisitedMembers) {
  this->fill(60);
  std::optional<typename TestFixture::K> previous;
  int visited = 0;
  this->iterate([&](const auto& key) {
    ++visited;
    if (previous) this->removeKey(*previous);
    previous = key;
  });
  EXPECT_EQ(visited, 60);
}

TYPED_TEST(IterationTest, EndsWhenAllMembersAreDeleted) {
  for (const int size : kSizes) {
    this->fill(size);
    int visited = 0;
    this->iterate([&](const auto&) {
      ++visited;
      this->collection_.removeAll();
      this->reference_.clear();
    });
    EXPECT_EQ(visited, size == 0 ? 0 : 1);
  }
}

TYPED_TEST(IterationTest, VisitsWhatIsInsertedAfterTheCurrentMemberOnly) {
  this->fill(3);
  int added = 3;
  this->iterate([&](const auto&) {
    for (int i = 0; i < 5 && added < 200; ++i) this->add(added++);
  });
  EXPECT_EQ(this->collection_.size(), this->reference_.size());
}

TYPED_TEST(IterationTest, DoesNotVisitAgainAKeyThatIsDeletedAndReinserted) {
  this->fill(40);
  int visited = 0;
  this->iterate([&](const auto& key) {
    ++visited;
    this->removeKey(key);
    this->addKey(key);
  });
  EXPECT_EQ(visited, 40);
}

TYPED_TEST(IterationTest, ContinuesWhenAllMembersAreReplaced) {
  this->fill(40);
  int visited = 0;
  this->iterate([&](const auto&) {
    ++visited;
    const auto keys = this->reference_;
    this->collection_.removeAll();
    for (const auto& key : keys) this->addKey(key);
  });
  EXPECT_EQ(visited, 40);
}

TYPED_TEST(IterationTest, NestedIterationsDoNotDisturbEachOther) {
  this->fill(12);
  int inner = 0;
  this->iterate([&](const auto& key) {
    this->iterate([&](const auto&) { ++inner; });
    this->removeKey(key);
  });
  EXPECT_EQ(inner, 12 * 13 / 2);
}

TYPED_TEST(IterationTest, FollowsTheReferenceUnderRandomChanges) {
  for (unsigned seed = 1; seed <= 25; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const int keys = 1 + static_cast<int>(random() % 120);
    const auto anyKey = [&] {
      return keyOf<typename TestFixture::K>(
          static_cast<int>(random() % static_cast<unsigned>(keys)));
    };
    for (int n = 0; n < keys; ++n) {
      if (random() % 2 == 0) this->add(n);
    }
    int budget = 60;  // of insertions, or the iteration might never end
    this->iterate([&](const auto& key) {
      for (auto times = random() % 4; times > 0; --times) {
        const auto what = random() % 10;
        if (what < 3) this->removeKey(key);
        if (what == 3) this->removeKey(anyKey());
        if (what > 3 && what < 9 && budget-- > 0) this->addKey(anyKey());
        if (what == 9 && random() % 10 == 0) {
          this->collection_.removeAll();
          this->reference_.clear();
        }
      }
    });
    if (this->HasFatalFailure()) return;
    this->collection_.removeAll();
    this->reference_.clear();
  }
}

TEST(IteratorTest, TheCurrentMemberIsUsableAfterItsDeletion) {
  const Support::LiveObjects nothingIsLeft;
  using Item = Keys::Item<Kiv::Name>;
  Kiv::HashMap<Item, Kiv::Name> map;
  map.newMember(make<Item>("a"));
  auto at = map.begin();
  map.emptyAllBuckets();
  EXPECT_EQ((*at)->fwkKey(), "a");
  EXPECT_EQ((*at)->references(), 1U);
  ++at;
  EXPECT_TRUE(at == map.end());
}

class CursorTest : public testing::Test {
 protected:
  using Item = Keys::Item<Kiv::U8>;
  CursorTest() {
    for (Kiv::U8 key = 0; key < 9; ++key) map_.newMember(make<Item>(key));
  }

 private:
  Support::LiveObjects nothingIsLeft_;

 protected:
  Kiv::HashMap<Item, Kiv::U8> map_;
};

TEST_F(CursorTest, ALoopPinsItsMemberWhenItIsDeleted) {
  for (const auto& member : map_) {
    EXPECT_EQ(member->references(), 1U) << "the collection's";
    const auto removed = map_.deleteMember(member->fwkKey());
    EXPECT_EQ(removed->references(), 2U) << "the loop's and this one";
  }
  EXPECT_TRUE(map_.empty());
}

TEST_F(CursorTest, EachOfSeveralCursorsPinsTheMember) {
  auto first = map_.iteratorAt(3);
  const auto second = map_.iteratorAt(3);
  auto third = map_.iteratorAt(4);
  (void)map_.deleteMember(3);
  EXPECT_EQ(second->references(), 2U);
  ++first;
  EXPECT_EQ(first.key(), 4);
  EXPECT_EQ(second->references(), 1U);
  ++third;
  EXPECT_EQ(third.key(), 5);
}

TEST_F(CursorTest, ACopyOfAnIteratorAdvancesByItself) {
  auto at = map_.iteratorAt(2);
  auto copy = at;
  (void)map_.deleteMember(2);
  auto late = at;  // of one that holds its member
  EXPECT_EQ(late->references(), 3U);
  at = map_.iteratorAt(7);
  EXPECT_EQ(copy.key(), 2);
  EXPECT_EQ(late->references(), 2U);
  const auto& itself = copy;
  copy = itself;
  ++copy;
  EXPECT_EQ(copy.key(), 3);
  EXPECT_EQ(late.key(), 2);
  EXPECT_EQ(at.key(), 7);
  late = decltype(late)();
  EXPECT_TRUE(late == map_.end());
}

TEST_F(CursorTest, IteratorsMayBeDestroyedInAnyOrder) {
  using Iterator = decltype(map_)::iterator;
  std::optional<Iterator> at[3] = {map_.iteratorAt(1), map_.iteratorAt(1), map_.iteratorAt(1)};
  at[1].reset();
  (void)map_.deleteMember(1);
  EXPECT_EQ((*at[0])->references(), 2U);
  at[0].reset();
  EXPECT_EQ((*at[2])->references(), 1U);
  at[2].reset();
}

TEST_F(CursorTest, ALoopThatWasLeftPinsNothing) {
  Kiv::Ptr<Item> visited;
  for (const auto& member : map_) {
    visited = member;
    if (member->fwkKey() == 4) break;
  }
  EXPECT_EQ(visited->references(), 2U);
  (void)map_.deleteMember(4);
  EXPECT_EQ(visited->references(), 1U);
}

TEST_F(CursorTest, TheCurrentMemberMayBeRemovedAndReinserted) {
  int visited = 0;
  for (const auto& member : map_) {
    const Kiv::Ptr<Item> kept = map_.deleteMember(member->fwkKey());
    map_.newMember(kept);
    (void)map_.deleteMember(member->fwkKey());
    map_.newMember(kept);
    ++visited;
    EXPECT_EQ(member->references(), 3U);
  }
  EXPECT_EQ(visited, 9);
  for (const auto& member : map_) EXPECT_EQ(member->references(), 1U);
}

// The number of changes after which a version of 24 bits is what it was before.
constexpr int kVersions = 1 << 24;

TEST_F(CursorTest, ALoopNoticesChangesWhateverTheirNumber) {
  map_.emptyAllBuckets();
  for (const Kiv::U8 key : std::vector<Kiv::U8>{10, 20, 30}) map_.newMember(make<Item>(key));
  const auto other = make<Item>(Kiv::U8{40});
  std::vector<int> visited;
  for (const auto& member : map_) {
    visited.push_back(member->fwkKey());
    if (visited.size() > 1) continue;
    for (int changes = 2; changes < kVersions; changes += 2) {
      map_.newMember(other);
      (void)map_.deleteMember(40);
    }
    // The last two move the members that are there.
    map_.newMember(make<Item>(Kiv::U8{1}));
    map_.newMember(make<Item>(Kiv::U8{2}));
  }
  EXPECT_EQ(visited, (std::vector<int>{10, 20, 30}));
}

TEST_F(CursorTest, ALoopIsNotDisturbedByChangesOfAnotherCollection) {
  Kiv::HashMap<Item, Kiv::U8> other;
  std::vector<int> visited;
  for (const auto& member : map_) {
    visited.push_back(member->fwkKey());
    other.newMember(make<Item>(member->fwkKey()));
    (void)other.deleteMember(static_cast<Kiv::U8>(member->fwkKey() - 1));
  }
  EXPECT_EQ(visited, (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7, 8}));
}

// Iteration by hand
template <class K>
class StepTest : public testing::Test {
 protected:
  using Item = Keys::Item<K>;
  using Map = Kiv::HashMap<Item, K>;

  static void fill(Map& map, int count) {
    for (int n = 0; n < count; ++n) map.newMember(make<Item>(keyOf<K>(n)));
  }
  static std::vector<K> keysOf(const Map& map) {
    std::vector<K> keys;
    for (const auto& member : map) keys.push_back(member->fwkKey());
    return keys;
  }
};
using StepKeys = testing::Types<Kiv::U8, Kiv::U32, Kiv::Name, Keys::AllAlike, Keys::FewHashes>;
TYPED_TEST_SUITE(StepTest, StepKeys, Keys::TypeNames);

TYPED_TEST(StepTest, TheStepsVisitWhatALoopVisits) {
  using K = TypeParam;
  for (const int count : {0, 1, 2, 4, 5, 16, 17, 60, 250}) {
    typename TestFixture::Map map;
    TestFixture::fill(map, count);
    std::vector<K> keys;
    for (auto* member = map.findNextBucket(0); member != nullptr;
         member = map.findNextG(keys.back())) {
      keys.push_back(member->fwkKey());
    }
    EXPECT_EQ(keys, TestFixture::keysOf(map));
  }
}

TYPED_TEST(StepTest, TheMemberAfterADeletedKeyIsFound) {
  using K = TypeParam;
  for (const int count : {1, 3, 9, 40}) {
    typename TestFixture::Map map;
    TestFixture::fill(map, count);
    const std::vector<K> keys = TestFixture::keysOf(map);
    for (std::size_t i = 0; i < keys.size(); ++i) {
      ASSERT_TRUE(map.deleteMember(keys[i]));
      const auto* next = std::as_const(map).findNextG(keys[i]);
      if (i + 1 == keys.size()) {
        EXPECT_EQ(next, nullptr);
      } else {
        ASSERT_NE(next, nullptr);
        EXPECT_EQ(next->fwkKey(), keys[i + 1]);
      }
    }
  }
}

TYPED_TEST(StepTest, ABucketBeginsWithItsFirstMember) {
  using K = TypeParam;
  typename TestFixture::Map map;
  TestFixture::fill(map, 100);
  ASSERT_GT(map.buckets(), 1U);
  for (std::size_t bucket = 0; bucket < map.buckets(); ++bucket) {
    const K* expected = nullptr;
    const std::vector<K> keys = TestFixture::keysOf(map);
    for (const K& key : keys) {
      const auto of = Kiv::U64{Kiv::kivOrder(key)} * map.buckets() >> 32;
      if (of >= bucket && expected == nullptr) expected = &key;
    }
    const auto* member = std::as_const(map).findNextBucket(bucket);
    ASSERT_EQ(member != nullptr, expected != nullptr) << bucket;
    if (member != nullptr) {
      EXPECT_EQ(member->fwkKey(), *expected) << bucket;
    }
  }
  EXPECT_EQ(map.findNextBucket(map.buckets()), nullptr);
}

TYPED_TEST(StepTest, WithoutBucketsAllMembersAreInTheFirst) {
  typename TestFixture::Map map;
  EXPECT_EQ(map.findNextBucket(0), nullptr);
  TestFixture::fill(map, 3);
  ASSERT_NE(map.findNextBucket(0), nullptr);
  EXPECT_EQ(map.findNextBucket(0)->fwkKey(), TestFixture::keysOf(map).front());
  EXPECT_EQ(map.findNextBucket(1), nullptr);
}

// Deletes the member after it when it is destroyed.
class Last final : public Kiv::Member {
 public:
  static constexpr std::string_view kTypeName = "Test::Last";
  using Map = Kiv::HashMap<Last, Kiv::U8>;
  Last(Map& map, Kiv::U8 key) : map_(map), key_(key) {}
  ~Last() override { (void)map_.deleteMember(static_cast<Kiv::U8>(key_ + 1)); }
  const Kiv::U8& fwkKey() const { return key_; }
  const Kiv::Type& fwkType() const override { return Kiv::typeRecord<Last>; }

 private:
  Map& map_;
  const Kiv::U8 key_;
};

TEST(IteratorTest, ContinuesWhenMemoryIsReserved) {
  for (const int count : {1, 3, 9, 40}) {
    Kiv::HashMap<Keys::Item<Kiv::U32>, Kiv::U32> map;
    for (int n = 0; n < count; ++n) map.newMember(make<Keys::Item<Kiv::U32>>(keyOf<Kiv::U32>(n)));
    std::size_t visited = 0;
    for (const auto& member : map) {
      EXPECT_EQ(map[member->fwkKey()], member.get());
      map.reserve(10 * ++visited);
    }
    EXPECT_EQ(visited, map.size());
  }
}

TEST(IteratorTest, TheNextMemberIsVisitedWhenTheCurrentOneDeletesItOnDestruction) {
  const Support::LiveObjects nothingIsLeft;
  Last::Map map;
  for (Kiv::U8 key = 0; key < 6; ++key) map.newMember(make<Last>(map, key));
  std::vector<int> visited;
  for (const auto& member : map) {
    visited.push_back(member->fwkKey());
    (void)map.deleteMember(member->fwkKey());
  }
  // Each is destroyed when the loop advances, and the next one is visited all the same.
  EXPECT_EQ(visited, (std::vector<int>{0, 1, 2, 3, 4, 5}));
  EXPECT_TRUE(map.empty());
}

TEST(IteratorTest, SatisfiesTheConceptsOfTheStandardLibrary) {
  using Item = Keys::Item<Kiv::Name>;
  using Map = Kiv::HashMap<Item, Kiv::Name>;
  static_assert(std::input_iterator<Map::iterator>);
  static_assert(std::input_iterator<Map::const_iterator>);
  static_assert(std::sentinel_for<std::default_sentinel_t, Map::iterator>);
  static_assert(std::input_iterator<Kiv::HashMap2018<Kiv::U16>::Iterator>);
}

TEST(IteratorTest, AConstantCollectionShowsConstantMembers) {
  const Support::LiveObjects nothingIsLeft;
  using Item = Keys::Item<Kiv::Name>;
  Kiv::HashMap<Item, Kiv::Name> map;
  map.newMember(make<Item>("a"));
  for (const auto& member : std::as_const(map)) {
    static_assert(std::is_same_v<decltype(member), const Kiv::Ptr<const Item>&>);
    EXPECT_EQ(member->fwkKey(), "a");
  }
}

}  // namespace
