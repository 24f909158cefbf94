// Names and strings. Both are made of the same template, so each test runs for both.
#include "framework/Text.h"

#include <gtest/gtest.h>

#include <functional>
#include <sstream>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "tests/support/live_objects.h"

namespace {

using Kiv::Name;
using Kiv::String;

template <class T>
class TextTest : public testing::Test {
 private:
  Support::LiveObjects nothingIsLeft_;
};

class TypeNames {
 public:
  template <class T>
  static std::string GetName(int) {
    return std::is_same_v<T, Name> ? "Name" : "String";
  }
};

using Types = testing::Types<Name, String>;
TYPED_TEST_SUITE(TextTest, Types, TypeNames);

static_assert(sizeof(Name) == sizeof(void*) && sizeof(String) == sizeof(void*));
static_assert(std::is_convertible_v<const char*, Name>);
static_assert(!std::is_convertible_v<String, Name>, "a signature says which it takes");
static_assert(!std::is_convertible_v<Name, String>, "a signature says which it takes");
static_assert(std::is_constructible_v<Name, String> && std::is_constructible_v<String, Name>);

TYPED_TEST(TextTest, IsMadeFromALiteralAViewOrAString) {
  using T = TypeParam;
  EXPECT_EQ(T("abc").view(), "abc");
  EXPECT_EQ(T(std::string_view("abcdef").substr(0, 3)).view(), "abc");
  EXPECT_EQ(T(std::string("abc")).str(), "abc");
  EXPECT_EQ(T("ab", "c").view(), "abc");
  EXPECT_EQ(T("abc").size(), 3U);
}

TYPED_TEST(TextTest, TheEmptyTextIsEmptyHoweverItIsMade) {
  using T = TypeParam;
  for (const T& empty : {T(), T(""), T(std::string()), T("", ""), T() + "", "" + T()}) {
    EXPECT_TRUE(empty.empty());
    EXPECT_EQ(empty.size(), 0U);
    EXPECT_EQ(empty.hash(), 0U);
    EXPECT_EQ(empty.view(), "");
    EXPECT_EQ(empty, T());
  }
  EXPECT_FALSE(T("x").empty());
}

TYPED_TEST(TextTest, TheEmptyTextOwnsNothing) {
  const auto before = Support::liveCounts();
  const TypeParam empty("");
  EXPECT_EQ(Support::liveCounts(), before);
}

TYPED_TEST(TextTest, BytesOfAnyValueAreKept) {
  using T = TypeParam;
  const std::string bytes("a\0b\xff\n", 5);
  EXPECT_EQ(T(bytes).str(), bytes);
  EXPECT_FALSE(T(bytes) == T("a"));
  EXPECT_EQ(T(bytes), T(bytes));
}

TYPED_TEST(TextTest, EqualTextsAreEqualAndHashAlike) {
  using T = TypeParam;
  const T a("leaf-1");
  const T b("leaf", "-1");
  const T other("leaf-2");
  EXPECT_TRUE(a == b);
  EXPECT_FALSE(a != b);
  EXPECT_EQ(a.hash(), b.hash());
  EXPECT_EQ(a.hash(), Kiv::hashText("leaf-1"));
  EXPECT_FALSE(a == other);
  EXPECT_TRUE(a != other);
  EXPECT_NE(a.hash(), other.hash());
}

TYPED_TEST(TextTest, ComparesWithTextOnEitherSide) {
  using T = TypeParam;
  const T a("abc");
  EXPECT_TRUE(a == "abc");
  EXPECT_TRUE("abc" == a);
  EXPECT_TRUE(a == std::string("abc"));
  EXPECT_TRUE(a != std::string_view("abcd"));
  EXPECT_TRUE("ab" != a);
}

TYPED_TEST(TextTest, OrdersByBytes) {
  using T = TypeParam;
  EXPECT_TRUE(T("a") < T("b"));
  EXPECT_FALSE(T("b") < T("a"));
  EXPECT_FALSE(T("a") < T("a"));
  EXPECT_TRUE(T("a") < T("aa"));
  EXPECT_TRUE(T() < T("a"));
  EXPECT_TRUE(T("Z") < T("a"));
  EXPECT_TRUE(T("a") < T("\xff"));
  EXPECT_TRUE(T("a") < "b");
  EXPECT_FALSE(T("b") < std::string("a"));
}

TYPED_TEST(TextTest, AddsTextOnEitherSide) {
  using T = TypeParam;
  const T middle("bc");
  EXPECT_EQ("a" + middle, T("abc"));
  EXPECT_EQ(middle + "d", T("bcd"));
  EXPECT_EQ(std::string("a") + middle + std::string_view("d"), T("abcd"));
  EXPECT_EQ(middle + middle, T("bcbc"));
  EXPECT_EQ(middle + T(), middle);
  EXPECT_EQ(T() + middle, middle);
  EXPECT_EQ(("a" + middle).hash(), T("abc").hash());
  EXPECT_EQ(middle, "bc");
  static_assert(std::is_same_v<decltype("a" + middle), T>);
}

TYPED_TEST(TextTest, PrintsToAStream) {
  std::ostringstream stream;
  stream << TypeParam("abc") << '|' << TypeParam() << '|' << TypeParam("d");
  EXPECT_EQ(stream.str(), "abc||d");
}

TYPED_TEST(TextTest, ACopySharesTheRepresentation) {
  using T = TypeParam;
  const T text("shared");
  const T copy = text;
  EXPECT_EQ(copy.view().data(), text.view().data());
  T assigned("before");
  assigned = copy;
  EXPECT_EQ(assigned.view().data(), text.view().data());
  EXPECT_NE(T("shared").view().data(), text.view().data());
}

TYPED_TEST(TextTest, TheTextLivesAsLongAsItsLastCopy) {
  using T = TypeParam;
  T last;
  {
    const T first(std::string(300, 'x'));
    last = first;
  }
  EXPECT_EQ(last.str(), std::string(300, 'x'));
}

TYPED_TEST(TextTest, AMoveEmptiesItsSource) {
  using T = TypeParam;
  T source("moved");
  const char* const text = source.view().data();
  T target(std::move(source));
  EXPECT_TRUE(source.empty());
  EXPECT_EQ(target.view().data(), text);
  T assigned;
  assigned = std::move(target);
  EXPECT_EQ(assigned, "moved");
}

TYPED_TEST(TextTest, AssignmentToItselfKeepsTheText) {
  using T = TypeParam;
  T text("kept");
  const T& alias = text;
  text = alias;
  EXPECT_EQ(text, "kept");
  const T copy = text;
  text = copy;
  EXPECT_EQ(text, "kept");
}

TYPED_TEST(TextTest, CanBeAKeyOfTheStandardCollections) {
  using T = TypeParam;
  const std::unordered_set<T> set{"a", "b", "a"};
  EXPECT_EQ(set.size(), 2U);
  EXPECT_TRUE(set.contains("b"));
}

TEST(TextConversionTest, NamesAndStringsConvertOnRequestAndShareTheText) {
  const Support::LiveObjects nothingIsLeft;
  const String text("port-1");
  const Name name(text);
  const String back(name);
  EXPECT_EQ(name, "port-1");
  EXPECT_EQ(name.view().data(), text.view().data());
  EXPECT_EQ(back.view().data(), text.view().data());
  EXPECT_EQ(name.hash(), text.hash());
  EXPECT_TRUE(Name(String()).empty());
}

TEST(HashTest, TextsThatHashAlikeAreStillDifferent) {
  const Support::LiveObjects nothingIsLeft;
  // Among so many texts of one length there are some.
  std::unordered_map<Kiv::U32, std::string> seen;
  std::string one;
  std::string other;
  for (int n = 1'000'000; n < 2'000'000 && one.empty(); ++n) {
    other = std::to_string(n);
    const auto [at, fresh] = seen.emplace(Kiv::hashText(other), other);
    if (!fresh) one = at->second;
  }
  ASSERT_FALSE(one.empty());
  EXPECT_EQ(Name(one).hash(), Name(other).hash());
  EXPECT_FALSE(Name(one) == Name(other));
  EXPECT_TRUE(Name(one) != Name(other));
}

TEST(HashTest, BitsAreReversed) {
  static_assert(Kiv::bitReverse(1) == 0x80000000U);
  static_assert(Kiv::bitReverse(0x80000000U) == 1);
  static_assert(Kiv::bitReverse(0x12345678U) == 0x1e6a2c48U);
  for (Kiv::U32 bit = 0; bit < 32; ++bit) {
    EXPECT_EQ(Kiv::bitReverse(Kiv::U32{1} << bit), Kiv::U32{1} << (31 - bit));
  }
}

TEST(HashTest, TheEmptyTextHashesToZero) {
  EXPECT_EQ(Kiv::hashText(""), 0U);
  EXPECT_EQ(Kiv::hashText("x"), Kiv::hashText(std::string("x")));
  EXPECT_EQ(Kiv::kivHash(std::string_view("x")), Kiv::kivHash(String("x")));
}

TEST(HashTest, SmallIntegersAreOrderedByValueAndOthersHashToThemselves) {
  for (unsigned level = 1; level < 256; ++level) {
    EXPECT_LT(Kiv::kivOrder(static_cast<Kiv::U8>(level - 1)),
              Kiv::kivOrder(static_cast<Kiv::U8>(level)));
  }
  EXPECT_EQ(Kiv::kivHash(Kiv::U16{4094}), 4094U);
  EXPECT_EQ(Kiv::kivHash(Kiv::U32{0xfffffffeU}), 0xfffffffeU);
}

}  // namespace
