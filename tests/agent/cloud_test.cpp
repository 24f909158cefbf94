// The live cloud: operations reach the entities, and the machines answer.
#include "agent/cloud/cloud.h"

#include "agent/output/output_json.h"
#include "tests/agent/document_support.h"

namespace vnagent {
namespace {

using ::testing::HasSubstr;

class LiveCloud : public DocumentTest {
 protected:
  void patch(std::string_view text) { cloud_.apply(planOf(text)); }

  std::string shown() const {
    std::string text;
    JsonWriter writer(text, JsonWriter::Style::kOneLine);
    writeOutput(cloud_.output(), writer);
    return text;
  }

  Cloud cloud_{{.toggle = true, .regionSyncTimeout = 60}};
};

TEST_F(LiveCloud, StartsEmpty) {
  EXPECT_EQ(shown(), R"({"regionStatus": {}, "requestedResources": {"resourcesForHostname": {}, )"
                     R"("resourcesForSwitchport": {}}, "networkElement": {}})");
  EXPECT_EQ(cloud_.time(), 0);
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

TEST_F(LiveCloud, AWholeDocumentIsPublished) {
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

TEST_F(LiveCloud, AllWithdrawnIsEmptyButForTheHostsKnown) {
  patch(kCloud);
  patch("{'config': null, 'region': null}");
  EXPECT_EQ(shown(),
            R"({"regionStatus": {}, "requestedResources": {"resourcesForHostname": {"h": )"
            R"({"domain": {}, "vlan": {}}}, "resourcesForSwitchport": {}}, "networkElement": {}})");
}

TEST_F(LiveCloud, EveryPartCanBeTakenOutAndPutBack) {
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

TEST_F(LiveCloud, TimersFireAtTheirOwnTimeAndOnlyInAdvance) {
  patch(kCloud);
  cloud_.advance(29.5);
  EXPECT_THAT(shown(), HasSubstr(R"("owner": "driver")"));
  cloud_.advance(0.5);
  EXPECT_THAT(shown(), HasSubstr(R"("syncStatus": "syncTimedOut", "oldSyncStatus": )"
                                 R"("syncInProgress", "owner": "", "requestId": "")"));
  EXPECT_EQ(cloud_.time(), 30);
  cloud_.advance(1e9);
  EXPECT_EQ(cloud_.time(), 1000000030);
}

TEST_F(LiveCloud, ATimeoutFromOutsideHoldsUntilTheDocumentsChanges) {
  patch(kCloud);
  cloud_.regionSyncTimeoutIs(5);
  patch("{'region': {'R': {'syncHeartbeat': 2}}}");
  cloud_.advance(5);
  EXPECT_THAT(shown(), HasSubstr("syncTimedOut"));
  patch("{'config': {'regionSyncTimeout': 50}, 'region': {'R': {'syncStatus': 'syncInProgress'}}}");
  cloud_.advance(49);
  EXPECT_THAT(shown(), HasSubstr(R"("syncStatus": "syncInProgress")"));
  cloud_.advance(1);
  EXPECT_THAT(shown(), HasSubstr(R"("syncStatus": "syncTimedOut")"));
}

}  // namespace
}  // namespace vnagent
