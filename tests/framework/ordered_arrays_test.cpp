// The arrays under the collections, with orders that the test chooses: compared with a sorted list,
// and at their fullest.
#include "framework/detail/OrderedArrays.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace {

using Kiv::U32;
using Kiv::U64;
using Arrays = Kiv::detail::OrderedArrays<U64, Kiv::U16>;
constexpr U32 kHighest = Arrays::clampOrder(~U32{0});

// An entry's order, and the number that is in its two columns.
struct Entry {
  U32 order;
  U64 number;
};

// Arrays beside a sorted list of what they must hold.
class OrderedArraysTest : public testing::Test {
 protected:
  OrderedArraysTest() { EXPECT_TRUE(arrays_.reserve(1)); }
  ~OrderedArraysTest() override { arrays_.release(); }

  // Adds an entry after those of its order.
  void insert(U32 order) {
    const U32 first = arrays_.lowerBound(order);
    U32 rank = 0;
    while (arrays_.hasOrder(first + rank, order)) ++rank;
    const U32 at = arrays_.insertGap(first + rank, rank, order);
    ASSERT_NE(at, Arrays::npos);
    arrays_.first(at) = next_;
    arrays_.other<0>(at) = static_cast<Kiv::U16>(next_);
    const auto after = std::upper_bound(expected_.begin(), expected_.end(), order,
                                        [](U32 o, const Entry& entry) { return o < entry.order; });
    expected_.insert(after, {order, next_++});
  }
  // Removes the entry with this index in the sorted list.
  void erase(std::size_t index) {
    const Entry entry = expected_[index];
    U32 at = arrays_.find(entry.order);
    while (arrays_.first(at) != entry.number) ++at;
    arrays_.eraseGap(at);
    expected_.erase(expected_.begin() + static_cast<std::ptrdiff_t>(index));
  }

  // The numbers by position, in order; with the position of each.
  std::vector<std::pair<U32, U64>> positions() const {
    std::vector<std::pair<U32, U64>> all;
    for (U32 at = arrays_.nextOccupied(0); at != Arrays::npos; at = arrays_.nextOccupied(at + 1)) {
      all.emplace_back(at, arrays_.first(at));
    }
    return all;
  }

  // Holds everything that can be asked of the arrays against the list.
  void check() const {
    ASSERT_EQ(arrays_.count, expected_.size());
    const auto all = positions();
    ASSERT_EQ(all.size(), expected_.size());
    for (std::size_t i = 0; i < all.size(); ++i) {
      const auto [at, number] = all[i];
      ASSERT_EQ(number, expected_[i].number);
      ASSERT_EQ(arrays_.other<0>(at), static_cast<Kiv::U16>(number));
      ASSERT_TRUE(arrays_.hasOrder(at, expected_[i].order));
      ASSERT_TRUE(arrays_.occupied(at));
      ASSERT_LT(at, arrays_.end());
      if (!arrays_.shape.dense()) {
        ASSERT_NE(at, arrays_.shape.capacity() - 1) << "the last position ends every search";
        ASSERT_GE(at, arrays_.shape.bucketOf(expected_[i].order));
        for (U32 between = arrays_.shape.bucketOf(expected_[i].order); between < at; ++between) {
          ASSERT_TRUE(arrays_.occupied(between)) << "a gap between an entry and its bucket";
        }
      }
      checkSearch(expected_[i].order);
    }
    for (const U32 order : {0U, 1U, 1U << 31, kHighest - 1, kHighest}) checkSearch(order);
  }

 private:
  void checkSearch(U32 order) const {
    const auto found = std::lower_bound(expected_.begin(), expected_.end(), order,
                                        [](const Entry& entry, U32 o) { return entry.order < o; });
    const bool present = found != expected_.end() && found->order == order;
    const U32 at = arrays_.find(order);
    ASSERT_EQ(at != Arrays::npos, present) << order;
    const U32 bound = arrays_.lowerBound(order);
    ASSERT_EQ(arrays_.hasOrder(bound, order), present);
    if (present) {
      ASSERT_EQ(at, bound);
      ASSERT_EQ(arrays_.first(at), found->number);
    } else {
      const U32 next = arrays_.nextOccupied(bound);
      ASSERT_EQ(next != Arrays::npos, found != expected_.end());
      if (next != Arrays::npos) {
        ASSERT_EQ(arrays_.first(next), found->number);
      }
    }
  }

 protected:
  Arrays arrays_;
  std::vector<Entry> expected_;

 private:
  U64 next_ = 0;
};

TEST_F(OrderedArraysTest, AShapeHasTheCapacityAndTheBucketsForItsEntries) {
  using Kiv::detail::Shape;
  EXPECT_EQ(Shape::forCount(0).capacity(), 4U);
  EXPECT_EQ(Shape::forCount(5).capacity(), 8U);
  EXPECT_EQ(Shape::forCount(16).capacity(), 16U);
  EXPECT_TRUE(Shape::forCount(16).dense());
  EXPECT_EQ(Shape::forCount(17).buckets(), 32U);
  EXPECT_EQ(Shape::forCount(26).buckets(), 32U);
  EXPECT_EQ(Shape::forCount(27).buckets(), 64U);
  EXPECT_EQ(Shape::forCount(26).capacity(), 40U);
  EXPECT_EQ(Shape::forCount(26).extended().capacity(), 32U + 128U);
  EXPECT_EQ(Shape::forCount(26).doubled().capacity(), 72U);
  for (U32 count = 1; count < 3000; ++count) EXPECT_GE(Shape::forCount(count).maxCount(), count);
}

TEST_F(OrderedArraysTest, AgreeWithASortedListWhateverTheOrders) {
  const std::function<U32(std::mt19937&)> draws[] = {
      [](std::mt19937& random) { return Arrays::clampOrder(static_cast<U32>(random())); },
      [](std::mt19937& random) { return static_cast<U32>(random() % 7) << 29; },
      [](std::mt19937& random) { return kHighest - static_cast<U32>(random() % 40); },
      [](std::mt19937& random) { return static_cast<U32>(random() % 40); }};
  for (unsigned seed = 1; seed <= 4; ++seed) {
    for (const auto& draw : draws) {
      SCOPED_TRACE("seed " + std::to_string(seed));
      std::mt19937 random(seed);
      for (int step = 0; step < 400; ++step) {
        const bool grows = step < 100 || (step < 250 && random() % 2 == 0);
        if (grows || expected_.empty()) {
          insert(draw(random));
        } else {
          erase(random() % expected_.size());
          if (random() % 4 == 0) (void)arrays_.shrink();
        }
        if (step % 10 == 0) check();
        if (HasFatalFailure()) return;
      }
      while (!expected_.empty()) erase(expected_.size() - 1);
      check();
    }
  }
}

TEST_F(OrderedArraysTest, DenseArraysTakeAsManyEntriesAsTheirCapacity) {
  ASSERT_TRUE(arrays_.reserve(16));
  const void* const block = arrays_.block;
  for (U32 n = 16; n > 0; --n) insert(n * 1000);
  EXPECT_EQ(arrays_.block, block) << "there was enough memory";
  EXPECT_TRUE(arrays_.shape.dense());
  EXPECT_EQ(arrays_.count, arrays_.shape.capacity());
  check();
  insert(500);
  EXPECT_EQ(arrays_.shape.buckets(), 32U);
  check();
}

TEST_F(OrderedArraysTest, TheOverflowIsFilledUpToTheLastPositionButOne) {
  for (const U32 count : {26U, 52U, 104U, 832U}) {
    ASSERT_TRUE(arrays_.reserve(count));
    // All are of the last bucket, so they are in it and in the overflow.
    const U32 overflow = arrays_.shape.capacity() - arrays_.shape.buckets();
    for (U32 n = 0; n < overflow; ++n) insert(kHighest - n);
    EXPECT_EQ(arrays_.shape.capacity() - arrays_.shape.buckets(), overflow);
    EXPECT_TRUE(arrays_.occupied(arrays_.shape.capacity() - 2));
    EXPECT_FALSE(arrays_.occupied(arrays_.shape.capacity() - 1));
    check();
    // One more needs more overflow; the others keep their positions.
    const auto before = positions();
    insert(kHighest);
    EXPECT_GT(arrays_.shape.capacity() - arrays_.shape.buckets(), overflow);
    auto after = positions();
    after.pop_back();
    EXPECT_EQ(after, before);
    check();
    if (HasFatalFailure()) return;
    while (!expected_.empty()) erase(0);
  }
}

TEST_F(OrderedArraysTest, ProbedArraysTakeAsManyEntriesAsTheyAreMadeFor) {
  for (const U32 count : {26U, 52U, 416U}) {
    ASSERT_TRUE(arrays_.reserve(count));
    const void* const block = arrays_.block;
    for (U32 n = 0; n < count; ++n) insert(n * (~U32{0} / count));
    EXPECT_EQ(arrays_.block, block) << "there was enough memory";
    EXPECT_EQ(arrays_.count, arrays_.shape.maxCount());
    check();
    const U32 buckets = arrays_.shape.buckets();
    insert(77);
    EXPECT_EQ(arrays_.shape.buckets(), 2 * buckets);
    check();
    if (HasFatalFailure()) return;
    while (!expected_.empty()) erase(expected_.size() / 2);
  }
}

TEST_F(OrderedArraysTest, LargerArraysHaveOverflowForTheEntriesOfTheLastBucket) {
  for (U32 inLast = 6; inLast <= 11; ++inLast) {
    SCOPED_TRACE(inLast);
    ASSERT_TRUE(arrays_.reserve(26));
    for (U32 n = 0; n < inLast; ++n) insert(kHighest - n);
    for (U32 n = inLast; n < 26; ++n) insert(n << 20);
    check();
    insert(1);
    EXPECT_EQ(arrays_.shape.buckets(), 64U);
    check();
    if (HasFatalFailure()) return;
    while (!expected_.empty()) erase(0);
  }
}

TEST_F(OrderedArraysTest, EntriesThatWouldBeFarFromTheirBucketsKeepTheLargeArrays) {
  for (U32 n = 0; n < 4096; ++n) insert(n << 19);
  const U32 buckets = arrays_.shape.buckets();
  // What is left is of neighbouring orders.
  while (expected_.size() > 128) {
    erase(expected_.size() - 1);
    (void)arrays_.shrink();
  }
  EXPECT_EQ(arrays_.shape.buckets(), buckets);
  check();
}

}  // namespace
