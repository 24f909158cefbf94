// What a request says: its target, route, parameters, conditions and accepted media types.
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "agent/live/body.h"
#include "agent/live/conditions.h"
#include "agent/live/region_difference.h"
#include "agent/live/route.h"

namespace vnagent {
namespace {

Request requestOf(std::string method, std::string target, Headers headers = {}) {
  Request request;
  request.method = std::move(method);
  request.target = std::move(target);
  request.headers = std::move(headers);
  return request;
}

// The route of a target; fails the test where it cannot be read.
Route routeOf(const std::string& target, const std::string& method = "GET") {
  Route route;
  const auto refusal = readRoute(requestOf(method, target), route);
  EXPECT_FALSE(refusal) << refusal->detail;
  return route;
}

// The type of the problem that a target has; empty for none.
std::string faultOf(const std::string& target, const std::string& method = "GET") {
  const Request request = requestOf(method, target);
  Route route;
  Parameters parameters;
  if (const auto refusal = readRoute(request, route)) return std::string(refusal->type);
  if (const auto refusal = readParameters(request, route, parameters)) {
    return std::string(refusal->type);
  }
  return "";
}

TEST(Route, PathIsDecodedOnce) {
  const Route route = routeOf("/v1/cloud/region/a%2Fb/port/%25x+y");
  EXPECT_EQ(route.subject, Subject::kCloud);
  EXPECT_EQ(route.place, (Place{"region", "a/b", "port", "%x+y"}));
}

TEST(Route, PointerSaysWhatAPathCannot) {
  const Route route = routeOf("/v1/cloud?at=/region/R/port/a+b/~0~1/");
  EXPECT_EQ(route.place, (Place{"region", "R", "port", "a b", "~/", ""}));
  EXPECT_EQ(pointerOf(route.place), "/region/R/port/a b/~0~1/");
}

TEST(Route, EmptySegmentLeadsNowhere) {
  for (const char* target : {"/v1/cloud/", "/v1/cloud//R", "/", "/v1//cloud", "/v1/"}) {
    EXPECT_EQ(routeOf(target).subject, Subject::kNothing) << target;
  }
}

TEST(Route, DotsAreNames) {
  EXPECT_EQ(routeOf("/v1/cloud/region/../.").place, (Place{"region", "..", "."}));
}

TEST(Route, SyncCallsNameTheirRegion) {
  const Route route = routeOf("/v1/region/a%2Fb/sync/heartbeat", "POST");
  EXPECT_EQ(route.subject, Subject::kSyncHeartbeat);
  EXPECT_EQ(route.region, "a/b");
  EXPECT_EQ(routeOf("/v1/region/R/sync/else").subject, Subject::kNothing);
  EXPECT_EQ(routeOf("/v1/region/R").subject, Subject::kNothing);
}

TEST(Route, EncodedSlashIsNoSeparator) {
  EXPECT_EQ(routeOf("/v1%2Fbatch").subject, Subject::kNothing);
  EXPECT_EQ(routeOf("/v1/trace%2Ftail").subject, Subject::kNothing);
}

TEST(Route, UnreadableTargetsAreRefused) {
  for (const char* target :
       {"v1", "*", "/v1/cloud/%", "/v1/cloud/%zz", "/v1/cloud/%ff", "/v1?x=%f", "/v1#x",
        "/v1/cloud/region?at=/region", "/v1/cloud?at=region", "/v1/cloud?at=/~2"}) {
    EXPECT_EQ(faultOf(target), "bad-request") << target;
  }
}

TEST(Parameters, UnknownAndRepeatedOnesAreRefused) {
  for (const char* target :
       {"/v1?x=1", "/v1/cloud?dryrun=true", "/v1/cloud?dry-run=true",
        "/v1/cloud?at=&at=", "/v1/output?wait=-1", "/v1/output?wait=1&timeout=301",
        "/v1/output?timeout=x", "/v1/watch?of=both", "/v1/watch?since=1&since=1"}) {
    EXPECT_EQ(faultOf(target), "bad-request") << target;
  }
  EXPECT_EQ(faultOf("/v1/cloud?dry-run=yes", "PATCH"), "bad-request");
  EXPECT_EQ(faultOf("/v1/cloud?dry-run=true", "PATCH"), "");
  EXPECT_EQ(faultOf("/v1/output?wait=7&timeout=0.5"), "");
  EXPECT_EQ(faultOf("/v1/watch?of=cloud&at=/region/R&at=/region/S&since=4"), "");
}

// Conditions.

Conditions conditionsOf(std::string name, std::string value) {
  Conditions conditions;
  EXPECT_FALSE(conditions.read(requestOf("PATCH", "/", {{std::move(name), std::move(value)}})));
  return conditions;
}

TEST(Conditions, IfMatchComparesStrongTags) {
  EXPECT_FALSE(conditionsOf("if-match", "\"7\"").refuseChange(7));
  EXPECT_FALSE(conditionsOf("if-match", "\"1\" , \"7\"").refuseChange(7));
  EXPECT_FALSE(conditionsOf("if-match", "*").refuseChange(7));
  EXPECT_TRUE(conditionsOf("if-match", "\"7\"").refuseChange(8));
  EXPECT_TRUE(conditionsOf("if-match", "W/\"7\"").refuseChange(7));
  const auto nothing = conditionsOf("if-match", "*").refuseChange(std::nullopt);
  ASSERT_TRUE(nothing);
  EXPECT_TRUE(nothing->headers.empty());
}

TEST(Conditions, IfNoneMatchRefusesWhatExists) {
  EXPECT_TRUE(conditionsOf("if-none-match", "*").refuseChange(7));
  EXPECT_FALSE(conditionsOf("if-none-match", "*").refuseChange(std::nullopt));
  EXPECT_TRUE(conditionsOf("if-none-match", "W/\"7\"").isNotModified(7));
  EXPECT_FALSE(conditionsOf("if-none-match", "\"6\"").isNotModified(7));
}

TEST(Conditions, UnreadableTagsAreRefused) {
  for (const char* value : {"7", "\"7", "", "\"7\" \"8\"", "*, \"7\"", "\"7\",", "w/\"7\""}) {
    Conditions conditions;
    EXPECT_TRUE(conditions.read(requestOf("GET", "/", {{"if-match", value}}))) << value;
  }
}

// Media types.

TEST(Accept, TakesRangesAndRefusesZero) {
  const auto takes = [](std::string value) {
    return isAcceptable(requestOf("GET", "/", {{"accept", std::move(value)}}), "application/json");
  };
  EXPECT_TRUE(isAcceptable(requestOf("GET", "/"), "application/json"));
  EXPECT_TRUE(takes(""));
  EXPECT_TRUE(takes("text/html, */*; q=0.1"));
  EXPECT_TRUE(takes("Application/*"));
  EXPECT_TRUE(takes("application/json;charset=utf-8"));
  EXPECT_FALSE(takes("text/html"));
  EXPECT_FALSE(takes("application/json;q=0"));
  EXPECT_FALSE(takes("application/json; q=0.0, text/*"));
}

// Differences of regions.

const Region& regionOf(CloudDocument& document, std::string_view text) {
  const JsonTree tree = JsonTree::parse(patchAt({"region", "R"}, text));
  EXPECT_TRUE(document.apply(tree.root()).faults.empty()) << text;
  return document.state().region.at("R");
}

RegionDifference differenceOf(std::string_view now, std::string_view wanted) {
  CloudDocument before;
  CloudDocument after;
  return regionDifference(&regionOf(before, now), regionOf(after, wanted));
}

TEST(RegionDifference, CountsMembersOnce) {
  const RegionDifference difference =
      differenceOf(R"({"port": {"a": {}, "b": {}}, "network": {"n": {}}, "syncHeartbeat": 5})",
                   R"({"port": {"b": {"vlanType": 1}, "c": {}}, "network": {"n": {}}})");
  EXPECT_EQ(difference.members, 3U);
  EXPECT_EQ(difference.patch, R"({"port": {"a": null, "b": {"vlanType":1}, "c": {}}})");
}

TEST(RegionDifference, DefaultsAreNoDifference) {
  const RegionDifference difference =
      differenceOf(R"({"port": {"a": {}}})", R"({"port": {"a": {"vlanType": 0}}})");
  EXPECT_EQ(difference.patch, "{}");
  EXPECT_EQ(difference.members, 0U);
}

TEST(RegionDifference, NamedScalarsAreWrittenWhereTheyDiffer) {
  EXPECT_EQ(differenceOf(R"({"syncHeartbeat": 5})", R"({"syncHeartbeat": 0})").patch,
            R"({"syncHeartbeat": 0})");
  EXPECT_EQ(differenceOf(R"({"syncHeartbeat": 5})", R"({"syncHeartbeat": 5})").patch, "{}");
}

}  // namespace
}  // namespace vnagent
