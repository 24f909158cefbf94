// The live agent without its network: requests in, replies out, in virtual time.
#include "agent/live/service.h"

#include <string>
#include <vector>

#include "tests/agent/service_support.h"

namespace vnagent {
namespace {

TEST_F(ServiceTest, PatchIsAppliedAndReadBack) {
  start();
  const Reply reply = request("PATCH", "/v1/cloud", kBound);
  EXPECT_EQ(reply.status, 200U);
  EXPECT_EQ(Json::parse(*reply.body), Json({{"revision", 1}}));
  EXPECT_EQ(get("/v1/cloud/region/R/port"), Json({{"p", Json::object()}}));
  const Json output = get("/v1/output");
  EXPECT_EQ(output["requestedResources"]["resourcesForHostname"]["h"]["vlan"]["100"]["referrer"],
            Json({"p"}));
  EXPECT_EQ(get("/v1/output/requestedResources/resourcesForHostname/h/domain"),
            Json({{"R", {"p"}}}));
}

TEST_F(ServiceTest, RefusedPatchNamesPlaceAndRule) {
  start();
  const Reply reply =
      request("PATCH", "/v1/cloud", R"({"region": {"R": {"portBinding": {"p9": {}}}}})");
  EXPECT_EQ(reply.status, 422U);
  const Json problem = Json::parse(*reply.body);
  EXPECT_EQ(problem["type"], "/problems/rule-broken");
  EXPECT_EQ(problem["pointer"], "/region/R/portBinding/p9");
  EXPECT_EQ(problem["rule"], "no port \"p9\" in region \"R\"");
  EXPECT_EQ(get("/v1")["revision"], 0);
}

TEST_F(ServiceTest, ConditionsCompareTheRevisionOfTheLastChangeOfAPlace) {
  start();
  patch(kBound);
  patch(R"({"region": {"R": {"port": {"q": {}}}}})");
  const Reply old = request("GET", "/v1/cloud/region/R/port/p");
  EXPECT_EQ(header(old, "etag"), "\"1\"");
  EXPECT_EQ(header(request("GET", "/v1/cloud/region/R"), "etag"), "\"2\"");
  const Headers stale{{"if-match", "\"1\""}};
  const Reply refused = request("PATCH", "/v1/cloud/region/R", "{}", stale);
  EXPECT_EQ(refused.status, 412U);
  EXPECT_EQ(header(refused, "etag"), "\"2\"");
  EXPECT_EQ(request("DELETE", "/v1/cloud/region/R/port/q", "", {{"if-match", "\"2\""}}).status,
            200U);
}

TEST_F(ServiceTest, ReplacementAppliesTheDifferenceAndCountsMembers) {
  start();
  patch(kBound);
  Json region = get("/v1/cloud/region/R");
  EXPECT_EQ(Json::parse(*request("PUT", "/v1/cloud/region/R", region.dump()).body),
            Json({{"revision", 1}, {"changed", 0}}));
  region["port"]["q"] = Json::object();
  region.erase("portBinding");
  const Reply reply = request("PUT", "/v1/cloud/region/R", region.dump());
  EXPECT_EQ(Json::parse(*reply.body), Json({{"revision", 2}, {"changed", 2}}));
  EXPECT_EQ(get("/v1/cloud/region/R"), region);
  const Reply created = request("PUT", "/v1/cloud/region/S", "{}");
  EXPECT_EQ(created.status, 201U);
  EXPECT_EQ(request("PUT", "/v1/cloud/region/S", R"({"port": {"x": null}})").status, 422U);
}

TEST_F(ServiceTest, DryRunShowsTheOutputAndChangesNothing) {
  start();
  const Reply reply = request("PATCH", "/v1/cloud?dry-run=true", kBound);
  ASSERT_EQ(reply.status, 200U) << *reply.body;
  const Json dry = Json::parse(*reply.body);
  EXPECT_EQ(dry["revision"], 0);
  EXPECT_EQ(get("/v1/cloud"), Json::object());
  EXPECT_TRUE(dry["output"]["requestedResources"]["resourcesForHostname"].contains("h"));
  EXPECT_EQ(request("PATCH", "/v1/cloud?dry-run=true", R"({"region": 5})").status, 422U);
  EXPECT_EQ(get("/v1")["revision"], 0);
}

TEST_F(ServiceTest, WatchHasTheDocumentAndItsChanges) {
  start();
  patch(kBound);
  Follower follower = watch();
  follower.read();
  EXPECT_EQ(follower.document, get("/v1/output"));
  const std::string first = follower.lastId;
  patch(R"({"region": {"R": {"portBinding": {"p": null}}}})");
  follower.read();
  EXPECT_EQ(follower.document, get("/v1/output"));
  EXPECT_EQ(follower.events, (std::vector<std::string>{"snapshot", "patch"}));

  Follower resumed = watch("?since=" + first);
  resumed.document = Json::parse(*request("PATCH", "/v1/cloud?dry-run=true", "{}").body);
  resumed.read();
  EXPECT_EQ(resumed.lastId, follower.lastId);
  EXPECT_EQ(request("GET", "/v1/watch?since=1-0123456789abcdef").status, 410U);
  EXPECT_EQ(request("GET", "/v1/watch?since=9").status, 503U);
}

// What was removed and added again, between two looks of a slow reader, differs in what it has.
TEST_F(ServiceTest, SlowReaderGetsTheDifferenceOfTheDocuments) {
  start();
  patch(kBound);
  Follower follower = watch("?of=cloud");
  follower.read();
  patch(R"({"region": {"R": null}})");
  patch(R"({"region": {"R": {"port": {"q": {"vlanType": 1}}}}})");
  follower.read();
  EXPECT_EQ(follower.document, get("/v1/cloud"));
  EXPECT_EQ(follower.events.size(), 2U);
  patch(R"({"region": {"R": {"port": {"q": null}}}})");
  patch(R"({"region": {"R": {"port": {"q": {"vlanType": 1}}}}})");
  follower.read();
  EXPECT_EQ(follower.events.size(), 2U) << "nothing differs in the end";
}

TEST_F(ServiceTest, WatchOfPlacesHasTheirFullPaths) {
  start();
  Follower follower = watch("?of=cloud&at=/region/R/port/p&at=/region/S");
  follower.read();
  EXPECT_EQ(follower.document, Json::object());
  patch(kBound);
  follower.read();
  EXPECT_EQ(follower.document, Json::parse(R"({"region": {"R": {"port": {"p": {}}}}})"));
  patch(R"({"region": {"S": {"port": {"z": {}}}, "R": {"portBinding": {"p": null}}}})");
  patch(R"({"region": {"R": {"port": {"p": null}}}})");
  follower.read();
  EXPECT_EQ(follower.document, Json::parse(R"({"region": {"S": {"port": {"z": {}}}}})"));
  patch(R"({"region": {"S": null}})");
  follower.read();
  EXPECT_EQ(follower.document, Json::object());
}

TEST_F(ServiceTest, BookmarkSaysThatNothingChanged) {
  start();
  Follower follower = watch();
  follower.read();
  pass(14);
  follower.read();
  EXPECT_EQ(follower.events, (std::vector<std::string>{"snapshot", "bookmark"}));
}

TEST_F(ServiceTest, LockGoesToWhoeverWaitsLongest) {
  start();
  patch(R"({"region": {"R": {}}})");
  const auto lock = [&](const std::string& id, int wait) {
    return send("POST", "/v1/region/R/sync/lock",
                R"({"requester": "d", "requestId": ")" + id + R"(", "wait": )" +
                    std::to_string(wait) + "}");
  };
  EXPECT_EQ((*lock("r1", 0))->status, 200U);
  EXPECT_EQ((*lock("r1", 0))->status, 200U) << "it is held already";
  const Reply held = std::move(**lock("r2", 0));
  EXPECT_EQ(held.status, 409U);
  EXPECT_EQ(Json::parse(*held.body)["holder"], Json({{"owner", "d"}, {"requestId", "r1"}}));
  const Waiting second = lock("r2", 10);
  const Waiting third = lock("r3", 10);
  EXPECT_FALSE(second->has_value());
  EXPECT_EQ(get("/v1/region/R/sync")["waiting"], 2);
  const Headers mine{{"sync-request-id", "r1"}};
  EXPECT_EQ(request("POST", "/v1/region/R/sync/start", "", mine).status, 200U);
  EXPECT_EQ(request("POST", "/v1/region/R/sync/complete", "", mine).status, 200U);
  ASSERT_TRUE(second->has_value());
  EXPECT_EQ((*second)->status, 200U);
  EXPECT_FALSE(third->has_value());
  pass(10);
  ASSERT_TRUE(third->has_value());
  EXPECT_EQ((*third)->status, 409U);
  EXPECT_EQ(request("POST", "/v1/region/R/sync/start", "", mine).status, 409U);
  EXPECT_EQ(request("POST", "/v1/region/R/sync/start").status, 428U);
  EXPECT_EQ(request("DELETE", "/v1/region/R/sync/lock?force=true").status, 200U);
  EXPECT_EQ(get("/v1/region/R/sync")["owner"], "");
}

TEST_F(ServiceTest, ExpiredSyncTakesARevision) {
  start();
  patch(R"({"region": {"R": {}}})");
  request("POST", "/v1/region/R/sync/lock", R"({"requester": "d", "requestId": "r"})");
  request("POST", "/v1/region/R/sync/start", "", {{"sync-request-id", "r"}});
  const Json before = get("/v1/region/R/sync");
  EXPECT_EQ(before["expiresIn"], 60);
  pass(61);
  const Json after = get("/v1/region/R/sync");
  EXPECT_EQ(after["syncStatus"], "syncTimedOut");
  EXPECT_EQ(get("/v1")["revision"], 4);
}

TEST_F(ServiceTest, FencedWriteNeedsTheHolder) {
  start();
  patch(R"({"region": {"R": {}}})");
  request("POST", "/v1/region/R/sync/lock", R"({"requester": "d", "requestId": "r"})");
  const std::string change = R"({"region": {"R": {"port": {"p": {}}}}})";
  EXPECT_EQ(request("PATCH", "/v1/cloud", change, {{"sync-request-id", "x"}}).status, 409U);
  EXPECT_EQ(request("PATCH", "/v1/cloud", change, {{"sync-request-id", "r"}}).status, 200U);
}

TEST_F(ServiceTest, RepeatedKeyIsAnsweredOnce) {
  start();
  const Headers key{{"idempotency-key", "k1"}};
  const std::string change = R"({"region": {"R": {"syncHeartbeat": 1}}})";
  const Reply first = request("PATCH", "/v1/cloud", change, key);
  const Reply second = request("PATCH", "/v1/cloud", change, key);
  EXPECT_EQ(*first.body, *second.body);
  EXPECT_EQ(get("/v1")["revision"], 1);
  EXPECT_EQ(request("PATCH", "/v1/cloud", "{}", key).status, 422U);
}

class CountingObserver final : public ServiceObserver {
 public:
  void onApplied(uint64_t revision, std::string_view, std::string_view, double) override {
    applied.push_back(revision);
  }
  void onRefused(std::string_view, std::string_view, std::string_view name) override {
    refused.emplace_back(name);
  }

  std::vector<uint64_t> applied;
  std::vector<std::string> refused;
};

TEST_F(ServiceTest, ObserverHearsOfEachChangeAndEachRefusal) {
  CountingObserver observer;
  settings_.observer = &observer;
  start();
  const std::string region = R"({"port": {"p": {}}})";
  EXPECT_EQ(request("PUT", "/v1/cloud/region/R", region).status, 201U);
  EXPECT_EQ(request("PUT", "/v1/cloud/region/R", region).status, 200U);
  EXPECT_EQ(observer.applied, std::vector<uint64_t>{1}) << "the second found nothing to do";
  request("POST", "/v1/batch", R"([{"region": {"S": {}}}, {"region": 7}, {"region": {"T": {}}}])");
  EXPECT_EQ(observer.applied, (std::vector<uint64_t>{1, 2, 3}));
  EXPECT_EQ(observer.refused, std::vector<std::string>{"rule-broken"});
  request("POST", "/v1/region/R/sync/lock", R"({"requester": "d", "requestId": "r"})");
  request("POST", "/v1/region/R/sync/lock", R"({"requester": "d", "requestId": "r"})");
  EXPECT_EQ(observer.applied, (std::vector<uint64_t>{1, 2, 3, 4})) << "the lock was held already";
}

TEST_F(ServiceTest, PrincipalOfARegionSeesItsOwnOnly) {
  start();
  patch(kBound);
  patch(R"({"region": {"S": {
      "segment": {"t": {"segmentationType": "vlan", "segmentationId": 200}}, "port": {"o": {}},
      "portBinding": {"o": {"portToHostBinding": {"g": {"segment": {"0": "t"}}}}}}}})");
  principal_ = Principal{"tenant", Role::kWriteRegions, {"S"}};
  EXPECT_EQ(request("GET", "/v1/cloud/region/R").status, 404U);
  EXPECT_EQ(get("/v1/cloud")["region"].size(), 1U);
  const Json output = get("/v1/output");
  EXPECT_TRUE(output["requestedResources"]["resourcesForHostname"].contains("g"));
  EXPECT_FALSE(output["requestedResources"]["resourcesForHostname"].contains("h"));
  EXPECT_EQ(output["regionStatus"].size(), 1U);
  EXPECT_EQ(request("PATCH", "/v1/cloud", R"({"region": null})").status, 403U);
  EXPECT_EQ(request("PATCH", "/v1/cloud/region/Q", "{}").status, 403U);
  EXPECT_EQ(request("POST", "/v1/region/R/sync/lock", R"({"requestId": "x"})").status, 403U);
  EXPECT_EQ(request("GET", "/metrics").status, 403U);
  // A port id of another region: the fault does not say which.
  const Reply reply = request("PATCH", "/v1/cloud/region/S", R"({"port": {"p": {}}})");
  EXPECT_EQ(reply.status, 422U);
  EXPECT_EQ(reply.body->find("\"R\""), std::string::npos) << *reply.body;
  Follower follower = watch();
  follower.read();
  EXPECT_EQ(follower.document, output);
}

TEST_F(ServiceTest, PrincipalOfARegionResumesItsView) {
  start();
  patch(kBound);
  patch(R"({"region": {"S": {"port": {"o": {}}}}})");
  const Principal tenant{"tenant", Role::kWriteRegions, {"S"}};
  principal_ = tenant;
  Follower follower = watch();
  Follower places = watch("?of=cloud&at=/region/R/port&at=/region/S/port");
  follower.read();
  places.read();
  principal_ = admin();
  patch(R"({"region": {"R": {"portBinding": null}}})");
  patch(R"({"region": {"S": {
      "port": {"o": null, "n": {}},
      "segment": {"t": {"segmentationType": "vlan", "segmentationId": 200}},
      "portBinding": {"n": {"portToHostBinding": {"g": {"segment": {"0": "t"}}}}}}}})");
  principal_ = tenant;
  Follower resumed = watch("?since=" + follower.lastId);
  resumed.document = follower.document;
  resumed.read();
  EXPECT_EQ(resumed.document, get("/v1/output"));
  EXPECT_EQ(resumed.events, (std::vector<std::string>{"patch"}));
  Follower resumedPlaces =
      watch("?of=cloud&at=/region/R/port&at=/region/S/port&since=" + places.lastId);
  resumedPlaces.document = places.document;
  resumedPlaces.read();
  EXPECT_EQ(resumedPlaces.document, Json::parse(R"({"region": {"S": {"port": {"n": {}}}}})"));
}

}  // namespace
}  // namespace vnagent
