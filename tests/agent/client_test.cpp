// The parts of the live agent's client that need no agent.
#include <gmock/gmock.h>

#include "agent/client/live_agent.h"
#include "agent/client/table.h"

namespace vnagent {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

std::vector<std::string> events(std::string_view bytes, size_t piece) {
  EventReader reader;
  std::vector<std::string> found;
  for (size_t begin = 0; begin < bytes.size(); begin += piece) {
    reader.feed(bytes.substr(begin, piece), [&](const LiveEvent& event) {
      found.push_back(event.id + " " + event.name + " " + event.json().dump());
    });
  }
  return found;
}

TEST(EventReader, ReadsEventsInPiecesOfAnySize) {
  constexpr std::string_view kBytes =
      ": a comment\n\nid: 1-a\nevent: snapshot\ndata: {\"b\": 1}\n\n"
      "id: 2-b\r\nevent:patch\r\ndata: {\"b\":\r\ndata: null}\r\n\r\nid: 3\nevent: cut\ndata: {}\n";
  for (size_t piece = 1; piece <= kBytes.size(); ++piece) {
    EXPECT_THAT(events(kBytes, piece),
                ElementsAre(R"(1-a snapshot {"b":1})", R"(2-b patch {"b":null})"));
  }
}

TEST(Endpoint, IsReadFromAUrl) {
  const Endpoint plain = Endpoint::ofUrl("http://agent.example:8080/");
  EXPECT_EQ(plain.name(), "agent.example:8080");
  EXPECT_FALSE(plain.tls);
  const Endpoint secure = Endpoint::ofUrl("https://[::1]");
  EXPECT_EQ(secure.host, "::1");
  EXPECT_EQ(secure.port, "443");
  EXPECT_TRUE(secure.tls);
  EXPECT_EQ(Endpoint::ofUrl("https://[::1]:8443").port, "8443");
}

TEST(Endpoint, RefusesWhatIsNoUrl) {
  for (const char* url : {"", "agent:80", "ftp://agent", "http://", "http://:80",
                          "http://agent:", "http://agent:x", "http://agent/v1"}) {
    EXPECT_THROW(Endpoint::ofUrl(url), std::invalid_argument) << url;
  }
}

TEST(Places, AreEncodedAsPointersInTheQuery) {
  EXPECT_EQ(placeTarget("cloud", ""), "/v1/cloud");
  EXPECT_EQ(placeTarget("cloud", withKey("/region", "a/b~ é")),
            "/v1/cloud?at=%2Fregion%2Fa~1b~0%20%C3%A9");
}

TEST(Difference, TouchesOnlyWhatDiffers) {
  const Json before = Json::parse(R"({"a": {"b": 1, "c": {"d": 2}}, "e": [1], "f": 0, "g": {}})");
  const Json after = Json::parse(R"({"a": {"b": 1, "c": {"d": 3}}, "e": [1], "g": 1, "h": {}})");
  const Json patch = differenceOf(before, after);
  EXPECT_EQ(patch, Json::parse(R"({"a": {"c": {"d": 3}}, "f": null, "g": 1, "h": {}})"));
  Json merged = before;
  merged.merge_patch(patch);
  EXPECT_EQ(merged, after);
  EXPECT_EQ(differenceOf(after, after), Json::object());
}

TEST(ChangedPlaces, NameMembersWithWhatWasThereBefore) {
  const Json before = Json::parse(R"({"region": {"R": {"port": {"p": {}}, "syncInterval": 1}}})");
  const Json patch = Json::parse(
      R"({"region": {"R": {"port": {"p": null, "q/r": {"vlanType": 1}}, "syncInterval": 2},
          "S": {"network": {}}, "T": null}, "config": {"vlanTypeDriver": 1}})");
  std::vector<std::string> lines;
  for (const ChangedPlace& place : changedPlaces(before, patch)) {
    lines.push_back(place.sign + place.pointer + " " + place.text);
  }
  EXPECT_THAT(lines, ElementsAre("+/config/vlanTypeDriver 1", "-/region/R/port/p {}",
                                 R"(+/region/R/port/q~1r {"vlanType":1})",
                                 "~/region/R/syncInterval 1 -> 2", R"(+/region/S {"network":{}})"));
}

TEST(ChangedPlaces, OfAnUnknownDocumentAreThoseThatThePatchNames) {
  std::vector<std::string> lines;
  for (const ChangedPlace& place :
       changedPlaces(nullptr, Json::parse(R"({"a": {"b": null, "c": 1, "d": {}}})"))) {
    lines.push_back(place.sign + place.pointer + " " + place.text);
  }
  EXPECT_THAT(lines, ElementsAre("-/a/b ", "~/a/c 1", "~/a/d {}"));
}

TEST(Table, AlignsItsColumns) {
  Table table({"NAME", "PORTS"});
  table.add({"é", "1"});
  table.add({"a longer name", ""});
  table.add({"\033[31m", "2"});
  EXPECT_EQ(table.text(false),
            "NAME           PORTS\n"
            "é              1\n"
            "a longer name  -\n"
            "\\u001b[31m     2\n");
  EXPECT_THAT(table.text(true), HasSubstr("\033[1mNAME"));
}

HttpResponse problemOf(std::string body) {
  HttpResponse response;
  response.status = 422;
  response.body = std::move(body);
  return response;
}

TEST(RequestRefused, SaysDetailPlaceAndRule) {
  const RequestRefused refused(problemOf(
      R"({"type": "/problems/rule-broken", "title": "T", "detail": "it is wrong",
          "pointer": "/region/R", "rule": "no such member", "faults": ["a", "b"]})"));
  EXPECT_STREQ(refused.what(), "/region/R: it is wrong (no such member); b");
  EXPECT_EQ(refused.name(), "rule-broken");
  const RequestRefused bare(problemOf("<html>"));
  EXPECT_STREQ(bare.what(), "the agent answered 422");
  EXPECT_EQ(bare.name(), "");
  EXPECT_TRUE(bare.problem().is_null());
}

}  // namespace
}  // namespace vnagent
