// Importing the state of a Neutron server: ports, their bindings, segments and devices.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "agent/import/neutron.h"
#include "tests/agent/neutron_server.h"

namespace vnagent {
namespace {

using nlohmann::json;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Key;
using ::testing::SizeIs;
using ::testing::StartsWith;

TEST(NeutronImport, SegmentsKeepTheirTypeAndId) {
  NeutronServer server;
  server.segment("a", "n", "vlan", 4094);
  server.segment("b", "n", "vxlan", 16777215);
  server.segment("c", "n", "flat", nullptr);
  server.segment("d", "n", "gre", 4294967295);
  server.segment("e", "n", "local", nullptr);
  server.segment("f", "n", "geneve", 0);
  server.segment("g", "n", "vlan", 1);
  server.segment("h", "n", "vxlan", 1);
  server.dump.segments["segments"].push_back({{"id", "i"}, {"network_type", "flat"}});
  const auto result = server.import();
  std::vector<std::string> segments;
  for (const auto& [id, segment] : result.segments) {
    segments.push_back(id + " " + std::to_string(segment.type) + " " + std::to_string(segment.id));
  }
  EXPECT_THAT(segments, ElementsAre("a 0 4094", "b 1 16777215", "c 2 0", "d 2 4294967295", "e 2 0",
                                    "f 2 0", "g 0 1", "h 1 1", "i 2 0"));
  EXPECT_THAT(result.leftOut, IsEmpty());
}

TEST(NeutronImport, APortIsBoundOnItsHostId) {
  NeutronServer server;
  server.port("unbound", "", {{"binding:vif_type", "unbound"}});
  server.port("failed", "h", {{"binding:vif_type", "binding_failed"}});
  server.port("bound", "h");
  server.port("nowhere", "");
  server.port("unsaid", "h", {{"binding:vif_type", nullptr}});
  const auto result = server.import();
  EXPECT_THAT(result.ports, SizeIs(5));
  EXPECT_FALSE(result.ports.at("unbound").bound);
  EXPECT_FALSE(result.ports.at("failed").bound);
  EXPECT_FALSE(result.ports.at("nowhere").bound);
  EXPECT_THAT(result.ports.at("bound").hosts, ElementsAre(Key("h")));
  EXPECT_THAT(result.leftOut, ElementsAre(StartsWith("binding of port nowhere left out"),
                                          StartsWith("binding of port unsaid left out")));
}

TEST(NeutronImport, ADistributedPortIsBoundWhereItHasLevels) {
  NeutronServer server;
  server.segment("s", "n", "vlan", 5);
  server.port("p", "", {{"binding:vif_type", "distributed"}});
  server.port("q", "", {{"binding:vif_type", "distributed"}});
  server.port("r", "own", {{"binding:vif_type", "distributed"}});
  server.level("p", "h1", 0, "s");
  server.level("p", "h2", 0, "s");
  const auto result = server.import();
  EXPECT_THAT(result.ports.at("p").hosts, ElementsAre(Key("h1"), Key("h2")));
  EXPECT_FALSE(result.ports.at("q").bound);
  EXPECT_THAT(result.ports.at("r").hosts, ElementsAre(Key("own")));
  EXPECT_THAT(result.leftOut, ElementsAre("binding of port q left out: it is bound (distributed), "
                                          "but on no host"));
}

TEST(NeutronImport, APortThatMigratesIsBoundOnBothHosts) {
  NeutronServer server;
  server.segment("x", "n", "vxlan", 5);
  server.segment("v", "n", "vlan", 6);
  server.segment("w", "n", "vlan", 7);
  server.port("p", "source");
  server.level("p", "source", 0, "x");
  server.level("p", "source", 1, "v");
  server.level("p", "target", 0, "x");
  server.level("p", "target", 1, "w");
  server.port("q", "a", {{"binding:vif_type", "distributed"}});
  server.level("q", "b", 0, "v");
  const auto result = server.import();
  const auto& hosts = result.ports.at("p").hosts;
  EXPECT_THAT(hosts, ElementsAre(Key("source"), Key("target")));
  EXPECT_EQ(hosts.at("source").segments, (LevelMap{{0, "x"}, {1, "v"}}));
  EXPECT_EQ(hosts.at("target").segments, (LevelMap{{0, "x"}, {1, "w"}}));
  EXPECT_THAT(result.ports.at("q").hosts, ElementsAre(Key("a"), Key("b")));
  EXPECT_THAT(result.leftOut, IsEmpty());
}

TEST(NeutronImport, LevelsAreThoseOfThePortOnItsHost) {
  NeutronServer server;
  server.segment("x", "n", "vxlan", 5);
  server.segment("v", "n", "vlan", 6);
  server.segment("w", "n", "vlan", 7);
  server.port("p", "h");
  server.level("p", "h", 1, "v");
  server.level("p", "h", 0, "x");
  server.level("p", "inactive", 0, "w");
  server.level("q", "h", 0, "w");
  EXPECT_EQ(server.import().ports.at("p").hosts.at("h").segments, (LevelMap{{0, "x"}, {1, "v"}}));
}

TEST(NeutronImport, TheLastLevelIs255) {
  NeutronServer server;
  server.segment("v", "n", "vlan", 6);
  server.segment("x", "n", "vxlan", 7);
  server.port("p", "h");
  server.level("p", "h", 255, "x");
  server.level("p", "h", 0, "v");
  const auto result = server.import();
  EXPECT_EQ(result.ports.at("p").hosts.at("h").segments, (LevelMap{{0, "v"}, {255, "x"}}));
  EXPECT_THAT(result.leftOut, IsEmpty());
}

TEST(NeutronImport, AVlanAndAVniOfOneNumberAreDifferent) {
  NeutronServer server;
  server.segment("x", "n", "vxlan", 6);
  server.segment("v", "n", "vlan", 6);
  server.segment("y", "n", "vxlan", 6);
  server.segment("o", "n", "gre", 6);
  server.port("p", "h");
  server.level("p", "h", 0, "x");
  server.level("p", "h", 1, "v");
  server.level("p", "h", 2, "y");
  server.level("p", "h", 3, "o");
  const auto result = server.import();
  EXPECT_EQ(result.ports.at("p").hosts.at("h").segments,
            (LevelMap{{0, "x"}, {1, "v"}, {2, "y"}, {3, "o"}}));
  EXPECT_THAT(result.leftOut, IsEmpty());
}

TEST(NeutronImport, WithoutLevelsTheNetworksOwnSegmentIsLevel0) {
  NeutronServer server;
  server.dump.bindingLevels.reset();
  server.network("n", {{"provider:network_type", "vxlan"},
                       {"provider:physical_network", nullptr},
                       {"provider:segmentation_id", 5}});
  server.segment("own", "n", "vxlan", 5);
  server.segment("made-by-binding", "n", "vlan", 6);
  server.segment("elsewhere", "m", "vlan", 7);
  server.port("p", "h");
  EXPECT_EQ(server.import().ports.at("p").hosts.at("h").segments, (LevelMap{{0, "own"}}));
}

TEST(NeutronImport, WithoutLevelsANetworkOfSeveralSegmentsGivesNone) {
  NeutronServer server;
  server.network(
      "n",
      {{"segments", {{{"provider:network_type", "vlan"}}, {{"provider:network_type", "vlan"}}}}});
  server.segment("a", "n", "vlan", 5);
  server.segment("b", "n", "vlan", 6);
  server.port("p", "h");
  EXPECT_THAT(server.import().ports.at("p").hosts.at("h").segments, IsEmpty());
}

TEST(NeutronImport, TheOnlySegmentInTheDescriptionIsTheNetworksOwn) {
  NeutronServer server;
  json description = json::object();
  description["segments"] = json::array();
  description["segments"].push_back({{"provider:network_type", "vlan"},
                                     {"provider:physical_network", nullptr},
                                     {"provider:segmentation_id", 6}});
  server.network("n", description);
  server.segment("a", "n", "vlan", 5);
  server.segment("b", "n", "vlan", 6);
  server.port("p", "h");
  EXPECT_EQ(server.import().ports.at("p").hosts.at("h").segments, (LevelMap{{0, "b"}}));
}

// Type, physical network and id must all be those of the description; and one segment only.
TEST(NeutronImport, TheDescriptionMustFitOneSegmentOnly) {
  const auto levels = [](const std::vector<json>& segments) {
    NeutronServer server;
    server.network("n", {{"provider:network_type", "vlan"},
                         {"provider:physical_network", "rack-1"},
                         {"provider:segmentation_id", 5}});
    for (const auto& segment : segments) {
      server.dump.segments["segments"].push_back(
          {{"id", "s" + std::to_string(server.dump.segments["segments"].size())},
           {"network_id", "n"},
           {"network_type", segment[0]},
           {"physical_network", segment[1]},
           {"segmentation_id", segment[2]}});
    }
    server.port("p", "h");
    return server.import().ports.at("p").hosts.at("h").segments;
  };
  const auto segment = [](json type, json network, json id) {
    return json(json::array_t{std::move(type), std::move(network), std::move(id)});
  };
  const json fits = segment("vlan", "rack-1", 5);
  EXPECT_EQ(levels({fits}), (LevelMap{{0, "s0"}}));
  EXPECT_EQ(levels({segment("vlan", "rack-2", 5), fits}), (LevelMap{{0, "s1"}}));
  EXPECT_EQ(levels({segment("vlan", nullptr, 5), fits}), (LevelMap{{0, "s1"}}));
  EXPECT_EQ(levels({segment("vxlan", "rack-1", 5), fits}), (LevelMap{{0, "s1"}}));
  EXPECT_EQ(levels({segment("vlan", "rack-1", 6), fits}), (LevelMap{{0, "s1"}}));
  EXPECT_THAT(levels({fits, fits}), IsEmpty());
  EXPECT_THAT(levels({segment("vlan", "rack-1", 6)}), IsEmpty());
}

TEST(NeutronImport, AnAbsentMemberOfADescriptionIsNull) {
  NeutronServer server;
  server.network("n", {{"provider:network_type", "flat"}});
  server.segment("f", "n", "flat", nullptr);
  server.port("p", "h");
  EXPECT_EQ(server.import().ports.at("p").hosts.at("h").segments, (LevelMap{{0, "f"}}));
}

TEST(NeutronImport, WithoutADescriptionTheOnlySegmentIsTheNetworksOwn) {
  NeutronServer server;
  server.network("n");
  server.segment("a", "n", "vlan", 5);
  server.port("p", "h");
  EXPECT_EQ(server.import().ports.at("p").hosts.at("h").segments, (LevelMap{{0, "a"}}));
  server.segment("b", "n", "vlan", 6);
  EXPECT_THAT(server.import().ports.at("p").hosts.at("h").segments, IsEmpty());
}

TEST(NeutronImport, ABaremetalPortIsBoundToTheInterfaceOfEachLink) {
  NeutronServer server;
  server.segment("v", "n", "vlan", 5);
  server.port("p", "node",
              NeutronServer::baremetal({NeutronServer::link("leaf-1", "aa:bb", "e1"),
                                        NeutronServer::link("", "cc:dd", "e2")}));
  server.level("p", "node", 0, "v");
  const auto result = server.import();
  const ImportedPort& port = result.ports.at("p");
  EXPECT_EQ(port.vlanType, 1);
  EXPECT_THAT(port.hosts, IsEmpty());
  EXPECT_THAT(port.interfaces,
              ElementsAre(Key(std::pair<std::string, std::string>("cc:dd", "e2")),
                          Key(std::pair<std::string, std::string>("leaf-1", "e1"))));
  for (const auto& [key, binding] : port.interfaces) {
    EXPECT_EQ(binding.host, "node");
    EXPECT_EQ(binding.segments, (LevelMap{{0, "v"}}));
  }
}

TEST(NeutronImport, ABaremetalPortWithoutLinksIsBoundToItsHost) {
  NeutronServer server;
  server.port("p", "node", NeutronServer::baremetal({}));
  server.port("q", "node", NeutronServer::baremetal({}))["binding:profile"] = nullptr;
  server.port("r", "node", NeutronServer::baremetal({}))["binding:profile"] = {
      {"local_link_information", nullptr}};
  const auto result = server.import();
  for (const auto* port : {"p", "q", "r"}) {
    EXPECT_THAT(result.ports.at(port).hosts, ElementsAre(Key("node")));
    EXPECT_EQ(result.ports.at(port).vlanType, 1);
  }
  EXPECT_THAT(result.leftOut, IsEmpty());
}

TEST(NeutronImport, LinksOfAnotherPortThanBaremetalAreIgnored) {
  NeutronServer server;
  json more = NeutronServer::baremetal({NeutronServer::link("leaf", "", "e1")});
  more["binding:vnic_type"] = "direct";
  server.port("p", "node", more);
  const auto result = server.import();
  EXPECT_THAT(result.ports.at("p").hosts, ElementsAre(Key("node")));
  EXPECT_THAT(result.ports.at("p").interfaces, IsEmpty());
  EXPECT_EQ(result.ports.at("p").vlanType, 0);
}

TEST(NeutronImport, ASubportOfATrunkIsTagged) {
  NeutronServer server;
  server.port("p", "node",
              NeutronServer::baremetal({NeutronServer::link("leaf", "", "e1")}))["device_owner"] =
      "trunk:subport";
  const auto result = server.import();
  EXPECT_EQ(result.ports.at("p").vlanType, 0);
  EXPECT_THAT(result.ports.at("p").interfaces, SizeIs(1));
}

TEST(NeutronImport, DevicesCountByTheirOwner) {
  NeutronServer server;
  server.network("n");
  server.port("a", "h", {{"device_id", "vm-1"}});
  server.port("b", "h", {{"device_id", "vm-1"}});
  server.port("c", "h", {{"device_id", "bm-1"}, {"binding:vnic_type", "baremetal"}});
  server.port("d", "h", {{"device_id", "dhcp-1"}, {"device_owner", "network:dhcp"}});
  server.port("e", "h", {{"device_id", "rt-1"}, {"device_owner", "network:router_gateway"}});
  server.port("f", "h", {{"device_id", "x"}, {"device_owner", "network:ha_router"}});
  server.port("g", "h", {{"device_id", "x"}, {"device_owner", nullptr}});
  server.port("h", "h", {{"device_id", "x"}, {"device_owner", "network:dhcp_agent"}});
  const auto result = server.import();
  EXPECT_THAT(result.networks, ElementsAre("n"));
  EXPECT_THAT(result.vmInstances, ElementsAre("vm-1"));
  EXPECT_THAT(result.baremetalInstances, ElementsAre("bm-1"));
  EXPECT_THAT(result.dhcpInstances, ElementsAre("dhcp-1"));
  EXPECT_THAT(result.routerInstances, ElementsAre("rt-1"));
  EXPECT_THAT(result.leftOut, IsEmpty());
}

// A port can have an owner before a device has taken it.
TEST(NeutronImport, AnEmptyDeviceCountsNowhere) {
  NeutronServer server;
  server.port("a", "h", {{"device_id", ""}});
  server.port("b", "h", {{"device_id", nullptr}});
  server.port("c", "h", {{"device_id", std::string(256, 'x')}});
  const auto result = server.import();
  EXPECT_THAT(result.vmInstances, IsEmpty());
  EXPECT_THAT(result.leftOut,
              ElementsAre(StartsWith("device of port c (compute:nova) left out: ")));
}

TEST(NeutronImport, EveryCollectionIsWritten) {
  NeutronServer server;
  server.network("n");
  server.segment("v", "n", "vlan", 5);
  server.segment("x", "n", "vxlan", 6);
  server.segment("o", "n", "gre", 7);
  server.port("p", "h", {{"device_id", "vm"}});
  server.level("p", "h", 0, "x");
  server.level("p", "h", 1, "v");
  server.port("q", "node",
              NeutronServer::baremetal({NeutronServer::link("leaf", "", "e1"),
                                        NeutronServer::link("leaf", "", "e2"),
                                        NeutronServer::link("mane", "", "e1")}));
  server.port("r", "", {{"binding:vif_type", "unbound"}, {"device_owner", ""}});
  std::string text;
  JsonWriter writer(text, JsonWriter::Style::kOneLine);
  writeCloud(server.import(), "R", writer);
  EXPECT_EQ(text,
            R"({"region": {"R": {"network": {"n": {}}, "vmInstance": {"vm": {}}, "segment": {)"
            R"("o": {"segmentationType": 2, "segmentationId": 7}, )"
            R"("v": {"segmentationType": "vlan", "segmentationId": 5}, )"
            R"("x": {"segmentationType": "vxlan", "segmentationId": 6}}, )"
            R"("port": {"p": {}, "q": {"vlanType": 1}, "r": {}}, "portBinding": {)"
            R"("p": {"portToHostBinding": {"h": {"segment": {"0": "x", "1": "v"}}}}, )"
            R"("q": {"portToSwitchInterfaceBinding": {"leaf": {"e1": {"host": "node"}, )"
            R"("e2": {"host": "node"}}, "mane": {"e1": {"host": "node"}}}}}}}})");
}

// Data taken from running servers.

NeutronServer serverOf(std::string_view set) {
  const auto folder = std::filesystem::path(EXAMPLES_DIR) / "neutron" / set;
  const auto read = [&](const char* name) { return json::parse(std::ifstream(folder / name)); };
  return {{read("networks.json"), read("segments.json"), read("ports.json"),
           read("db_binding_levels.json")}};
}

size_t bound(const NeutronImport& import) {
  return static_cast<size_t>(
      std::ranges::count_if(import.ports, [](const auto& port) { return port.second.bound; }));
}

TEST(NeutronImport, TheSmallServerIsImportedWhole) {
  const auto result = serverOf("small").import();
  EXPECT_THAT(result.networks, SizeIs(6));
  EXPECT_THAT(result.segments, SizeIs(9));
  EXPECT_THAT(result.ports, SizeIs(20));
  EXPECT_EQ(bound(result), 18U);
  const ImportedPort& baremetal = result.ports.at("22c91352-f705-4ab2-8a22-1ed4e4933a5d");
  ASSERT_THAT(baremetal.interfaces, SizeIs(1));
  EXPECT_EQ(baremetal.interfaces.begin()->first.first, "tor-1");
  EXPECT_EQ(baremetal.interfaces.begin()->second.host, "05b6e6e3-07d4-4edc-9143-1193e6c3f339");
  EXPECT_THAT(baremetal.interfaces.begin()->second.segments, SizeIs(2));
}

TEST(NeutronImport, TheRackServerIsImportedWhole) {
  const auto result = serverOf("rack").import();
  EXPECT_THAT(result.networks, SizeIs(40));
  EXPECT_THAT(result.segments, SizeIs(90));
  EXPECT_THAT(result.ports, SizeIs(386));
  EXPECT_EQ(bound(result), 374U);
  std::set<std::pair<std::string, std::string>> interfaces;
  size_t native = 0;
  for (const auto& [id, port] : result.ports) {
    native += port.vlanType;
    for (const auto& [key, binding] : port.interfaces) interfaces.insert(key);
  }
  EXPECT_EQ(native, 16U);
  EXPECT_THAT(interfaces, SizeIs(20));
  EXPECT_THAT(result.leftOut, IsEmpty());
}

}  // namespace
}  // namespace vnagent
