// Importing the state of a Neutron server: what is left out, and what is refused.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
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

TEST(NeutronRefusals, AnInvalidSegmentIsLeftOut) {
  NeutronServer server;
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

TEST(NeutronRefusals, APortWithoutHostThatIsNotDistributedIsLeftOut) {
  NeutronServer server;
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

TEST(NeutronRefusals, RowsOfABaremetalPortForAnotherHostAreLeftOut) {
  NeutronServer server;
  server.segment("v", "n", "vlan", 5);
  server.segment("w", "n", "vlan", 6);
  server.port("linked", "node", NeutronServer::baremetal({NeutronServer::link("leaf", "", "e1")}));
  server.port("bare", "node", NeutronServer::baremetal({}));
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

TEST(NeutronRefusals, UnusedRowsAreLeftOut) {
  NeutronServer server;
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

TEST(NeutronRefusals, AHostOfNoLegalNameIsLeftOut) {
  NeutronServer server;
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

TEST(NeutronRefusals, LevelsThatBreakARuleAreLeftOut) {
  NeutronServer server;
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

TEST(NeutronRefusals, LinksThatAreNoListAreLeftOut) {
  NeutronServer server;
  server.port("p", "node", NeutronServer::baremetal({}))["binding:profile"] = {
      {"local_link_information", {{"switch_info", "leaf"}, {"port_id", "e1"}}}};
  const auto result = server.import();
  EXPECT_THAT(result.ports.at("p").hosts, IsEmpty());
  EXPECT_THAT(result.ports.at("p").interfaces, IsEmpty());
  EXPECT_THAT(result.leftOut, ElementsAre("links of port p left out: an object is not a list"));
}

// What is wrong with the levels of a port is said once, not once for each of its links.
TEST(NeutronRefusals, TheLevelsOfLinksAreThoseOfTheirPort) {
  NeutronServer server;
  server.segment("v", "n", "vlan", 5);
  server.port("p", "node",
              NeutronServer::baremetal({NeutronServer::link("leaf-1", "", "e1"),
                                        NeutronServer::link("leaf-2", "", "")}));
  server.level("p", "node", 0, "v");
  server.level("p", "node", 1, "unknown");
  const auto result = server.import();
  EXPECT_THAT(result.leftOut,
              ElementsAre("level 1 of port p on host \"node\" left out: there is no segment "
                          "\"unknown\"",
                          "link of port p left out: it names no port_id"));
}

TEST(NeutronRefusals, ALinkThatNamesNoInterfaceIsLeftOut) {
  NeutronServer server;
  server.port("p", "node",
              NeutronServer::baremetal(
                  {NeutronServer::link("leaf", "", "e1"), NeutronServer::link("", "", "e2"),
                   json{{"switch_info", "leaf"}}, NeutronServer::link("leaf", "x", "e1"), 5}));
  const auto result = server.import();
  EXPECT_THAT(result.ports.at("p").interfaces, SizeIs(1));
  EXPECT_THAT(result.leftOut,
              ElementsAre("link of port p left out: it names no switch",
                          "link of port p left out: it names no port_id",
                          "link of port p left out: the port has another one to leaf e1",
                          "link of port p left out: it is not an object"));
}

TEST(NeutronRefusals, LinksOfNoLegalNameAreLeftOut) {
  NeutronServer server;
  server.port("p", "node",
              NeutronServer::baremetal({NeutronServer::link("leaf\n", "", "e1"),
                                        NeutronServer::link("leaf", "", "e\x7f")}));
  const auto result = server.import();
  EXPECT_THAT(result.ports.at("p").interfaces, IsEmpty());
  EXPECT_THAT(
      result.leftOut,
      ElementsAre("link of port p left out: \"leaf\\u000a\" is no name: it has a control character",
                  "link of port p left out: \"e\\u007f\" is no name: it has a control character"));
}

TEST(NeutronRefusals, AnAnswerOfAnotherShapeIsRefusedWithItsPlace) {
  const auto refused = [](auto change) {
    NeutronServer server;
    change(server.dump);
    try {
      importOf(server.dump);
    } catch (const BadDump& error) {
      return std::string(error.what());
    }
    return std::string();
  };
  EXPECT_EQ(refused([](NeutronAnswers& dump) { dump.ports = json::array(); }),
            "ports.json:1: : there is no list of ports");
  EXPECT_EQ(refused([](NeutronAnswers& dump) { dump.networks = json::object(); }),
            "networks.json:1: : there is no list of networks");
  EXPECT_EQ(refused([](NeutronAnswers& dump) { dump.networks["networks"] = json::object(); }),
            "networks.json:1: /networks: there is no list of networks");
  EXPECT_EQ(refused([](NeutronAnswers& dump) { dump.networks["networks"] = {nullptr}; }),
            "networks.json:1: /networks/0: null is not an object");
  EXPECT_EQ(refused([](NeutronAnswers& dump) { dump.segments["segments"] = {1}; }),
            "segments.json:1: /segments/0: 1 is not an object");
  EXPECT_EQ(refused([](NeutronAnswers& dump) {
              dump.ports["ports"] = {json::object(), "x"};
            }),
            "ports.json:1: /ports/1: \"x\" is not an object");
  EXPECT_EQ(refused([](NeutronAnswers& dump) { dump.bindingLevels = json::object(); }),
            "db_binding_levels.json:1: : an object is not a list of rows");
  EXPECT_EQ(refused([](NeutronAnswers& dump) { dump.bindingLevels = json::array({true}); }),
            "db_binding_levels.json:1: /0: true is not an object");
}

}  // namespace
}  // namespace vnagent
