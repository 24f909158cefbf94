// The export to switches without a database: the map, what a document asks for, and the plan of a
// transaction. tests/export has the rest.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "agent/export/planner.h"

namespace vnagent {
namespace {

using nlohmann::json;
using testing::HasSubstr;

constexpr const char* kMap = R"({
  "switches": {"a": {"database": "unix:a", "tunnelIp": "192.0.2.1", "ports": {"e1": "swp1"}},
               "b": {"database": "unix:b", "tunnelIp": "192.0.2.2"}},
  "hosts": {"h": [{"switch": "a", "port": "e1"}], "bond": [{"switch": "a", "port": "e2"},
                                                         {"switch": "b", "port": "e2"}]}})";

// "host": {"vlan": ["vni", ...]} as a document.
json documentOf(const char* text) {
  json hosts = json::object();
  const json wanted = json::parse(text);
  for (const auto& [host, vlans] : wanted.items()) {
    json& entry = hosts[host]["vlan"] = json::object();
    for (const auto& [vlan, vnis] : vlans.items()) {
      json mapped = json::object();
      for (const auto& vni : vnis) mapped[vni.get<std::string>()] = json::array();
      entry[vlan] = {{"referrer", json::array()}, {"mappedVni", mapped}};
    }
  }
  return {{"requestedResources", {{"resourcesForHostname", hosts}}}};
}

class DesiredTest : public testing::Test {
 protected:
  void replace(const json& document) { desired_.replace(read(document)); }
  void merge(const json& patch) { desired_.merge(read(patch)); }

  // Lasts until the next call.
  simdjson::dom::element read(const json& document) { return parser_.parse(document.dump()); }

  // "swp1 100 vni1" of each binding of a switch.
  std::vector<std::string> bindings(size_t index) const {
    std::vector<std::string> lines;
    for (const auto& port : desired_.at(index).ports) {
      for (const auto& [vlan, id] : port.bindings) {
        lines.push_back(port.name + ' ' + std::to_string(vlan) + ' ' + id.name());
      }
    }
    return lines;
  }

  size_t changes(size_t index) {
    SwitchChanges& marked = desired_.changesOf(index);
    marked.normalise();
    const size_t count = marked.bindings.size() + marked.logicalSwitches.size();
    marked = {};
    return count;
  }

  simdjson::dom::parser parser_;
  Problems problems_;
  const ExportMap map_ = ExportMap::parse(kMap);
  Desired desired_{map_, problems_};
};

TEST(ExportMapTest, NamesThePlaceOfAFault) {
  const auto faultOf = [](const char* text) -> std::string {
    try {
      ExportMap::parse(text);
    } catch (const InvalidMap& fault) {
      return fault.what();
    }
    return "none";
  };
  EXPECT_EQ(faultOf(kMap), "none");
  EXPECT_THAT(faultOf("{"), HasSubstr("line 1"));
  EXPECT_THAT(faultOf("{}"), HasSubstr("switches"));
  EXPECT_THAT(faultOf(R"({"switches":{"a":{"database":"unix:a","x":1}}})"),
              HasSubstr("/switches/a/x: "));
  EXPECT_THAT(faultOf(R"({"switches":{"a":{"database":"a"}}})"),
              HasSubstr("/switches/a/database: "));
  EXPECT_THAT(faultOf(R"({"switches":{"a":{"database":"unix:a"}},"hosts":{"h":[{"switch":"a"}]}})"),
              HasSubstr("/hosts/h/0: "));
}

TEST(LogicalSwitchIdTest, NamesAreOneToOne) {
  for (const auto id : {LogicalSwitchId::ofVni(1), LogicalSwitchId::ofVni(16777215),
                        LogicalSwitchId::ofVlan(1), LogicalSwitchId::ofVlan(4094)}) {
    EXPECT_EQ(LogicalSwitchId::parse(id.name()), id);
  }
  for (const char* name : {"", "vni", "vni0", "vni01", "vni16777216", "vlan4095", "vni1x", "x1"}) {
    EXPECT_FALSE(LogicalSwitchId::parse(name)) << name;
  }
}

TEST_F(DesiredTest, AHostIsWhereTheMapSays) {
  replace(documentOf(R"({"h": {"100": ["1"], "101": []}, "bond": {"7": ["1"]}})"));
  EXPECT_EQ(bindings(0),
            (std::vector<std::string>{"e2 7 vni1", "swp1 100 vni1", "swp1 101 vlan101"}));
  EXPECT_EQ(bindings(1), (std::vector<std::string>{"e2 7 vni1"}));
  EXPECT_EQ(desired_.othersOf(0, LogicalSwitchId::ofVni(1)).addresses,
            (std::set<std::string>{"192.0.2.2"}));
}

TEST_F(DesiredTest, TheSameDocumentChangesNothing) {
  const json document = documentOf(R"({"h": {"100": ["1"], "101": []}, "bond": {"7": ["1"]}})");
  replace(document);
  EXPECT_GT(changes(0), 0u);
  replace(document);
  EXPECT_EQ(changes(0), 0u);
}

TEST_F(DesiredTest, NamesThePlaceOfAFault) {
  const auto faultOf = [&](const char* text) -> std::string {
    try {
      replace(json::parse(text));
    } catch (const InvalidOutput& fault) {
      return fault.what();
    }
    return "none";
  };
  EXPECT_EQ(faultOf("[]"), ": an object is expected");
  EXPECT_EQ(faultOf(R"({"requestedResources": 1})"), "/requestedResources: an object is expected");
  EXPECT_EQ(faultOf(R"({"networkElement": {"a": []}})"),
            "/networkElement/a: an object is expected");
  const auto faultOfPort = [&](const std::string& port) {
    return faultOf(
        (R"({"requestedResources": {"resourcesForSwitchport": {"a": {"p": )" + port + "}}}}")
            .c_str());
  };
  EXPECT_EQ(faultOfPort("{}"), "none");
  EXPECT_EQ(faultOfPort("1"), "/a/p: an object is expected");
  EXPECT_EQ(faultOfPort(R"({"nativeVlan": 4095})"), "/a/p/nativeVlan: a VLAN is expected");
  EXPECT_EQ(faultOfPort(R"({"nativeVlan": -1})"), "/a/p/nativeVlan: a VLAN is expected");
  EXPECT_EQ(faultOfPort(R"({"vlan": {"4095": {}}})"), "/a/p/vlan: \"4095\" is not a VLAN");
  EXPECT_EQ(faultOfPort(R"({"vlan": {"1x": {}}})"), "/a/p/vlan: \"1x\" is not a VLAN");
  EXPECT_EQ(faultOfPort(R"({"vlan": {"7": {"mappedVni": {"0": []}}}})"),
            "/a/p/vlan/7: \"0\" is not a VNI");
  EXPECT_EQ(faultOfPort(R"({"vlan": {"7": {"mappedVni": []}}})"),
            "/a/p/vlan/7/mappedVni: an object is expected");
}

TEST_F(DesiredTest, OneVlanMarksOneBinding) {
  json all = json::object();
  for (int vlan = 1; vlan < 4095; ++vlan) all[std::to_string(vlan)] = json::array({"1"});
  replace(documentOf(json{{"h", all}}.dump().c_str()));
  changes(0);
  merge(documentOf(R"({"h": {"100": ["2"]}})"));
  EXPECT_TRUE(problems_.any(ProblemKind::kTwoVnis));
  EXPECT_EQ(changes(0), 1u);
  merge(json::parse(R"({"requestedResources": {"resourcesForHostname": {"h": {"vlan":
      {"100": {"mappedVni": {"1": null}}}}}}})"));
  EXPECT_FALSE(problems_.any(ProblemKind::kTwoVnis));
  EXPECT_EQ(changes(0), 2u);  // and the Logical_Switch of VNI 2
}

// A database as rows, and the plan for it.
class PlannerTest : public DesiredTest {
 protected:
  static std::string uuid(int number) {
    std::string text = "00000000-0000-4000-8000-000000000000";
    const std::string digits = std::to_string(number);
    return text.replace(text.size() - digits.size(), digits.size(), digits);
  }

  void row(const char* table, int number, const json& columns) {
    const json updates{{table, {{uuid(number), {{"initial", columns}}}}}};
    ovsdb::forEachRow(read(updates), ovsdb::UpdateForm::kDifferences,
                      [this](const auto& change) { replica_.apply(change); });
  }

  void makeSwitch() {
    row("Physical_Switch", 1, {{"name", "a"}, {"ports", {"uuid", uuid(2)}}});
    row("Physical_Port", 2, {{"name", "swp1"}});
  }

  json planned(ExportMode mode = ExportMode::kRepair) {
    replica_.settle();
    SwitchChanges marked = std::exchange(desired_.changesOf(0), {});
    marked.normalise();
    plan_ = Planner(desired_, 0, replica_, mode, problems_).plan(marked, true);
    return json::parse("[" + plan_.operations + "]");
  }

  static json owned() { return json::parse(R"(["map", [["managed-by", "vnagent"]]])"); }

  Replica replica_{"a", desired_.at(0), desired_.changesOf(0)};
  SwitchPlan plan_;
};

TEST_F(PlannerTest, AnEmptyDatabaseIsFilledInOnePlan) {
  makeSwitch();
  replace(documentOf(R"({"h": {"100": ["1"]}, "bond": {"7": ["1"]}})"));
  const json operations = planned();
  EXPECT_EQ(plan_.logicalSwitchesAdded, 1u);
  EXPECT_EQ(plan_.floodsChanged, 1u);
  EXPECT_EQ(plan_.bindingsAdded, 1u);
  EXPECT_TRUE(problems_.any(ProblemKind::kMissingPort));  // e2
  EXPECT_EQ(
      operations.back()["mutations"],
      json::parse(R"([["vlan_bindings", "insert", ["map", [[100, ["named-uuid", "vni1"]]]]]])"));
}

TEST_F(PlannerTest, WhatIsThereIsNotPlanned) {
  makeSwitch();
  row("Logical_Switch", 3,
      {{"name", "vlan5"}, {"replication_mode", "source_node"}, {"other_config", owned()}});
  row("Physical_Port", 2, {{"name", "swp1"}, {"vlan_bindings", {"map", {{5, {"uuid", uuid(3)}}}}}});
  replace(documentOf(R"({"h": {"5": []}})"));
  EXPECT_EQ(planned(), json::array());
}

TEST_F(PlannerTest, OnlyWhatIsOwnedIsRemoved) {
  makeSwitch();
  row("Logical_Switch", 3, {{"name", "vni8"}, {"tunnel_key", 8}, {"other_config", owned()}});
  row("Logical_Switch", 4, {{"name", "vni9"}, {"tunnel_key", 9}});
  row("Physical_Port", 2,
      {{"name", "swp1"},
       {"vlan_bindings", {"map", {{5, {"uuid", uuid(3)}}, {6, {"uuid", uuid(4)}}}}}});
  const SwitchChanges marked = desired_.changesOf(0);
  EXPECT_EQ(planned(ExportMode::kAddOnly), json::array());
  desired_.changesOf(0) = marked;
  replica_.settle();
  desired_.changesOf(0).bindings.push_back({desired_.at(0).portOf("swp1"), 5});
  const json operations = planned();
  EXPECT_EQ(plan_.bindingsRemoved, 1u);
  EXPECT_EQ(plan_.logicalSwitchesRemoved, 1u);
  EXPECT_EQ(operations.dump().find(uuid(4)), std::string::npos);
}

}  // namespace
}  // namespace vnagent
