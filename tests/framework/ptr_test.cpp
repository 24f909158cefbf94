// Counted pointers and the word that they count in, with plain and with atomic counting.
#include "framework/Ptr.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <type_traits>
#include <unordered_set>
#include <utility>

#include "tests/support/live_objects.h"

namespace {

using Kiv::make;
using Kiv::Ptr;

class Thing : public Kiv::PtrInterface {
 public:
  static constexpr std::string_view kTypeName = "Test::Thing";
  explicit Thing(bool* destroyed = nullptr) : destroyed_(destroyed) {}
  ~Thing() override {
    if (destroyed_ != nullptr) *destroyed_ = true;
  }
  const Kiv::Type& fwkType() const override { return Kiv::typeRecord<Thing>; }

 private:
  bool* destroyed_;
};

class SpecialThing final : public Thing {
 public:
  static constexpr std::string_view kTypeName = "Test::SpecialThing";
  using Thing::Thing;
  const Kiv::Type& fwkType() const override { return Kiv::typeRecord<SpecialThing>; }
};

// Makes and drops pointers to itself in its destructor.
class Clinging final : public Kiv::PtrInterface {
 public:
  static constexpr std::string_view kTypeName = "Test::Clinging";
  explicit Clinging(int* ends) : ends_(ends) {}
  ~Clinging() override {
    ++*ends_;
    for (int i = 0; i < 3; ++i) {
      const Ptr<Clinging> self(this);
      const Ptr<Clinging> again(self);
    }
  }
  const Kiv::Type& fwkType() const override { return Kiv::typeRecord<Clinging>; }

 private:
  int* ends_;
};

// Every test runs with plain and with atomic counting.
class PtrTest : public testing::TestWithParam<bool> {
 protected:
  PtrTest() { Kiv::enableThreadSafePointers = GetParam(); }
  ~PtrTest() override { Kiv::enableThreadSafePointers = false; }

 private:
  Support::LiveObjects nothingIsLeft_;
};

INSTANTIATE_TEST_SUITE_P(Counting, PtrTest, testing::Bool(), [](const auto& mode) {
  return std::string(mode.param ? "Atomic" : "Plain");
});

static_assert(sizeof(Ptr<Thing>) == sizeof(void*));
static_assert(std::is_nothrow_move_constructible_v<Ptr<Thing>>);
static_assert(std::is_convertible_v<Ptr<SpecialThing>, Ptr<Thing>>);
static_assert(std::is_convertible_v<Ptr<Thing>, Ptr<const Thing>>);
static_assert(!std::is_constructible_v<Ptr<Thing>, Ptr<const Thing>>);
static_assert(!std::is_constructible_v<Ptr<SpecialThing>, Ptr<Thing>>);

TEST_P(PtrTest, ANewObjectHasOneReference) {
  const Ptr<Thing> thing = make<Thing>();
  EXPECT_EQ(thing->references(), 1U);
}

TEST_P(PtrTest, ACopyRaisesTheCountAndItsDestructionLowersIt) {
  const Ptr<Thing> thing = make<Thing>();
  {
    const Ptr<Thing> copy = thing;
    EXPECT_EQ(thing->references(), 2U);
    const Ptr<const Thing> constant = copy;
    EXPECT_EQ(thing->references(), 3U);
    const Ptr<Thing> raw(thing.get());
    EXPECT_EQ(thing->references(), 4U);
  }
  EXPECT_EQ(thing->references(), 1U);
}

TEST_P(PtrTest, AMoveLeavesTheCountAndEmptiesItsSource) {
  Ptr<SpecialThing> source = make<SpecialThing>();
  SpecialThing* const object = source.get();
  Ptr<SpecialThing> same = std::move(source);
  EXPECT_FALSE(source);
  const Ptr<Thing> base = std::move(same);
  EXPECT_FALSE(same);
  EXPECT_EQ(base.get(), object);
  EXPECT_EQ(base->references(), 1U);
}

TEST_P(PtrTest, TheLastPointerFreesTheObject) {
  bool destroyed = false;
  Ptr<Thing> last = make<Thing>(&destroyed);
  Ptr<Thing> other = last;
  other = nullptr;
  EXPECT_FALSE(destroyed);
  last = nullptr;
  EXPECT_TRUE(destroyed);
}

TEST_P(PtrTest, AssignmentFreesWhatWasHeldBefore) {
  bool firstDestroyed = false;
  bool secondDestroyed = false;
  Ptr<Thing> holder = make<Thing>(&firstDestroyed);
  holder = make<Thing>(&secondDestroyed);
  EXPECT_TRUE(firstDestroyed);
  EXPECT_FALSE(secondDestroyed);
  const Ptr<Thing> another = make<Thing>();
  holder = another;
  EXPECT_TRUE(secondDestroyed);
  EXPECT_EQ(another->references(), 2U);
}

TEST_P(PtrTest, AssignmentToItselfKeepsTheObject) {
  bool destroyed = false;
  Ptr<Thing> thing = make<Thing>(&destroyed);
  const Ptr<Thing>& alias = thing;
  thing = alias;
  EXPECT_FALSE(destroyed);
  EXPECT_EQ(thing->references(), 1U);
}

TEST_P(PtrTest, ReleaseHandsTheReferenceOverAndAdoptTakesIt) {
  Ptr<Thing> thing = make<Thing>();
  Thing* const raw = thing.release();
  EXPECT_FALSE(thing);
  EXPECT_EQ(raw->references(), 1U);
  const Ptr<Thing> adopted = Ptr<Thing>::adopt(raw);
  EXPECT_EQ(adopted->references(), 1U);
}

TEST_P(PtrTest, SwapExchangesTheObjects) {
  Ptr<Thing> a = make<Thing>();
  Ptr<Thing> b;
  Thing* const object = a.get();
  a.swap(b);
  EXPECT_FALSE(a);
  EXPECT_EQ(b.get(), object);
}

TEST_P(PtrTest, PointersCompareByObject) {
  const Ptr<SpecialThing> special = make<SpecialThing>();
  const Ptr<Thing> base = special;
  const Ptr<const Thing> constant = special;
  const Ptr<Thing> other = make<Thing>();
  EXPECT_TRUE(special == base);
  EXPECT_TRUE(base == constant);
  EXPECT_TRUE(base != other);
  EXPECT_TRUE(base != nullptr);
  EXPECT_TRUE(Ptr<Thing>() == nullptr);
  EXPECT_TRUE(Ptr<Thing>(nullptr) == Ptr<Thing>());
}

TEST_P(PtrTest, PointersToOneObjectHashAlike) {
  const Ptr<Thing> a = make<Thing>();
  const Ptr<Thing> b = make<Thing>();
  const std::unordered_set<Ptr<Thing>> set{a, b, a};
  EXPECT_EQ(set.size(), 2U);
  EXPECT_TRUE(set.contains(b));
}

TEST_P(PtrTest, ADestructorMayMakePointersToItsObject) {
  int ends = 0;
  make<Clinging>(&ends) = nullptr;
  EXPECT_EQ(ends, 1);
}

TEST_P(PtrTest, TheFlagsAreIndependentOfEachOtherAndOfTheCount) {
  const Ptr<Thing> thing = make<Thing>();
  const Ptr<Thing> second = thing;
  EXPECT_FALSE(thing->markedForDeletion());
  EXPECT_FALSE(thing->hasNotificationActive());

  thing->kivMarkedForDeletionIs(true);
  EXPECT_TRUE(thing->markedForDeletion());
  EXPECT_FALSE(thing->hasNotificationActive());
  EXPECT_EQ(thing->references(), 2U);

  thing->hasNotificationActiveIs(true);
  thing->kivMarkedForDeletionIs(false);
  EXPECT_FALSE(thing->markedForDeletion());
  EXPECT_TRUE(thing->hasNotificationActive());
  EXPECT_EQ(thing->references(), 2U);

  thing->hasNotificationActiveIs(false);
  EXPECT_FALSE(thing->hasNotificationActive());
  EXPECT_EQ(thing->references(), 2U);
}

TEST_P(PtrTest, SettingAFlagTwiceIsTheSameAsOnce) {
  const Ptr<Thing> thing = make<Thing>();
  thing->kivMarkedForDeletionIs(true);
  thing->kivMarkedForDeletionIs(true);
  EXPECT_TRUE(thing->markedForDeletion());
  thing->kivMarkedForDeletionIs(false);
  EXPECT_FALSE(thing->markedForDeletion());
}

TEST_P(PtrTest, TheFlagsSurviveCounting) {
  const Ptr<Thing> thing = make<Thing>();
  thing->kivMarkedForDeletionIs(true);
  thing->hasNotificationActiveIs(true);
  { const Ptr<Thing> copy = thing; }
  EXPECT_TRUE(thing->markedForDeletion());
  EXPECT_TRUE(thing->hasNotificationActive());
  EXPECT_EQ(thing->references(), 1U);
}

TEST_P(PtrTest, AFlaggedObjectIsFreedByItsLastPointerToo) {
  bool destroyed = false;
  Ptr<Thing> thing = make<Thing>(&destroyed);
  thing->kivMarkedForDeletionIs(true);
  thing->hasNotificationActiveIs(true);
  thing = nullptr;
  EXPECT_TRUE(destroyed);
}

// The word as tools read it: the first word after the pointer to the virtual functions.
Kiv::U32 word(const Thing& thing) {
  Kiv::U32 value;
  std::memcpy(&value, reinterpret_cast<const char*>(&thing) + sizeof(void*), sizeof(value));
  return value;
}

TEST_P(PtrTest, TheCountFillsTheLowBitsAndTheFlagsAreBits31And29) {
  const Ptr<Thing> thing = make<Thing>();
  const Ptr<Thing> second = thing;
  EXPECT_EQ(word(*thing), 2U);
  thing->kivMarkedForDeletionIs(true);
  EXPECT_EQ(word(*thing), (1U << 31) + 2);
  thing->hasNotificationActiveIs(true);
  EXPECT_EQ(word(*thing), (1U << 31) + (1U << 29) + 2);
  thing->kivMarkedForDeletionIs(false);
  EXPECT_EQ(word(*thing), (1U << 29) + 2);
}

TEST_P(PtrTest, AValidPointerPassesAndANullOneThrows) {
  const Ptr<Thing> thing = make<Thing>();
  EXPECT_EQ(Kiv::validPtr(thing).get(), thing.get());
  try {
    (void)Kiv::validPtr(Ptr<Thing>());
    FAIL() << "nothing was thrown";
  } catch (const Kiv::RangeException& e) {
    EXPECT_STREQ(e.what(), "null ValidPtr");
  }
}

TEST_P(PtrTest, WhatCannotBeObservedHasNoNotifiees) {
  EXPECT_EQ(make<Thing>()->notifieeList(), nullptr);
}

}  // namespace
