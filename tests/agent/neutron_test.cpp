// Bringing the state of a Neutron server in.
#include "agent/import/neutron.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "agent/document/cloud_document.h"

namespace vnagent {
namespace {

using nlohmann::json;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Key;
using ::testing::SizeIs;
using ::testing::StartsWith;

// A server's state in the making; everything is found under short names.
struct Server {
  NeutronDump dump{{{"networks", json::array()}},
                   {{"segments", json::array()}},
                   {{"ports", json::array()}},
                   json::array()};

  void network(std::string_view id, json more = json::object()) {
    more["id"] = id;
    dump.networks["networks"].push_back(more);
  }
  void segment(std::string_view id, std::string_view network, std::string_view type, json number) {
    dump.segments["segments"].push_back({{"id", id},
                                         {"network_id", network},
                                         {"network_type", type},
                                         {"physical_network", nullptr},
                                         {"segmentation_id", std::move(number)}});
  }
  json& port(std::string_view id, std::string_view host, json more = json::object()) {
    json made{{"id", id},
              {"network_id", "n"},
              {"device_owner", "compute:nova"},
              {"device_id", "vm"},
              {"binding:vnic_type", "normal"},
              {"binding:vif_type", "ovs"},
              {"binding:host_id", host},
              {"binding:profile", json::object()}};
    made.update(more);
    dump.ports["ports"].push_back(made);
    return dump.ports["ports"].back();
  }
  void level(std::string_view port, std::string_view host, json number, std::string_view segment) {
    dump.bindingLevels->push_back(
        {{"port_id", port}, {"host", host}, {"level", std::move(number)}, {"segment_id", segment}});
  }
  static json link(std::string_view info, std::string_view id, std::string_view interface) {
    return {{"switch_info", info}, {"switch_id", id}, {"port_id", interface}};
  }
  // A list of its own type: compilers differ on whether one json in braces is a list or a copy.
  static json baremetal(std::initializer_list<json> links) {
    return {{"binding:vnic_type", "baremetal"},
            {"binding:vif_type", "other"},
            {"device_owner", "baremetal:none"},
            {"binding:profile", {{"local_link_information", json(json::array_t(links))}}}};
  }

  // The import, which must make a document that keeps all rules.
  NeutronImport import() const {
    NeutronImport result = importNeutron(dump);
    std::string text;
    JsonWriter writer(text, JsonWriter::Style::kIndented);
    writeCloud(result, "R", writer);
    CloudDocument document;
    const JsonTree tree = JsonTree::parse(text);
    EXPECT_FALSE(tree.error());
    for (const Fault& fault : document.apply(tree.root()).faults) ADD_FAILURE() << fault.message();
    return result;
  }
};

using LevelMap = std::map<uint8_t, std::string>;

TEST(NeutronImport, SegmentsKeepTheirTypeAndId) {
  Server server;
  server.segment("a", "n", "vlan", 4094);
  server.segment("b", "n", "vxlan", 16777215);
  server.segment("c", "n", "flat", nullptr);
  server.segment("d", "n", "gre", 77);
  const auto result = server.import();
  EXPECT_EQ(result.segments.at("a").type, 0);
  EXPECT_EQ(result.segments.at("b").id, 16777215U);
  EXPECT_EQ(result.segments.at("c").type, 2);
  EXPECT_EQ(result.segments.at("c").id, 0U);
  EXPECT_EQ(result.segments.at("d").type, 2);
  EXPECT_EQ(result.segments.at("d").id, 77U);
  EXPECT_THAT(result.leftOut, IsEmpty());
}

TEST(NeutronImport, ASegmentThatFitsNowhereIsLeftOutWithWhatNamesIt) {
  Server server;
  server.segment("a", "n", "vlan", 4095);
  server.segment("b", "n", "vlan", nullptr);
  server.segment("c", "n", "vxlan", "5");
  server.segment("d", "n", "vlan", 5);
  server.segment("d", "n", "vlan", 6);
  server.segment(std::string(256, 'x'), "n", "vlan", 7);
  server.port("p", "h");
  server.level("p", "h", 0, "a");
  const auto result = server.import();
  EXPECT_THAT(result.segments, ElementsAre(Key("d")));
  EXPECT_THAT(result.leftOut,
              ElementsAre(StartsWith("segment a left out: 4095"), StartsWith("segment b left out"),
                          StartsWith("segment c left out"), StartsWith("segment d left out"),
                          HasSubstr("256 bytes"), StartsWith("level 0 of port p on host \"h\"")));
}

TEST(NeutronImport, APortIsBoundWhereTheServerSaysSo) {
  Server server;
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
  Server server;
  server.segment("s", "n", "vlan", 5);
  server.port("p", "", {{"binding:vif_type", "distributed"}});
  server.port("q", "", {{"binding:vif_type", "distributed"}});
  server.port("r", "own", {{"binding:vif_type", "distributed"}});
  server.level("p", "h1", 0, "s");
  server.level("p", "h2", 0, "s");
  server.level("r", "other", 0, "s");
  const auto result = server.import();
  EXPECT_THAT(result.ports.at("p").hosts, ElementsAre(Key("h1"), Key("h2")));
  EXPECT_FALSE(result.ports.at("q").bound);
  EXPECT_THAT(result.ports.at("r").hosts, ElementsAre(Key("own")));
  EXPECT_THAT(result.leftOut, ElementsAre(StartsWith("binding of port q left out")));
}

TEST(NeutronImport, LevelsAreThoseOfThePortOnItsHost) {
  Server server;
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

TEST(NeutronImport, LevelsThatBreakARuleAreLeftOut) {
  Server server;
  server.segment("v", "n", "vlan", 6);
  server.segment("twin", "n", "vlan", 6);
  server.port("p", "h");
  server.level("p", "h", 0, "v");
  server.level("p", "h", 0, "twin");
  server.level("p", "h", 1, "v");
  server.level("p", "h", 2, "twin");
  server.level("p", "h", 3, "unknown");
  server.level("p", "h", 256, "v");
  const auto result = server.import();
  EXPECT_EQ(result.ports.at("p").hosts.at("h").segments, (LevelMap{{0, "v"}}));
  EXPECT_THAT(result.leftOut,
              ElementsAre(StartsWith("binding level of port \"p\""), HasSubstr("another row"),
                          HasSubstr("stands at level 0"), HasSubstr("VLAN 6 stands at level 0"),
                          HasSubstr("no segment \"unknown\"")));
}

TEST(NeutronImport, WithoutLevelsTheNetworksOwnSegmentStandsAtTheTop) {
  Server server;
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
  Server server;
  server.network(
      "n",
      {{"segments", {{{"provider:network_type", "vlan"}}, {{"provider:network_type", "vlan"}}}}});
  server.segment("a", "n", "vlan", 5);
  server.segment("b", "n", "vlan", 6);
  server.port("p", "h");
  EXPECT_THAT(server.import().ports.at("p").hosts.at("h").segments, IsEmpty());
}

TEST(NeutronImport, WithoutADescriptionTheOnlySegmentIsTheNetworksOwn) {
  Server server;
  server.network("n");
  server.segment("a", "n", "vlan", 5);
  server.port("p", "h");
  EXPECT_EQ(server.import().ports.at("p").hosts.at("h").segments, (LevelMap{{0, "a"}}));
  server.segment("b", "n", "vlan", 6);
  EXPECT_THAT(server.import().ports.at("p").hosts.at("h").segments, IsEmpty());
}

TEST(NeutronImport, ABaremetalPortIsBoundToTheInterfaceOfEachLink) {
  Server server;
  server.segment("v", "n", "vlan", 5);
  server.port(
      "p", "node",
      Server::baremetal({Server::link("leaf-1", "aa:bb", "e1"), Server::link("", "cc:dd", "e2")}));
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
  Server server;
  server.port("p", "node", Server::baremetal({}));
  const auto result = server.import();
  EXPECT_THAT(result.ports.at("p").hosts, ElementsAre(Key("node")));
  EXPECT_EQ(result.ports.at("p").vlanType, 1);
}

TEST(NeutronImport, ASubportOfATrunkIsTagged) {
  Server server;
  server.port("p", "node", Server::baremetal({Server::link("leaf", "", "e1")}))["device_owner"] =
      "trunk:subport";
  const auto result = server.import();
  EXPECT_EQ(result.ports.at("p").vlanType, 0);
  EXPECT_THAT(result.ports.at("p").interfaces, SizeIs(1));
}

TEST(NeutronImport, ALinkThatNamesNoInterfaceIsLeftOut) {
  Server server;
  server.port(
      "p", "node",
      Server::baremetal({Server::link("leaf", "", "e1"), Server::link("", "", "e2"),
                         json{{"switch_info", "leaf"}}, Server::link("leaf", "x", "e1"), 5}));
  const auto result = server.import();
  EXPECT_THAT(result.ports.at("p").interfaces, SizeIs(1));
  EXPECT_THAT(result.leftOut,
              ElementsAre("link of port p left out: it names no switch",
                          "link of port p left out: it names no port_id",
                          "link of port p left out: the port has another one to leaf e1",
                          "link of port p left out: it is not an object"));
}

TEST(NeutronImport, DevicesCountByTheirOwner) {
  Server server;
  server.network("n");
  server.port("a", "h", {{"device_id", "vm-1"}});
  server.port("b", "h", {{"device_id", "vm-1"}});
  server.port("c", "h", {{"device_id", "bm-1"}, {"binding:vnic_type", "baremetal"}});
  server.port("d", "h", {{"device_id", "dhcp-1"}, {"device_owner", "network:dhcp"}});
  server.port("e", "h", {{"device_id", "rt-1"}, {"device_owner", "network:router_gateway"}});
  server.port("f", "h", {{"device_id", "x"}, {"device_owner", "network:ha_router"}});
  server.port("g", "h", {{"device_id", ""}});
  const auto result = server.import();
  EXPECT_THAT(result.networks, ElementsAre("n"));
  EXPECT_THAT(result.vmInstances, ElementsAre("vm-1"));
  EXPECT_THAT(result.baremetalInstances, ElementsAre("bm-1"));
  EXPECT_THAT(result.dhcpInstances, ElementsAre("dhcp-1"));
  EXPECT_THAT(result.routerInstances, ElementsAre("rt-1"));
  EXPECT_THAT(result.leftOut, ElementsAre(StartsWith("device of port g")));
}

TEST(NeutronImport, AnAnswerOfAnotherShapeIsRefusedWithItsPlace) {
  const auto refused = [](auto change) {
    Server server;
    change(server.dump);
    try {
      importNeutron(server.dump);
    } catch (const BadDump& error) {
      return std::string(error.what());
    }
    return std::string();
  };
  EXPECT_EQ(refused([](NeutronDump& dump) { dump.ports = json::array(); }),
            "ports.json: : not an object with \"ports\"");
  EXPECT_EQ(refused([](NeutronDump& dump) { dump.networks = json::object(); }),
            "networks.json: /networks: there is no list of networks");
  EXPECT_EQ(refused([](NeutronDump& dump) { dump.segments["segments"] = {1}; }),
            "segments.json: /segments/0: not an object");
  EXPECT_EQ(refused([](NeutronDump& dump) { dump.bindingLevels = json::object(); }),
            "db_binding_levels.json: : not a list of rows");
}

// Data taken from running servers.

Server serverOf(std::string_view set) {
  const auto folder = std::filesystem::path(EXAMPLES_DIR) / "neutron" / set;
  const auto read = [&](const char* name) { return json::parse(std::ifstream(folder / name)); };
  return {{read("networks.json"), read("segments.json"), read("ports.json"),
           read("db_binding_levels.json")}};
}

size_t bound(const NeutronImport& import) {
  return static_cast<size_t>(
      std::ranges::count_if(import.ports, [](const auto& port) { return port.second.bound; }));
}

TEST(NeutronImport, TheSmallServerComesInWhole) {
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

TEST(NeutronImport, TheRackServerComesInWhole) {
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
