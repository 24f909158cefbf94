// Both families of keyed collections under a random stream of operations, compared with std::map.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>
#include <vector>

#include "framework/HashMap.h"
#include "framework/HashMap2018.h"
#include "tests/framework/keys.h"
#include "tests/support/live_objects.h"

namespace {

using Keys::keyOf;
using Kiv::make;
using Kiv::Ptr;

constexpr unsigned kSeeds = 12;
constexpr int kOperations = 2500;

template <class K>
class RandomTest : public testing::Test {
 protected:
  template <class V>
  using Reference = std::map<K, V, Keys::InOrder<K>>;

  // A stream of `what(random, key)`, which grows at first and shrinks in the end.
  template <class What>
  void stream(unsigned seed, What what) {
    std::mt19937 random(seed);
    const auto keys = static_cast<int>(4 + random() % 250);
    for (int i = 0; i < kOperations && !this->HasFatalFailure(); ++i) {
      const bool grows = random() % kOperations > static_cast<unsigned>(i);
      const auto key = keyOf<K>(static_cast<int>(random() % static_cast<unsigned>(keys)));
      what(random, grows, key);
    }
  }

 private:
  Support::LiveObjects nothingIsLeft_;
};

using KeyTypes = testing::Types<Kiv::U8, Kiv::U16, Kiv::U32, Kiv::Name, Kiv::String, Keys::AllAlike,
                                Keys::FewHashes>;
TYPED_TEST_SUITE(RandomTest, KeyTypes, Keys::TypeNames);

TYPED_TEST(RandomTest, ACollectionOfObjectsAgreesWithItsReference) {
  using K = TypeParam;
  using Item = Keys::Item<K>;
  for (unsigned seed = 1; seed <= kSeeds; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    Kiv::HashMap<Item, K> map;
    typename TestFixture::template Reference<Ptr<Item>> reference;
    this->stream(seed, [&](std::mt19937& random, bool grows, const K& key) {
      const auto known = reference.find(key);
      Item* const expected = known == reference.end() ? nullptr : known->second.get();
      ASSERT_EQ(map[key], expected);
      ASSERT_EQ(map.contains(key), expected != nullptr);
      if (!grows) {
        ASSERT_EQ(map.deleteMember(key).get(), expected);
        reference.erase(key);
      } else {
        const auto fresh = make<Item>(key);
        if (expected != nullptr) {
          ASSERT_EQ(map.deleteMember(key).get(), expected);
        }
        map.newMember(fresh);
        reference[key] = fresh;
      }
      ASSERT_EQ(map.size(), reference.size());
      if (random() % 50 != 0) return;
      map.reserve(random() % 300);
      auto at = reference.begin();
      for (const auto& member : map) {
        ASSERT_TRUE(at != reference.end());
        ASSERT_EQ(member.get(), at->second.get());
        ++at;
      }
      ASSERT_TRUE(at == reference.end());
    });
    if (this->HasFatalFailure()) return;
  }
}

TYPED_TEST(RandomTest, AValueSetAgreesWithItsReference) {
  using K = TypeParam;
  for (unsigned seed = 1; seed <= kSeeds; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    Kiv::HashMap2018<K, int> set;
    typename TestFixture::template Reference<int> reference;
    this->stream(seed, [&](std::mt19937& random, bool grows, const K& key) {
      const auto known = reference.find(key);
      const bool present = known != reference.end();
      const auto node = set.lookupNodeG(key);
      ASSERT_EQ(node.has_value(), present);
      ASSERT_EQ(set[key], present ? known->second : 0);
      if (present) {
        ASSERT_EQ(node->value, known->second);
      }
      if (!grows) {
        ASSERT_EQ(set.deleteMember(key), present);
        reference.erase(key);
      } else {
        const auto value = static_cast<int>(1 + random() % 2);
        ASSERT_EQ(set.newMember(key, value), !present || known->second != value);
        reference[key] = value;
      }
      ASSERT_EQ(set.size(), reference.size());
      if (random() % 50 != 0) return;
      auto at = reference.begin();
      for (const auto& entry : set) {
        ASSERT_TRUE(at != reference.end());
        ASSERT_EQ(entry.key, at->first);
        ASSERT_EQ(entry.value, at->second);
        ++at;
      }
      ASSERT_TRUE(at == reference.end());
    });
    if (this->HasFatalFailure()) return;
  }
}

}  // namespace
