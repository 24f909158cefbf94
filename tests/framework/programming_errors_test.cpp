// What answers a programming error: exceptions with fixed texts, and assertions that stop.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <sstream>
#include <string>
#include <type_traits>

#include "framework/Assert.h"
#include "framework/Exceptions.h"
#include "framework/ReactorMap.h"
#include "tests/framework/toys.h"

namespace {

TEST(ExceptionsTest, ARangeExceptionCarriesItsText) {
  try {
    Kiv::throwRangeException("some text");
  } catch (const Kiv::Exception& e) {
    EXPECT_STREQ(e.what(), "some text");
  }
  EXPECT_THROW(Kiv::throwRangeException("x"), Kiv::RangeException);
}

TEST(ExceptionsTest, ANameInUseExceptionCarriesItsText) {
  try {
    Kiv::throwNameInUseException("some text");
  } catch (const Kiv::Exception& e) {
    EXPECT_STREQ(e.what(), "some text");
  }
  EXPECT_THROW(Kiv::throwNameInUseException("x"), Kiv::NameInUseException);
}

TEST(ExceptionsTest, BothExceptionsDeriveFromExceptionAndNotFromEachOther) {
  static_assert(std::is_base_of_v<std::runtime_error, Kiv::Exception>);
  static_assert(std::is_base_of_v<Kiv::Exception, Kiv::RangeException>);
  static_assert(std::is_base_of_v<Kiv::Exception, Kiv::NameInUseException>);
  static_assert(!std::is_base_of_v<Kiv::RangeException, Kiv::NameInUseException>);
}

TEST(ExceptionsTest, TheTextForANullArgumentEndsWithADoubleQuote) {
  EXPECT_EQ(Kiv::nullArgumentText("marble", "Toys::ToySm"),
            "null _marble parameter to mutator for Toys::ToySm::marble not allowed\"");
}

TEST(ExceptionsTest, APointerIsShownWithItsTypeAndAddress) {
  const auto marble = Kiv::make<Toys::Marble>("a");
  std::ostringstream address;
  address << static_cast<const void*>(marble.get());
  EXPECT_EQ(Kiv::valueToStrepOfRawPtr(marble.get(), marble->fwkType()),
            "Toys::Marble(" + address.str() + ")");
  EXPECT_EQ(Kiv::valueToStrepOfRawPtr(nullptr, Kiv::typeRecord<Toys::Marble>),
            "Toys::Marble(null)");
}

TEST(AssertTest, AConditionThatHoldsCostsNothing) {
  int evaluated = 0;
  KIV_ASSERT(++evaluated == 1, "Unit", "handleX");
  EXPECT_EQ(evaluated, 1);
}

TEST(AssertTest, AConditionMayBeAPointer) {
  const auto marble = Kiv::make<Toys::Marble>("a");
  KIV_ASSERT(marble, "Unit", "handleX");
}

TEST(AssertDeathTest, AFailedAssertionPrintsItsTextUnitAndHandlerAndAborts) {
  const auto broken = [] {
    const int domains = 2;
    KIV_ASSERT(domains == 1, "Unit", "handleX");
  };
  EXPECT_EXIT(broken(), testing::KilledBySignal(SIGABRT),
              "^Assertion \"domains == 1\" failed: Unit: handleX\n");
}

TEST(AssertDeathTest, ANullPointerFails) {
  const Kiv::Ptr<Toys::Marble> found;
  EXPECT_DEATH(KIV_ASSERT(found, "Unit", "handleX"), "Assertion \"found\" failed");
}

TEST(AssertDeathTest, TextsNeedNotBeZeroTerminated) {
  const std::string_view all = "textfilefunction";
  EXPECT_DEATH(Kiv::assertionFailed(all.substr(0, 4), all.substr(4, 4), all.substr(8)),
               "^Assertion \"text\" failed: file: function\n");
}

}  // namespace
