// Importing the state of a Neutron server.
#include "agent/import/neutron.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

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

// The answers of a server.
struct Answers {
  json networks;
  json segments;
  json ports;
  std::optional<json> bindingLevels;
};

// The import of answers. Throws BadDump.
NeutronImport importOf(const Answers& answers) {
  const auto treeOf = [](const json& answer) { return JsonTree::parse(answer.dump()); };
  const JsonTree networks = treeOf(answers.networks);
  const JsonTree segments = treeOf(answers.segments);
  const JsonTree ports = treeOf(answers.ports);
  const JsonTree levels = treeOf(answers.bindingLevels.value_or(json()));
  return importNeutron({networks.root(), segments.root(), ports.root(),
                        answers.bindingLevels ? &levels.root() : nullptr});
}

// A server's state in the making; everything is found under short names.
struct Server {
  Answers dump{{{"networks", json::array()}},
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
    NeutronImport result = importOf(dump);
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

TEST(NeutronImport, AnInvalidSegmentIsLeftOut) {
  Server server;
  server.segment("a", "n", "vlan", 4095);
  server.segment("b", "n", "vlan", nullptr);
  server.segment("c", "n", "vxlan", "5");
  server.segment("d", "n", "vlan", 5);
  server.segment("d", "n", "vlan", 6);
  server.segment(std::string(256, 'x'), "n", "vlan", 7);
  server.segment("e", "n", "vxlan", 16777216);
  server.segment("f", "n", "vxlan", 0);
  server.segment("g", "n", "vlan", 0);
  server.segment("h", "n", "gre", 4294967296);
  server.segment("i", "n", "gre", -1);
  server.segment("j", "n", "", 5);
  server.segment("k", "n", "vlan", 5.0);
  server.segment("l", "n", "gre", "7");
  server.segment("m", "n", "vxlan", nullptr);
  server.dump.segments["segments"].push_back({{"network_type", "flat"}});
  server.port("p", "h");
  server.level("p", "h", 0, "a");
  const auto result = server.import();
  EXPECT_THAT(result.segments, ElementsAre(Key("d")));
  EXPECT_EQ(result.segments.at("d").id, 5U);
  const std::string vlan = " is not an id of a vlan segment (1 to 4094)";
  const std::string vxlan = " is not an id of a vxlan segment (1 to 16777215)";
  const std::string gre = " is not an id of a gre segment (0 to 4294967295)";
  const std::vector<std::string> leftOut{
      "segment a left out: 4095" + vlan,
      "segment b left out: null" + vlan,
      "segment c left out: \"5\"" + vxlan,
      "segment d left out: there is another of this id",
      "segment \"" + std::string(80, 'x') + "\"... left out: \"" + std::string(80, 'x') +
          "\"... is no name: it has 256 bytes (1 to 255)",
      "segment e left out: 16777216" + vxlan,
      "segment f left out: 0" + vxlan,
      "segment g left out: 0" + vlan,
      "segment h left out: 4294967296" + gre,
      "segment i left out: -1" + gre,
      "segment j left out: it has no network type",
      "segment k left out: 5.0" + vlan,
      "segment l left out: \"7\"" + gre,
      "segment m left out: null" + vxlan,
      "segment without an id left out",
      "level 0 of port p on host \"h\" left out: there is no segment \"a\""};
  EXPECT_EQ(result.leftOut, leftOut);
}

TEST(NeutronImport, APortIsBoundOnItsHostId) {
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
  const auto result = server.import();
  EXPECT_THAT(result.ports.at("p").hosts, ElementsAre(Key("h1"), Key("h2")));
  EXPECT_FALSE(result.ports.at("q").bound);
  EXPECT_THAT(result.ports.at("r").hosts, ElementsAre(Key("own")));
  EXPECT_THAT(result.leftOut, ElementsAre("binding of port q left out: it is bound (distributed), "
                                          "but on no host"));
}

TEST(NeutronImport, APortWithoutHostThatIsNotDistributedIsLeftOut) {
  Server server;
  server.segment("s", "n", "vlan", 5);
  server.port("p", "");
  server.port("q", "", {{"binding:host_id", nullptr}});
  server.level("p", "h1", 0, "s");
  const auto result = server.import();
  EXPECT_FALSE(result.ports.at("p").bound);
  EXPECT_THAT(result.ports.at("p").hosts, IsEmpty());
  EXPECT_FALSE(result.ports.at("q").bound);
  EXPECT_THAT(result.leftOut,
              ElementsAre("binding of port p left out: it is bound (ovs), but on no host",
                          "binding of port q left out: it is bound (ovs), but on no host"));
}

TEST(NeutronImport, APortThatMigratesIsBoundOnBothHosts) {
  Server server;
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

TEST(NeutronImport, RowsOfABaremetalPortForAnotherHostAreLeftOut) {
  Server server;
  server.segment("v", "n", "vlan", 5);
  server.segment("w", "n", "vlan", 6);
  server.port("linked", "node", Server::baremetal({Server::link("leaf", "", "e1")}));
  server.port("bare", "node", Server::baremetal({}));
  for (const auto* port : {"linked", "bare"}) {
    server.level(port, "node", 0, "v");
    server.level(port, "other", 0, "w");
    server.level(port, "other", 1, "v");
  }
  const auto result = server.import();
  ASSERT_THAT(result.ports.at("linked").interfaces, SizeIs(1));
  EXPECT_EQ(result.ports.at("linked").interfaces.begin()->second.segments, (LevelMap{{0, "v"}}));
  EXPECT_THAT(result.ports.at("linked").hosts, IsEmpty());
  EXPECT_THAT(result.ports.at("bare").hosts, ElementsAre(Key("node")));
  EXPECT_THAT(
      result.leftOut,
      ElementsAre("binding levels of port \"linked\" on host \"other\" left out: a baremetal "
                  "port is bound on its own host only",
                  "binding levels of port \"bare\" on host \"other\" left out: a baremetal "
                  "port is bound on its own host only"));
}

TEST(NeutronImport, UnusedRowsAreLeftOut) {
  Server server;
  server.segment("v", "n", "vlan", 5);
  server.port("unbound", "", {{"binding:vif_type", "unbound"}});
  server.port("failed", "h", {{"binding:vif_type", "binding_failed"}});
  server.level("unbound", "h", 0, "v");
  server.level("failed", "h", 0, "v");
  server.level("unknown", "h", 0, "v");
  const auto result = server.import();
  EXPECT_THAT(
      result.leftOut,
      ElementsAre(
          "binding levels of port \"failed\" on host \"h\" left out: the port is not bound there",
          "binding levels of port \"unbound\" on host \"h\" left out: the port is not bound there",
          "binding levels of port \"unknown\" on host \"h\" left out: there is no such port"));
}

TEST(NeutronImport, AHostOfNoLegalNameIsLeftOut) {
  Server server;
  server.segment("v", "n", "vlan", 5);
  server.port("p", "h\n");
  server.port("q", "good");
  server.level("q", "bad\x7f", 0, "v");
  const auto result = server.import();
  EXPECT_FALSE(result.ports.at("p").bound);
  EXPECT_THAT(result.ports.at("q").hosts, ElementsAre(Key("good")));
  EXPECT_THAT(result.leftOut,
              ElementsAre("binding of port p left out: \"h\\u000a\" is no name: it has a control "
                          "character",
                          "binding of port q left out: \"bad\\u007f\" is no name: it has a control "
                          "character"));
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
  server.level("p", "h", -1, "v");
  server.level("p", "h", "4", "v");
  server.dump.bindingLevels->push_back({{"port_id", "p"}, {"host", "h"}, {"level", 5}});
  server.dump.bindingLevels->push_back({{"host", "h"}, {"level", 5}, {"segment_id", "v"}});
  server.dump.bindingLevels->push_back({{"port_id", "p"}, {"level", 5}, {"segment_id", "v"}});
  const auto result = server.import();
  EXPECT_EQ(result.ports.at("p").hosts.at("h").segments, (LevelMap{{0, "v"}}));
  const auto unusable = [](const std::string& port, const std::string& host) {
    return "binding level of port \"" + port + "\" on host \"" + host +
           "\" left out: it needs port_id, host, segment_id and a level 0 to 255";
  };
  const std::string level = " of port p on host \"h\" left out: ";
  EXPECT_THAT(result.leftOut,
              ElementsAre(unusable("p", "h"), unusable("p", "h"), unusable("p", "h"),
                          unusable("p", "h"), unusable("", "h"), unusable("p", ""),
                          "level 0" + level + "there is another row for it",
                          "level 1" + level + "its segment is at level 0 too",
                          "level 2" + level + "VLAN 6 is at level 0 too",
                          "level 3" + level + "there is no segment \"unknown\""));
}

TEST(NeutronImport, TheLastLevelIs255) {
  Server server;
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
  Server server;
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

TEST(NeutronImport, TheOnlySegmentInTheDescriptionIsTheNetworksOwn) {
  Server server;
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
    Server server;
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
  Server server;
  server.network("n", {{"provider:network_type", "flat"}});
  server.segment("f", "n", "flat", nullptr);
  server.port("p", "h");
  EXPECT_EQ(server.import().ports.at("p").hosts.at("h").segments, (LevelMap{{0, "f"}}));
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
  server.port("q", "node", Server::baremetal({}))["binding:profile"] = nullptr;
  server.port("r", "node",
              Server::baremetal({}))["binding:profile"] = {{"local_link_information", nullptr}};
  const auto result = server.import();
  for (const auto* port : {"p", "q", "r"}) {
    EXPECT_THAT(result.ports.at(port).hosts, ElementsAre(Key("node")));
    EXPECT_EQ(result.ports.at(port).vlanType, 1);
  }
  EXPECT_THAT(result.leftOut, IsEmpty());
}

TEST(NeutronImport, LinksThatAreNoListAreLeftOut) {
  Server server;
  server.port("p", "node", Server::baremetal({}))["binding:profile"] = {
      {"local_link_information", {{"switch_info", "leaf"}, {"port_id", "e1"}}}};
  const auto result = server.import();
  EXPECT_THAT(result.ports.at("p").hosts, IsEmpty());
  EXPECT_THAT(result.ports.at("p").interfaces, IsEmpty());
  EXPECT_THAT(result.leftOut, ElementsAre("links of port p left out: an object is not a list"));
}

TEST(NeutronImport, LinksOfAnotherPortThanBaremetalAreIgnored) {
  Server server;
  json more = Server::baremetal({Server::link("leaf", "", "e1")});
  more["binding:vnic_type"] = "direct";
  server.port("p", "node", more);
  const auto result = server.import();
  EXPECT_THAT(result.ports.at("p").hosts, ElementsAre(Key("node")));
  EXPECT_THAT(result.ports.at("p").interfaces, IsEmpty());
  EXPECT_EQ(result.ports.at("p").vlanType, 0);
}

// What is wrong with the levels of a port is said once, not once for each of its links.
TEST(NeutronImport, TheLevelsOfLinksAreThoseOfTheirPort) {
  Server server;
  server.segment("v", "n", "vlan", 5);
  server.port(
      "p", "node",
      Server::baremetal({Server::link("leaf-1", "", "e1"), Server::link("leaf-2", "", "")}));
  server.level("p", "node", 0, "v");
  server.level("p", "node", 1, "unknown");
  const auto result = server.import();
  EXPECT_THAT(result.leftOut,
              ElementsAre("level 1 of port p on host \"node\" left out: there is no segment "
                          "\"unknown\"",
                          "link of port p left out: it names no port_id"));
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

TEST(NeutronImport, LinksOfNoLegalNameAreLeftOut) {
  Server server;
  server.port(
      "p", "node",
      Server::baremetal({Server::link("leaf\n", "", "e1"), Server::link("leaf", "", "e\x7f")}));
  const auto result = server.import();
  EXPECT_THAT(result.ports.at("p").interfaces, IsEmpty());
  EXPECT_THAT(
      result.leftOut,
      ElementsAre("link of port p left out: \"leaf\\u000a\" is no name: it has a control character",
                  "link of port p left out: \"e\\u007f\" is no name: it has a control character"));
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
  Server server;
  server.port("a", "h", {{"device_id", ""}});
  server.port("b", "h", {{"device_id", nullptr}});
  server.port("c", "h", {{"device_id", std::string(256, 'x')}});
  const auto result = server.import();
  EXPECT_THAT(result.vmInstances, IsEmpty());
  EXPECT_THAT(result.leftOut,
              ElementsAre(StartsWith("device of port c (compute:nova) left out: ")));
}

TEST(NeutronImport, AnAnswerOfAnotherShapeIsRefusedWithItsPlace) {
  const auto refused = [](auto change) {
    Server server;
    change(server.dump);
    try {
      importOf(server.dump);
    } catch (const BadDump& error) {
      return std::string(error.what());
    }
    return std::string();
  };
  EXPECT_EQ(refused([](Answers& dump) { dump.ports = json::array(); }),
            "ports.json:1: : there is no list of ports");
  EXPECT_EQ(refused([](Answers& dump) { dump.networks = json::object(); }),
            "networks.json:1: : there is no list of networks");
  EXPECT_EQ(refused([](Answers& dump) { dump.networks["networks"] = json::object(); }),
            "networks.json:1: /networks: there is no list of networks");
  EXPECT_EQ(refused([](Answers& dump) { dump.networks["networks"] = {nullptr}; }),
            "networks.json:1: /networks/0: null is not an object");
  EXPECT_EQ(refused([](Answers& dump) { dump.segments["segments"] = {1}; }),
            "segments.json:1: /segments/0: 1 is not an object");
  EXPECT_EQ(refused([](Answers& dump) {
              dump.ports["ports"] = {json::object(), "x"};
            }),
            "ports.json:1: /ports/1: \"x\" is not an object");
  EXPECT_EQ(refused([](Answers& dump) { dump.bindingLevels = json::object(); }),
            "db_binding_levels.json:1: : an object is not a list of rows");
  EXPECT_EQ(refused([](Answers& dump) { dump.bindingLevels = json::array({true}); }),
            "db_binding_levels.json:1: /0: true is not an object");
}

TEST(NeutronImport, EveryCollectionIsWritten) {
  Server server;
  server.network("n");
  server.segment("v", "n", "vlan", 5);
  server.segment("x", "n", "vxlan", 6);
  server.segment("o", "n", "gre", 7);
  server.port("p", "h", {{"device_id", "vm"}});
  server.level("p", "h", 0, "x");
  server.level("p", "h", 1, "v");
  server.port("q", "node",
              Server::baremetal({Server::link("leaf", "", "e1"), Server::link("leaf", "", "e2"),
                                 Server::link("mane", "", "e1")}));
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
