// A refused patch, and what the indexes count: documents that a patch has half changed when a rule
// stops it, and hosts that more than one region has while a patch is looked at.
#include <fmt/format.h>

#include "tests/agent/document_support.h"

namespace vnagent {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

class RollBack : public DocumentTest {
 protected:
  // A region with the ports of these ids, and segments v10 and v11 with its name in front.
  void region(std::string_view name, std::string_view ports) {
    take(
        fmt::format("{{'region': {{'{0}': {{'port': {1}, 'segment': {{"
                    "'{0}v10': {{'segmentationType': 'vlan', 'segmentationId': 10}}, "
                    "'{0}v11': {{'segmentationType': 'vlan', 'segmentationId': 11}}}}}}}}}}",
                    name, ports));
  }
};

constexpr std::string_view kHostOfB =
    "{'region': {'B': {'portBinding': {'b': {'portToHostBinding': {'h': {}}}}}}}";

// Two ports of A take the host from B in one patch; when one of them lets it go, it is still A's.
TEST_F(RollBack, AHostThatTwoPortsTookFromAnotherRegionStaysTakenUntilBothLetItGo) {
  region("A", "{'p': {}, 'q': {}}");
  region("B", "{'b': {}}");
  take(kHostOfB);
  take(
      "{'region': {'A': {'portBinding': {'p': {'portToHostBinding': {'h': {}}}, "
      "'q': {'portToHostBinding': {'h': {}}}}}, 'B': {'portBinding': null}}}");
  take("{'region': {'A': {'portBinding': {'p': null}}}}");
  EXPECT_THAT(refuse(kHostOfB), ElementsAre(HasSubstr("host \"h\" is in the host bindings of "
                                                      "region \"A\" too")));
  take("{'region': {'A': {'portBinding': {'q': null}}}}");
  take(kHostOfB);
}

// The same, with the region of the host gone in the other direction, and behind switch interfaces.
TEST_F(RollBack, AHostBehindSwitchInterfacesIsCountedForEachRegionByItself) {
  region("A", "{'p': {}, 'q': {}}");
  region("B", "{'b': {}}");
  const auto behind = [](std::string_view port, std::string_view interface) {
    return fmt::format(
        "'{}': {{'portToSwitchInterfaceBinding': {{'l': {{'{}': {{'host': 'h'}}}}}}}}", port,
        interface);
  };
  const auto ofB =
      fmt::format("{{'region': {{'B': {{'portBinding': {{{}}}}}}}}}", behind("b", "e0"));
  take(ofB);
  take(fmt::format(
      "{{'region': {{'A': {{'portBinding': {{{}, {}}}}}, 'B': {{'portBinding': null}}}}}}",
      behind("p", "e1"), behind("q", "e2")));
  take("{'region': {'A': {'portBinding': {'q': null}}}}");
  EXPECT_THAT(refuse(ofB), ElementsAre(HasSubstr("region \"A\" too")));
  take("{'region': {'A': null}}");
  take(ofB);
}

// A refused patch counts nothing, in neither region.
TEST_F(RollBack, ARefusedPatchThatPutAHostIntoTwoRegionsLeavesTheCountsAsTheyWere) {
  region("A", "{'p': {}, 'q': {}}");
  region("B", "{'b': {}}");
  take("{'region': {'A': {'portBinding': {'p': {'portToHostBinding': {'h': {}}}}}}}");
  refuse(
      "{'region': {'A': {'portBinding': {'q': {'portToHostBinding': {'h': {}}}}}, "
      "'B': {'portBinding': {'b': {'portToHostBinding': {'h': {}}}}}}}");
  refuse(kHostOfB);
  take("{'region': {'A': {'portBinding': {'p': null}}}}");
  take(kHostOfB);
}

// Levels name segments before the patch has added them, and in another order than that of their
// ids.
TEST_F(RollBack, ARefusedPatchTakesBackNewSegmentsAndTheBindingsThatNameThem) {
  region("A", "{'p': {}, 'q': {}, 'r': {}}");
  take(
      "{'region': {'A': {'portBinding': {'p': {'portToHostBinding': {'h': {'segment': "
      "{'0': 'Av10'}}}}}}}}");
  constexpr std::string_view kPatch =
      "{{'region': {{'A': {{"
      "'segment': {{'n1': {{'segmentationType': 'vlan', 'segmentationId': 21}}, "
      "'n2': {{'segmentationType': 'vxlan', 'segmentationId': 22}}, "
      "'n3': {{'segmentationType': 'vlan', 'segmentationId': 23}}, 'Av10': null}}, "
      "'portBinding': {{"
      "'p': {{'portToHostBinding': {{'h': {{'segment': {{'0': 'n3', '1': 'n1'}}}}}}}}, "
      "'q': {{'portToHostBinding': {{'i': {{'segment': {{'0': 'n2', '1': 'n3'}}}}}}}}, "
      "'r': {{'portToSwitchInterfaceBinding': {{'l': {{'e': {{'host': 'b', 'segment': "
      "{{'0': 'n2', '1': 'n1'}}}}}}}}}}}}}}}}{}}}";
  const auto good = fmt::format(fmt::runtime(kPatch), "");
  EXPECT_THAT(refuse(fmt::format(fmt::runtime(kPatch), ", 'x': 1")), ElementsAre(HasSubstr("/x")));
  EXPECT_THAT(refuse(fmt::format(fmt::runtime(kPatch), ", 'x': 1")), ElementsAre(HasSubstr("/x")));
  // Nothing of it is left: what it named is added as if for the first time.
  EXPECT_THAT(take(Plan::kAdditions, good),
              ElementsAre("+segment A n1 0:21", "+segment A n2 1:22", "+segment A n3 0:23",
                          "+level A p host:h 0 n3", "+level A p host:h 1 n1", "+portBinding A q",
                          "+binding A q host:i", "+level A q host:i 0 n2", "+level A q host:i 1 n3",
                          "+portBinding A r", "+binding A r switch:l:e b",
                          "+level A r switch:l:e 0 n2", "+level A r switch:l:e 1 n1"));
}

TEST_F(RollBack, SegmentsThatOnlyARefusedPatchNamedAreNotThere) {
  region("A", "{'p': {}}");
  refuse(
      "{'region': {'A': {'portBinding': {'p': {'portToHostBinding': {'h': {'segment': "
      "{'0': 'ghost', '1': 'Av10', '2': 'another'}}}}}}}}");
  EXPECT_EQ(document_.state().region.at("A").things[kSegmentRow].size(), 2U);
  take("{'region': {'A': {'segment': null}}}");
}

TEST_F(RollBack, ASegmentThatALevelStillNamesKeepsItsValueAfterTheRefusal) {
  region("A", "{'p': {}}");
  take(
      "{'region': {'A': {'portBinding': {'p': {'portToHostBinding': {'h': {'segment': "
      "{'0': 'Av10'}}}}}}}}");
  refuse("{'region': {'A': {'segment': null}}}");
  refuse(
      "{'region': {'A': {'segment': null, 'portBinding': {'p': {'portToHostBinding': {'g': {"
      "'segment': {'3': 'Av11'}}}}}}}}");
  EXPECT_THAT(take("{'region': {'A': {'segment': {'Av10': {'segmentationId': 10}}}}}"),
              ElementsAre("|", "|", "|", "|"));
}

// What the document prints.

class Printing : public DocumentTest {
 protected:
  std::string printed() const {
    std::string text;
    JsonWriter json(text, JsonWriter::Style::kOneLine);
    writeCloud(document_.state(), json);
    return text;
  }
};

constexpr std::string_view kWholeDocument = R"({
  'config': {'vlanTypeDriver': 1, 'enabled': false, 'defaultGracePeriod': 0, 'agentMode': '',
             'regionSyncTimeout': 30.5, 'mandatoryRegion': {'R': {}},
             'serviceAclTypeVrfMap': {'in': 'v'},
             'vlanAssignment': {'R': {'vlan': {'9': true, '100': false}}, 'S': {}}},
  'region': {'R': {
    'requester': 'a', 'requestId': '', 'syncInterval': 0, 'syncHeartbeat': 7,
    'syncStatus': 'syncComplete', 'network': {'n': {}},
    'segment': {'o': {'segmentationType': 7, 'segmentationId': 0},
                'v': {'segmentationType': 0, 'segmentationId': 10}},
    'port': {'p': {'vlanType': 0}, 'q': {'vlanType': 1}, 'r': {}},
    'portBinding': {
      'p': {'portToHostBinding': {'h': {'segment': {'0': 'o', '10': 'v'}}, 'i': {}}},
      'q': {'portToSwitchInterfaceBinding': {'l': {'': {'host': 'b'}, 'e': {'host': 'b'}}}},
      'r': {}}},
  'S': {}}})";

TEST_F(Printing, MembersThatHaveTheirDefaultAreLeftOutAndTheRestIsAsItWasGiven) {
  take(kWholeDocument);
  EXPECT_EQ(
      printed(),
      R"({"config": {"vlanTypeDriver": 1, "enabled": false, "defaultGracePeriod": 0, )"
      R"("regionSyncTimeout": 30.5, "agentMode": "", "mandatoryRegion": {"R": {}}, )"
      R"("serviceAclTypeVrfMap": {"in": "v"}, )"
      R"("vlanAssignment": {"R": {"vlan": {"9": true, "100": false}}, "S": {}}}, )"
      R"("region": {"R": {"requester": "a", "syncHeartbeat": 7, "syncStatus": "syncComplete", )"
      R"("network": {"n": {}}, )"
      R"("segment": {"o": {"segmentationType": 7, "segmentationId": 0}, )"
      R"("v": {"segmentationType": "vlan", "segmentationId": 10}}, )"
      R"("port": {"p": {}, "q": {"vlanType": 1}, "r": {}}, )"
      R"("portBinding": {"p": {"portToHostBinding": {"h": {"segment": {"0": "o", "10": "v"}}, )"
      R"("i": {}}}, "q": {"portToSwitchInterfaceBinding": {"l": {"": {"host": "b"}, )"
      R"("e": {"host": "b"}}}}, "r": {}}}, "S": {}}})");
}

TEST_F(Printing, WhatIsPrintedIsTakenBackAndPrintsTheSame) {
  take(kWholeDocument);
  const std::string first = printed();
  take("{'config': null, 'region': null}");
  EXPECT_EQ(printed(), "{}");
  take(first);
  EXPECT_EQ(printed(), first);
}

TEST_F(Printing, ARegionsScalarsAreThoseThatWereWrittenLast) {
  take("{'region': {'R': {'syncStatus': 'syncInProgress', 'requester': 'a'}}}");
  take("{'region': {'R': {'syncStatus': 'syncComplete', 'requester': null}}}");
  refuse("{'region': {'R': {'syncStatus': 'syncTimedOut', 'syncHeartbeat': 3, 'x': 1}}}");
  EXPECT_EQ(printed(), R"({"region": {"R": {"syncStatus": "syncComplete"}}})");
}

}  // namespace
}  // namespace vnagent
