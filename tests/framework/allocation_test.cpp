// The allocator, and the tracker of what is alive.
#include "framework/Allocation.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <optional>
#include <random>
#include <stdexcept>
#include <vector>

#include "framework/Ptr.h"
#include "framework/Text.h"
#include "tests/framework/exhausted_memory.h"

namespace {

using Memory::kSanitized;

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
    const Block block = blocks.back();
    blocks.pop_back();
    const bool intact = std::all_of(block.memory, block.memory + block.size,
                                    [&](unsigned char byte) { return byte == block.mark; });
    ASSERT_TRUE(intact) << "a block of " << block.size << " bytes was written by another";
    Kiv::kivMemFree(block.memory, block.size);
  }
  for (const Block& block : blocks) Kiv::kivMemFree(block.memory, block.size);
}

TEST(AllocationTest, AnAllocationThatFailsThrowsOrReturnsNull) {
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

TEST(AllocationTest, MemoryOfSizeZeroCanBeAllocatedAndFreed) {
  void* first = Kiv::kivMemAllocOrNull(0);
  void* second = Kiv::kivMemAllocOrNull(0);
  EXPECT_TRUE(first == nullptr || first != second);
  Kiv::kivMemFree(first, 0);
  Kiv::kivMemFree(second, 0);
}

TEST(PoolTest, FreedMemoryIsUsedAgain) {
  if (kSanitized) GTEST_SKIP() << "everything is the system's in a sanitizer build";
  constexpr std::size_t size = 504;
  constexpr std::size_t count = 100000;
  const auto allocateAndFree = [] {
    std::vector<void*> all(count);
    for (void*& memory : all) memory = std::memset(Kiv::kivMemAlloc(size), 0x5a, size);
    for (void* memory : all) Kiv::kivMemFree(memory, size);
  };
  const std::size_t before = Kiv::kivMemTaken();
  allocateAndFree();
  const std::size_t after = Kiv::kivMemTaken();
  EXPECT_GE(after - before, count * size / 2) << "some may have been there";
  EXPECT_LE(after - before, count * size + (4 << 20));
  allocateAndFree();
  EXPECT_EQ(Kiv::kivMemTaken(), after);
}

TEST(PoolTest, ChunksAllocatedAfterMostAreFreedAreNeighbours) {
  if (kSanitized) GTEST_SKIP() << "everything is the system's in a sanitizer build";
  constexpr std::size_t size = 488;  // which no other test has
  constexpr std::size_t count = 100000;
  std::vector<char*> all(count);
  const auto allocateAll = [&] {
    for (char*& memory : all) memory = static_cast<char*>(Kiv::kivMemAlloc(size));
  };
  allocateAll();
  std::shuffle(all.begin(), all.end(), std::mt19937(1));
  for (char* memory : all) Kiv::kivMemFree(memory, size);
  allocateAll();
  std::size_t neighbours = 0;
  for (std::size_t i = 1; i < count; ++i)
    neighbours += all[i] > all[i - 1] && all[i] - all[i - 1] < 16 * 1024;
  EXPECT_GE(neighbours, count / 2);
  for (char* memory : all) Kiv::kivMemFree(memory, size);
}

TEST(PoolTest, FreedMemoryOfOneSizeServesAnother) {
  if (kSanitized) GTEST_SKIP() << "everything is the system's in a sanitizer build";
  const auto allocateAndFree = [&](std::size_t size, std::size_t bytes) {
    std::vector<void*> all(bytes / size);
    for (void*& memory : all) memory = std::memset(Kiv::kivMemAlloc(size), 0x5a, size);
    for (void* memory : all) Kiv::kivMemFree(memory, size);
  };
  constexpr std::size_t kMuch = 40 << 20;
  allocateAndFree(472, kMuch);
  const std::size_t before = Kiv::kivMemTaken();
  allocateAndFree(232, kMuch / 2);
  EXPECT_LE(Kiv::kivMemTaken() - before, kMuch / 8);
}

TEST(PoolTest, AlternatingSizesNeedNoMoreThanAllOfThemTogether) {
  if (kSanitized) GTEST_SKIP() << "everything is the system's in a sanitizer build";
  std::mt19937 random(1);
  constexpr std::size_t kMuch = 4 << 20;
  const auto allocateAndFree = [&](std::size_t size) {
    std::vector<void*> all(kMuch / size);
    for (void*& memory : all) memory = std::memset(Kiv::kivMemAlloc(size), 0x5a, size);
    std::shuffle(all.begin(), all.end(), random);
    for (void* memory : all) Kiv::kivMemFree(memory, size);
  };
  const auto turn = [&] {
    for (const std::size_t size : {24U, 40U, 64U, 120U}) allocateAndFree(size);
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

TEST(TrackerTest, AnObjectWhoseConstructorThrowsIsNotCounted) {
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
