// Session: events reach the entities, the machines react, and each outcome has what changed.
#include "agent/session/session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <nlohmann/json.hpp>

#include "agent/document/write_change.h"
#include "agent/live/delta.h"
#include "agent/output/output_json.h"
#include "tests/agent/merge_patch.h"

namespace vnagent {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr double kNever = std::numeric_limits<double>::infinity();

std::string json(const OutputDocument& output) {
  std::string text;
  JsonWriter writer(text, JsonWriter::Style::kOneLine);
  writeOutput(output, writer);
  return text;
}

// JSON is written with ' for ", which no text here has.
std::string quoted(std::string_view text) {
  std::string line(text);
  std::ranges::replace(line, '\'', '"');
  return line;
}

class SessionTest : public ::testing::Test {
 protected:
  StepOutcome take(std::string_view line) {
    return session_.take(SourceEvent::ofLine(quoted(line)));
  }

  // What a patch that must be applied changes.
  std::string patch(std::string_view text) {
    return changeOf(std::string("{'patch': ").append(text).append("}"));
  }
  std::string advance(double seconds) {
    return changeOf("{'advance': " + std::to_string(seconds) + "}");
  }
  // It is held to the difference of the documents, and so is the change back.
  std::string changeOf(std::string_view line) {
    const auto before = nlohmann::json::parse(shown());
    const StepOutcome outcome = take(line);
    for (const Fault& fault : outcome.faults) ADD_FAILURE() << fault.message();
    const auto after = nlohmann::json::parse(shown());
    std::string text = json(outcome.output);
    EXPECT_EQ(nlohmann::json::parse(text), difference(before, after));
    EXPECT_EQ(nlohmann::json::parse(json(outcome.outputBefore)), difference(after, before));
    back_.clear();
    JsonWriter writer(back_, JsonWriter::Style::kOneLine);
    writeOutputBack(outcome.outputBefore, outcome.output, writer);
    auto undone = after;
    Delta::of(text, back_).undoIn(undone);
    EXPECT_EQ(undone, before) << back_;
    return text;
  }

  std::string shown() const { return json(session_.output()); }

  std::string back_;  // of the last change, as it is recorded
  VirtualClock clock_;
  Session session_{{.regionSyncTimeout = 60, .changes = true, .changesBack = true}, clock_};
};

TEST_F(SessionTest, StartsEmpty) {
  EXPECT_EQ(shown(), R"({"regionStatus": {}, "requestedResources": {"resourcesForHostname": {}, )"
                     R"("resourcesForSwitchport": {}}, "networkElement": {}})");
  EXPECT_EQ(session_.time(), 0);
}

constexpr std::string_view kCloud = R"({
  'config': {'vlanTypeDriver': 0, 'enabled': true, 'defaultVlanTypeDriver': 1, 'gracePeriod': 1,
             'defaultGracePeriod': 2, 'agentMode': 'a', 'defaultAgentMode': 'b', 'authRole': 'c',
             'regionSyncTimeout': 30, 'defaultRegionSyncTimeout': 40,
             'mandatoryRegion': {'R': {}}, 'credentials': {'c': {}}, 'keystoneAuthUrl': {'u': {}},
             'serviceAclTypeVrfMap': {'t': 'v'}, 'vlanAssignment': {'R': {'vlan': {'10': true}}}},
  'region': {'R': {
    'segment': {'x': {'segmentationType': 'vxlan', 'segmentationId': 5},
                'v': {'segmentationType': 'vlan', 'segmentationId': 10}},
    'port': {'p': {}, 'q': {'vlanType': 1}},
    'portBinding': {
      'p': {'portToHostBinding': {'h': {'segment': {'0': 'x', '1': 'v'}}}},
      'q': {'portToSwitchInterfaceBinding':
            {'leaf': {'e1': {'host': 'b', 'segment': {'0': 'v'}}}}}},
    'serviceEndPoint': {'a': {}}, 'tenant': {'a': {}}, 'network': {'a': {}},
    'vmInstance': {'a': {}},
    'dhcpInstance': {'a': {}}, 'baremetalInstance': {'a': {}}, 'routerInstance': {'a': {}},
    'requester': 'driver', 'requestId': '1', 'syncInterval': 30, 'syncHeartbeat': 1,
    'syncStatus': 'syncInProgress'}}})";

TEST_F(SessionTest, AWholeDocumentIsPublished) {
  patch(kCloud);
  const std::string output = shown();
  EXPECT_THAT(output,
              HasSubstr(R"("syncStatus": "syncInProgress", "oldSyncStatus": "syncUnknown", )"
                        R"("owner": "driver", "requestId": "1")"));
  EXPECT_THAT(output,
              HasSubstr(R"("assignedVlan": [10], "availableVlan": [], "allocatedVlan": [10])"));
  EXPECT_THAT(output,
              HasSubstr(R"("h": {"domain": {"R": ["p"]}, "vlan": {"10": {"referrer": ["p"], )"
                        R"("mappedVni": {"5": ["p"]}}}})"));
  EXPECT_THAT(output,
              HasSubstr(R"("leaf": {"e1": {"vlan": {"10": {"referrer": ["q"], "mappedVni": )"
                        R"({}}}, "nativeVlan": 10, "remoteHost": ["b"], "referrer": ["bm-q"]}})"));
}

TEST_F(SessionTest, ARecordedChangeBackHasOfALargeSetWhatDiffersOnly) {
  const auto onHost = [](std::string_view ports) {
    return "{'region': {'R': {'portBinding': {" + std::string(ports) + "}}}}";
  };
  const std::string bound = "{'portToHostBinding': {'h': {'segment': {'0': 'v'}}}}";
  patch(R"({'region': {'R': {'segment': {'v': {'segmentationType': 'vlan', 'segmentationId': 10}},
            'port': {'p1': {}, 'p2': {}, 'p3': {}, 'p4': {}, 'p5': {}}}},
            'config': {'vlanAssignment': {'R': {'vlan':
              {'2': true, '3': true, '10': true, '11': true, '100': true}}}}})");
  patch(onHost("'p1': " + bound + ", 'p2': " + bound + ", 'p4': " + bound + ", 'p5': " + bound));
  patch(onHost("'p2': null, 'p3': " + bound));
  EXPECT_EQ(back_, R"({"requestedResources": {"resourcesForHostname": {"h": {)"
                   R"("domain": {"R": [["p2"], ["p3"]]}, )"
                   R"("vlan": {"10": {"referrer": [["p2"], ["p3"]]}}}}}})");
  patch("{'config': {'vlanAssignment': {'R': {'vlan': {'3': null, '100': null, '50': true}}}}}");
  EXPECT_THAT(back_, HasSubstr(R"("assignedVlan": [[3, 100], [50]])"));
  // Shorter as a whole.
  patch(onHost("'p1': null, 'p3': null, 'p4': null"));
  EXPECT_THAT(back_, HasSubstr(R"("domain": {"R": [["p1", "p3", "p4"], []]})"));
  patch(onHost("'p5': null, 'p1': " + bound));
  EXPECT_THAT(back_, HasSubstr(R"("domain": {"R": ["p5"]})"));
  // Nothing of it is left: the host's VLAN is whole.
  patch(onHost("'p1': null"));
  EXPECT_THAT(back_, HasSubstr(R"("vlan": {"10": {"referrer": ["p1"], "mappedVni": {}}})"));
}

TEST_F(SessionTest, AllWithdrawnIsEmptyButForTheHostsKnown) {
  patch(kCloud);
  patch("{'config': null, 'region': null}");
  EXPECT_EQ(shown(),
            R"({"regionStatus": {}, "requestedResources": {"resourcesForHostname": {"h": )"
            R"({"domain": {}, "vlan": {}}}, "resourcesForSwitchport": {}}, "networkElement": {}})");
}

TEST_F(SessionTest, EveryPartCanBeTakenOutAndPutBack) {
  // Twice, so that the sync status has been written over before, too.
  patch(kCloud);
  patch(kCloud);
  const auto withoutUuid = [](std::string text) {
    const auto at = text.find("vlanAssignmentUuid");
    return text.erase(at, 60);
  };
  const std::string before = withoutUuid(shown());
  for (const auto* members :
       {"'segment': null, 'portBinding': null", "'port': null, 'portBinding': null",
        "'portBinding': {'p': {'portToHostBinding': {'h': {'segment': {'1': null}}}}}",
        "'portBinding': {'p': {'portToHostBinding': {'h': {'segment': {'0': null}}}}}",
        "'portBinding': {'p': {'portToHostBinding': null}, 'q': {'portToSwitchInterfaceBinding': "
        "null}}",
        "'segment': {'v': {'segmentationId': 11}}", "'port': {'q': {'vlanType': 0}}",
        "'portBinding': {'q': {'portToSwitchInterfaceBinding': {'leaf': {'e1': {'host': 'c'}}}}}",
        "'serviceEndPoint': null, 'tenant': null, 'network': null, 'vmInstance': null, "
        "'dhcpInstance': null, 'baremetalInstance': null, 'routerInstance': null"}) {
    patch(std::string("{'region': {'R': {") + members + "}}}");
    patch(kCloud);
    EXPECT_EQ(withoutUuid(shown()), before) << members;
  }
  patch(
      "{'config': {'vlanAssignment': {'R': {'vlan': {'10': null, '11': true}}}, "
      "'mandatoryRegion': null, 'credentials': null, 'keystoneAuthUrl': null, "
      "'serviceAclTypeVrfMap': {'t': null}}}");
  EXPECT_THAT(shown(), HasSubstr(R"("assignedVlan": [11], "availableVlan": [11])"));
}

TEST_F(SessionTest, TimersFireAtTheirOwnTimeAndOnlyInAdvance) {
  patch(kCloud);
  advance(29.5);
  EXPECT_THAT(shown(), HasSubstr(R"("owner": "driver")"));
  advance(0.5);
  EXPECT_THAT(shown(), HasSubstr(R"("syncStatus": "syncTimedOut", "oldSyncStatus": )"
                                 R"("syncInProgress", "owner": "", "requestId": "")"));
  EXPECT_EQ(session_.time(), 30);
  advance(1e9);
  EXPECT_EQ(session_.time(), 1000000030);
}

TEST_F(SessionTest, ATimeoutFromOutsideHoldsUntilTheDocumentsChanges) {
  patch(kCloud);
  take("{'regionSyncTimeout': 5}");
  patch("{'region': {'R': {'syncHeartbeat': 2}}}");
  advance(5);
  EXPECT_THAT(shown(), HasSubstr("syncTimedOut"));
  patch("{'config': {'regionSyncTimeout': 50}, 'region': {'R': {'syncStatus': 'syncInProgress'}}}");
  advance(49);
  EXPECT_THAT(shown(), HasSubstr(R"("syncStatus": "syncInProgress")"));
  advance(1);
  EXPECT_THAT(shown(), HasSubstr(R"("syncStatus": "syncTimedOut")"));
}

// Outcomes.

TEST_F(SessionTest, ARefusedEventChangesNothingAndSaysWhy) {
  patch("{'region': {'R': {}}}");
  const std::string before = shown();
  for (const auto* line : {"{'patch': {'region': {'R': {'portBinding': {'p': {}}}, 'S': {}}}}",
                           "{'advance': -1}", "{'regionSyncTimeout': 0}", "{'else': 1}", "no JSON",
                           "{'patch': {'region': {'S': {}, 'S': {}}}}"}) {
    const StepOutcome outcome = take(line);
    EXPECT_FALSE(outcome.applied()) << line;
    EXPECT_EQ(outcome.cloud, nullptr) << line;
    EXPECT_TRUE(outcome.output.empty()) << line;
    EXPECT_EQ(shown(), before) << line;
  }
  EXPECT_EQ(session_.time(), 0);
}

TEST_F(SessionTest, FaultsHaveTheirPositionInTheDocument) {
  const auto outcome = session_.take(SourceEvent::ofDocument("{\n\"region\": {\n\"\": {}}}"));
  ASSERT_EQ(outcome.faults.size(), 1U);
  EXPECT_EQ(outcome.faults.front().position.line, 3U);
}

TEST_F(SessionTest, StepsAreCountedAndEachObserverSeesThemInTheirOrder) {
  class Recorder final : public SessionObserver {
   public:
    Recorder(std::string name, std::vector<std::string>& steps)
        : name_(std::move(name)), steps_(steps) {}
    void onStepBegin(uint64_t step) override { steps_.push_back(name_ + std::to_string(step)); }
    void onStepEnd(const StepOutcome& outcome) override {
      steps_.push_back(name_ + (outcome.applied() ? "+" : "-") + std::to_string(outcome.step));
    }

   private:
    std::string name_;
    std::vector<std::string>& steps_;
  };
  std::vector<std::string> seen;
  Recorder a("a", seen);
  Recorder b("b", seen);
  session_.observerIs(a);
  session_.observerIs(b);
  take("{'patch': {}}");
  take("nonsense");
  EXPECT_THAT(seen, ElementsAre("a0", "b0", "a+0", "b+0", "a1", "b1", "a-1", "b-1"));
}

TEST(CheckingSession, TakesEventsAndHoldsNoCloud) {
  VirtualClock clock;
  Session session({.live = false}, clock);
  const auto take = [&](const char* line) { return session.take(SourceEvent::ofLine(line)); };
  EXPECT_TRUE(take(R"({"patch": {"region": {"R": {"port": {"p": {}}}}}})").applied());
  EXPECT_EQ(take(R"({"patch": {"region": {"R": {"portBinding": {"q": {}}}}}})").faults.size(), 1U);
  EXPECT_TRUE(take(R"({"advance": 5})").applied());
  EXPECT_EQ(session.time(), 5);
  EXPECT_EQ(session.nextTimer(), kNever);
  EXPECT_EQ(session.document().region.size(), 1U);
}

TEST_F(SessionTest, TheOutcomeOfAPatchHasTheChangeOfTheDocument) {
  const auto cloudChange = [&](std::string_view line) -> std::string {
    const StepOutcome outcome = take(line);
    if (outcome.cloud == nullptr) return "none";
    std::string text;
    JsonWriter writer(text, JsonWriter::Style::kOneLine);
    writeChange(session_.document(), *outcome.cloud, writer);
    return text;
  };
  EXPECT_EQ(cloudChange("{'patch': {'region': {'R': {'port': {'p': {}, 'q': {'vlanType': 1}}}}}}"),
            R"({"region": {"R": {"port": {"p": {}, "q": {"vlanType": 1}}}}})");
  EXPECT_EQ(cloudChange("{'patch': {'region': {'R': {'port': {'p': {}, 'q': null}}}}}"),
            R"({"region": {"R": {"port": {"q": null}}}})");
  EXPECT_EQ(cloudChange("{'patch': {'region': {'R': {'port': {'p': {}}}}}}"), "{}");
  EXPECT_EQ(cloudChange("{'patch': {'x': 1}}"), "none");
  EXPECT_EQ(cloudChange("{'advance': 1}"), "none");
}

// Changes of the output.

constexpr std::string_view kBound = R"({'region': {'R': {
  'segment': {'x': {'segmentationType': 'vxlan', 'segmentationId': 5},
              'v': {'segmentationType': 'vlan', 'segmentationId': 10},
              'w': {'segmentationType': 'vlan', 'segmentationId': 9}},
  'port': {'p': {}, 'q': {}, 's': {'vlanType': 1}},
  'portBinding': {
    'p': {'portToHostBinding': {'h': {'segment': {'0': 'x', '1': 'v'}}}},
    'q': {'portToHostBinding': {'h': {'segment': {'0': 'v'}}}},
    's': {'portToSwitchInterfaceBinding': {'leaf': {'e1': {'host': 'b', 'segment': {'0': 'v'}},
                                                    'e2': {'host': 'b'}}}}}}}})";

TEST_F(SessionTest, AStepThatChangesNothingOfTheOutputHasAnEmptyChange) {
  patch(kBound);
  EXPECT_EQ(patch("{}"), "{}");
  EXPECT_EQ(patch(kBound), "{}");
  EXPECT_EQ(patch("{'region': {'R': {'network': {'n': {}}, 'syncHeartbeat': 4}}}"), "{}");
  EXPECT_EQ(advance(1), "{}");
  EXPECT_TRUE(take("{'regionSyncTimeout': 7}").output.empty());
}

TEST_F(SessionTest, WhatIsAddedIsShownWholeAndWhatIsRemovedIsNull) {
  patch(kBound);
  EXPECT_EQ(patch("{'region': {'R': {'portBinding': {'p': null}}}}"),
            R"({"requestedResources": {"resourcesForHostname": {"h": {"domain": {"R": ["q"]}, )"
            R"("vlan": {"10": {"referrer": ["q"], "mappedVni": {"5": null}}}}}}})");
  EXPECT_EQ(patch("{'region': {'R': {'portBinding': {'q': null}}}}"),
            R"({"requestedResources": {"resourcesForHostname": {"h": {"domain": {"R": null}, )"
            R"("vlan": {"10": null}}}}})");
  EXPECT_EQ(patch("{'region': {'R': {'portBinding': {'q': {'portToHostBinding': {'g': {'segment': "
                  "{'0': 'v'}}}}}}}}"),
            R"({"requestedResources": {"resourcesForHostname": {"g": {"domain": {"R": ["q"]}, )"
            R"("vlan": {"10": {"referrer": ["q"], "mappedVni": {}}}}}}})");
}

TEST_F(SessionTest, ASwitchIsRemovedWithItsLastPort) {
  patch(kBound);
  EXPECT_EQ(patch("{'region': {'R': {'portBinding': {'s': {'portToSwitchInterfaceBinding': "
                  "{'leaf': {'e1': null}}}}}}}"),
            R"({"requestedResources": {"resourcesForSwitchport": {"leaf": {"e1": null}}}})");
  EXPECT_EQ(patch("{'region': {'R': {'portBinding': {'s': {'portToSwitchInterfaceBinding': "
                  "{'leaf': null, 'spine': {'e2': {'host': 'b'}}}}}}}}"),
            R"({"requestedResources": {"resourcesForSwitchport": {"leaf": null, "spine": {"e2": )"
            R"({"vlan": {}, "nativeVlan": 0, "remoteHost": ["b"], "referrer": ["bm-s"]}}}}})");
}

TEST_F(SessionTest, WhatIsRemovedAndAddedAgainInOneStepIsComparedInside) {
  patch(kBound);
  // The binding of p is taken out and put back, and with it the mapping; that of s, too, and with
  // it the switch port.
  EXPECT_EQ(
      patch("{'region': {'R': {'segment': {'x': {'segmentationId': 6}}, 'port': {'s': {'vlanType': "
            "0}}}}}"),
      R"({"requestedResources": {"resourcesForHostname": {"h": {"vlan": {"10": {"mappedVni": )"
      R"({"5": null, "6": ["p"]}}}}}, "resourcesForSwitchport": {"leaf": {"e1": )"
      R"({"nativeVlan": 0}}}}})");
  EXPECT_EQ(patch("{'region': {'R': {'segment': {'v': {'segmentationId': 11}}}}}"),
            R"({"regionStatus": {"R": {"vlanPool": {"allocatedVlan": [9, 11]}}}, )"
            R"("requestedResources": {"resourcesForHostname": {"h": {"vlan": {"10": null, )"
            R"("11": {"referrer": ["p", "q"], "mappedVni": {"6": ["p"]}}}}}, )"
            R"("resourcesForSwitchport": {"leaf": {"e1": {"vlan": {"10": null, "11": )"
            R"({"referrer": ["s"], "mappedVni": {}}}}}}}})");
}

TEST_F(SessionTest, ARegionThatGoesAndComesBackDiffersInWhatItLost) {
  patch(kBound);
  patch(
      "{'config': {'vlanAssignment': {'R': {'vlan': {'10': true, '12': true}}}}, 'region': "
      "{'R': {'requester': 'a', 'requestId': '1'}}}");
  EXPECT_EQ(patch("{'region': {'R': null}}").substr(0, 29), R"({"regionStatus": {"R": null},)");
  patch("{'region': {'R': {}}}");
  EXPECT_EQ(patch("{'region': {'R': {'requester': 'a', 'requestId': '1'}}}"),
            R"({"regionStatus": {"R": {"owner": "a", "requestId": "1"}}})");
}

// Timers.

constexpr std::string_view kTwoInProgress = R"({
  'region': {'R': {'syncStatus': 'syncInProgress'}, 'S': {}}})";
constexpr std::string_view kTimedOut =
    R"({"regionStatus": {"%": {"syncStatus": "syncTimedOut", "oldSyncStatus": "syncInProgress"}}})";

std::string timedOut(std::string_view region) {
  std::string text(kTimedOut);
  return text.replace(text.find('%'), 1, region);
}

TEST_F(SessionTest, TimersThatAreDueAreFiredOneAtATime) {
  EXPECT_EQ(session_.nextTimer(), kNever);
  patch(kTwoInProgress);
  clock_.nowIs(10);
  patch("{'region': {'S': {'syncStatus': 'syncInProgress'}}}");
  EXPECT_EQ(session_.nextTimer(), 60);
  clock_.nowIs(59.999);
  EXPECT_FALSE(session_.expire());
  clock_.nowIs(100);
  auto outcome = session_.expire();
  ASSERT_TRUE(outcome);
  EXPECT_EQ(json(outcome->output), timedOut("R"));
  EXPECT_EQ(outcome->time, 100);
  EXPECT_EQ(outcome->step, 2U);
  EXPECT_EQ(session_.nextTimer(), 70);
  outcome = session_.expire();
  ASSERT_TRUE(outcome);
  EXPECT_EQ(json(outcome->output), timedOut("S"));
  EXPECT_FALSE(session_.expire());
  EXPECT_EQ(session_.nextTimer(), kNever);
}

TEST(SteadySession, FiresNothingBeforeItsTimeAndIsMovedByNobody) {
  const SteadyClock clock;
  Session session({.regionSyncTimeout = 1e9, .changes = true}, clock);
  const auto take = [&](const char* line) { return session.take(SourceEvent::ofLine(line)); };
  const double before = clock.now();
  EXPECT_TRUE(take(R"({"patch": {"region": {"R": {"syncStatus": "syncInProgress"}}}})").applied());
  EXPECT_GE(session.nextTimer(), before + 1e9);
  EXPECT_LE(session.nextTimer(), clock.now() + 1e9);
  EXPECT_FALSE(session.expire());
  const StepOutcome outcome = take(R"({"advance": 1})");
  ASSERT_EQ(outcome.faults.size(), 1U);
  EXPECT_EQ(outcome.faults.front().place, "/advance");
}

}  // namespace
}  // namespace vnagent
