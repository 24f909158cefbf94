// Every rule of the cloud document: an input that breaks just it, and one that just keeps it.
#include <fmt/format.h>

#include "tests/agent/document_support.h"

namespace vnagent {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;

class Rules : public DocumentTest {
 protected:
  // A region with two VLAN segments, a VXLAN one and three ports.
  void world(std::string_view name = "R") {
    take(fmt::format(R"({{'region': {{'{0}': {{
      'segment': {{'{0}v10': {{'segmentationType': 'vlan', 'segmentationId': 10}},
                   '{0}v11': {{'segmentationType': 'vlan', 'segmentationId': 11}},
                   '{0}x5': {{'segmentationType': 'vxlan', 'segmentationId': 5}}}},
      'port': {{'{0}p': {{}}, '{0}q': {{}}, '{0}r': {{'vlanType': 1}}}}}}}}}})",
                     name));
  }

  // Refused with exactly one fault, which begins like this.
  void refusedAt(std::string_view patch, std::string_view start) {
    EXPECT_THAT(refuse(patch), ElementsAre(StartsWith(std::string(start)))) << patch;
  }
};

// Port bindings and their ports.

TEST_F(Rules, APortBindingNeedsAPortOfItsRegion) {
  world();
  EXPECT_THAT(refuse("{'region': {'R': {'portBinding': {'p9': {}}}}}"),
              ElementsAre("/region/R/portBinding/p9: no port \"p9\" in region \"R\""));
  take("{'region': {'R': {'port': {'p9': {}}, 'portBinding': {'p9': {}}}}}");
}

TEST_F(Rules, APortOfAnotherRegionIsNotEnoughForABinding) {
  world("A");
  world("B");
  refusedAt("{'region': {'A': {'portBinding': {'Bp': {}}}}}", "/region/A/portBinding/Bp: no port");
}

TEST_F(Rules, APortCannotBeRemovedWhileItIsBound) {
  world();
  take("{'region': {'R': {'portBinding': {'Rp': {}}}}}");
  refusedAt("{'region': {'R': {'port': {'Rp': null}}}}", "/region/R/portBinding/Rp: no port");
  refusedAt("{'region': {'R': {'port': null}}}", "/region/R/portBinding/Rp: no port");
  take("{'region': {'R': {'port': {'Rp': null}, 'portBinding': {'Rp': null}}}}");
}

// Levels and their segments.

TEST_F(Rules, ALevelNeedsASegmentOfItsRegion) {
  world();
  refusedAt(
      "{'region': {'R': {'portBinding': {'Rp': {'portToHostBinding': {'h': {'segment': {'0': "
      "'s'}}}}}}}}",
      "/region/R/portBinding/Rp/portToHostBinding/h/segment/0: no segment \"s\" in region \"R\"");
  refusedAt(
      "{'region': {'R': {'portBinding': {'Rp': {'portToSwitchInterfaceBinding': "
      "{'l/1': {'e~2': {'host': 'h', 'segment': {'7': 's'}}}}}}}}}",
      "/region/R/portBinding/Rp/portToSwitchInterfaceBinding/l~11/e~02/segment/7: no segment");
}

TEST_F(Rules, ASegmentOfAnotherRegionIsNotEnoughForALevel) {
  world("A");
  world("B");
  refusedAt(
      "{'region': {'A': {'portBinding': {'Ap': {'portToHostBinding': {'h': {'segment': {'0': "
      "'Bv10'}}}}}}}}",
      "/region/A/portBinding/Ap/portToHostBinding/h/segment/0: no segment");
}

TEST_F(Rules, ASegmentCannotBeRemovedWhileALevelNamesIt) {
  world();
  take(
      "{'region': {'R': {'portBinding': {'Rp': {'portToHostBinding': {'h': {'segment': {'3': "
      "'Rv10'}}}}}}}}");
  const auto place = "/region/R/portBinding/Rp/portToHostBinding/h/segment/3: no segment \"Rv10\"";
  refusedAt("{'region': {'R': {'segment': {'Rv10': null}}}}", place);
  refusedAt("{'region': {'R': {'segment': null}}}", place);
  take(
      "{'region': {'R': {'segment': {'Rv10': null}, "
      "'portBinding': {'Rp': {'portToHostBinding': {'h': {'segment': {'3': 'Rv11'}}}}}}}}");
  take("{'region': {'R': {'segment': null, 'portBinding': {'Rp': null}}}}");
}

// Kinds of bindings.

constexpr std::string_view kHostAndSwitch =
    "{'region': {'R': {'portBinding': {'Rp': {'portToHostBinding': {'h': {}}, "
    "'portToSwitchInterfaceBinding': {'l': {'e': {'host': 'b'}}}}}}}}";

TEST_F(Rules, APortIsBoundToHostsOrToSwitchInterfacesNotBoth) {
  world();
  refusedAt(kHostAndSwitch, "/region/R/portBinding/Rp: port \"Rp\" has host bindings");
  take("{'region': {'R': {'portBinding': {'Rp': {'portToHostBinding': {'h': {}}}}}}}");
  refusedAt(kHostAndSwitch, "/region/R/portBinding/Rp: ");
  take(
      "{'region': {'R': {'portBinding': {'Rp': {'portToHostBinding': null, "
      "'portToSwitchInterfaceBinding': {'l': {'e': {'host': 'b'}}}}}}}}");
  take(
      "{'region': {'R': {'portBinding': {'Rp': {'portToHostBinding': {'h': {}}, "
      "'portToSwitchInterfaceBinding': {'l': {'e': null}}}}}}}");
  take("{'region': {'R': {'portBinding': {'Rp': {'portToSwitchInterfaceBinding': {'l': {}}}}}}}");
}

// Hosts and regions.

TEST_F(Rules, AHostIsInTheHostBindingsOfOneRegion) {
  world("A");
  world("B");
  take("{'region': {'A': {'portBinding': {'Ap': {'portToHostBinding': {'h': {}}}}}}}");
  take("{'region': {'A': {'portBinding': {'Aq': {'portToHostBinding': {'h': {}}}}}}}");
  const auto other = "{'region': {'B': {'portBinding': {'Bp': {'portToHostBinding': {'h': {}}}}}}}";
  EXPECT_THAT(refuse(other),
              ElementsAre(AllOf(StartsWith("/region/B/portBinding/Bp/portToHostBinding/h: "),
                                HasSubstr("region \"A\""))));
  take("{'region': {'A': {'portBinding': {'Ap': null}}}}");
  refuse(other);
  take("{'region': {'A': {'portBinding': {'Aq': {'portToHostBinding': null}}}}}");
  take(other);
}

TEST_F(Rules, AHostMovesFromRegionToRegionInOnePatch) {
  world("A");
  world("B");
  take("{'region': {'A': {'portBinding': {'Ap': {'portToHostBinding': {'h': {}}}}}}}");
  take(
      "{'region': {'A': {'portBinding': {'Ap': {'portToHostBinding': {'h': null}}}}, "
      "'B': {'portBinding': {'Bp': {'portToHostBinding': {'h': {}}}}}}}");
  take("{'region': {'B': null, 'A': {'portBinding': {'Ap': {'portToHostBinding': {'h': {}}}}}}}");
}

TEST_F(Rules, AHostIsBehindTheSwitchInterfacesOfOneRegion) {
  world("A");
  world("B");
  take(
      "{'region': {'A': {'portBinding': {'Ap': {'portToSwitchInterfaceBinding': {'l': {'e1': "
      "{'host': 'h'}}}}}}}}");
  refusedAt(
      "{'region': {'B': {'portBinding': {'Bp': {'portToSwitchInterfaceBinding': {'l': {'e2': "
      "{'host': 'h'}}}}}}}}",
      "/region/B/portBinding/Bp/portToSwitchInterfaceBinding/l/e2: host \"h\" is behind");
  take(
      "{'region': {'A': {'portBinding': {'Ap': {'portToSwitchInterfaceBinding': {'l': {'e1': "
      "{'host': 'g'}}}}}}}}");
  take(
      "{'region': {'B': {'portBinding': {'Bp': {'portToSwitchInterfaceBinding': {'l': {'e2': "
      "{'host': 'h'}}}}}}}}");
}

TEST_F(Rules, AHostMayBeBoundInOneRegionAndBehindASwitchInAnother) {
  world("A");
  world("B");
  take("{'region': {'A': {'portBinding': {'Ap': {'portToHostBinding': {'h': {}}}}}}}");
  take(
      "{'region': {'B': {'portBinding': {'Bp': {'portToSwitchInterfaceBinding': {'l': {'e': "
      "{'host': 'h'}}}}}}}}");
}

TEST_F(Rules, APortIdIsInOneRegion) {
  world("A");
  world("B");
  EXPECT_THAT(refuse("{'region': {'B': {'port': {'Ap': {}}}}}"),
              ElementsAre(AllOf(StartsWith("/region/B/port/Ap: "), HasSubstr("region \"A\""))));
  take("{'region': {'A': {'port': {'Ap': null}}, 'B': {'port': {'Ap': {}}}}}");
  take("{'region': {'A': {'port': {'Ap': {}}}, 'B': {'port': {'Ap': null}}}}");
  refusedAt("{'region': {'C': {'port': {'Ap': {}}}}}", "/region/C/port/Ap: ");
  take("{'region': {'A': null, 'C': {'port': {'Ap': {}}}}}");
}

// Segments of one binding.

TEST_F(Rules, ASegmentIsAtOneLevelOfABinding) {
  world();
  refusedAt(
      "{'region': {'R': {'portBinding': {'Rp': {'portToHostBinding': "
      "{'h': {'segment': {'0': 'Rx5', '1': 'Rx5'}}}}}}}}",
      "/region/R/portBinding/Rp/portToHostBinding/h/segment/1: segment \"Rx5\"");
  take(
      "{'region': {'R': {'portBinding': {'Rp': {'portToHostBinding': "
      "{'h': {'segment': {'0': 'Rx5'}}, 'g': {'segment': {'1': 'Rx5'}}}}}}}}");
  refusedAt(
      "{'region': {'R': {'portBinding': {'Rp': {'portToHostBinding': {'h': {'segment': {'9': "
      "'Rx5'}}}}}}}}",
      "/region/R/portBinding/Rp/portToHostBinding/h/segment/9: ");
  take(
      "{'region': {'R': {'portBinding': {'Rp': {'portToHostBinding': {'h': {'segment': {'0': null, "
      "'9': 'Rx5'}}}}}}}}");
}

TEST_F(Rules, TheVlansOfABindingDiffer) {
  world();
  take("{'region': {'R': {'segment': {'twin': {'segmentationType': 0, 'segmentationId': 10}}}}}");
  const auto both =
      "{'region': {'R': {'portBinding': {'Rp': {'portToHostBinding': "
      "{'h': {'segment': {'0': 'Rv10', '1': 'twin'}}}}}}}}";
  refusedAt(both, "/region/R/portBinding/Rp/portToHostBinding/h/segment/1: segment \"twin\" has");
  take("{'region': {'R': {'segment': {'twin': {'segmentationId': 12}}}}}");
  take(both);
  // The id of a segment, and the type, count as they are after the patch.
  refusedAt("{'region': {'R': {'segment': {'twin': {'segmentationId': 10}}}}}",
            "/region/R/portBinding/Rp/portToHostBinding/h/segment/1: ");
  take(
      "{'region': {'R': {'segment': {'twin': {'segmentationId': 10}, 'Rv10': {'segmentationId': "
      "12}}}}}");
  take(
      "{'region': {'R': {'segment': {'twin': {'segmentationId': 12, 'segmentationType': "
      "'vxlan'}}}}}");
  refusedAt("{'region': {'R': {'segment': {'twin': {'segmentationType': 'vlan'}}}}}",
            "/region/R/portBinding/Rp/portToHostBinding/h/segment/1: ");
}

TEST_F(Rules, TwoVxlansOfABindingMayBeAlike) {
  world();
  take(
      "{'region': {'R': {'segment': {'twin': {'segmentationType': 1, 'segmentationId': 5}}, "
      "'portBinding': {'Rp': {'portToHostBinding': {'h': {'segment': {'0': 'Rx5', '1': "
      "'twin'}}}}}}}}");
}

// Members.

TEST_F(Rules, NothingIsAMemberThatIsNotListed) {
  world();
  take(
      "{'region': {'R': {'portBinding': {'Rp': {'portToHostBinding': {'h': {}}}, "
      "'Rq': {'portToSwitchInterfaceBinding': {'l': {'e': {'host': 'b'}}}}}}}}");
  const std::vector<std::pair<std::string, std::string>> inputs{
      {"{'x': 1}", "/x: "},
      {"{'config': {'x': 1}}", "/config/x: "},
      {"{'config': {'vlanAssignment': {'R': {'x': 1}}}}", "/config/vlanAssignment/R/x: "},
      {"{'config': {'credentials': {'c': {'x': 1}}}}", "/config/credentials/c/x: "},
      {"{'region': {'R': {'x': 1}}}", "/region/R/x: "},
      {"{'region': {'R': {'segment': {'Rv10': {'x': 1}}}}}", "/region/R/segment/Rv10/x: "},
      {"{'region': {'R': {'port': {'Rp': {'x': 1}}}}}", "/region/R/port/Rp/x: "},
      {"{'region': {'R': {'network': {'n': {'x': 1}}}}}", "/region/R/network/n/x: "},
      {"{'region': {'R': {'portBinding': {'Rp': {'x': 1}}}}}", "/region/R/portBinding/Rp/x: "},
      {"{'region': {'R': {'portBinding': {'Rp': {'portToHostBinding': {'h': {'host': 'h'}}}}}}}",
       "/region/R/portBinding/Rp/portToHostBinding/h/host: "},
      {"{'region': {'R': {'portBinding': {'Rq': {'portToSwitchInterfaceBinding': {'l': {'e': "
       "{'x': 1}}}}}}}}",
       "/region/R/portBinding/Rq/portToSwitchInterfaceBinding/l/e/x: "}};
  for (const auto& [patch, start] : inputs) {
    refusedAt(patch, start);
    // To remove what is not there is no fault.
    std::string removal = patch;
    if (const auto at = removal.find("'x': 1"); at != removal.npos) {
      take(removal.replace(at, 6, "'x': null"));
    }
  }
}

TEST_F(Rules, AKeyIsNotRepeated) {
  EXPECT_THAT(refuse("{'region': {'R': {}, 'R': {}}}"),
              ElementsAre("/region/R: the key \"R\" is repeated in its object"));
  EXPECT_THAT(refuse("{'config': {}, 'config': {}, 'x': [{'a/b': 1, 'a/b': 1}]}"),
              ElementsAre(StartsWith("/config: the key"), StartsWith("/x: "),
                          StartsWith("/x/0/a~1b: the key")));
}

// Many at once.

TEST_F(Rules, EveryFaultOfADocumentIsFound) {
  EXPECT_THAT(
      refuse(
          "{'config': {'vlanTypeDriver': -1}, 'region': {'R': {'port': {'p': {'vlanType': 256}}, "
          "'portBinding': {'p': {}, 'q': {}}, 'segment': {'s': {}}}}}"),
      ElementsAre(StartsWith("/config/vlanTypeDriver: "), StartsWith("/region/R/port/p/vlanType: "),
                  StartsWith("/region/R/portBinding/q: "),
                  StartsWith("/region/R/segment/s: a segment must have a segmentationType"),
                  StartsWith("/region/R/segment/s: a segment must have a segmentationId")));
}

TEST_F(Rules, ARefusedPatchLeavesNothingBehind) {
  world("A");
  world("B");
  take(
      "{'config': {'vlanTypeDriver': 1, 'credentials': {'c': {}}, 'serviceAclTypeVrfMap': {'a': "
      "'v', 'b': 'w'}, "
      "'vlanAssignment': {'A': {'vlan': {'1': true, '2': false}}, 'B': {}}}, "
      "'region': {'A': {'network': {'n': {}, 'm': {}}, 'portBinding': {"
      "'Ap': {'portToHostBinding': {'h': {'segment': {'0': 'Ax5', '1': 'Av10'}}, 'i': {}}}, "
      "'Aq': {'portToSwitchInterfaceBinding': {'l': {'e': {'host': 'b', 'segment': {'0': 'Av11'}}, "
      "'f': {'host': 'b'}}}}}}}}");
  refuse(
      "{'config': null, 'region': {'A': null, 'C': {'port': {'z': {}}, 'portBinding': {'z': {}}}, "
      "'B': {'port': {'Bp': null, 'n': {}}, 'segment': {'Bv10': null, 'n': {'segmentationType': 2, "
      "'segmentationId': 0}}, 'portBinding': {'n': {'portToHostBinding': {'k': {'segment': "
      "{'0': 'ghost'}}}}}}}}");
  refuse(
      "{'config': {'vlanTypeDriver': 2, 'credentials': {'c': null, 'd': {}}, "
      "'serviceAclTypeVrfMap': {'a': 'x', 'b': null, 'c': 'y'}, "
      "'vlanAssignment': {'A': {'vlan': {'1': null, '2': true, '3': true}}, 'B': null, 'C': {}}}, "
      "'region': {'A': {'network': {'n': null, 'o': {}}, 'port': {'Ap': {'vlanType': 4}, 'Aq': "
      "{'vlanType': 3}}, "
      "'segment': {'Av10': {'segmentationId': 99}, 'Av11': null}, 'portBinding': {"
      "'Ap': {'portToHostBinding': {'h': {'segment': {'0': null, '2': 'Av11'}}, 'i': null, 'j': "
      "{}}}, "
      "'Aq': {'portToSwitchInterfaceBinding': {'l': {'e': {'host': 'c'}, 'f': null, 'g': {'host': "
      "'d'}}}}}}}}");
  refuse("{'region': {'A': {'portBinding': null, 'port': null, 'segment': null, 'x': 0}}}");
}

}  // namespace
}  // namespace vnagent
