// Restarts: a new session takes over the documents and the state of another one.
// tests/sim/agent/restarts.py holds every scenario and many random streams to this.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <optional>
#include <stdexcept>

#include "OpenStackSm/Uuid.h"
#include "agent/document/write_cloud.h"
#include "agent/output/output_json.h"
#include "agent/session/session.h"

namespace vnagent {
namespace {

using ::testing::HasSubstr;

constexpr double kNever = std::numeric_limits<double>::infinity();

std::string json(const OutputDocument& output) {
  return jsonText([&](JsonWriter& writer) { writeOutput(output, writer); });
}

class RestartTest : public ::testing::Test {
 protected:
  struct Texts {
    std::string cloud;
    std::string output;
    std::string state;
  };

  // What a patch that must be applied changes. JSON is written with ' for ", which no text has.
  std::string patch(std::string_view text) {
    std::string line = std::string("{'patch': ").append(text).append("}");
    std::ranges::replace(line, '\'', '"');
    const StepOutcome outcome = session_->take(SourceEvent::ofLine(line));
    for (const Fault& fault : outcome.faults) ADD_FAILURE() << fault.message();
    return json(outcome.output);
  }

  std::string shown() const { return json(session_->output()); }
  Texts texts() const {
    return {jsonText([&](JsonWriter& writer) { writeCloud(session_->document(), writer); }),
            shown(), session_->state()};
  }

  void begin() {
    session_.reset();
    session_.emplace(SessionSettings{.regionSyncTimeout = 60, .changes = true, .changesBack = true},
                     clock_);
  }
  void restore(const Texts& from) {
    begin();
    session_->restore(from.cloud, from.output, from.state);
  }
  // Ends the session and goes on with another one.
  void restart() { restore(texts()); }

  // The regions whose timers fire, in their order.
  std::vector<std::string> fired() {
    std::vector<std::string> names;
    while (const auto outcome = session_->expire()) {
      for (const auto& region : *outcome->output.regionStatus) names.emplace_back(region.name);
    }
    return names;
  }

  VirtualClock clock_;
  std::optional<Session> session_{
      std::in_place, SessionSettings{.regionSyncTimeout = 60, .changes = true}, clock_};
};

constexpr std::string_view kTwoNatives = R"({'region': {'R': {
  'segment': {'v': {'segmentationType': 'vlan', 'segmentationId': 10},
              'w': {'segmentationType': 'vlan', 'segmentationId': 20}},
  'port': {'p': {}, 'q': {'vlanType': 1}, 's': {'vlanType': 1}},
  'portBinding': {
    'p': {'portToHostBinding': {'h': {'segment': {'0': 'v'}}, 'left': {'segment': {'0': 'w'}}}},
    's': {'portToSwitchInterfaceBinding': {'leaf': {'e': {'host': 'b', 'segment': {'0': 'w'}}}}},
    'q': null}}}})";

TEST_F(RestartTest, WhatTheDocumentAloneWouldNotGiveIsPublishedAgain) {
  patch(kTwoNatives);
  // The native VLAN of the port that is bound last wins, whatever the order of their names.
  patch(
      "{'region': {'R': {'portBinding': {'p': {'portToHostBinding': {'left': null}}, 'q': "
      "{'portToSwitchInterfaceBinding': {'leaf': {'e': {'host': 'b', 'segment': {'0': "
      "'v'}}}}}}}}}");
  const std::string before = shown();
  EXPECT_THAT(before, HasSubstr(R"("left": {"domain": {}, "vlan": {}})"));
  EXPECT_THAT(before, HasSubstr(R"("nativeVlan": 10)"));
  restart();
  EXPECT_EQ(shown(), before);
}

TEST_F(RestartTest, NothingOfItIsAChange) {
  patch(kTwoNatives);
  patch("{'region': {'R': {'portBinding': {'p': null}}}}");
  restart();
  EXPECT_EQ(patch("{}"), "{}");
  EXPECT_EQ(patch("{'region': {'R': {'portBinding': {'p': {'portToHostBinding': {'left': {}}}}}}}"),
            R"({"requestedResources": {"resourcesForHostname": {"left": {"domain": )"
            R"({"R": ["p"]}}}}})");
}

TEST_F(RestartTest, ALockAndItsSyncGoOn) {
  patch("{'region': {'R': {'requester': 'a', 'requestId': '1', 'syncStatus': 'syncInProgress'}}}");
  patch("{'region': {'R': {'requester': 'b', 'requestId': '2'}}}");  // in vain
  restart();
  EXPECT_THAT(shown(), HasSubstr(R"("owner": "a", "requestId": "1")"));
  EXPECT_EQ(patch("{'region': {'R': {'syncStatus': 'syncComplete'}}}"),
            R"({"regionStatus": {"R": {"syncStatus": "syncComplete", "oldSyncStatus": )"
            R"("syncInProgress", "owner": "", "requestId": ""}}})");
}

TEST_F(RestartTest, ATimerIsDueAsFarFromNowAsItWasAndOthersStayOff) {
  patch("{'region': {'R': {'syncStatus': 'syncInProgress'}}}");
  clock_.nowIs(60);
  EXPECT_EQ(fired().size(), 1U);  // its document still says that a sync is in progress
  patch("{'region': {'S': {'syncStatus': 'syncInProgress'}}}");
  clock_.nowIs(70);
  const Texts before = texts();
  EXPECT_EQ(before.state, R"({"time": 70, "regionSyncTimeout": 60, "timers": {"S": 120}})");
  clock_.nowIs(1000);
  restore(before);
  EXPECT_EQ(session_->nextTimer(), 1050);
  clock_.nowIs(1050);
  EXPECT_THAT(fired(), testing::ElementsAre("S"));
  EXPECT_EQ(session_->nextTimer(), kNever);
}

TEST_F(RestartTest, RestartedTimersHaveOneWholeTimeoutAndFireInTheOrderOfTheNames) {
  patch("{'config': {'regionSyncTimeout': 30}, 'region': {'B': {'syncHeartbeat': 1}, 'C': {}}}");
  clock_.nowIs(10);
  patch("{'region': {'A': {'syncHeartbeat': 1}}}");
  restart();
  clock_.nowIs(20);
  session_->restartTimers();
  EXPECT_EQ(session_->nextTimer(), 50);
  clock_.nowIs(50);
  EXPECT_THAT(fired(), testing::ElementsAre("A", "B"));
}

TEST_F(RestartTest, ATimeoutFromOutsideGoesOn) {
  patch("{'config': {'regionSyncTimeout': 30}, 'region': {'R': {}}}");
  EXPECT_TRUE(session_->take(SourceEvent::ofLine(R"({"regionSyncTimeout": 5.5})")).applied());
  restart();
  patch("{'region': {'R': {'syncHeartbeat': 1}}}");
  EXPECT_EQ(session_->nextTimer(), 5.5);
}

TEST_F(RestartTest, DrawsNoUuid) {
  unsigned drawn = 0;
  OpenStack::uuidSourceIs([&] { return "uuid-" + std::to_string(++drawn); });
  patch("{'config': {'vlanAssignment': {'R': {'vlan': {'5': true}}}}, 'region': {'R': {}}}");
  patch("{'config': {'vlanAssignment': {'R': {'vlan': {'6': true}}}}}");
  const unsigned before = drawn;
  EXPECT_GT(before, 1U);
  restart();
  EXPECT_THAT(shown(), HasSubstr("\"uuid-" + std::to_string(before) + "\""));
  EXPECT_EQ(drawn, before);
  patch("{'config': {'vlanAssignment': {'R': {'vlan': {'5': null}}}}}");
  EXPECT_EQ(drawn, before + 1);
  OpenStack::uuidSourceIs(nullptr);
}

TEST_F(RestartTest, TextsThatNoSessionWroteAreRefusedWithTheirPlace) {
  const auto refusal = [&](const Texts& from) -> std::string {
    try {
      restore(from);
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return "taken";
  };
  patch(kTwoNatives);
  const Texts good = texts();
  EXPECT_EQ(refusal(good), "taken");
  EXPECT_THAT(refusal({"{", good.output, good.state}), HasSubstr("cloud document: "));
  EXPECT_THAT(refusal({R"({"region": {"R": 1}})", good.output, good.state}),
              HasSubstr("cloud document: /region/R: "));
  const auto withOutput = [&](std::string_view part, std::string_view other) {
    Texts bad = good;
    const auto at = bad.output.find(part);
    EXPECT_NE(at, std::string::npos) << part;
    bad.output.replace(at, part.size(), other);
    return refusal(bad);
  };
  EXPECT_THAT(withOutput("}", ""), HasSubstr("output document: "));
  EXPECT_THAT(withOutput("syncUnknown", "unknown"),
              HasSubstr("output document: /regionStatus/R/syncStatus: "));
  EXPECT_THAT(withOutput(R"("owner": "")", R"("owner": 1)"), HasSubstr("/regionStatus/R/owner: "));
  EXPECT_THAT(withOutput(R"("owner": "", )", ""), HasSubstr("/regionStatus/R: "));
  EXPECT_THAT(withOutput(R"("owner")", R"("holder")"), HasSubstr("/regionStatus/R: has no owner"));
  EXPECT_THAT(withOutput(R"("10")", R"("1O")"), HasSubstr("/vlan/1O: "));
  EXPECT_THAT(withOutput(R"("nativeVlan": 20)", R"("nativeVlan": -1)"), HasSubstr("/nativeVlan: "));
  EXPECT_THAT(withOutput(R"(["p"])", R"("p")"), HasSubstr("/domain/R: "));
  EXPECT_THAT(withOutput(R"(["p"])", R"([1])"), HasSubstr("/domain/R/0: "));
  EXPECT_THAT(withOutput(R"([10, 20])", R"([10, 70000])"), HasSubstr("/allocatedVlan/1: "));
  EXPECT_THAT(refusal({good.cloud, good.output, "{}"}), HasSubstr("state: no regionSyncTimeout"));
  EXPECT_THAT(refusal({good.cloud, good.output,
                       R"({"time": 0, "regionSyncTimeout": 60, "timers": {"S": 5}})"}),
              HasSubstr("no timer of a region \"S\""));
  EXPECT_THAT(refusal({good.cloud, good.output,
                       R"({"time": 0, "regionSyncTimeout": 60, "timers": {"R": true}})"}),
              HasSubstr("state: true is no number"));
}

}  // namespace
}  // namespace vnagent
