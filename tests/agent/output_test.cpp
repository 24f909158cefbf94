// What the agent shows: JSON, the tree, trace lines.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "agent/json/json_writer.h"
#include "agent/output/output_json.h"
#include "agent/output/trace_lines.h"
#include "agent/output/tree.h"

namespace vnagent {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

// A document with nothing in it, and one with a host.
OutputDocument nothing() {
  OutputDocument output;
  output.regionStatus.emplace();
  output.requestedResources.emplace();
  output.requestedResources->resourcesForHostname.emplace();
  output.requestedResources->resourcesForSwitchport.emplace();
  output.networkElement.emplace();
  return output;
}
OutputDocument withHost(HostOutput host) {
  OutputDocument output = nothing();
  output.requestedResources->resourcesForHostname->push_back(std::move(host));
  return output;
}

using Domains = std::vector<DomainOutput>;
using Vlans = std::vector<VlanOutput>;
using Vnis = std::vector<VniOutput>;
using Interfaces = std::vector<PhysicalInterfaceOutput>;

// A document with something of everything.
OutputDocument example() {
  OutputDocument output = withHost({"compute-1", Domains{{"RegionOne", Texts{"p1"}}},
                                    Vlans{{100, Texts{"p1"}, Vnis{{10001, Texts{"p1"}}}}}});
  output.regionStatus->push_back({"RegionOne", "syncInProgress", "syncUnknown", "driver-a", "req-1",
                                  "0b0e8a9c-2f4e-4b64-9d5f-3d9a6f2f5a11",
                                  VlanPoolOutput{VlanIds{100, 101}, VlanIds{101}, VlanIds{100}}});
  output.requestedResources->resourcesForSwitchport->push_back(
      {"leaf-1",
       {{"leaf-1", "Ethernet7", Vlans{{100, Texts{"p2"}, Vnis{}}}, 100, Texts{"bm-host-1"},
         Texts{"bm-p2"}},
        {"leaf-1", "Ethernet8", Vlans{}, 0, Texts{}, Texts{}}}});
  output.networkElement->push_back(
      {"leaf-1", "", Texts{"bm-p2"}, Domains{}, Vlans{},
       Interfaces{{"Ethernet7", Vlans{{100, Texts{"p2"}, Vnis{}}}, 100, Texts{"h"}}}});
  return output;
}

std::string json(const OutputDocument& output, JsonWriter::Style style) {
  std::string text;
  JsonWriter writer(text, style);
  writeOutput(output, writer);
  return text;
}

TEST(OutputJson, EveryMemberIsPrintedAlsoWhenEmpty) {
  EXPECT_EQ(json(nothing(), JsonWriter::Style::kOneLine),
            R"({"regionStatus": {}, "requestedResources": {"resourcesForHostname": {}, )"
            R"("resourcesForSwitchport": {}}, "networkElement": {}})");
}

TEST(OutputJson, OneLineHoldsAllOfIt) {
  EXPECT_EQ(
      json(example(), JsonWriter::Style::kOneLine),
      R"({"regionStatus": {"RegionOne": {"syncStatus": "syncInProgress", "oldSyncStatus": )"
      R"("syncUnknown", "owner": "driver-a", "requestId": "req-1", "vlanAssignmentUuid": )"
      R"("0b0e8a9c-2f4e-4b64-9d5f-3d9a6f2f5a11", "vlanPool": {"assignedVlan": [100, 101], )"
      R"("availableVlan": [101], "allocatedVlan": [100]}}}, "requestedResources": )"
      R"({"resourcesForHostname": {"compute-1": {"domain": {"RegionOne": ["p1"]}, "vlan": )"
      R"({"100": {"referrer": ["p1"], "mappedVni": {"10001": ["p1"]}}}}}, )"
      R"("resourcesForSwitchport": {"leaf-1": {"Ethernet7": {"vlan": {"100": {"referrer": )"
      R"(["p2"], "mappedVni": {}}}, "nativeVlan": 100, "remoteHost": ["bm-host-1"], "referrer": )"
      R"(["bm-p2"]}, "Ethernet8": {"vlan": {}, "nativeVlan": 0, "remoteHost": [], "referrer": )"
      R"([]}}}}, "networkElement": {"leaf-1": {"hostname": "", "referrer": ["bm-p2"], "domain": )"
      R"({}, "vlan": {}, "physicalInterface": {"Ethernet7": {"vlan": {"100": {"referrer": )"
      R"(["p2"], "mappedVni": {}}}, "nativeVlan": 100, "configuredElement": ["h"]}}}}})");
}

TEST(OutputJson, TheIndentedFormHasAMemberALine) {
  const auto output = withHost({"h", Domains{}, Vlans{{7, Texts{"p", "q"}, Vnis{}}}});
  EXPECT_EQ(json(output, JsonWriter::Style::kIndented), R"({
  "regionStatus": {},
  "requestedResources": {
    "resourcesForHostname": {
      "h": {
        "domain": {},
        "vlan": {
          "7": {
            "referrer": ["p", "q"],
            "mappedVni": {}
          }
        }
      }
    },
    "resourcesForSwitchport": {}
  },
  "networkElement": {}
})");
}

TEST(OutputJson, AChangeHoldsWhatHasAValueAndNullForWhatIsRemoved) {
  EXPECT_EQ(json({}, JsonWriter::Style::kOneLine), "{}");
  OutputDocument change;
  RegionOutput region;
  region.name = "R";
  region.owner = "";
  change.regionStatus = {region};
  VlanOutput removed;
  removed.vlan = 7;
  removed.removed = true;
  HostOutput host;
  host.host = "h";
  host.vlan = {removed};
  change.requestedResources.emplace();
  change.requestedResources->resourcesForHostname = {host};
  EXPECT_EQ(json(change, JsonWriter::Style::kOneLine),
            R"({"regionStatus": {"R": {"owner": ""}}, "requestedResources": )"
            R"({"resourcesForHostname": {"h": {"vlan": {"7": null}}}}})");
}

TEST(JsonText, StringsKeepTheirCharactersAndEscapeWhatMustBe) {
  std::string out;
  appendJsonString(out, "a\"b\\c\n\xc3\xa4");
  EXPECT_EQ(out, "\"a\\\"b\\\\c\\u000a\xc3\xa4\"");
}

TEST(JsonText, EveryByteOutsidePrintableAsciiIsEscapedByItself) {
  std::string out;
  appendJsonBytes(out, std::string_view("\x03 \"\\~\x7f\xc3\xa4\0", 9));
  EXPECT_EQ(out, R"("\u0003 \"\\~\u007f\u00c3\u00a4\u0000")");
}

TEST(JsonText, TimesAreWrittenInTheFewestDigits) {
  const auto written = [](double value) {
    std::string out;
    JsonWriter(out, JsonWriter::Style::kOneLine).number(value);
    return out;
  };
  EXPECT_EQ(written(0), "0");
  EXPECT_EQ(written(1e9), "1000000000");
  EXPECT_EQ(written(12.5), "12.5");
  EXPECT_EQ(written(0.1), "0.1");
}

TEST(JsonText, LongTextIsHandedOnInPieces) {
  std::string out;
  size_t drained = 0;
  JsonWriter writer(out, JsonWriter::Style::kOneLine);
  writer.drainIs([&](std::string& text) {
    drained += text.size();
    text.clear();
  });
  writer.open('{');
  for (uint64_t i = 0; i < 20000; ++i) writer.key(i).open('{').close('}');
  writer.close('}');
  EXPECT_GT(drained, 0U);
  EXPECT_LT(out.size(), 70000U);
}

// The tree.

std::string tree(const OutputDocument& output, bool colour = false) {
  std::string text;
  writeTree(output, colour, text);
  return text;
}

TEST(Tree, ShowsWhatEachHostAndSwitchMustProvideAndWhy) {
  EXPECT_EQ(tree(example()), R"(Hosts
  compute-1  in RegionOne (1 port)
    VLAN  100  VNI 10001  p1

Switches
  leaf-1
    Ethernet7  to bm-host-1  for bm-p2
      VLAN  100  native  p2
    Ethernet8  for nobody
      no VLANs

Network elements
  leaf-1  switch  for bm-p2
    Ethernet7  to h
      VLAN  100  native  p2

Regions
  RegionOne
    sync        syncInProgress (before: syncUnknown)
    lock        driver-a (request req-1)
    assigned    100-101
    available   101
    allocated   100
    assignment  0b0e8a9c-2f4e-4b64-9d5f-3d9a6f2f5a11

1 region, 1 host, 2 switch interfaces, 1 network element, 3 VLANs, 1 VNI mapping
)");
}

TEST(Tree, OfNothingIsALineOfCounts) {
  EXPECT_EQ(
      tree(nothing()),
      "0 regions, 0 hosts, 0 switch interfaces, 0 network elements, 0 VLANs, 0 VNI mappings\n");
}

TEST(Tree, VnisWithOtherReferrersThanTheVlanHaveTheirOwnLines) {
  const auto output = withHost(
      {"h", Domains{}, Vlans{{7, Texts{"p", "q"}, Vnis{{5, Texts{"p"}}, {66, Texts{"q"}}}}}});
  EXPECT_THAT(tree(output), HasSubstr("    VLAN    7          p, q\n"
                                      "               VNI 5   p\n"
                                      "               VNI 66  q\n"));
}

TEST(Tree, IsColouredOnlyWhenAsked) {
  EXPECT_THAT(tree(example(), true), HasSubstr("\033[1mcompute-1\033[0m"));
  EXPECT_THAT(tree(example()), Not(HasSubstr("\033")));
}

TEST(Tree, NumbersInARowAreARange) {
  EXPECT_EQ(ranges({}), "none");
  EXPECT_EQ(ranges({7}), "7");
  EXPECT_EQ(ranges({100, 101, 102, 110, 4093, 4094}), "100-102, 110, 4093-4094");
}

TEST(Tree, ManyNamesAreCountedAndUuidsCutAtTheirFirstBlock) {
  EXPECT_EQ(abbreviated({}), "nobody");
  EXPECT_EQ(abbreviated({"a", "b", "c", "d", "e"}), "a, b, c, d, e");
  EXPECT_EQ(abbreviated({"a", "b", "c", "d", "e", "f"}), "a, b, c, d and 2 more");
  EXPECT_EQ(abbreviated({"0b0e8a9c-2f4e-4b64-9d5f-3d9a6f2f5a11",
                         "bm-0b0e8a9c-2f4e-4b64-9d5f-3d9a6f2f5a11", "0b0e8a9c-not-a-uuid"}),
            "0b0e8a9c…, bm-0b0e8a9c…, 0b0e8a9c-not-a-uuid");
}

// Trace lines.

TEST(TraceLines, AreOneObjectEachWithTheirRawBytesEscaped) {
  std::string out;
  appendTraceJson(out, 3, {2, "OpenStackSm", 123, "handleRegion", "level \x01 \"x\""});
  EXPECT_EQ(out,
            "{\"step\": 3, \"level\": 2, \"file\": \"OpenStackSm\", \"line\": 123, \"function\": "
            "\"handleRegion\", \"text\": \"level \\u0001 \\\"x\\\"\"}\n");
  out.clear();
  appendTraceText(out, {2, "OpenStackSm", 123, "handleRegion", "level \x01"});
  EXPECT_EQ(out, "2 OpenStackSm:123 handleRegion level \x01\n");
}

TEST(TraceLines, AreTakenUpToTheLevelUntilTheObjectIsDestroyed) {
  std::FILE* file = std::tmpfile();
  {
    TraceLines lines(2, TraceLines::Style::kText, file);
    const auto& handle = Kiv::_defaultTraceHandle();
    EXPECT_TRUE(handle.enabled(2));
    EXPECT_FALSE(handle.enabled(3));
    handle.write({1, "F", 1, "f", "one"});
    EXPECT_TRUE(lines.flush());
  }
  EXPECT_FALSE(Kiv::_defaultTraceHandle().enabled(0));
  Kiv::_defaultTraceHandle().write({0, "F", 1, "f", "too late"});
  std::rewind(file);
  std::string content(100, '\0');
  content.resize(std::fread(content.data(), 1, content.size(), file));
  std::fclose(file);
  EXPECT_EQ(content, "1 F:1 f one\n");
}

}  // namespace
}  // namespace vnagent
