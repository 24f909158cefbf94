// Tracing: levels, lines, the sink, and what an unwritten line costs.
#include "framework/Trace.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

namespace {

using Kiv::TraceHandle;
using Kiv::TraceHelper;
using testing::ElementsAre;
using testing::IsEmpty;

// Takes the library's lines for the time of a test.
class TraceTest : public testing::Test {
 protected:
  TraceTest() {
    handle_.sinkIs([this](const Kiv::TraceLine& line) {
      lines_.push_back(std::to_string(line.level) + " " + std::string(line.file) + ":" +
                       std::to_string(line.line) + " " + std::string(line.function) + ": " +
                       std::string(line.text));
    });
  }
  ~TraceTest() override {
    handle_.levelIs(-1);
    handle_.sinkIs(nullptr);
  }

  // Writes one line the long way.
  static void write(const TraceHandle& handle, int level, const std::string& text) {
    TraceHelper::Storage storage;
    if (TraceHelper* helper = TraceHelper::createIfEnabled(handle, level, storage)) {
      const Kiv::EnsureTraceHelperIsDestroyed ended(helper);
      helper->stream() << text;
      helper->trace("File", 12, "function");
    }
  }

  TraceHandle& handle_ = Kiv::_defaultTraceHandle();
  std::vector<std::string> lines_;
};

constexpr Kiv::TraceSource kHere{"Unit", "handleX", "void Toys::ToySm::handleX(Kiv::Name)"};

TEST_F(TraceTest, NothingIsWrittenUnlessALevelIsSet) {
  EXPECT_EQ(TraceHandle().level(), -1);
  EXPECT_FALSE(TraceHandle().enabled(0));
  write(handle_, 0, "x");
  EXPECT_THAT(lines_, IsEmpty());
}

TEST_F(TraceTest, LinesUpToTheLevelAreWritten) {
  handle_.levelIs(3);
  for (const int level : {0, 1, 2, 3, 4, 9}) {
    EXPECT_EQ(handle_.enabled(level), level <= 3);
    write(handle_, level, "x");
  }
  EXPECT_THAT(lines_, ElementsAre("0 File:12 function: x", "1 File:12 function: x",
                                  "2 File:12 function: x", "3 File:12 function: x"));
}

TEST_F(TraceTest, NoHelperIsMadeForALevelThatIsOff) {
  handle_.levelIs(8);
  TraceHelper::Storage storage;
  EXPECT_EQ(TraceHelper::createIfEnabled(handle_, 9, storage), nullptr);
  const Kiv::EnsureTraceHelperIsDestroyed ended(nullptr);
}

TEST_F(TraceTest, AHelperLivesInTheStorageOfItsCaller) {
  handle_.levelIs(9);
  TraceHelper::Storage storage;
  TraceHelper* helper = TraceHelper::createIfEnabled(handle_, 9, storage);
  const Kiv::EnsureTraceHelperIsDestroyed ended(helper);
  EXPECT_EQ(static_cast<void*>(helper), static_cast<void*>(&storage));
}

TEST_F(TraceTest, AHelperMayWriteSeveralLines) {
  handle_.levelIs(9);
  TraceHelper::Storage storage;
  TraceHelper* helper = TraceHelper::createIfEnabled(handle_, 2, storage);
  const Kiv::EnsureTraceHelperIsDestroyed ended(helper);
  helper->stream() << "one";
  helper->trace("A", 1, "f");
  helper->stream() << ", two";
  helper->trace("B", 2, "g");
  EXPECT_THAT(lines_, ElementsAre("2 A:1 f: one", "2 B:2 g: one, two"));
}

TEST_F(TraceTest, WithoutASinkLinesAreDropped) {
  handle_.levelIs(9);
  handle_.sinkIs(nullptr);
  write(handle_, 0, "x");
  EXPECT_THAT(lines_, IsEmpty());
}

TEST_F(TraceTest, ANewSinkReplacesTheOldOne) {
  handle_.levelIs(9);
  int lines = 0;
  handle_.sinkIs([&](const Kiv::TraceLine&) { ++lines; });
  write(handle_, 0, "x");
  EXPECT_EQ(lines, 1);
  EXPECT_THAT(lines_, IsEmpty());
}

TEST_F(TraceTest, TheLibraryHasOneHandle) {
  EXPECT_EQ(&Kiv::_defaultTraceHandle(), &handle_);
}

TEST_F(TraceTest, AMachinesLineIsItsAddressTheSignatureAndTheMessage) {
  handle_.levelIs(9);
  const int subject = 0;
  Kiv::traceLine(2, kHere, &subject, 77,
                 [](std::ostream& text) { text << "segment " << 5 << " added"; });
  std::ostringstream address;
  address << static_cast<const void*>(&subject);
  EXPECT_THAT(lines_, ElementsAre("2 Unit:77 handleX: " + address.str() +
                                  " [ void Toys::ToySm::handleX(Kiv::Name) ] segment 5 added"));
}

TEST_F(TraceTest, AMessageThatIsOffIsNotEvaluated) {
  int evaluated = 0;
  const auto message = [&](std::ostream&) { ++evaluated; };
  Kiv::traceLine(0, kHere, nullptr, 1, message);
  handle_.levelIs(8);
  Kiv::traceLine(9, kHere, nullptr, 1, message);
  EXPECT_EQ(evaluated, 0);
  Kiv::traceLine(8, kHere, nullptr, 1, message);
  EXPECT_EQ(evaluated, 1);
  EXPECT_EQ(lines_.size(), 1U);
}

TEST_F(TraceTest, AMessageMayTraceItself) {
  handle_.levelIs(9);
  const int subject = 0;
  Kiv::traceLine(1, {"Unit", "outer", "outer()"}, &subject, 1, [&](std::ostream& text) {
    Kiv::traceLine(1, {"Unit", "inner", "inner()"}, &subject, 2,
                   [](std::ostream& inner) { inner << "in"; });
    text << "out";
  });
  ASSERT_EQ(lines_.size(), 2U);
  EXPECT_THAT(lines_[0], testing::EndsWith("[ inner() ] in"));
  EXPECT_THAT(lines_[1], testing::EndsWith("[ outer() ] out"));
}

}  // namespace
