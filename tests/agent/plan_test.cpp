// What a patch means for the entities: which operations, and in which order.
#include <fmt/format.h>

#include "tests/agent/document_support.h"

namespace vnagent {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::string_view kWorld = R"({'region': {'R': {
  'segment': {'v10': {'segmentationType': 'vlan', 'segmentationId': 10},
              'v11': {'segmentationType': 'vlan', 'segmentationId': 11},
              'v12': {'segmentationType': 'vlan', 'segmentationId': 12},
              'x5': {'segmentationType': 'vxlan', 'segmentationId': 5},
              'x6': {'segmentationType': 'vxlan', 'segmentationId': 6},
              'o1': {'segmentationType': 2, 'segmentationId': 1}},
  'port': {'p': {}, 'q': {}, 'r': {}}}}})";

class Planning : public DocumentTest {
 protected:
  explicit Planning(bool toggle = true) : DocumentTest({toggle, 60}) { take(kWorld); }

  static std::string inRegion(std::string_view members) {
    return fmt::format("{{'region': {{'R': {{{}}}}}}}", members);
  }
  // A patch of one host binding, and of one switch-interface binding, of a port.
  static std::string onHost(std::string_view port, std::string_view host, std::string_view value) {
    return inRegion(fmt::format("'portBinding': {{'{}': {{'portToHostBinding': {{'{}': {}}}}}}}",
                                port, host, value));
  }
  static std::string onSwitch(std::string_view port, std::string_view name,
                              std::string_view value) {
    return inRegion(fmt::format(
        "'portBinding': {{'{}': {{'portToSwitchInterfaceBinding': {{'leaf': {{'{}': {}}}}}}}}}",
        port, name, value));
  }
  static std::string levels(std::string_view members) {
    return fmt::format("{{'segment': {{{}}}}}", members);
  }
  static std::string behind(std::string_view host, std::string_view members = "") {
    return fmt::format("{{'host': '{}', 'segment': {{{}}}}}", host, members);
  }
};

// A whole document.

TEST_F(Planning, ADocumentIsAddedFromTheRootDownAndItsScalarsAreWrittenLast) {
  EXPECT_THAT(
      take(R"({'config': {'agentMode': 'm', 'vlanTypeDriver': 1, 'mandatoryRegion': {'S': {}},
                 'vlanAssignment': {'S': {'vlan': {'9': true, '10': false}}}},
        'region': {
          'S': {'syncStatus': 'syncInProgress', 'syncHeartbeat': 1.5, 'requestId': 'i',
                'syncInterval': 2, 'requester': 'a', 'network': {'n': {}},
                'segment': {'s': {'segmentationType': 'vxlan', 'segmentationId': 7}},
                'port': {'b': {'vlanType': 1}, 'a': {}},
                'portBinding': {'b': {'portToHostBinding': {'h': {'segment': {'10': 's'}}}},
                                'a': {}}},
          'Q': {}}})"),
      ElementsAre("|", "=vlanTypeDriver 1", "=agentMode \"m\"", "+mandatoryRegion S",
                  "+vlanAssignment S 9:true 10:false", "|", "+region Q", "+region S",
                  "+network S n", "+segment S s 1:7", "+port S a 0", "+port S b 1",
                  "+portBinding S a", "+portBinding S b", "+binding S b host:h",
                  "+level S b host:h 10 s", "|", "=requester S \"a\"", "=requestId S \"i\"",
                  "=syncInterval S 2", "=syncHeartbeat S 1.5", "=syncStatus S 1", "|"));
}

TEST_F(Planning, MembersAreInByteOrderAndNumbersInNumericOrder) {
  EXPECT_THAT(take(inRegion("'port': {'p10': {}, 'p9': {}, 'P': {}, '\xc3\xa4': {}}")),
              ElementsAre("|", "|", "+port R P 0", "+port R p10 0", "+port R p9 0",
                          "+port R \xc3\xa4 0", "|", "|"));
  EXPECT_THAT(
      take(Plan::kAdditions, onHost("p", "h", levels("'10': 'v10', '9': 'v11', '0': 'x5'"))),
      ElementsAre("+portBinding R p", "+binding R p host:h", "+level R p host:h 0 x5",
                  "+level R p host:h 9 v11", "+level R p host:h 10 v10"));
  EXPECT_THAT(take(Plan::kConfiguration,
                   "{'config': {'vlanAssignment': {'R': {'vlan': {'100': true, '20': true}}}}}"),
              ElementsAre("+vlanAssignment R 20:true 100:true"));
  EXPECT_THAT(take(Plan::kConfiguration,
                   "{'config': {'vlanAssignment': {'R': {'vlan': {'110': true, '30': true}}}}}"),
              ElementsAre("+vlan R 30:true", "+vlan R 110:true"));
}

// Scalars.

TEST_F(Planning, AScalarIsWrittenEachTimeItIsNamed) {
  const auto heartbeat = inRegion("'syncHeartbeat': 7");
  EXPECT_THAT(take(heartbeat), ElementsAre("|", "|", "|", "=syncHeartbeat R 7", "|"));
  EXPECT_THAT(take(heartbeat), ElementsAre("|", "|", "|", "=syncHeartbeat R 7", "|"));
  EXPECT_THAT(take("{'config': {'vlanTypeDriver': 0}}"),
              ElementsAre("|", "=vlanTypeDriver 0", "|", "|", "|"));
}

TEST_F(Planning, AScalarSetToNullIsWrittenWithItsDefault) {
  EXPECT_THAT(take(inRegion("'syncStatus': null, 'requester': null, 'requestId': null, "
                            "'syncInterval': null, 'syncHeartbeat': null")),
              ElementsAre("|", "|", "|", "=requester R \"\"", "=requestId R \"\"",
                          "=syncInterval R 0", "=syncHeartbeat R 0", "=syncStatus R 0", "|"));
  EXPECT_THAT(
      take("{'config': {'vlanTypeDriver': null, 'enabled': null, 'authRole': null}}"),
      ElementsAre("|", "=vlanTypeDriver 0", "=enabled false", "=authRole \"\"", "|", "|", "|"));
}

TEST_F(Planning, ANewRegionsScalarsAreWrittenAfterAllAdditions) {
  EXPECT_THAT(take("{'region': {'A': {'syncStatus': null}, 'B': {'requester': 'x'}}}"),
              ElementsAre("|", "|", "+region A", "+region B", "|", "=syncStatus A 0",
                          "=requester B \"x\"", "|"));
}

TEST_F(Planning, WhenTheConfigurationIsRemovedWhatItHadIsWrittenWithItsDefault) {
  take(
      "{'config': {'vlanTypeDriver': 3, 'enabled': false, 'gracePeriod': 4, 'credentials': {'c': "
      "{}}, "
      "'serviceAclTypeVrfMap': {'t': 'v'}, 'vlanAssignment': {'R': {'vlan': {'5': true}}}}}");
  EXPECT_THAT(take("{'config': null}"),
              ElementsAre("-vlanAssignment R", "-credentials c", "-serviceAclTypeVrfMap t", "|",
                          "=vlanTypeDriver 0", "=gracePeriod 0", "|", "|", "|"));
  EXPECT_THAT(take("{'config': null}"), ElementsAre("|", "|", "|", "|"));
}

TEST_F(Planning, TheRootMachineGetsTheEffectiveTimeout) {
  const auto timeout = [&](std::string_view members) {
    return take(Plan::kConfiguration, fmt::format("{{'config': {{{}}}}}", members));
  };
  EXPECT_THAT(timeout("'regionSyncTimeout': 60"), ElementsAre("=regionSyncTimeout 60"));
  EXPECT_THAT(timeout("'defaultRegionSyncTimeout': 5"), ElementsAre("=defaultRegionSyncTimeout 5"));
  EXPECT_THAT(timeout("'regionSyncTimeout': null"),
              ElementsAre("=regionSyncTimeout 0", "=rootRegionSyncTimeout 5"));
  EXPECT_THAT(timeout("'regionSyncTimeout': 5"), ElementsAre("=regionSyncTimeout 5"));
  EXPECT_THAT(timeout("'regionSyncTimeout': 0.5, 'defaultRegionSyncTimeout': null"),
              ElementsAre("=defaultRegionSyncTimeout 0", "=regionSyncTimeout 0.5",
                          "=rootRegionSyncTimeout 0.5"));
  EXPECT_THAT(take("{'config': null}"),
              ElementsAre("|", "=regionSyncTimeout 0", "=rootRegionSyncTimeout 60", "|", "|", "|"));
}

// The difference, and nothing else.

TEST_F(Planning, WhatDoesNotChangeMakesNoOperation) {
  const auto again = onSwitch("p", "e", behind("b", "'0': 'x5', '1': 'v10'"));
  take(again);
  EXPECT_THAT(take(again), ElementsAre("|", "|", "|", "|"));
  EXPECT_THAT(take(kWorld), ElementsAre("|", "|", "|", "|"));
  take("{'config': {'vlanAssignment': {'R': {'vlan': {'5': true}}}}}");
  EXPECT_THAT(take("{'config': {'vlanAssignment': {'R': {'vlan': {'5': true}}}}}"),
              ElementsAre("|", "|", "|", "|"));
}

TEST_F(Planning, RemovingWhatIsNotThereDoesNothing) {
  const std::vector<std::string> patches{
      "{'region': {'Z': null, 'R': {'segment': {'z': null}, 'port': {'z': null}, "
      "'portBinding': {'z': null}, 'network': {'z': null}}}}",
      "{'config': {'vlanAssignment': {'z': null}, 'credentials': {'z': null}, "
      "'serviceAclTypeVrfMap': {'z': null}}}",
      "{'region': {'': null, 'R': {'segment': {'\\u0001': null}}}}"};
  for (const auto& patch : patches) EXPECT_THAT(take(patch), ElementsAre("|", "|", "|", "|"));
}

TEST_F(Planning, ANullInANewThingIsIgnoredAndTheThingIsAdded) {
  EXPECT_THAT(take("{'region': {'N': {'segment': {'s': null}, 'portBinding': null}}}"),
              ElementsAre("|", "|", "+region N", "|", "|"));
  EXPECT_THAT(take("{'config': {'vlanAssignment': {'N': {'vlan': {'5': null}}}}}"),
              ElementsAre("|", "+vlanAssignment N", "|", "|", "|"));
  EXPECT_THAT(take(onHost("p", "h", levels("'0': null"))),
              ElementsAre("|", "|", "+portBinding R p", "+binding R p host:h", "|", "|"));
  EXPECT_THAT(take(inRegion("'portBinding': {'q': {'portToSwitchInterfaceBinding': "
                            "{'leaf': {'e': null}}}}")),
              ElementsAre("|", "|", "+portBinding R q", "|", "|"));
}

TEST_F(Planning, EntriesOfAssignmentsChangeInPlaceAndAreRemovedBeforeAssignments) {
  take(
      "{'config': {'vlanAssignment': {'A': {'vlan': {'1': true, '2': true, '30': false}}, 'B': "
      "{}}}}");
  EXPECT_THAT(
      take("{'config': {'vlanAssignment': {'B': null, 'C': {'vlan': {'8': true}}, "
           "'A': {'vlan': {'1': null, '2': false, '30': null, '4': true}}}}}"),
      ElementsAre("-vlan A 1", "-vlan A 30", "-vlanAssignment B", "|", "+vlanAssignment C 8:true",
                  "+vlan A 2:false", "+vlan A 4:true", "|", "|", "|"));
  EXPECT_THAT(take("{'config': {'vlanAssignment': {'A': {'vlan': null}}}}"),
              ElementsAre("-vlan A 2", "-vlan A 4", "|", "|", "|", "|"));
  EXPECT_THAT(take("{'config': {'vlanAssignment': null}}"),
              ElementsAre("-vlanAssignment A", "-vlanAssignment C", "|", "|", "|", "|"));
}

// Removals.

TEST_F(Planning, RemovalsAreOrderedFromTheLeavesUp) {
  take(onHost("p", "h", levels("'0': 'v10', '1': 'v11'")));
  take(onHost("p", "i", "{}"));
  take(onSwitch("q", "e", behind("b", "'0': 'v12'")));
  take(
      "{'config': {'vlanAssignment': {'A': {'vlan': {'1': true}}}}, 'region': {'Z': {'port': {'z': "
      "{}}, "
      "'segment': {'s': {'segmentationType': 'vlan', 'segmentationId': 3}}, "
      "'portBinding': {'z': {'portToHostBinding': {'zh': {'segment': {'0': 's'}}}}}}}}");
  EXPECT_THAT(
      take("{'config': {'vlanAssignment': null}, 'region': {'Z': null, 'R': {"
           "'portBinding': {'q': null, 'p': {'portToHostBinding': {'i': null, 'h': {'segment': "
           "{'0': null}}}}}, 'segment': {'v10': null, 'v12': null}, 'port': {'q': null}}}}"),
      ElementsAre("-level R p host:h 0", "-binding R p host:i", "-portBinding R q",
                  "-segment R v10", "-segment R v12", "-port R q", "-portBinding Z z",
                  "-segment Z s", "-port Z z", "-region Z", "-vlanAssignment A", "|", "|", "|",
                  "|"));
}

TEST_F(Planning, ARemovedBindingIsRemovedWhole) {
  take(onHost("p", "h", levels("'0': 'x5', '1': 'v10'")));
  EXPECT_THAT(take(onHost("p", "h", "null")),
              ElementsAre("-binding R p host:h", "|", "|", "|", "|"));
  take(onHost("p", "h", levels("'0': 'x5', '1': 'v10'")));
  EXPECT_THAT(take(inRegion("'portBinding': {'p': null}")),
              ElementsAre("-portBinding R p", "|", "|", "|", "|"));
  take(onSwitch("p", "e", behind("b", "'0': 'x5'")));
  EXPECT_THAT(take(inRegion("'portBinding': {'p': {'portToSwitchInterfaceBinding': null}}")),
              ElementsAre("-binding R p switch:leaf:e", "|", "|", "|", "|"));
}

TEST_F(Planning, RemovingTheCollectionRemovesEveryRegion) {
  take("{'region': {'A': {}}}");
  EXPECT_THAT(take("{'region': null}"),
              ElementsAre("-region A", "-segment R o1", "-segment R v10", "-segment R v11",
                          "-segment R v12", "-segment R x5", "-segment R x6", "-port R p",
                          "-port R q", "-port R r", "-region R", "|", "|", "|", "|"));
}

TEST_F(Planning, AHostBindingBecomesASwitchInterfaceBindingInOnePatch) {
  take(onHost("p", "h", levels("'0': 'v10'")));
  EXPECT_THAT(
      take(inRegion("'portBinding': {'p': {'portToHostBinding': null, "
                    "'portToSwitchInterfaceBinding': {'leaf': {'e': {'host': 'b'}}}}}")),
      ElementsAre("-binding R p host:h", "|", "|", "+binding R p switch:leaf:e b", "|", "|"));
}

// Levels.

TEST_F(Planning, OfSeveralLevelsVlansAreRemovedFirst) {
  take(onHost("p", "h", levels("'0': 'x5', '1': 'v12', '2': 'o1', '3': 'v11', '10': 'v10'")));
  EXPECT_THAT(
      take(onHost("p", "h", levels("'0': null, '1': null, '2': null, '3': null, '10': null"))),
      ElementsAre("-level R p host:h 1", "-level R p host:h 3", "-level R p host:h 10",
                  "-level R p host:h 0", "-level R p host:h 2", "|", "|", "|", "|"));
}

TEST_F(Planning, ALevelWhoseSegmentChangesIsRemovedAndAdded) {
  take(onHost("p", "h", levels("'0': 'x5', '1': 'v10'")));
  EXPECT_THAT(take(onHost("p", "h", levels("'1': 'v11'"))),
              ElementsAre("-level R p host:h 1", "|", "|", "+level R p host:h 1 v11", "|", "|"));
  // Both change: the VLAN is removed first, and no VNI is left behind.
  EXPECT_THAT(take(onHost("p", "h", levels("'0': 'x6', '1': 'v10'"))),
              ElementsAre("-level R p host:h 1", "-level R p host:h 0", "|", "|",
                          "+level R p host:h 0 x6", "+level R p host:h 1 v10", "|", "|"));
  EXPECT_THAT(take(onHost("p", "h", levels("'2': 'o1'"))),
              ElementsAre("|", "|", "+level R p host:h 2 o1", "|", "|"));
}

TEST_F(Planning, RemovingAVxlanAboveAVlanReplacesTheBinding) {
  take(onHost("p", "h", levels("'0': 'x5', '1': 'v10'")));
  EXPECT_THAT(take(onHost("p", "h", levels("'0': null"))),
              ElementsAre("-binding R p host:h", "|", "|", "+binding R p host:h",
                          "+level R p host:h 1 v10", "|", "|"));
  take(onHost("p", "h", levels("'0': 'x5'")));
  EXPECT_THAT(take(onHost("p", "h", levels("'0': 'x6'"))),
              ElementsAre("-binding R p host:h", "|", "|", "+binding R p host:h",
                          "+level R p host:h 0 x6", "+level R p host:h 1 v10", "|", "|"));
  EXPECT_THAT(take(onHost("p", "h", levels("'0': 'v11'"))),
              ElementsAre("-binding R p host:h", "|", "|", "+binding R p host:h",
                          "+level R p host:h 0 v11", "+level R p host:h 1 v10", "|", "|"));
  // What was no VXLAN before gave the VLAN no VNI.
  EXPECT_THAT(take(onHost("p", "h", levels("'0': 'x6'"))),
              ElementsAre("-level R p host:h 0", "|", "|", "+level R p host:h 0 x6", "|", "|"));
}

TEST_F(Planning, OnlyTheLevelRightBelowAVxlanCounts) {
  take(onHost("p", "h", levels("'0': 'x5', '2': 'v10'")));
  EXPECT_THAT(take(onHost("p", "h", levels("'0': null"))),
              ElementsAre("-level R p host:h 0", "|", "|", "|", "|"));
  take(onHost("p", "h", levels("'3': 'x5'")));
  EXPECT_THAT(take(onHost("p", "h", levels("'3': null"))),
              ElementsAre("-level R p host:h 3", "|", "|", "|", "|"));
}

TEST_F(Planning, TheLastLevelIsRightAboveTheFirst) {
  take(onHost("p", "h", levels("'255': 'x5', '0': 'v10'")));
  EXPECT_THAT(take(onHost("p", "h", levels("'255': null"))),
              ElementsAre("-binding R p host:h", "|", "|", "+binding R p host:h",
                          "+level R p host:h 0 v10", "|", "|"));
}

TEST_F(Planning, ASwitchInterfaceBindingFollowsTheSameRulesForLevels) {
  take(onSwitch("p", "e", behind("b", "'0': 'x5', '1': 'v10'")));
  EXPECT_THAT(take(onSwitch("p", "e", levels("'0': null"))),
              ElementsAre("-binding R p switch:leaf:e", "|", "|", "+binding R p switch:leaf:e b",
                          "+level R p switch:leaf:e 1 v10", "|", "|"));
  EXPECT_THAT(take(onSwitch("p", "e", "{'segment': null}")),
              ElementsAre("-level R p switch:leaf:e 1", "|", "|", "|", "|"));
}

// Replacement.

TEST_F(Planning, AChangedSegmentReplacesAllPortBindingsThatUsedIt) {
  take(onHost("p", "h", levels("'0': 'x5', '1': 'v10'")));
  take(onHost("q", "h", levels("'0': 'v11'")));
  take(onSwitch("r", "e", behind("b", "'0': 'v10'")));
  EXPECT_THAT(
      take(inRegion("'segment': {'v10': {'segmentationId': 20}}")),
      ElementsAre("-portBinding R p", "-portBinding R r", "-segment R v10", "|", "|",
                  "+segment R v10 0:20", "+portBinding R p", "+binding R p host:h",
                  "+level R p host:h 0 x5", "+level R p host:h 1 v10", "+portBinding R r",
                  "+binding R r switch:leaf:e b", "+level R r switch:leaf:e 0 v10", "|", "|"));
  EXPECT_THAT(take(Plan::kRemovals, inRegion("'segment': {'v10': {'segmentationType': 7}}")),
              ElementsAre("-portBinding R p", "-portBinding R r", "-segment R v10"));
}

TEST_F(Planning, UsersOfAChangedSegmentAreThoseBeforeThePatch) {
  take(onHost("p", "h", levels("'0': 'v10'")));
  take(onHost("p", "i", levels("'0': 'v11'")));
  take(onHost("q", "h", levels("'0': 'v11'")));
  // p lets go of the changed segment, q takes it up, r is new on it.
  EXPECT_THAT(
      take(inRegion("'segment': {'v10': {'segmentationId': 20}}, 'portBinding': {"
                    "'p': {'portToHostBinding': {'h': {'segment': {'0': 'v12'}}}}, "
                    "'q': {'portToHostBinding': {'h': {'segment': {'1': 'v10'}}}}, "
                    "'r': {'portToHostBinding': {'h': {'segment': {'0': 'v10'}}}}}")),
      ElementsAre("-portBinding R p", "-segment R v10", "|", "|", "+segment R v10 0:20",
                  "+portBinding R p", "+binding R p host:h", "+level R p host:h 0 v12",
                  "+binding R p host:i", "+level R p host:i 0 v11", "+level R q host:h 1 v10",
                  "+portBinding R r", "+binding R r host:h", "+level R r host:h 0 v10", "|", "|"));
  // A binding of p that the patch does not touch uses it.
  EXPECT_THAT(take(Plan::kRemovals,
                   inRegion("'segment': {'v11': {'segmentationId': 21}}, 'portBinding': "
                            "{'p': {'portToHostBinding': {'h': {'segment': {'3': 'x5'}}}}}")),
              ElementsAre("-portBinding R p", "-portBinding R q", "-segment R v11"));
  // One that used it and is removed is not added again.
  EXPECT_THAT(
      take(inRegion("'segment': {'x5': {'segmentationId': 55}}, 'portBinding': {'p': null}")),
      ElementsAre("-portBinding R p", "-segment R x5", "|", "|", "+segment R x5 1:55", "|", "|"));
  take(onHost("p", "h", levels("'0': 'v10'")));
  EXPECT_THAT(
      take(inRegion("'segment': {'v10': {'segmentationId': 22}}, 'portBinding': "
                    "{'p': {'portToHostBinding': {'h': null}}}")),
      ElementsAre("-portBinding R p", "-portBinding R q", "-portBinding R r", "-segment R v10", "|",
                  "|", "+segment R v10 0:22", "+portBinding R p", "+portBinding R q",
                  "+binding R q host:h", "+level R q host:h 0 v11", "+level R q host:h 1 v10",
                  "+portBinding R r", "+binding R r host:h", "+level R r host:h 0 v10", "|", "|"));
}

TEST_F(Planning, ARemovedSegmentRemovesOnlyItsLevels) {
  take(onHost("p", "h", levels("'0': 'x5', '3': 'v10'")));
  EXPECT_THAT(take(inRegion("'segment': {'v10': null}, 'portBinding': "
                            "{'p': {'portToHostBinding': {'h': {'segment': {'3': null}}}}}")),
              ElementsAre("-level R p host:h 3", "-segment R v10", "|", "|", "|", "|"));
}

TEST_F(Planning, ARemovedVxlanSegmentCountsWithTheTypeThatItHad) {
  take(onHost("p", "h", levels("'0': 'x5', '1': 'v10'")));
  EXPECT_THAT(take(inRegion("'segment': {'x5': null}, 'portBinding': "
                            "{'p': {'portToHostBinding': {'h': {'segment': {'0': null}}}}}")),
              ElementsAre("-binding R p host:h", "-segment R x5", "|", "|", "+binding R p host:h",
                          "+level R p host:h 1 v10", "|", "|"));
}

TEST_F(Planning, AChangedVlanTypeReplacesThePortBinding) {
  take(onHost("p", "h", levels("'0': 'v10'")));
  EXPECT_THAT(
      take(inRegion("'port': {'p': {'vlanType': 1}}")),
      ElementsAre("-portBinding R p", "-port R p", "|", "|", "+port R p 1", "+portBinding R p",
                  "+binding R p host:h", "+level R p host:h 0 v10", "|", "|"));
  EXPECT_THAT(take(inRegion("'port': {'p': {'vlanType': 1}, 'q': {'vlanType': null}}")),
              ElementsAre("|", "|", "|", "|"));
  EXPECT_THAT(take(inRegion("'port': {'p': null}, 'portBinding': {'p': null}")),
              ElementsAre("-portBinding R p", "-port R p", "|", "|", "|", "|"));
  EXPECT_THAT(take(inRegion("'port': {'q': {'vlanType': 2}}, 'portBinding': {'q': {}}")),
              ElementsAre("-port R q", "|", "|", "+port R q 2", "+portBinding R q", "|", "|"));
}

TEST_F(Planning, AChangedHostBehindASwitchInterfaceReplacesThatBinding) {
  take(onSwitch("p", "e1", behind("b", "'0': 'v10'")));
  take(onSwitch("p", "e2", behind("b")));
  EXPECT_THAT(take(onSwitch("p", "e1", "{'host': 'c'}")),
              ElementsAre("-binding R p switch:leaf:e1", "|", "|", "+binding R p switch:leaf:e1 c",
                          "+level R p switch:leaf:e1 0 v10", "|", "|"));
  EXPECT_THAT(take(onSwitch("p", "e1", "{'host': 'c'}")), ElementsAre("|", "|", "|", "|"));
}

// The toggle.

class PlanningWithToggleOff : public Planning {
 protected:
  PlanningWithToggleOff() : Planning(false) {}
  void twoInterfaces() {
    take(onSwitch("p", "e1", behind("b", "'0': 'v10'")));
    take(onSwitch("p", "e2", behind("c")));
  }
};

TEST_F(PlanningWithToggleOff, RemovingOneOfTwoSwitchInterfaceBindingsReplacesThePortBinding) {
  twoInterfaces();
  EXPECT_THAT(
      take(onSwitch("p", "e2", "null")),
      ElementsAre("-portBinding R p", "|", "|", "+portBinding R p", "+binding R p switch:leaf:e1 b",
                  "+level R p switch:leaf:e1 0 v10", "|", "|"));
  EXPECT_THAT(take(onSwitch("p", "e1", "null")),
              ElementsAre("-binding R p switch:leaf:e1", "|", "|", "|", "|"));
}

TEST_F(PlanningWithToggleOff, ReplacingOneOfTwoReplacesThePortBindingToo) {
  twoInterfaces();
  EXPECT_THAT(take(Plan::kRemovals, onSwitch("p", "e2", "{'host': 'd'}")),
              ElementsAre("-portBinding R p"));
  take(onSwitch("p", "e1", levels("'0': 'x5', '1': 'v10'")));
  EXPECT_THAT(take(Plan::kRemovals, onSwitch("p", "e1", levels("'0': null"))),
              ElementsAre("-portBinding R p"));
}

TEST_F(PlanningWithToggleOff, ReplacingBothReplacesThePortBindingToo) {
  twoInterfaces();
  EXPECT_THAT(take(Plan::kRemovals,
                   inRegion("'portBinding': {'p': {'portToSwitchInterfaceBinding': {'leaf': "
                            "{'e1': {'host': 'x'}, 'e2': {'host': 'y'}}}}}")),
              ElementsAre("-portBinding R p"));
}

TEST_F(PlanningWithToggleOff, TheOnlySwitchInterfaceBindingIsReplacedAlone) {
  take(onSwitch("p", "e1", behind("b")));
  EXPECT_THAT(take(onSwitch("p", "e1", "{'host': 'c'}")),
              ElementsAre("-binding R p switch:leaf:e1", "|", "|", "+binding R p switch:leaf:e1 c",
                          "|", "|"));
  // Another one that comes was not there before.
  EXPECT_THAT(take(inRegion("'portBinding': {'p': {'portToSwitchInterfaceBinding': {'leaf': "
                            "{'e1': null, 'e2': {'host': 'c'}}}}}")),
              ElementsAre("-binding R p switch:leaf:e1", "|", "|", "+binding R p switch:leaf:e2 c",
                          "|", "|"));
}

TEST_F(PlanningWithToggleOff, RemovingALevelKeepsTheBinding) {
  twoInterfaces();
  EXPECT_THAT(take(onSwitch("p", "e1", levels("'0': null"))),
              ElementsAre("-level R p switch:leaf:e1 0", "|", "|", "|", "|"));
}

TEST_F(PlanningWithToggleOff, HostBindingsAreRemovedAlone) {
  take(onHost("p", "h", "{}"));
  take(onHost("p", "i", "{}"));
  EXPECT_THAT(take(onHost("p", "i", "null")),
              ElementsAre("-binding R p host:i", "|", "|", "|", "|"));
}

TEST_F(Planning, WithTheToggleOnOneOfTwoSwitchInterfaceBindingsIsRemovedAlone) {
  take(onSwitch("p", "e1", behind("b")));
  take(onSwitch("p", "e2", behind("c")));
  EXPECT_THAT(take(onSwitch("p", "e2", "null")),
              ElementsAre("-binding R p switch:leaf:e2", "|", "|", "|", "|"));
}

}  // namespace
}  // namespace vnagent
