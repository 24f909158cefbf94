// Keyed collections of objects: look-up, order, growth, membership.
#include "framework/HashMap.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "framework/HashMap2018.h"
#include "tests/framework/keys.h"
#include "tests/support/live_objects.h"

namespace {

using Keys::AllAlike;
using Keys::FewHashes;
using Keys::keyOf;
using Kiv::make;
using Kiv::Ptr;
using testing::ElementsAreArray;

template <class K>
class HashMapTest : public testing::Test {
 protected:
  using Item = Keys::Item<K>;
  using Map = Kiv::HashMap<Item, K>;

  // Inserts members for these numbers, in this order.
  static void insert(Map& map, const std::vector<int>& numbers) {
    for (const int n : numbers) map.newMember(make<Item>(keyOf<K>(n)));
  }
  // The keys in the order in which the collection should have them.
  static std::vector<K> inOrder(const std::vector<int>& numbers) {
    std::vector<K> keys;
    for (const int n : numbers) keys.push_back(keyOf<K>(n));
    std::sort(keys.begin(), keys.end(), Keys::InOrder<K>());
    return keys;
  }
  static std::vector<K> keysOf(const Map& map) {
    std::vector<K> keys;
    for (const auto& member : map) keys.push_back(member->fwkKey());
    return keys;
  }
  static std::vector<int> upTo(int count) {
    std::vector<int> numbers(static_cast<std::size_t>(count));
    for (int n = 0; n < count; ++n) numbers[static_cast<std::size_t>(n)] = n;
    return numbers;
  }

 private:
  Support::LiveObjects nothingIsLeft_;
};

using KeyTypes = testing::Types<Kiv::U8, Kiv::U32, Kiv::Name, Kiv::String, AllAlike, FewHashes>;
TYPED_TEST_SUITE(HashMapTest, KeyTypes, Keys::TypeNames);

TYPED_TEST(HashMapTest, IsEmptyAtFirst) {
  using K = TypeParam;
  typename TestFixture::Map map;
  EXPECT_TRUE(map.empty());
  EXPECT_EQ(map.size(), 0U);
  EXPECT_EQ(map[keyOf<K>(0)], nullptr);
  EXPECT_FALSE(map.contains(keyOf<K>(0)));
  EXPECT_EQ(map.deleteMember(keyOf<K>(0)), nullptr);
  EXPECT_TRUE(map.begin() == map.end());
  EXPECT_TRUE(map.iteratorAt(keyOf<K>(0)) == map.end());
  map.emptyAllBuckets();
  EXPECT_EQ(map.changes(), 0U);
}

TYPED_TEST(HashMapTest, AMemberIsFoundByItsKeyAndReferenced) {
  using K = TypeParam;
  typename TestFixture::Map map;
  const auto item = make<typename TestFixture::Item>(keyOf<K>(7));
  map.newMember(item);
  EXPECT_EQ(item->references(), 2U);
  EXPECT_EQ(map[keyOf<K>(7)], item.get());
  EXPECT_EQ(std::as_const(map)[keyOf<K>(7)], item.get());
  EXPECT_TRUE(map.contains(keyOf<K>(7)));
  EXPECT_EQ(map[keyOf<K>(8)], nullptr);
  EXPECT_EQ(map.size(), 1U);
  EXPECT_FALSE(map.empty());
}

TYPED_TEST(HashMapTest, ARemovedMemberIsReturned) {
  using K = TypeParam;
  typename TestFixture::Map map;
  TestFixture::insert(map, {1, 2, 3});
  const auto removed = map.deleteMember(keyOf<K>(2));
  ASSERT_NE(removed, nullptr);
  EXPECT_EQ(removed->references(), 1U);
  EXPECT_EQ(removed->fwkKey(), keyOf<K>(2));
  EXPECT_EQ(map[keyOf<K>(2)], nullptr);
  EXPECT_EQ(map.deleteMember(keyOf<K>(2)), nullptr);
  EXPECT_EQ(map.size(), 2U);
  EXPECT_THAT(TestFixture::keysOf(map), ElementsAreArray(TestFixture::inOrder({1, 3})));
}

TYPED_TEST(HashMapTest, EveryMemberIsFoundAtEverySize) {
  using K = TypeParam;
  typename TestFixture::Map map;
  for (int count = 1; count <= 200; ++count) {
    TestFixture::insert(map, {count - 1});
    ASSERT_EQ(map.size(), static_cast<std::size_t>(count));
    for (int n = 0; n < 210; ++n) {
      const auto* found = map[keyOf<K>(n)];
      ASSERT_EQ(found != nullptr, n < count) << n << " of " << count;
      if (found != nullptr) {
        ASSERT_EQ(found->fwkKey(), keyOf<K>(n));
      }
    }
  }
  for (int count = 200; count-- > 0;) {
    ASSERT_NE(map.deleteMember(keyOf<K>(count)), nullptr);
    for (int n = 0; n < 210; ++n) ASSERT_EQ(map.contains(keyOf<K>(n)), n < count);
  }
}

TYPED_TEST(HashMapTest, MembersAreInTheOrderOfTheirBitReversedHashes) {
  for (const int count : {1, 4, 5, 8, 9, 100, 250}) {
    typename TestFixture::Map map;
    TestFixture::insert(map, TestFixture::upTo(count));
    EXPECT_THAT(TestFixture::keysOf(map),
                ElementsAreArray(TestFixture::inOrder(TestFixture::upTo(count))));
  }
}

TYPED_TEST(HashMapTest, TheOrderDependsOnTheKeysAlone) {
  using K = TypeParam;
  typename TestFixture::Map direct;
  TestFixture::insert(direct, {3, 50, 120, 7, 11, 200});

  typename TestFixture::Map grownAndShrunk;
  std::vector<int> backwards = TestFixture::upTo(250);
  std::reverse(backwards.begin(), backwards.end());
  TestFixture::insert(grownAndShrunk, backwards);
  for (const int n : backwards) {
    if (!direct.contains(keyOf<K>(n))) {
      EXPECT_TRUE(grownAndShrunk.deleteMember(keyOf<K>(n)));
    }
  }
  EXPECT_EQ(TestFixture::keysOf(grownAndShrunk), TestFixture::keysOf(direct));
}

TYPED_TEST(HashMapTest, AnEmptiedCollectionCanBeFilledAgain) {
  using K = TypeParam;
  typename TestFixture::Map map;
  for (const int count : {1, 5, 100}) {
    TestFixture::insert(map, TestFixture::upTo(count));
    map.emptyAllBuckets();
    EXPECT_TRUE(map.empty());
    EXPECT_TRUE(map.begin() == map.end());
    EXPECT_EQ(map[keyOf<K>(0)], nullptr);
  }
}

TYPED_TEST(HashMapTest, ADestroyedCollectionReleasesItsMembers) {
  using K = TypeParam;
  const auto kept = make<typename TestFixture::Item>(keyOf<K>(1));
  {
    typename TestFixture::Map map;
    map.newMember(kept);
    TestFixture::insert(map, {2, 3, 4, 5, 6, 7});
  }
  EXPECT_EQ(kept->references(), 1U);
  typename TestFixture::Map another;
  another.newMember(kept);
  EXPECT_EQ(another.size(), 1U);
}

TYPED_TEST(HashMapTest, AnIteratorCanBeginAtAKey) {
  using K = TypeParam;
  typename TestFixture::Map map;
  TestFixture::insert(map, TestFixture::upTo(20));
  const std::vector<K> keys = TestFixture::keysOf(map);
  auto at = map.iteratorAt(keys[10]);
  EXPECT_EQ(at.key(), keys[10]);
  EXPECT_EQ((*at)->fwkKey(), keys[10]);
  EXPECT_EQ(at->fwkKey(), keys[10]);
  ++at;
  EXPECT_EQ(at.key(), keys[11]);
}

using Map = Kiv::HashMap<Keys::Item<Kiv::Name>, Kiv::Name>;
using Item = Keys::Item<Kiv::Name>;

TEST(HashMapMembershipTest, AnObjectIsAMemberOfOneCollectionAtATime) {
  const Support::LiveObjects nothingIsLeft;
  Map map;
  Map other;
  const auto item = make<Item>("a");
  map.newMember(item);
  EXPECT_THROW(other.newMember(item), Kiv::RangeException);
  EXPECT_THROW(map.newMember(item), Kiv::RangeException);
  EXPECT_TRUE(other.empty());
  EXPECT_EQ(map.size(), 1U);
  EXPECT_EQ(item->references(), 2U);

  (void)map.deleteMember("a");
  other.newMember(item);
  EXPECT_EQ(other["a"], item.get());
}

TEST(HashMapMembershipTest, AReplacementTakesTheReplacedMembersPosition) {
  const Support::LiveObjects nothingIsLeft;
  Map map;
  for (const char* name : {"a", "b", "c", "d", "e", "f"}) map.newMember(make<Item>(name));
  std::vector<std::string> before;
  for (const auto& member : map) before.push_back(member->fwkKey().str());

  const auto fresh = make<Item>("c");
  const auto old = map.replaceMember(fresh);
  ASSERT_TRUE(old);
  EXPECT_EQ(old->references(), 1U);
  EXPECT_EQ(fresh->references(), 2U);
  EXPECT_EQ(map["c"], fresh.get());
  EXPECT_EQ(map.size(), 6U);
  std::vector<std::string> after;
  for (const auto& member : map) after.push_back(member->fwkKey().str());
  EXPECT_EQ(after, before);
}

TYPED_TEST(HashMapTest, EveryMemberCanBeReplacedAtEverySize) {
  using K = TypeParam;
  for (const int count : {0, 1, 2, 3, 4, 5, 16, 17, 60}) {
    typename TestFixture::Map map;
    TestFixture::insert(map, TestFixture::upTo(count));
    const std::vector<K> before = TestFixture::keysOf(map);
    for (int n = 0; n < count; ++n) {
      const auto* old = map[keyOf<K>(n)];
      const auto fresh = make<typename TestFixture::Item>(keyOf<K>(n));
      EXPECT_EQ(map.replaceMember(fresh).get(), old);
      EXPECT_EQ(map[keyOf<K>(n)], fresh.get());
    }
    EXPECT_EQ(TestFixture::keysOf(map), before);
    const auto another = make<typename TestFixture::Item>(keyOf<K>(count));
    EXPECT_EQ(map.replaceMember(another), nullptr);
    EXPECT_EQ(map[keyOf<K>(count)], another.get());
    EXPECT_THROW((void)map.replaceMember(another), Kiv::RangeException);
  }
}

TEST(HashMapMembershipTest, TheVersionRisesWithEachChange) {
  const Support::LiveObjects nothingIsLeft;
  Map map;
  const auto a = make<Item>("a");
  map.newMember(a);
  EXPECT_EQ(map.changes(), 1U);
  map.newMember(make<Item>("b"));
  EXPECT_EQ(map.changes(), 2U);
  (void)map["a"];
  (void)map.deleteMember("nobody");
  EXPECT_EQ(map.changes(), 2U);
  (void)map.deleteMember("a");
  EXPECT_EQ(map.changes(), 3U);
  map.newMember(a);
  EXPECT_EQ(map.changes(), 4U);
  map.emptyAllBuckets();
  EXPECT_EQ(map.changes(), 6U);
}

TEST(HashMapBucketsTest, TheNumberOfBucketsFollowsThatOfTheMembers) {
  const Support::LiveObjects nothingIsLeft;
  Map map;
  const auto insertUpTo = [&](std::size_t size) {
    while (map.size() < size)
      map.newMember(make<Item>(keyOf<Kiv::Name>(static_cast<int>(map.size()))));
  };
  const auto removeDownTo = [&](std::size_t size) {
    while (map.size() > size)
      (void)map.deleteMember(keyOf<Kiv::Name>(static_cast<int>(map.size()) - 1));
  };
  insertUpTo(16);
  EXPECT_EQ(map.buckets(), 0U);
  insertUpTo(17);
  EXPECT_EQ(map.buckets(), 32U);
  insertUpTo(26);
  EXPECT_EQ(map.buckets(), 32U);
  insertUpTo(27);
  EXPECT_EQ(map.buckets(), 64U);
  insertUpTo(1000);
  EXPECT_EQ(map.buckets(), 2048U);
  removeDownTo(129);
  EXPECT_EQ(map.buckets(), 2048U);
  removeDownTo(128);
  EXPECT_EQ(map.buckets(), 1024U);
  insertUpTo(200);
  EXPECT_EQ(map.buckets(), 1024U);
  removeDownTo(2);
  EXPECT_EQ(map.buckets(), 0U);
  removeDownTo(0);
  EXPECT_EQ(map.buckets(), 0U);
}

TYPED_TEST(HashMapTest, ReservingMemoryAtAnySizeChangesNoMember) {
  using K = TypeParam;
  for (const int count : {0, 1, 2, 4, 5, 16, 17, 60}) {
    for (const std::size_t capacity : {0U, 1U, 4U, 5U, 16U, 17U, 300U}) {
      typename TestFixture::Map map;
      TestFixture::insert(map, TestFixture::upTo(count));
      map.reserve(capacity);
      ASSERT_THAT(TestFixture::keysOf(map),
                  ElementsAreArray(TestFixture::inOrder(TestFixture::upTo(count))));
      for (int n = count; n < 100; ++n) TestFixture::insert(map, {n});
      ASSERT_THAT(TestFixture::keysOf(map),
                  ElementsAreArray(TestFixture::inOrder(TestFixture::upTo(100))));
      for (int n = 0; n < 100; ++n) ASSERT_TRUE(map.deleteMember(keyOf<K>(n)));
      ASSERT_TRUE(map.empty());
    }
  }
}

// A key that determines its order.
struct Placed {
  Kiv::U32 place = 0;
  int number = 0;
  Kiv::U32 order() const { return place; }
  friend bool operator==(const Placed&, const Placed&) = default;
  friend bool operator<(const Placed& a, const Placed& b) { return a.number < b.number; }
};

// The highest order marks gaps.
TEST(HashMapBucketsTest, TheTwoHighestOrdersAreTreatedAsOne) {
  Kiv::HashMap2018<Placed> set;
  set.newMember({~0U - 1, 9}, true);
  set.newMember({~0U, 5}, true);
  for (int n = 0; n < 40; ++n) {
    EXPECT_TRUE(set.newMember({static_cast<Kiv::U32>(n), n}, true));
    EXPECT_FALSE(set.newMember({~0U, 5}, true));
    EXPECT_FALSE(set.newMember({~0U - 1, 9}, true));
  }
  EXPECT_EQ(set.size(), 42U);
}

TEST(HashMapBucketsTest, ReservingMemoryMakesTheBucketsForTheMembers) {
  const Support::LiveObjects nothingIsLeft;
  Map map;
  map.reserve(1000);
  EXPECT_EQ(map.buckets(), 2048U);
  map.reserve(10);
  EXPECT_EQ(map.buckets(), 2048U);
  for (int n = 0; n < 1000; ++n) map.newMember(make<Item>(keyOf<Kiv::Name>(n)));
  EXPECT_EQ(map.buckets(), 2048U);
}

TEST(HashMapBucketsTest, UnusedReservedMemoryIsFreedWithTheCollection) {
  const std::size_t before = Kiv::kivMemTaken();
  for (int i = 0; i < 100'000; ++i) Map().reserve(12);
  EXPECT_LE(Kiv::kivMemTaken(), before + (2U << 20));
}

// As when a collection mirrors another one.
TEST(HashMapBucketsTest, MembersInsertedInOrderAreFoundInOrder) {
  const Support::LiveObjects nothingIsLeft;
  using Number = Keys::Item<Kiv::U32>;
  Kiv::HashMap<Number, Kiv::U32> map;
  constexpr Kiv::U32 kCount = 20'000;
  for (Kiv::U32 n = 0; n < kCount; ++n) map.newMember(make<Number>(Kiv::bitReverse(n)));
  Kiv::U32 expected = 0;
  for (const auto& member : map) ASSERT_EQ(member->fwkKey(), Kiv::bitReverse(expected++));
  EXPECT_EQ(expected, kCount);
  for (Kiv::U32 n = 0; n < kCount; n += 7) EXPECT_TRUE(map.deleteMember(Kiv::bitReverse(n)));
  for (Kiv::U32 n = 0; n < kCount; ++n) {
    ASSERT_EQ(map.contains(Kiv::bitReverse(n)), n % 7 != 0) << n;
  }
}

// At a cost proportional to the square of the members this would not end.
TEST(HashMapBucketsTest, AHundredThousandMembersAreRemovedInLinearTime) {
  const Support::LiveObjects nothingIsLeft;
  using Number = Keys::Item<Kiv::U32>;
  Kiv::HashMap<Number, Kiv::U32> map;
  Kiv::HashMap2018<Kiv::U32> set;
  for (Kiv::U32 n = 0; n < 100'000; ++n) {
    map.newMember(make<Number>(n));
    set.newMember(n, true);
  }
  map.emptyAllBuckets();
  set.emptyAllBuckets();
  EXPECT_TRUE(map.empty());
  EXPECT_TRUE(set.empty());
}

// Inserts another member when it is destroyed.
class Heir final : public Kiv::Member {
 public:
  static constexpr std::string_view kTypeName = "Test::Heir";
  using Family = Kiv::HashMap<Heir, Kiv::U32>;
  Heir(Family& family, Kiv::U32 generation) : family_(family), generation_(generation) {}
  ~Heir() override {
    if (generation_ > 0) family_.newMember(make<Heir>(family_, generation_ - 1));
  }
  const Kiv::U32& fwkKey() const { return generation_; }
  const Kiv::Type& fwkType() const override { return Kiv::typeRecord<Heir>; }

 private:
  Family& family_;
  const Kiv::U32 generation_;
};

TEST(HashMapMembershipTest, EmptyingAlsoRemovesWhatADestructorInserts) {
  const Support::LiveObjects nothingIsLeft;
  Heir::Family family;
  family.newMember(make<Heir>(family, Kiv::U32{9}));
  family.emptyAllBuckets();
  EXPECT_TRUE(family.empty());
}

// Has an even key, and inserts a member with the next, odd key when it is destroyed.
class Even final : public Kiv::Member {
 public:
  static constexpr std::string_view kTypeName = "Test::Even";
  using Family = Kiv::HashMap<Even, Kiv::U32>;
  Even(Family& family, Kiv::U32 key) : family_(family), key_(key) {}
  ~Even() override {
    if (key_ % 2 == 0) family_.newMember(make<Even>(family_, key_ + 1));
  }
  const Kiv::U32& fwkKey() const { return key_; }
  const Kiv::Type& fwkType() const override { return Kiv::typeRecord<Even>; }

 private:
  Family& family_;
  const Kiv::U32 key_;
};

TEST(HashMapMembershipTest, EmptyingAlsoRemovesWhatDestructorsInsertBeforeAndAfterThePosition) {
  const Support::LiveObjects nothingIsLeft;
  for (const Kiv::U32 distance : {2U, 1U << 25, 3U << 24}) {  // of hashes, and so of positions
    Even::Family family;
    for (Kiv::U32 i = 0; i < 40; ++i) family.newMember(make<Even>(family, distance * i));
    family.emptyAllBuckets();
    EXPECT_TRUE(family.empty());
  }
}

TEST(HashMapMembershipTest, AnEmptyCollectionIsTwoWords) {
  static_assert(sizeof(Map) == 2 * sizeof(void*));
}

}  // namespace
