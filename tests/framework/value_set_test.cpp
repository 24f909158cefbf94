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

TEST_F(ValueSetTest, AnEntryOfFalseIsThereAndNotTheSameAsNone) {
  EXPECT_TRUE(set_.newMember(7, false));
  EXPECT_TRUE(set_.contains(7));
  EXPECT_FALSE(set_[7]);
  ASSERT_TRUE(set_.lookupNodeG(7));
  EXPECT_FALSE(set_.lookupNodeG(7)->value);
  EXPECT_EQ(set_.size(), 1U);
}

TEST_F(ValueSetTest, SaysWhetherAnythingChanged) {
  EXPECT_TRUE(set_.newMember(7, true));
  EXPECT_FALSE(set_.newMember(7, true));
  EXPECT_TRUE(set_.newMember(7, false));
  EXPECT_FALSE(set_.newMember(7, false));
  EXPECT_EQ(set_.size(), 1U);
  EXPECT_TRUE(set_.deleteMember(7));
  EXPECT_FALSE(set_.deleteMember(7));
}

TEST_F(ValueSetTest, EntriesStandInTheOrderOfTheirBitReversedHashes) {
  for (Kiv::U16 key = 0; key < 8; ++key) set_.newMember(key, true);
  EXPECT_THAT(keysOf(set_), ElementsAre(0, 4, 2, 6, 1, 5, 3, 7));
}

TEST_F(ValueSetTest, TheCurrentEntryMayBeReadAfterItsDeletion) {
  set_.newMember(1, true);
  set_.newMember(2, false);
  auto at = set_.begin();
  EXPECT_EQ(at.currNodeMaybeStale().key, 2);
  set_.newMember(2, true);
  EXPECT_FALSE(at.currNodeMaybeStale().value) << "as it was when the iterator came to it";
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

TEST_F(ValueSetTest, UpToFourEntriesNeedNoTable) {
  for (Kiv::U16 key = 0; key < 4; ++key) set_.newMember(key, true);
  EXPECT_EQ(set_.buckets(), 0U);
  set_.newMember(4, true);
  EXPECT_EQ(set_.buckets(), 8U);
  EXPECT_THAT(keysOf(set_), ElementsAre(0, 4, 2, 1, 3));
}

TEST_F(ValueSetTest, TheLastTwoOfATableNeedNoneAgain) {
  for (Kiv::U16 key = 0; key < 40; ++key) set_.newMember(key, key % 2 == 1);
  for (Kiv::U16 key = 0; key < 37; ++key) set_.deleteMember(key);
  EXPECT_NE(set_.buckets(), 0U);
  EXPECT_THAT(keysOf(set_), ElementsAre(38, 37, 39));
  set_.deleteMember(38);
  EXPECT_EQ(set_.buckets(), 0U);
  EXPECT_THAT(keysOf(set_), ElementsAre(37, 39));
  EXPECT_TRUE(set_[37]);
  EXPECT_EQ(set_.size(), 2U);
}

TEST_F(ValueSetTest, AnIteratorFindsItsWayWhileEntriesMoveInAndOut) {
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

TEST_F(ValueSetTest, KeysThatOwnMemoryAreLetGo) {
  Kiv::HashMap2018<Kiv::String> texts;
  const auto before = Support::liveCounts();
  for (int n = 0; n < 40; ++n) texts.newMember(Keys::keyOf<Kiv::String>(n), true);
  texts.deleteMember("key-0");
  texts.deleteMember("key-17");
  EXPECT_EQ(texts.size(), 38U);
  texts.emptyAllBuckets();
  EXPECT_EQ(Support::liveCounts(), before);
}

TEST_F(ValueSetTest, ValuesMayBePointersWhichAreHeldAndLetGo) {
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

}  // namespace
