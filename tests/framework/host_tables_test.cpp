// What the host decides, and what the tables of the machines tell traces: feature toggles and
// attribute tables.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "framework/Attributes.h"
#include "framework/FeatureToggle.h"
#include "tests/framework/toys.h"

namespace {

class FeatureToggleTest : public testing::Test {
 protected:
  ~FeatureToggleTest() override { Kiv::toggleProviderIs(nullptr); }
};

TEST_F(FeatureToggleTest, WithoutAProviderTheAnswerIsTheDefaultAndNotKnown) {
  Kiv::toggleProviderIs(nullptr);
  EXPECT_EQ(Kiv::getToggleState("any", false), 0U);
  EXPECT_EQ(Kiv::getToggleState("any", true), Kiv::kToggleOn);
  EXPECT_EQ(Kiv::getToggleState("any", true) & Kiv::kToggleKnown, 0U);
}

TEST_F(FeatureToggleTest, TheProviderIsAskedEachTimeWithTheNameAndTheDefault) {
  std::vector<std::pair<std::string, bool>> asked;
  Kiv::toggleProviderIs([&](std::string_view name, bool byDefault) {
    asked.emplace_back(name, byDefault);
    return name == "one" ? Kiv::kToggleOn | Kiv::kToggleKnown : Kiv::kToggleKnown;
  });
  EXPECT_EQ(Kiv::getToggleState("one", false), 3U);
  EXPECT_EQ(Kiv::getToggleState("two", true), 2U);
  const std::vector<std::pair<std::string, bool>> expected{{"one", false}, {"two", true}};
  EXPECT_EQ(asked, expected);
}

TEST_F(FeatureToggleTest, AnotherProviderTakesThePlaceOfTheFirst) {
  Kiv::toggleProviderIs([](std::string_view, bool) { return Kiv::kToggleOn; });
  Kiv::toggleProviderIs([](std::string_view, bool) { return Kiv::kToggleKnown; });
  EXPECT_EQ(Kiv::getToggleState("any", true), Kiv::kToggleKnown);
  Kiv::toggleProviderIs({});
  EXPECT_EQ(Kiv::getToggleState("any", true), Kiv::kToggleOn);
}

// The tables of the machines

constexpr std::string_view kSignature = "void Toys::ToySm::handleMarble(Kiv::String)";

constexpr auto kTable = Kiv::attributes(
    Kiv::handler(131, "handleMarble", kSignature, nullptr),
    Kiv::reactorHandler("KivMarble::doCleanup", "void Toys::ToySm::KivMarble::doCleanup()"));

TEST(AttributeTableTest, AHandlersTraceSourceIsItsUnitItsShortNameAndItsSignature) {
  constexpr Kiv::TraceSource here = kTable.handler("ToySm", "handleMarble");
  EXPECT_EQ(here.file, "ToySm");
  EXPECT_EQ(here.function, "handleMarble");
  EXPECT_EQ(here.signature, kSignature);
}

TEST(AttributeTableTest, AReactorsHandlerIsNamedWithoutItsClass) {
  constexpr Kiv::TraceSource here = kTable.handler("ToySm", "KivMarble::doCleanup");
  EXPECT_EQ(here.function, "doCleanup");
  EXPECT_EQ(here.signature, "void Toys::ToySm::KivMarble::doCleanup()");
}

TEST(AttributeTableTest, ANameThatIsNotInTheTableIsRefused) {
  EXPECT_THROW((void)kTable.handler("ToySm", "nothing"), const char*);
  // Nor is an attribute a handler.
  const auto withAttribute = Kiv::attributes(kTable, Kiv::plain("colour", &Toys::Marble::colour));
  EXPECT_THROW((void)withAttribute.handler("ToySm", "colour"), const char*);
}

TEST(AttributeTableTest, ATableStandsBehindThatOfItsBase) {
  constexpr auto extended =
      Kiv::attributes(kTable, Kiv::handler(132, "handleMore", "void handleMore()", nullptr));
  EXPECT_EQ(std::tuple_size_v<decltype(extended.entries)>, 3U);
  EXPECT_EQ(extended.handler("ToySm", "handleMarble").signature, kSignature);
  EXPECT_EQ(extended.handler("ToySm", "handleMore").function, "handleMore");
}

}  // namespace
