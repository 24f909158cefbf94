// What each member of a cloud document may hold: values that just fit and values that just don't.
#include <fmt/format.h>

#include "tests/agent/document_support.h"

namespace vnagent {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;

class Values : public DocumentTest {
 protected:
  Values() { take("{'region': {'R': {}}}"); }

  void good(std::string_view pattern, const std::vector<std::string>& values) {
    for (const auto& value : values) take(fmt::format(fmt::runtime(pattern), value));
  }
  void bad(std::string_view pattern, const std::vector<std::string>& values,
           const std::string& place) {
    for (const auto& value : values) {
      EXPECT_THAT(refuse(fmt::format(fmt::runtime(pattern), value)),
                  ElementsAre(StartsWith(place + ": ")))
          << value;
    }
  }
};

TEST_F(Values, IntegersHaveTheirRangesAndNoFraction) {
  for (const auto* name : {"vlanTypeDriver", "defaultVlanTypeDriver"}) {
    const auto pattern = fmt::format("{{{{'config': {{{{'{}': {{}}}}}}}}}}", name);
    good(pattern, {"0", "2147483647", "null"});
    bad(pattern, {"-1", "2147483648", "1.0", "1e2", "'1'", "true", "[]", "{}"},
        fmt::format("/config/{}", name));
  }
  constexpr std::string_view kPort =
      "{{'region': {{'R': {{'port': {{'p': {{'vlanType': {}}}}}}}}}}}";
  good(kPort, {"0", "255", "null"});
  bad(kPort, {"256", "-1", "0.0", "'native'"}, "/region/R/port/p/vlanType");
}

TEST_F(Values, OtherScalarsHaveTheirKinds) {
  const auto config = [](std::string_view name) {
    return fmt::format("{{{{'config': {{{{'{}': {{}}}}}}}}}}", name);
  };
  good(config("enabled"), {"true", "false", "null"});
  bad(config("enabled"), {"0", "'true'"}, "/config/enabled");
  for (const auto* name : {"gracePeriod", "defaultGracePeriod"}) {
    good(config(name), {"0", "0.25", "1e12"});
    bad(config(name), {"-0.5", "'1'"}, fmt::format("/config/{}", name));
  }
  for (const auto* name : {"regionSyncTimeout", "defaultRegionSyncTimeout"}) {
    good(config(name), {"1e-9", "1000000000", "null"});
    bad(config(name), {"0", "-1", "1000000000.5", "'60'"}, fmt::format("/config/{}", name));
  }
  for (const auto* name : {"agentMode", "defaultAgentMode", "authRole"}) {
    good(config(name), {"''", "'any'"});
    bad(config(name), {"1", "{}"}, fmt::format("/config/{}", name));
  }
}

TEST_F(Values, ARegionsScalarsHaveTheirKinds) {
  const auto region = [](std::string_view name) {
    return fmt::format("{{{{'region': {{{{'R': {{{{'{}': {{}}}}}}}}}}}}}}", name);
  };
  good(region("syncStatus"),
       {"'syncUnknown'", "'syncInProgress'", "'syncTimedOut'", "'syncComplete'", "null"});
  bad(region("syncStatus"), {"'synccomplete'", "1", "''"}, "/region/R/syncStatus");
  for (const auto* name : {"syncInterval", "syncHeartbeat"}) {
    good(region(name), {"-1.5", "1e300", "0"});
    bad(region(name), {"'1'", "true"}, fmt::format("/region/R/{}", name));
  }
  for (const auto* name : {"requester", "requestId"}) {
    good(region(name), {"''", "'a b'", "'" + std::string(255, 'x') + "'"});
    bad(region(name), {"'" + std::string(256, 'x') + "'", "'\\u0000'", "'\\u007f'", "7"},
        fmt::format("/region/R/{}", name));
  }
}

TEST_F(Values, ANumberTooLargeForAnyMachineIsRefusedInItsPlace) {
  EXPECT_THAT(refuse("{'region': {'R': {'syncInterval': 1e999}}}"),
              ElementsAre(StartsWith("/region/R/syncInterval: ")));
}

TEST_F(Values, NamesHaveOneTo255BytesAndNoControlCharacters) {
  const std::string longest(255, 'x');
  const std::vector<std::string> right{"a", "a/b", "\xc3\xa4 \xe2\x82\xac", longest};
  const std::vector<std::string> wrong{"", longest + "x", "a\\u001fb", "\\u007f", "\\n"};
  const std::vector<std::string> patterns{
      "{{'region': {{'{}': {{}}}}}}",
      "{{'region': {{'R': {{'segment': {{'{}': {{'segmentationType': 2, 'segmentationId': "
      "0}}}}}}}}}}",
      "{{'region': {{'R': {{'network': {{'{}': {{}}}}}}}}}}",
      "{{'config': {{'vlanAssignment': {{'{}': {{}}}}}}}}",
      "{{'config': {{'credentials': {{'{}': {{}}}}}}}}",
      "{{'config': {{'serviceAclTypeVrfMap': {{'{}': 'v'}}}}}}",
      "{{'region': {{'R': {{'port': {{'p': {{}}}}, 'portBinding': {{'p': {{'portToHostBinding': "
      "{{'{}': {{}}}}}}}}}}}}}}"};
  for (const auto& pattern : patterns) {
    good(pattern, right);
    take("{'region': {'R': {'portBinding': null}}}");
    for (const auto& name : wrong) {
      EXPECT_THAT(refuse(fmt::format(fmt::runtime(pattern), name)),
                  ElementsAre(HasSubstr("is no name")))
          << name;
    }
  }
}

TEST_F(Values, BothPartsOfASwitchInterfaceMayBeEmptyButNotItsHost) {
  constexpr std::string_view kBinding =
      "{{'region': {{'R': {{'port': {{'p': {{}}}}, 'portBinding': {{'p': "
      "{{'portToSwitchInterfaceBinding': {{{}}}}}}}}}}}}}";
  good(kBinding, {"'': {'': {'host': 'h'}}", "'leaf': {'': {'host': 'h'}}"});
  const std::string place = "/region/R/portBinding/p/portToSwitchInterfaceBinding";
  bad(kBinding, {"'l': {'e': {'host': ''}}", "'l': {'e': {'host': 7}}"}, place + "/l/e/host");
  bad(kBinding, {"'l': {'e': {}}", "'l': {'e': {'host': null}}"}, place + "/l/e");
  bad(kBinding, {"'l': {'e\\u0001': {'host': 'h'}}"}, place + "/l/e\x01");
  take(fmt::format(fmt::runtime(kBinding), "'l': {'e': {'host': 'h'}}"));
  bad(kBinding, {"'l': {'e': {'host': null}}"}, place + "/l/e");
}

TEST_F(Values, ASegmentsIdFitsItsType) {
  constexpr std::string_view kSegment = "{{'region': {{'R': {{'segment': {{'s': {{{}}}}}}}}}}}";
  const auto of = [](std::string_view type, std::string_view id) {
    return fmt::format("'segmentationType': {}, 'segmentationId': {}", type, id);
  };
  good(kSegment, {of("'vlan'", "1"), of("0", "4094"), of("'vxlan'", "1"), of("1", "16777215"),
                  of("2", "0"), of("255", "4294967295")});
  const std::string place = "/region/R/segment/s/segmentationId";
  bad(kSegment,
      {of("'vlan'", "0"), of("'vlan'", "4095"), of("0", "-1"), of("'vxlan'", "0"),
       of("'vxlan'", "16777216"), of("2", "4294967296"), of("2", "-1"), of("0", "1.0"),
       of("0", "'1'"), of("7", "18446744073709551616")},
      place);
  bad(kSegment, {of("'gre'", "1"), of("256", "1"), of("-1", "1"), of("1.0", "1"), of("true", "1")},
      "/region/R/segment/s/segmentationType");
}

TEST_F(Values, ASegmentsIdMustFitATypeThatChangesAlone) {
  constexpr std::string_view kType =
      "{{'region': {{'R': {{'segment': {{'s': {{'segmentationType': {}}}}}}}}}}}";
  take(
      "{'region': {'R': {'segment': {'s': {'segmentationType': 'vxlan', 'segmentationId': "
      "4095}}}}}");
  EXPECT_THAT(refuse(fmt::format(kType, "'vlan'")),
              ElementsAre("/region/R/segment/s/segmentationId: 4095 is not an id of a vlan segment "
                          "(1 to 4094)"));
  take(fmt::format(kType, "9"));
  take("{'region': {'R': {'segment': {'s': {'segmentationId': 0}}}}}");
  refuse(fmt::format(kType, "'vxlan'"));
  take("{'region': {'R': {'segment': {'s': {'segmentationId': 1}}}}}");
  take(fmt::format(kType, "'vlan'"));
}

TEST_F(Values, ASegmentNeedsItsTypeAndItsId) {
  constexpr std::string_view kSegment = "{{'region': {{'R': {{'segment': {{'s': {{{}}}}}}}}}}}";
  const std::vector<std::string> missing{"'segmentationType': 0", "'segmentationId': 1",
                                         "'segmentationType': null, 'segmentationId': 1",
                                         "'segmentationType': 0, 'segmentationId': null"};
  bad(kSegment, missing, "/region/R/segment/s");
  take(fmt::format(fmt::runtime(kSegment), "'segmentationType': 0, 'segmentationId': 1"));
  bad(kSegment, {"'segmentationType': null", "'segmentationId': null"}, "/region/R/segment/s");
}

TEST_F(Values, VlanIdsAndLevelsAreInPlainDecimal) {
  constexpr std::string_view kVlan =
      "{{'config': {{'vlanAssignment': {{'R': {{'vlan': {{'{}': true}}}}}}}}}}";
  good(kVlan, {"1", "4094"});
  for (const auto* key : {"0", "4095", "01", "+1", "-1", "1.0", "", " 1", "x", "99999999999"}) {
    EXPECT_THAT(refuse(fmt::format(kVlan, key)), ElementsAre(HasSubstr("is not a VLAN id"))) << key;
  }
  take(
      "{'region': {'R': {'port': {'p': {}}, 'segment': {'s': {'segmentationType': 2, "
      "'segmentationId': 0}}}}}");
  constexpr std::string_view kLevel =
      "{{'region': {{'R': {{'portBinding': {{'p': {{'portToHostBinding': {{'h': {{'segment': "
      "{{'{}': 's'}}}}}}}}}}}}}}}}";
  for (const auto* key : {"256", "00", "007", "-0", "1e1", ""}) {
    EXPECT_THAT(refuse(fmt::format(kLevel, key)), ElementsAre(HasSubstr("is not a level"))) << key;
  }
  take(fmt::format(kLevel, "0"));
  take("{'region': {'R': {'portBinding': null}}}");
  take(fmt::format(kLevel, "255"));
}

TEST_F(Values, AnEntryOfAnAssignmentIsTrueOrFalse) {
  constexpr std::string_view kVlan =
      "{{'config': {{'vlanAssignment': {{'R': {{'vlan': {{'7': {}}}}}}}}}}}";
  good(kVlan, {"true", "false", "null"});
  bad(kVlan, {"1", "'true'", "{}"}, "/config/vlanAssignment/R/vlan/7");
}

TEST_F(Values, WhatShouldBeAnObjectIsOne) {
  take("{'region': {'R': {'port': {'p': {}}, 'portBinding': {'p': {}}}}}");
  const std::vector<std::pair<std::string, std::string>> inputs{
      {"{'config': 5}", "/config"},
      {"{'config': {'vlanAssignment': []}}", "/config/vlanAssignment"},
      {"{'config': {'vlanAssignment': {'R': true}}}", "/config/vlanAssignment/R"},
      {"{'config': {'vlanAssignment': {'R': {'vlan': [5]}}}}", "/config/vlanAssignment/R/vlan"},
      {"{'config': {'credentials': {'c': 'x'}}}", "/config/credentials/c"},
      {"{'config': {'serviceAclTypeVrfMap': 'x'}}", "/config/serviceAclTypeVrfMap"},
      {"{'config': {'serviceAclTypeVrfMap': {'k': 1}}}", "/config/serviceAclTypeVrfMap/k"},
      {"{'region': []}", "/region"},
      {"{'region': {'R': 0}}", "/region/R"},
      {"{'region': {'R': {'segment': 's'}}}", "/region/R/segment"},
      {"{'region': {'R': {'segment': {'s': 's'}}}}", "/region/R/segment/s"},
      {"{'region': {'R': {'port': []}}}", "/region/R/port"},
      {"{'region': {'R': {'port': {'p': 5}}}}", "/region/R/port/p"},
      {"{'region': {'R': {'network': []}}}", "/region/R/network"},
      {"{'region': {'R': {'network': {'n': 1}}}}", "/region/R/network/n"},
      {"{'region': {'R': {'portBinding': 1}}}", "/region/R/portBinding"},
      {"{'region': {'R': {'portBinding': {'p': 1}}}}", "/region/R/portBinding/p"},
      {"{'region': {'R': {'portBinding': {'p': {'portToHostBinding': 1}}}}}",
       "/region/R/portBinding/p/portToHostBinding"},
      {"{'region': {'R': {'portBinding': {'p': {'portToHostBinding': {'h': 1}}}}}}",
       "/region/R/portBinding/p/portToHostBinding/h"},
      {"{'region': {'R': {'portBinding': {'p': {'portToHostBinding': {'h': {'segment': []}}}}}}}",
       "/region/R/portBinding/p/portToHostBinding/h/segment"},
      {"{'region': {'R': {'portBinding': {'p': {'portToHostBinding': {'h': {'segment': {'0': "
       "1}}}}}}}}",
       "/region/R/portBinding/p/portToHostBinding/h/segment/0"},
      {"{'region': {'R': {'portBinding': {'p': {'portToSwitchInterfaceBinding': {'l': 1}}}}}}",
       "/region/R/portBinding/p/portToSwitchInterfaceBinding/l"},
      {"{'region': {'R': {'portBinding': {'p': {'portToSwitchInterfaceBinding': {'l': {'e': "
       "1}}}}}}}",
       "/region/R/portBinding/p/portToSwitchInterfaceBinding/l/e"}};
  for (const auto& [patch, place] : inputs) {
    EXPECT_THAT(refuse(patch), ElementsAre(StartsWith(place + ": "))) << patch;
  }
  for (const auto* patch : {"null", "5", "[]", "'x'"}) {
    EXPECT_THAT(refuse(patch), ElementsAre(StartsWith(": "))) << patch;
  }
}

// Events.

Lines faultsOfEvent(std::string_view line) {
  const JsonTree tree = JsonTree::parse(line);
  Lines lines;
  for (const Fault& fault : readEvent(tree).faults) lines.push_back(fault.message());
  return lines;
}

TEST(Events, EachKindIsRead) {
  const JsonTree patch = JsonTree::parse(R"({"patch": {"config": {}}})");
  EXPECT_TRUE(std::holds_alternative<PatchEvent>(*readEvent(patch).event));
  const JsonTree advance = JsonTree::parse(R"({"advance": 12.5})");
  EXPECT_EQ(std::get<AdvanceEvent>(*readEvent(advance).event).seconds, 12.5);
  const JsonTree timeout = JsonTree::parse(R"({"regionSyncTimeout": 30})");
  EXPECT_EQ(std::get<RegionSyncTimeoutEvent>(*readEvent(timeout).event).seconds, 30);
}

TEST(Events, AnythingElseIsRefused) {
  const std::vector<std::pair<std::string, std::string>> inputs{
      {"{}", ": "},
      {"[]", ": "},
      {"7", ": "},
      {"nonsense", ": not JSON"},
      {R"({"patch": {}, "advance": 1})", ": "},
      {R"({"step": null})", "/step: "},
      {R"({"patch": null})", ": "},
      {R"({"patch": 5})", ": "},
      {R"({"Advance": 1})", "/Advance: "},
      {R"({"advance": -0.5})", "/advance: "},
      {R"({"advance": 1000000001})", "/advance: "},
      {R"({"advance": "1"})", "/advance: "},
      {R"({"advance": null})", "/advance: "},
      {R"({"advance": 1e999})", "/advance: "},
      {R"({"regionSyncTimeout": 0})", "/regionSyncTimeout: "},
      {R"({"regionSyncTimeout": 1000000001})", "/regionSyncTimeout: "},
      {R"({"patch": {"region": {"R": {"syncInterval": 1e999}}}})", "/region/R/syncInterval: "},
      {R"({"patch": {"region": {"R": {}, "R": {}}}})", "/region/R: "},
      {R"({"advance": 1, "advance": 1})", "/advance: "}};
  for (const auto& [line, start] : inputs) {
    EXPECT_THAT(faultsOfEvent(line), ElementsAre(StartsWith(start))) << line;
  }
  EXPECT_THAT(faultsOfEvent(R"({"advance": 0})"), ElementsAre());
  EXPECT_THAT(faultsOfEvent(R"({"advance": 1000000000})"), ElementsAre());
}

TEST(Events, EmptyLinesAndCommentsAreSkipped) {
  for (const auto* line : {"", "  ", "\r", "# {\"advance\": 1}", "#"}) EXPECT_TRUE(isSkipped(line));
  for (const auto* line : {"{}", " #", "x"}) EXPECT_FALSE(isSkipped(line));
}

}  // namespace
}  // namespace vnagent
