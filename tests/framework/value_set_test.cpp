// Sets of entries: a key and a value.
#include "framework/HashMap2018.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
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

template <class S, class Node>
bool inside(const S& set, const Node* node) {
  const auto at = reinterpret_cast<std::uintptr_t>(node);
  const auto begin = reinterpret_cast<std::uintptr_t>(&set);
  return at >= begin && at < begin + sizeof(set);
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
  EXPECT_EQ(set_.lookupNodeG(1), nullptr);
  EXPECT_FALSE(set_.contains(1));
  EXPECT_FALSE(set_[1]);
  EXPECT_FALSE(set_.deleteMember(1));
  EXPECT_TRUE(set_.begin() == set_.end());
}

TEST_F(ValueSetTest, AnEntryHasAKeyAndAValue) {
  EXPECT_TRUE(set_.newMember(7, true));
  const auto* node = set_.lookupNodeG(7);
  ASSERT_NE(node, nullptr);
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
  ASSERT_NE(set_.lookupNodeG(7), nullptr);
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

TEST_F(ValueSetTest, AFewEntriesHangInOneChain) {
  for (Kiv::U16 key = 0; key < 4; ++key) set_.newMember(key, true);
  EXPECT_EQ(set_.buckets(), 0U);
  set_.newMember(4, true);
  EXPECT_EQ(set_.buckets(), 8U);
}

TEST_F(ValueSetTest, TheFirstEntryLivesInsideTheSet) {
  set_.newMember(1, true);
  EXPECT_TRUE(inside(set_, set_.lookupNodeG(1)));
  set_.newMember(2, true);
  EXPECT_TRUE(inside(set_, set_.lookupNodeG(1)));
  EXPECT_FALSE(inside(set_, set_.lookupNodeG(2)));
}

TEST_F(ValueSetTest, ThePlaceInsideIsUsedAgainOnceItIsFree) {
  set_.newMember(1, true);
  set_.newMember(2, true);
  set_.deleteMember(1);
  set_.newMember(3, true);
  EXPECT_TRUE(inside(set_, set_.lookupNodeG(3)));
  EXPECT_FALSE(inside(set_, set_.lookupNodeG(2)));
  set_.deleteMember(2);
  set_.deleteMember(3);
  set_.newMember(4, true);
  EXPECT_TRUE(inside(set_, set_.lookupNodeG(4)));
}

TEST_F(ValueSetTest, ThePlaceInsideIsFreedWithTheSet) {
  set_.newMember(1, true);
  set_.emptyAllBuckets();
  set_.newMember(2, true);
  EXPECT_TRUE(inside(set_, set_.lookupNodeG(2)));
  EXPECT_EQ(set_.size(), 1U);
}

TEST_F(ValueSetTest, AnEntryMayBeDeletedByAReferenceToItsOwnKey) {
  Kiv::HashMap2018<Kiv::String> texts;
  for (const char* text : {"a", "b", "c"}) texts.newMember(text, true);
  while (!texts.empty()) {
    const Kiv::String first = texts.begin()->key;
    EXPECT_TRUE(texts.deleteMember(texts.lookupNodeG(first)->key));
  }
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
