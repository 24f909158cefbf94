// Values as tools handle them: wrapping, text, reading as another type.
#include "framework/GenericValue.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

#include "framework/Exceptions.h"
#include "tests/framework/toys.h"

namespace {

using Kiv::GenericValue;
using Kiv::String;
using testing::HasSubstr;
using testing::ThrowsMessage;

GenericValue text(const char* value) {
  return GenericValue::of(String(value));
}

TEST(GenericValue, NumbersAreReadFromPlainDecimals) {
  EXPECT_EQ(text("0").as<Kiv::U8>(), 0);
  EXPECT_EQ(text("255").as<Kiv::U8>(), 255);
  EXPECT_EQ(text("65535").as<Kiv::U16>(), 65535);
  EXPECT_EQ(text("4294967295").as<Kiv::U32>(), 4294967295U);
  EXPECT_EQ(text("18446744073709551615").as<Kiv::U64>(), std::numeric_limits<Kiv::U64>::max());
}

TEST(GenericValue, ATextThatIsNoPlainDecimalIsNoNumber) {
  for (const char* wrong : {"", "00", "01", "+1", "-1", " 1", "1 ", "1a", "a", "0x1", "1.0"}) {
    EXPECT_THAT(
        [&] { text(wrong).as<Kiv::U32>(); },
        ThrowsMessage<Kiv::RangeException>("a value of type U32 is wanted, not Kiv::String"))
        << wrong;
  }
}

TEST(GenericValue, ANumberThatIsTooLargeIsRefused) {
  EXPECT_THROW(text("256").as<Kiv::U8>(), Kiv::RangeException);
  EXPECT_THROW(text("65536").as<Kiv::U16>(), Kiv::RangeException);
  EXPECT_THROW(text("4294967296").as<Kiv::U32>(), Kiv::RangeException);
  EXPECT_THROW(text("18446744073709551616").as<Kiv::U64>(), Kiv::RangeException);
}

TEST(GenericValue, ANumberIsReadAsANumberOfAnotherWidthWhereItFits) {
  EXPECT_EQ(GenericValue::of(Kiv::U64{7}).as<Kiv::U8>(), 7);
  EXPECT_THROW(GenericValue::of(Kiv::U64{256}).as<Kiv::U8>(), Kiv::RangeException);
}

TEST(GenericValue, SecondsAreReadWhole) {
  EXPECT_EQ(text("12.5").as<Kiv::Seconds>(), 12.5);
  EXPECT_EQ(text("1e3").as<Kiv::Seconds>(), 1000);
  EXPECT_EQ(text("inf").as<Kiv::Seconds>(), std::numeric_limits<double>::infinity());
  for (const char* wrong : {"", "x", "12.5s", "1,5"}) {
    EXPECT_THROW(text(wrong).as<Kiv::Seconds>(), Kiv::RangeException) << wrong;
  }
}

TEST(GenericValue, SecondsArePrintedShortestThatReadsBack) {
  EXPECT_EQ(GenericValue::of(Kiv::Seconds{12.5}).text(), "12.5");
  EXPECT_EQ(GenericValue::of(Kiv::Seconds{0.1}).text(), "0.1");
  EXPECT_EQ(GenericValue::of(std::numeric_limits<double>::infinity()).text(), "inf");
}

TEST(GenericValue, BooleansAreReadFromTrueAndFalse) {
  EXPECT_TRUE(text("true").as<bool>());
  EXPECT_FALSE(text("false").as<bool>());
  EXPECT_THROW(text("yes").as<bool>(), Kiv::RangeException);
  EXPECT_EQ(GenericValue::of(true).text(), "true");
  EXPECT_EQ(GenericValue::of(false).text(), "false");
  EXPECT_TRUE(GenericValue::of(true).as<bool>());
}

TEST(GenericValue, ABooleanIsNoNumberAndNoText) {
  EXPECT_THROW(GenericValue::of(true).as<Kiv::U8>(), Kiv::RangeException);
  EXPECT_THROW(GenericValue::of(true).as<String>(), Kiv::RangeException);
}

TEST(GenericValue, TextIsReadAsEitherKindOfString) {
  EXPECT_EQ(text("a").as<Kiv::Name>(), "a");
  EXPECT_EQ(GenericValue::of(Kiv::Name("a")).as<String>(), "a");
  EXPECT_EQ(GenericValue::of(Kiv::U8{7}).as<String>(), "7");
}

TEST(GenericValue, AnObjectIsReadAsWhatItIs) {
  const auto marble = Kiv::make<Toys::Marble>("m");
  const auto wrapped = GenericValue::of(marble);
  EXPECT_EQ(wrapped.typeName(), "Toys::Marble");
  EXPECT_THAT(wrapped.text(), HasSubstr("Toys::Marble"));
  EXPECT_EQ(wrapped.as<Kiv::Ptr<Toys::Marble>>(), marble);
  EXPECT_EQ(wrapped.as<Kiv::Ptr<const Toys::Marble>>(), marble);
  EXPECT_THROW(wrapped.as<Kiv::Ptr<Toys::Box>>(), Kiv::RangeException);
  EXPECT_THROW(wrapped.as<String>(), Kiv::RangeException);
  EXPECT_THROW(text("m").as<Kiv::Ptr<Toys::Marble>>(), Kiv::RangeException);
}

TEST(GenericValue, AConstantObjectStaysConstant) {
  const auto marble = Kiv::make<Toys::Marble>("m");
  const auto wrapped = GenericValue::of(Kiv::Ptr<const Toys::Marble>(marble));
  EXPECT_EQ(wrapped.as<Kiv::Ptr<const Toys::Marble>>(), marble);
  EXPECT_THROW(wrapped.as<Kiv::Ptr<Toys::Marble>>(), Kiv::RangeException);
}

TEST(GenericValue, ANullObjectIsOfItsClass) {
  const auto null = GenericValue::of(Kiv::Ptr<Toys::Marble>());
  EXPECT_EQ(null.text(), "null");
  EXPECT_FALSE(null.as<Kiv::Ptr<Toys::Marble>>());
  EXPECT_FALSE(null.as<Kiv::Ptr<const Toys::Marble>>());
  EXPECT_THROW(null.as<Kiv::Ptr<Toys::Box>>(), Kiv::RangeException);
}

TEST(GenericValue, NothingIsOfNoType) {
  const GenericValue nothing;
  EXPECT_TRUE(nothing.empty());
  EXPECT_EQ(nothing.text(), "");
  EXPECT_THAT(
      [&] { nothing.as<String>(); },
      ThrowsMessage<Kiv::RangeException>("a value of type Kiv::String is wanted, not nothing"));
}

}  // namespace
