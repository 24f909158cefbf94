// What holds when memory runs out: nothing is lost, collections stay as they are and serve on. Each
// test runs out of memory in a process of its own, which exits with 0 if all is well.
#include "tests/framework/exhausted_memory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#include "framework/Allocation.h"
#include "framework/HashMap.h"
#include "framework/HashMap2018.h"
#include "framework/Ptr.h"
#include "tests/framework/keys.h"

namespace {

using Kiv::U32;
using Memory::Exhausted;
using Memory::kSanitized;
using Memory::Link;

bool throwsBadAlloc(const auto& call) {
  try {
    call();
  } catch (const std::bad_alloc&) {
    return true;
  }
  return false;
}

// The allocator

// Memory of this size runs out; all of it can be allocated again afterwards.
void runOutOfMemory(std::size_t size) {
  Kiv::kivMemFree(Kiv::kivMemAlloc(size), size);
  const std::size_t had = freeAll(Memory::allocateAllThatIsLeft(size), size);
  Link* all = Memory::allocateAllThatIsLeft(size);
  bool thrown = false;
  {
    const Memory::NoMoreMemory limit;
    thrown = throwsBadAlloc([&] { (void)Kiv::kivMemAlloc(size); });
  }
  const std::size_t again = freeAll(all, size);
  all = Memory::allocateAllThatIsLeft(size);
  const void* more = Kiv::kivMemAllocOrNull(size);  // of the system once more
  std::exit(thrown && had > 0 && again == had && more != nullptr ? 0 : 1);
}

// The same, when so many bytes are in use that regions are huge pages.
void runOutOfMuchMemory(std::size_t size, std::size_t inUse) {
  for (; inUse > size; inUse -= size) std::memset(Kiv::kivMemAlloc(size), 0x5a, size);
  runOutOfMemory(size);
}

TEST(AllocationDeathTest, WithoutMemoryAnAllocationThrowsOrReturnsNullAndNothingIsLost) {
  if (kSanitized) GTEST_SKIP() << "a sanitizer needs the memory itself";
  EXPECT_EXIT(runOutOfMemory(64), testing::ExitedWithCode(0), "");
  EXPECT_EXIT(runOutOfMemory(512), testing::ExitedWithCode(0), "");
  EXPECT_EXIT(runOutOfMuchMemory(512, 50 << 20), testing::ExitedWithCode(0), "");
}

// Collections

// The two families behind one interface, with keys by their place in the order. What is inserted
// later is made before memory runs out.
class Objects {
 public:
  using Item = Keys::Item<U32>;
  void prepare(U32 order) { prepared_.push_back(Kiv::make<Item>(Kiv::bitReverse(order))); }
  void insertPrepared(std::size_t index) { map_.newMember(prepared_[index]); }
  bool remove(U32 order) { return map_.deleteMember(Kiv::bitReverse(order)) != nullptr; }
  bool contains(U32 order) const { return map_.contains(Kiv::bitReverse(order)); }
  std::size_t size() const { return map_.size(); }
  std::size_t prepared() const { return prepared_.size(); }
  void reserve(std::size_t count) { map_.reserve(count); }
  template <class Each>
  void forEachOrder(Each each) const {
    for (const auto& member : map_) each(Kiv::bitReverse(member->fwkKey()));
  }

 private:
  std::vector<Kiv::Ptr<Item>> prepared_;
  Kiv::HashMap<Item, U32> map_;
};

class Values {
 public:
  void prepare(U32 order) { prepared_.push_back(Kiv::bitReverse(order)); }
  void insertPrepared(std::size_t index) { set_.newMember(prepared_[index], true); }
  bool remove(U32 order) { return set_.deleteMember(Kiv::bitReverse(order)); }
  bool contains(U32 order) const { return set_.contains(Kiv::bitReverse(order)); }
  std::size_t size() const { return set_.size(); }
  std::size_t prepared() const { return prepared_.size(); }
  void reserve(std::size_t) {}
  template <class Each>
  void forEachOrder(Each each) const {
    for (const auto& entry : set_) each(Kiv::bitReverse(entry.key));
  }

 private:
  std::vector<U32> prepared_;
  Kiv::HashMap2018<U32> set_;
};

// A collection, and the sorted orders of what is in it.
template <class Collection>
class Checked {
 public:
  explicit Checked(const std::vector<U32>& orders) : orders_(orders) {
    expected_.reserve(orders.size());
    for (const U32 order : orders) collection_.prepare(order);
  }

  // Inserts the next one; returns whether there was memory.
  bool insertNext() {
    const std::size_t next = expected_.size();
    if (throwsBadAlloc([&] { collection_.insertPrepared(next); })) return false;
    const auto at = std::upper_bound(expected_.begin(), expected_.end(), orders_[next]);
    expected_.insert(at, orders_[next]);
    return true;
  }
  void insertUpTo(std::size_t count) {
    while (expected_.size() < count) require(insertNext());
  }
  void removeLast() {
    require(collection_.remove(expected_.back()));
    expected_.pop_back();
  }
  void reserve(std::size_t count) { collection_.reserve(count); }
  std::size_t size() const { return expected_.size(); }

  void check() {
    require(collection_.size() == expected_.size());
    std::size_t visited = 0;
    collection_.forEachOrder([&](U32 order) { require(order == expected_[visited++]); });
    require(visited == expected_.size());
    for (const U32 order : orders_) {
      require(collection_.contains(order) ==
              std::binary_search(expected_.begin(), expected_.end(), order));
    }
  }
  [[noreturn]] void finish() const { std::exit(well_ ? 0 : 1); }
  void require(bool condition) { well_ = well_ && condition; }

 private:
  const std::vector<U32> orders_;
  Collection collection_;
  std::vector<U32> expected_;
  bool well_ = true;
};

// Orders that are spread over all buckets.
std::vector<U32> spreadOrders(std::size_t count) {
  std::vector<U32> orders;
  for (U32 n = 0; n < count; ++n) orders.push_back(n * 0x9e3779b1U / 2);
  return orders;
}

// An insertion into so many fails, for it needs larger memory; nothing has changed, and it succeeds
// later.
template <class Collection>
void failToGrow(std::size_t count) {
  Checked<Collection> collection(spreadOrders(count + 2));
  collection.insertUpTo(count);
  {
    const Exhausted exhausted;
    collection.reserve(50);
    for (int times = 0; times < 2; ++times) {
      collection.require(!collection.insertNext());
      collection.check();
    }
  }
  collection.insertUpTo(count + 2);
  collection.check();
  collection.finish();
}

TEST(CollectionDeathTest, AnInsertionThatFailsForLackOfMemoryChangesNothing) {
  if (kSanitized) GTEST_SKIP() << "a sanitizer needs the memory itself";
  for (const std::size_t count : {1U, 2U, 4U, 8U, 12U, 16U}) {
    EXPECT_EXIT(failToGrow<Objects>(count), testing::ExitedWithCode(0), "") << count;
  }
  for (const std::size_t count : {4U, 8U, 12U, 16U}) {
    EXPECT_EXIT(failToGrow<Values>(count), testing::ExitedWithCode(0), "") << count;
  }
}

// Without memory for more buckets, every position of the arrays is used: 32 buckets and 8 of
// overflow, of which one is to stay a gap. The next insertion moves the entries to arrays with more
// overflow, which fails.
template <class Collection>
void fillToTheLastPosition() {
  constexpr std::size_t kMadeFor = 26;
  constexpr std::size_t kPositions = 39;
  std::vector<U32> orders;
  for (U32 n = 0; n < kMadeFor; ++n) orders.push_back((n + 1) << 26);
  for (U32 n = kMadeFor; n < kPositions + 2; ++n) orders.push_back(100 - n);
  Checked<Collection> collection(orders);
  collection.insertUpTo(kMadeFor);
  {
    const Exhausted exhausted;
    while (collection.size() < kPositions) {
      collection.require(collection.insertNext());
      collection.check();
    }
    collection.require(!collection.insertNext());
    collection.check();
    collection.require(!collection.insertNext());
    // One that is removed leaves its position to another one.
    collection.removeLast();
    collection.check();
  }
  collection.insertUpTo(kPositions - 1);
  collection.check();
  while (collection.size() > 0) collection.removeLast();
  collection.check();
  collection.finish();
}

TEST(CollectionDeathTest, WithoutMemoryForMoreBucketsEveryPositionIsFilled) {
  if (kSanitized) GTEST_SKIP() << "a sanitizer needs the memory itself";
  EXPECT_EXIT(fillToTheLastPosition<Objects>(), testing::ExitedWithCode(0), "");
  EXPECT_EXIT(fillToTheLastPosition<Values>(), testing::ExitedWithCode(0), "");
}

// Members are removed although there is no memory for smaller arrays.
template <class Collection>
void shrinkWithoutMemory(std::size_t count) {
  Checked<Collection> collection(spreadOrders(count));
  collection.insertUpTo(count);
  {
    const Exhausted exhausted;
    while (collection.size() > 0) {
      collection.removeLast();
      collection.check();
    }
  }
  collection.finish();
}

TEST(CollectionDeathTest, DeletionsNeedNoMemory) {
  if (kSanitized) GTEST_SKIP() << "a sanitizer needs the memory itself";
  for (const std::size_t count : {1U, 3U, 5U, 17U, 60U}) {
    EXPECT_EXIT(shrinkWithoutMemory<Objects>(count), testing::ExitedWithCode(0), "") << count;
    EXPECT_EXIT(shrinkWithoutMemory<Values>(count), testing::ExitedWithCode(0), "") << count;
  }
}

using Item = Keys::Item<U32>;

// A replacement needs no memory either.
void replaceWithoutMemory(U32 count) {
  Kiv::HashMap<Item, U32> map;
  for (U32 key = 0; key < count; ++key) map.newMember(Kiv::make<Item>(key));
  const auto replacement = Kiv::make<Item>(U32{0});
  bool well = false;
  {
    const Exhausted exhausted;
    well = map.replaceMember(replacement) != nullptr && map[0] == replacement.get();
  }
  std::exit(well && map.size() == count ? 0 : 1);
}

TEST(CollectionDeathTest, AReplacementNeedsNoMemory) {
  if (kSanitized) GTEST_SKIP() << "a sanitizer needs the memory itself";
  for (const U32 count : {1U, 4U, 17U}) {
    EXPECT_EXIT(replaceWithoutMemory(count), testing::ExitedWithCode(0), "") << count;
  }
}

}  // namespace
