// Sets of entries: a key and a value.
#include "framework/HashMap2018.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <utility>
#include <vector>

#include "framework/Text.h"
#include "tests/framework/keys.h"
#include "tests/support/live_objects.h"

namespace {

using Set = Kiv::HashMap2018<Kiv::U16>;
using testing::ElementsAre;

std::vector<Kiv::U16> keysOf(const Set& set) {
  std::vector<Kiv::U16> keys;
  for (const auto& entry : set) keys.push_back(entry.key);
  return keys;
}

class ValueSetTest : public testing::Test {
 private:
  Support::LiveObjects nothingIsLeft_;

 protected:
  Set set_;
};

TEST_F(ValueSetTest, IsEmptyAtFirst) {
  EXPECT_TRUE(set_.empty());
  EXPECT_EQ(set_.size(), 0U);
  EXPECT_FALSE(set_.lookupNodeG(1));
  EXPECT_FALSE(set_.contains(1));
  EXPECT_FALSE(set_[1]);
  EXPECT_FALSE(set_.deleteMember(1));
  EXPECT_TRUE(set_.begin() == set_.end());
}

TEST_F(ValueSetTest, AnEntryHasAKeyAndAValue) {
  EXPECT_TRUE(set_.newMember(7, true));
  const auto node = set_.lookupNodeG(7);
  ASSERT_TRUE(node);
  EXPECT_EQ(node->key, 7);
  EXPECT_TRUE(node->value);
  EXPECT_TRUE(set_.contains(7));
  EXPECT_TRUE(set_[7]);
  EXPECT_EQ(set_.size(), 1U);
}

TEST_F(ValueSetTest, AnEntryWithTheValueFalseIsPresent) {
  EXPECT_TRUE(set_.newMember(7, false));
  EXPECT_TRUE(set_.contains(7));
  EXPECT_FALSE(set_[7]);
  ASSERT_TRUE(set_.lookupNodeG(7));
  EXPECT_FALSE(set_.lookupNodeG(7)->value);
  EXPECT_EQ(set_.size(), 1U);
}

TEST_F(ValueSetTest, ReturnsWhetherAnythingChanged) {
  EXPECT_TRUE(set_.newMember(7, true));
  EXPECT_FALSE(set_.newMember(7, true));
  EXPECT_TRUE(set_.newMember(7, false));
  EXPECT_FALSE(set_.newMember(7, false));
  EXPECT_EQ(set_.size(), 1U);
  EXPECT_TRUE(set_.deleteMember(7));
  EXPECT_FALSE(set_.deleteMember(7));
}

TEST_F(ValueSetTest, EntriesAreInTheOrderOfTheirBitReversedHashes) {
  for (Kiv::U16 key = 0; key < 8; ++key) set_.newMember(key, true);
  EXPECT_THAT(keysOf(set_), ElementsAre(0, 4, 2, 6, 1, 5, 3, 7));
}

TEST_F(ValueSetTest, TheCurrentEntryMayBeReadAfterItsDeletion) {
  set_.newMember(1, true);
  set_.newMember(2, false);
  auto at = set_.begin();
  EXPECT_EQ(at.currNodeMaybeStale().key, 2);
  set_.newMember(2, true);
  EXPECT_FALSE(at.currNodeMaybeStale().value) << "as it was when the iterator reached it";
  set_.emptyAllBuckets();
  EXPECT_EQ(at.currNodeMaybeStale().key, 2);
  EXPECT_EQ((*at).key, 2);
  EXPECT_EQ(at->key, 2);
  ++at;
  EXPECT_TRUE(at == set_.end());
}

TEST_F(ValueSetTest, AnIteratorCanBeginAtAKey) {
  for (Kiv::U16 key = 0; key < 8; ++key) set_.newMember(key, true);
  auto at = set_.iteratorAt(6);
  EXPECT_EQ(at->key, 6);
  ++at;
  EXPECT_EQ(at->key, 1);
  EXPECT_TRUE(set_.iteratorAt(9) == set_.end());
}

TEST_F(ValueSetTest, UpToSixteenEntriesNeedNoBuckets) {
  for (Kiv::U16 key = 0; key < 5; ++key) set_.newMember(key, true);
  EXPECT_THAT(keysOf(set_), ElementsAre(0, 4, 2, 1, 3));
  for (Kiv::U16 key = 5; key < 16; ++key) set_.newMember(key, true);
  EXPECT_EQ(set_.buckets(), 0U);
  EXPECT_THAT(keysOf(set_), ElementsAre(0, 8, 4, 12, 2, 10, 6, 14, 1, 9, 5, 13, 3, 11, 7, 15));
  set_.newMember(16, true);
  EXPECT_EQ(set_.buckets(), 32U);
  EXPECT_THAT(keysOf(set_), ElementsAre(0, 16, 8, 4, 12, 2, 10, 6, 14, 1, 9, 5, 13, 3, 11, 7, 15));
}

TEST_F(ValueSetTest, BucketsFollowTheNumberOfEntries) {
  for (Kiv::U16 key = 0; key < 1000; ++key) set_.newMember(key, key % 2 == 1);
  EXPECT_EQ(set_.buckets(), 2048U);
  for (Kiv::U16 key = 999; key >= 128; --key) set_.deleteMember(key);
  EXPECT_EQ(set_.buckets(), 1024U);
  for (Kiv::U16 key = 127; key >= 2; --key) set_.deleteMember(key);
  EXPECT_EQ(set_.buckets(), 0U);
  EXPECT_THAT(keysOf(set_), ElementsAre(0, 1));
  EXPECT_FALSE(set_[0]);
  EXPECT_TRUE(set_[1]);
  EXPECT_EQ(set_.size(), 2U);
}

// A key whose hash the test chooses.
struct Chosen {
  Kiv::U32 number = 0;
  Kiv::U32 chosenHash = 0;
  Kiv::U32 hash() const { return chosenHash; }
  friend bool operator==(const Chosen& a, const Chosen& b) { return a.number == b.number; }
  friend bool operator<(const Chosen& a, const Chosen& b) { return a.number < b.number; }
};

// Inserts all, deletes every third, and checks order, size and look-ups of the rest.
void expectAllFound(Kiv::U32 hash) {
  constexpr Kiv::U32 kEntries = 600;
  Kiv::HashMap2018<Chosen> set;
  for (Kiv::U32 n = 0; n < kEntries; ++n) {
    EXPECT_TRUE(set.newMember({n * 7 % kEntries, hash}, true));  // 7 and 600 share no factor
  }
  EXPECT_FALSE(set.newMember({5, hash}, true));
  for (Kiv::U32 n = 0; n < kEntries; n += 3) EXPECT_TRUE(set.deleteMember({n, hash}));
  EXPECT_EQ(set.size(), kEntries / 3 * 2);
  Kiv::U32 next = 1;
  for (const auto& entry : set) {
    EXPECT_EQ(entry.key.number, next);
    EXPECT_TRUE(set.contains(entry.key));
    next += next % 3 == 1 ? 1 : 2;
  }
  EXPECT_EQ(next, kEntries + 1);
  EXPECT_FALSE(set.contains({3, hash}));
}

TEST_F(ValueSetTest, KeysOfOneHashAreDistinctAndSorted) {
  expectAllFound(0);
  expectAllFound(0x5555);
}
TEST_F(ValueSetTest, KeysOfTheHighestHashAreDistinctAndSorted) {
  expectAllFound(~Kiv::U32{0});
}

// As when a set mirrors another one. At a cost proportional to the square of the entries this would
// not end.
TEST_F(ValueSetTest, ASetCanBeFilledAndEmptiedInItsOwnOrder) {
  using Numbers = Kiv::HashMap2018<Kiv::U32>;
  constexpr Kiv::U32 kEntries = 300000;
  Numbers set;
  for (Kiv::U32 n = 0; n < kEntries; ++n) set.newMember(n * 2654435761U, true);
  Numbers mirror;
  for (const auto& entry : set) EXPECT_TRUE(mirror.newMember(entry.key, true));
  EXPECT_EQ(mirror.size(), kEntries);
  auto at = mirror.begin();
  for (const auto& entry : set) {
    ASSERT_EQ(at->key, entry.key);
    ++at;
  }
  std::size_t left = kEntries;
  for (const auto& entry : mirror) {
    ASSERT_TRUE(mirror.deleteMember(entry.key));
    ASSERT_EQ(mirror.size(), --left);
  }
  EXPECT_TRUE(mirror.empty());
}

TEST_F(ValueSetTest, TheRestIsFoundAfterMostEntriesAreDeletedInOrder) {
  using Numbers = Kiv::HashMap2018<Kiv::U32>;
  Numbers set;
  for (Kiv::U32 n = 0; n < 4096; ++n) set.newMember(n, true);
  std::size_t deleted = 0;
  for (const auto& entry : set) {
    if (++deleted > 4000) break;
    set.deleteMember(entry.key);
  }
  EXPECT_EQ(set.size(), 96U);
  for (Kiv::U32 n = 10000; n < 14000; ++n) EXPECT_TRUE(set.newMember(n, true));
  EXPECT_EQ(set.size(), 4096U);
  Kiv::U32 before = 0;
  for (const auto& entry : set) {
    EXPECT_LE(before, Kiv::kivOrder(entry.key));
    before = Kiv::kivOrder(entry.key);
    EXPECT_TRUE(set.contains(entry.key));
  }
}

TEST_F(ValueSetTest, AnIteratorContinuesWhileEntriesSpillAndReturn) {
  for (Kiv::U16 key = 0; key < 4; ++key) set_.newMember(key, true);
  auto at = set_.begin();
  EXPECT_EQ(at->key, 0);
  set_.newMember(8, true);
  ++at;
  EXPECT_EQ(at->key, 8);
  for (const Kiv::U16 key : std::vector<Kiv::U16>{8, 2, 1}) set_.deleteMember(key);
  ++at;
  EXPECT_EQ(at->key, 3);
  ++at;
  EXPECT_TRUE(at == set_.end());
}

TEST_F(ValueSetTest, KeysThatOwnMemoryAreDestroyed) {
  Kiv::HashMap2018<Kiv::String> texts;
  const auto before = Support::liveCounts();
  for (int n = 0; n < 40; ++n) texts.newMember(Keys::keyOf<Kiv::String>(n), true);
  texts.deleteMember("key-0");
  texts.deleteMember("key-17");
  EXPECT_EQ(texts.size(), 38U);
  texts.emptyAllBuckets();
  EXPECT_EQ(Support::liveCounts(), before);
}

TEST_F(ValueSetTest, PointersAsValuesAreCounted) {
  using Item = Keys::Item<Kiv::Name>;
  const auto item = Kiv::make<Item>("a");
  Kiv::HashMap2018<Kiv::U8, Kiv::Ptr<const Item>> references;
  EXPECT_TRUE(references.newMember(0, item));
  EXPECT_TRUE(references.newMember(255, item));
  EXPECT_FALSE(references.newMember(0, item));
  EXPECT_EQ(item->references(), 3U);
  EXPECT_EQ(references[0].get(), item.get());
  EXPECT_EQ(references[1], nullptr);
  references.deleteMember(0);
  EXPECT_EQ(item->references(), 2U);
  EXPECT_TRUE(references.newMember(255, Kiv::make<Item>("b")));
  EXPECT_EQ(item->references(), 1U);
}

// Deletes another entry of its set when it is destroyed.
class DeletesOther final : public Kiv::Member {
 public:
  static constexpr std::string_view kTypeName = "Test::DeletesOther";
  using Set = Kiv::HashMap2018<Kiv::U8, Kiv::Ptr<const DeletesOther>>;

  DeletesOther(Set& set, Kiv::U8 other) : set_(set), other_(other) {}
  ~DeletesOther() override { set_.deleteMember(other_); }
  const Kiv::Type& fwkType() const override { return Kiv::typeRecord<DeletesOther>; }

 private:
  Set& set_;
  Kiv::U8 other_;
};

TEST_F(ValueSetTest, ADestructorMayDeleteOtherEntriesWhileTheSetIsEmptied) {
  DeletesOther::Set set;
  for (Kiv::U8 key = 0; key < 7; ++key) {
    set.newMember(key, Kiv::make<DeletesOther>(set, static_cast<Kiv::U8>(6 - key)));
  }
  set.emptyAllBuckets();
  EXPECT_TRUE(set.empty());
  EXPECT_EQ(set.size(), 0U);
  EXPECT_TRUE(set.begin() == set.end());
}

}  // namespace
