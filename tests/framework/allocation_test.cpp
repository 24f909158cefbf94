// The allocator, and the tracker that says what is alive.
#include "framework/Allocation.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <optional>
#include <random>
#include <stdexcept>
#include <vector>

#include "framework/HashMap.h"
#include "framework/Ptr.h"
#include "framework/Text.h"
#include "tests/framework/keys.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define TEST_SANITIZED true
#elif defined(__has_feature)
#define TEST_SANITIZED (__has_feature(address_sanitizer) || __has_feature(thread_sanitizer))
#else
#define TEST_SANITIZED false
#endif

namespace {

constexpr bool kSanitized = TEST_SANITIZED;

using Kiv::AllocTrackRecord;
using Kiv::AllocTrackTypeInfo;

// A type for each test that counts, so that none depends on another.
template <int Number>
class Counted final : public Kiv::PtrInterface {
 public:
  static constexpr std::string_view kTypeName =
      Number == 0 ? "Test::Counted0" : (Number == 1 ? "Test::Counted1" : "Test::Counted2");
  explicit Counted(bool fails = false) {
    if (fails) throw std::runtime_error("no");
  }
  const Kiv::Type& fwkType() const override { return Kiv::typeRecord<Counted>; }

 private:
  char ballast_[100] = {};
};

std::optional<AllocTrackRecord> recordOf(std::string_view typeName) {
  for (const AllocTrackRecord& record : AllocTrackTypeInfo::report()) {
    if (record.typeName == typeName) return record;
  }
  return std::nullopt;
}

TEST(AllocationTest, MemoryIsAlignedForPointersAndNumbers) {
  for (std::size_t size = 1; size <= 600; ++size) {
    void* memory = Kiv::kivMemAlloc(size);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(memory) % Kiv::kMemAlignment, 0U) << size;
    std::memset(memory, 0xa5, size);
    Kiv::kivMemFree(memory, size);
  }
}

TEST(AllocationTest, BlocksInUseDoNotOverlap) {
  std::mt19937 random(20);
  struct Block {
    unsigned char* memory;
    std::size_t size;
    unsigned char mark;
  };
  std::vector<Block> blocks;
  for (int i = 0; i < 20000; ++i) {
    if (blocks.empty() || random() % 5 < 3) {
      const std::size_t size = 1 + random() % 700;
      const auto mark = static_cast<unsigned char>(random());
      auto* memory = static_cast<unsigned char*>(Kiv::kivMemAlloc(size));
      std::memset(memory, mark, size);
      blocks.push_back({memory, size, mark});
      continue;
    }
    std::swap(blocks[random() % blocks.size()], blocks.back());
    const Block gone = blocks.back();
    blocks.pop_back();
    const bool intact = std::all_of(gone.memory, gone.memory + gone.size,
                                    [&](unsigned char byte) { return byte == gone.mark; });
    ASSERT_TRUE(intact) << "a block of " << gone.size << " bytes was written by another";
    Kiv::kivMemFree(gone.memory, gone.size);
  }
  for (const Block& block : blocks) Kiv::kivMemFree(block.memory, block.size);
}

TEST(AllocationTest, WhatCannotBeHadThrowsOrIsNull) {
  // Not a constant, or the compiler would object to the size.
  volatile std::size_t tooMuch = PTRDIFF_MAX;
  if (kSanitized) GTEST_SKIP() << "a sanitizer takes this as a fault of the program";
  EXPECT_THROW((void)Kiv::kivMemAlloc(tooMuch), std::bad_alloc);
  EXPECT_EQ(Kiv::kivMemAllocOrNull(tooMuch), nullptr);
}

TEST(AllocationTest, FreeingNothingDoesNothing) {
  Kiv::kivMemFree(nullptr, 16);
  Kiv::kivMemFree(nullptr, 4096);
}

TEST(AllocationTest, MemoryOfNoSizeMayBeHadAndFreed) {
  void* first = Kiv::kivMemAllocOrNull(0);
  void* second = Kiv::kivMemAllocOrNull(0);
  EXPECT_TRUE(first == nullptr || first != second);
  Kiv::kivMemFree(first, 0);
  Kiv::kivMemFree(second, 0);
}

TEST(PoolTest, WhatItTookOfTheSystemServesAgain) {
  if (kSanitized) GTEST_SKIP() << "everything is the system's in a sanitizer build";
  constexpr std::size_t size = 504;
  constexpr std::size_t count = 100000;
  const auto takeAndFree = [] {
    std::vector<void*> all(count);
    for (void*& memory : all) memory = std::memset(Kiv::kivMemAlloc(size), 0x5a, size);
    for (void* memory : all) Kiv::kivMemFree(memory, size);
  };
  const std::size_t before = Kiv::kivMemTaken();
  takeAndFree();
  const std::size_t after = Kiv::kivMemTaken();
  EXPECT_GE(after - before, count * size / 2) << "some may have been there";
  EXPECT_LE(after - before, count * size + (4 << 20));
  takeAndFree();
  EXPECT_EQ(Kiv::kivMemTaken(), after);
}

TEST(PoolTest, WhatComesAfterMostHasGoneLiesSideBySide) {
  if (kSanitized) GTEST_SKIP() << "everything is the system's in a sanitizer build";
  constexpr std::size_t size = 488;  // which no other test has
  constexpr std::size_t count = 100000;
  std::vector<char*> all(count);
  const auto takeAll = [&] {
    for (char*& memory : all) memory = static_cast<char*>(Kiv::kivMemAlloc(size));
  };
  takeAll();
  std::shuffle(all.begin(), all.end(), std::mt19937(1));
  for (char* memory : all) Kiv::kivMemFree(memory, size);
  takeAll();
  std::size_t neighbours = 0;
  for (std::size_t i = 1; i < count; ++i)
    neighbours += all[i] > all[i - 1] && all[i] - all[i - 1] < 16 * 1024;
  EXPECT_GE(neighbours, count / 2);
  for (char* memory : all) Kiv::kivMemFree(memory, size);
}

TEST(PoolTest, WhatOneSizeHasGivenBackServesAnother) {
  if (kSanitized) GTEST_SKIP() << "everything is the system's in a sanitizer build";
  const auto takeAndFree = [&](std::size_t size, std::size_t bytes) {
    std::vector<void*> all(bytes / size);
    for (void*& memory : all) memory = std::memset(Kiv::kivMemAlloc(size), 0x5a, size);
    for (void* memory : all) Kiv::kivMemFree(memory, size);
  };
  constexpr std::size_t kMuch = 40 << 20;
  takeAndFree(472, kMuch);
  const std::size_t before = Kiv::kivMemTaken();
  takeAndFree(232, kMuch / 2);
  EXPECT_LE(Kiv::kivMemTaken() - before, kMuch / 8);
}

TEST(PoolTest, SizesThatTakeTurnsNeedNoMoreThanAllOfThemAtOnce) {
  if (kSanitized) GTEST_SKIP() << "everything is the system's in a sanitizer build";
  std::mt19937 random(1);
  constexpr std::size_t kMuch = 4 << 20;
  const auto takeAndFree = [&](std::size_t size) {
    std::vector<void*> all(kMuch / size);
    for (void*& memory : all) memory = std::memset(Kiv::kivMemAlloc(size), 0x5a, size);
    std::shuffle(all.begin(), all.end(), random);
    for (void* memory : all) Kiv::kivMemFree(memory, size);
  };
  const auto turn = [&] {
    for (const std::size_t size : {24U, 40U, 64U, 120U}) takeAndFree(size);
  };
  turn();
  const std::size_t before = Kiv::kivMemTaken();
  for (int i = 0; i < 40; ++i) turn();
  EXPECT_LE(Kiv::kivMemTaken() - before, kMuch / 4);
}

TEST(AllocationTest, LargeMemoryIsWritableFromEndToEnd) {
  for (const std::size_t size : {std::size_t{4} << 20, (std::size_t{9} << 20) + 1}) {
    auto* memory = static_cast<unsigned char*>(Kiv::kivMemAlloc(size));
    std::memset(memory, 0xa5, size);
    EXPECT_EQ(std::count(memory, memory + size, 0xa5), static_cast<std::ptrdiff_t>(size));
    Kiv::kivMemFree(memory, size);
  }
}

// Lets the process have no more memory of the system while it lives.
class NoMoreMemory {
 public:
  NoMoreMemory() {
    getrlimit(RLIMIT_AS, &before_);
    const rlimit none{0, before_.rlim_max};
    setrlimit(RLIMIT_AS, &none);
  }
  ~NoMoreMemory() { setrlimit(RLIMIT_AS, &before_); }
  NoMoreMemory(const NoMoreMemory&) = delete;
  NoMoreMemory& operator=(const NoMoreMemory&) = delete;

 private:
  rlimit before_{};
};

// What is left in memory that is had already, as a chain, until there is no more.
struct Link {
  Link* next;
};
Link* takeAllThatIsLeft(std::size_t size) {
  const NoMoreMemory limit;
  Link* chain = nullptr;
  while (void* memory = Kiv::kivMemAllocOrNull(size)) chain = new (memory) Link{chain};
  return chain;
}

std::size_t freeAll(Link* chain, std::size_t size) {
  std::size_t count = 0;
  for (Link* next = nullptr; chain != nullptr; chain = next, ++count) {
    next = chain->next;
    Kiv::kivMemFree(chain, size);
  }
  return count;
}

bool throwsWhenAskedFor(std::size_t size) {
  const NoMoreMemory limit;
  try {
    (void)Kiv::kivMemAlloc(size);
  } catch (const std::bad_alloc&) {
    return true;
  }
  return false;
}

// Exits with 0 when memory of this size runs out, and all of it can be had again afterwards.
void runOutOfMemory(std::size_t size) {
  Kiv::kivMemFree(Kiv::kivMemAlloc(size), size);
  const std::size_t had = freeAll(takeAllThatIsLeft(size), size);
  Link* all = takeAllThatIsLeft(size);
  const bool thrown = throwsWhenAskedFor(size);
  const std::size_t again = freeAll(all, size);
  all = takeAllThatIsLeft(size);
  void* more = Kiv::kivMemAllocOrNull(size);  // of the system once more
  std::exit(thrown && had > 0 && again == had && more != nullptr ? 0 : 1);
}

// The same, when so many bytes of it are in use that the system is asked for larger pieces.
void runOutOfMuchMemory(std::size_t size, std::size_t inUse) {
  for (; inUse > size; inUse -= size) std::memset(Kiv::kivMemAlloc(size), 0x5a, size);
  runOutOfMemory(size);
}

TEST(AllocationDeathTest, WhenMemoryRunsOutSmallSizesThrowOrAreNullAndNothingIsLost) {
  if (kSanitized) GTEST_SKIP() << "a sanitizer needs the memory itself";
  EXPECT_EXIT(runOutOfMemory(64), testing::ExitedWithCode(0), "");
  EXPECT_EXIT(runOutOfMemory(512), testing::ExitedWithCode(0), "");
  EXPECT_EXIT(runOutOfMuchMemory(512, 50 << 20), testing::ExitedWithCode(0), "");
}

using Item = Keys::Item<Kiv::U32>;
using Map = Kiv::HashMap<Item, Kiv::U32>;

bool holdsExactly(const Map& map, Kiv::U32 count) {
  Kiv::U32 met = 0;
  for (const auto& member : map) met += member->fwkKey() < count ? 1U : 0U;
  return map.size() == count && met == count;
}

bool isRefused(Map& map, const Kiv::Ptr<Item>& item) {
  try {
    map.newMember(item);
  } catch (const std::bad_alloc&) {
    return item->references() == 1;
  }
  return false;
}

// Exits with 0 when a collection of so many members stays as it is where there is no memory for
// more room, serves on without, and takes the other one in later.
void runOutOfMemoryForAMember(Kiv::U32 count) {
  Map map;
  for (Kiv::U32 key = 0; key < count; ++key) map.newMember(Kiv::make<Item>(key));
  const auto more = Kiv::make<Item>(count);
  const auto another = Kiv::make<Item>(Kiv::U32{0});
  std::vector<Link*> taken;
  for (std::size_t size = 512; size > 0; size -= 8) taken.push_back(takeAllThatIsLeft(size));
  bool well = false;
  {
    const NoMoreMemory limit;
    map.reserve(12);
    well = isRefused(map, more) && holdsExactly(map, count) && isRefused(map, more) &&
           map.replaceMember(another) != nullptr && map[0] == another.get();
  }
  for (std::size_t i = 0; i < taken.size(); ++i) freeAll(taken[i], 512 - 8 * i);
  map.newMember(more);
  std::exit(well && holdsExactly(map, count + 1) ? 0 : 1);
}

// The same, when members go and there is no memory for a smaller table.
void runOutOfMemoryForFewer() {
  Map map;
  for (Kiv::U32 key = 0; key < 5; ++key) map.newMember(Kiv::make<Item>(key));
  std::vector<Link*> taken;
  for (std::size_t size = 512; size > 0; size -= 8) taken.push_back(takeAllThatIsLeft(size));
  bool well = true;
  for (Kiv::U32 count = 5; count-- > 0;) {
    const NoMoreMemory limit;
    const auto gone = map.deleteMember(count);
    well = well && gone != nullptr && holdsExactly(map, count);
  }
  std::exit(well ? 0 : 1);
}

TEST(CollectionDeathTest, WhenMemoryRunsOutACollectionStaysAsItIs) {
  if (kSanitized) GTEST_SKIP() << "a sanitizer needs the memory itself";
  EXPECT_EXIT(runOutOfMemoryForAMember(1), testing::ExitedWithCode(0), "");
  EXPECT_EXIT(runOutOfMemoryForAMember(2), testing::ExitedWithCode(0), "");
  EXPECT_EXIT(runOutOfMemoryForAMember(4), testing::ExitedWithCode(0), "");
  EXPECT_EXIT(runOutOfMemoryForFewer(), testing::ExitedWithCode(0), "");
}

TEST(TrackerTest, ATypeIsListedFromItsFirstAllocationOn) {
  static const bool listedBefore = recordOf("Test::Counted0").has_value();
  EXPECT_FALSE(listedBefore);
  (void)Kiv::make<Counted<0>>();
  ASSERT_TRUE(recordOf("Test::Counted0").has_value());
  EXPECT_EQ(recordOf("Test::Counted0")->liveCount, 0U);
  EXPECT_EQ(recordOf("Test::Counted0")->liveBytes, 0U);
}

TEST(TrackerTest, CountsAndBytesFollowTheLiveObjects) {
  std::vector<Kiv::Ptr<Counted<1>>> live;
  for (std::size_t i = 1; i <= 5; ++i) {
    live.push_back(Kiv::make<Counted<1>>());
    EXPECT_EQ(recordOf("Test::Counted1")->liveCount, i);
    EXPECT_EQ(recordOf("Test::Counted1")->liveBytes, i * sizeof(Counted<1>));
  }
  const Kiv::Ptr<Counted<1>> copy = live.front();
  EXPECT_EQ(recordOf("Test::Counted1")->liveCount, 5U);
  live.clear();
  EXPECT_EQ(recordOf("Test::Counted1")->liveCount, 1U);
  EXPECT_EQ(recordOf("Test::Counted1")->liveBytes, sizeof(Counted<1>));
}

TEST(TrackerTest, AConstructorThatThrowsLeavesNothing) {
  const Kiv::Ptr<Counted<2>> one = Kiv::make<Counted<2>>();
  EXPECT_THROW((void)Kiv::make<Counted<2>>(true), std::runtime_error);
  EXPECT_EQ(recordOf("Test::Counted2")->liveCount, 1U);
  EXPECT_EQ(recordOf("Test::Counted2")->liveBytes, sizeof(Counted<2>));
}

TEST(TrackerTest, TheReportIsSortedAndListsEachTypeOnce) {
  (void)Kiv::make<Counted<1>>();
  (void)Kiv::make<Counted<2>>();
  (void)Kiv::make<Counted<1>>();
  std::vector<std::string_view> names;
  for (const AllocTrackRecord& record : AllocTrackTypeInfo::report()) {
    names.push_back(record.typeName);
  }
  EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));
  EXPECT_EQ(std::count(names.begin(), names.end(), "Test::Counted1"), 1);
  EXPECT_THAT(names, testing::IsSupersetOf({"Test::Counted1", "Test::Counted2"}));
}

TEST(TrackerTest, StringsAreTrackedWithTheirTextAndOncePerRepresentation) {
  (void)Kiv::String("so that the type is listed");
  const AllocTrackRecord before = *recordOf("Kiv::Text");
  {
    const Kiv::String text(std::string(1000, 'x'));
    const Kiv::String copy = text;
    EXPECT_EQ(recordOf("Kiv::Text")->liveCount, before.liveCount + 1);
    EXPECT_GE(recordOf("Kiv::Text")->liveBytes, before.liveBytes + 1000);
    EXPECT_LE(recordOf("Kiv::Text")->liveBytes, before.liveBytes + 1000 + 32);
  }
  EXPECT_EQ(recordOf("Kiv::Text")->liveCount, before.liveCount);
  EXPECT_EQ(recordOf("Kiv::Text")->liveBytes, before.liveBytes);
}

TEST(TypeTest, ARecordTellsTheNameAndTheSizeOfItsClass) {
  const Kiv::Ptr<Counted<1>> object = Kiv::make<Counted<1>>();
  EXPECT_EQ(object->fwkType().name(), "Test::Counted1");
  EXPECT_EQ(object->fwkType().size(), sizeof(Counted<1>));
  EXPECT_EQ(&object->fwkType(), &Kiv::make<Counted<1>>()->fwkType());
}

TEST(TypeTest, RecordsAreOneTypeWhenTheirNamesAreEqual) {
  static constinit const Kiv::Type first("Test::Same", 8);
  static constinit const Kiv::Type second("Test::Same", 16);
  static constinit const Kiv::Type third("Test::Other", 8);
  EXPECT_TRUE(first == second);
  EXPECT_FALSE(first == third);
}

}  // namespace
