// The live agent without its network: requests in, replies out, in virtual time.
#include "agent/live/service.h"

#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace vnagent {
namespace {

using Json = nlohmann::json;

Principal admin() {
  return {"operator", Role::kAdmin, {}};
}

// A storage in memory, whose records become durable when the test says so.
class MemoryStorage final : public Storage {
 public:
  using Storage::append;
  void append(std::vector<std::shared_ptr<const Record>> records) override {
    for (const auto& record : records) appended.push_back(*record);
    sizes.push_back(records.size());
  }
  void read(uint64_t first, uint64_t last,
            const std::function<bool(const Record&)>& take) const override {
    if (!isReadable) throw StorageError("the disk does not answer");
    for (const Record& record : appended) {
      if (record.revision >= first && record.revision <= last && !take(record)) return;
    }
  }
  void snapshot(Snapshot snapshot) override { kept = std::move(snapshot); }

  std::vector<Record> appended;
  std::vector<size_t> sizes;  // of each call of append()
  std::optional<Snapshot> kept;
  bool isReadable = true;
};

class ServiceTest : public ::testing::Test {
 protected:
  void start(Storage* storage = nullptr, Recovered recovered = {}) {
    service_ = std::make_unique<Service>(settings_, clock_, storage, std::move(recovered));
  }

  // The reply once it is given.
  using Waiting = std::shared_ptr<std::optional<Reply>>;
  Waiting send(std::string method, std::string target, std::string body = "",
               const Headers& headers = {}) {
    Request request;
    request.method = std::move(method);
    request.target = std::move(target);
    request.body = std::move(body);
    request.headers = headers;
    if (!request.body.empty() && request.header("content-type") == nullptr) {
      request.headers.emplace_back("content-type", request.method == "PATCH"
                                                       ? "application/merge-patch+json"
                                                       : "application/json");
    }
    request.principal = principal_;
    auto waiting = std::make_shared<std::optional<Reply>>();
    service_->handle(std::move(request), [waiting](Reply reply) { *waiting = std::move(reply); });
    return waiting;
  }
  Reply request(std::string method, std::string target, std::string body = "",
                const Headers& headers = {}) {
    const Waiting waiting = send(std::move(method), std::move(target), std::move(body), headers);
    if (!waiting->has_value()) {
      ADD_FAILURE() << "no reply yet";
      return {};
    }
    return std::move(**waiting);
  }
  Json get(const std::string& target) { return Json::parse(*request("GET", target).body); }
  void patch(const std::string& body) {
    const Reply reply = request("PATCH", "/v1/cloud", body);
    ASSERT_EQ(reply.status, 200U) << *reply.body;
  }
  static std::string header(const Reply& reply, std::string_view name) {
    for (const auto& [key, value] : reply.headers) {
      if (key == name) return value;
    }
    return "";
  }
  void pass(double seconds) {
    const double end = clock_.now() + seconds;
    while (service_->nextTimer() <= end) {
      clock_.nowIs(std::max(clock_.now(), service_->nextTimer()));
      service_->turn();
    }
    clock_.nowIs(end);
    service_->turn();
  }

  // A watch as a client follows it.
  struct Follower {
    std::unique_ptr<EventStream> stream;
    Json document = {};
    std::string lastId = {};
    std::vector<std::string> events = {};

    void read() {
      while (const auto bytes = stream->next()) take(*bytes);
    }
    void take(const std::string& text) {
      const auto field = [&](const std::string& name) {
        const size_t at = text.find(name + ": ");
        const size_t begin = at + name.size() + 2;
        return text.substr(begin, text.find('\n', begin) - begin);
      };
      lastId = field("id");
      events.push_back(field("event"));
      const Json data = Json::parse(field("data"));
      if (events.back() == "snapshot") document = data;
      if (events.back() == "patch") document.merge_patch(data);
    }
  };
  Follower watch(const std::string& query = "") {
    Reply reply = request("GET", "/v1/watch" + query);
    EXPECT_EQ(reply.status, 200U) << (reply.body ? *reply.body : "");
    return {std::move(reply.stream)};
  }

  static constexpr const char* kBound = R"({"region": {"R": {
      "segment": {"s": {"segmentationType": "vlan", "segmentationId": 100}},
      "port": {"p": {}},
      "portBinding": {"p": {"portToHostBinding": {"h": {"segment": {"0": "s"}}}}}}}})";

  ServiceSettings settings_;
  Kiv::VirtualTime clock_;
  std::optional<Principal> principal_ = admin();
  std::unique_ptr<Service> service_;
};

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

// Or a crash between two records would lose the key of a call that was made.
TEST_F(ServiceTest, CallAndItsKeyAreOneRecord) {
  MemoryStorage storage;
  start(&storage);
  send("PATCH", "/v1/cloud", R"({"region": {"R": {}}})");
  const std::string body = R"({"requester": "d", "requestId": "r"})";
  const Headers key{{"idempotency-key", "k"}};
  send("POST", "/v1/region/R/sync/lock", body, key);
  ASSERT_EQ(storage.appended.size(), 2U);
  EXPECT_EQ(storage.appended.back().key, "k");
  EXPECT_EQ(Json::parse(storage.appended.back().reply)["owner"], "d");
  send("POST", "/v1/region/R/sync/start", "", {{"sync-request-id", "r"}, {"idempotency-key", "s"}});
  ASSERT_EQ(storage.appended.size(), 3U);
  EXPECT_EQ(storage.appended.back().key, "s");
}

TEST_F(ServiceTest, BatchAndItsKeyBecomeDurableTogether) {
  MemoryStorage storage;
  start(&storage);
  const std::string body = R"([{"region": {"R": {}}}, {"region": 7}, {"region": {"S": {}}}])";
  send("POST", "/v1/batch", body, {{"idempotency-key", "k"}});
  ASSERT_EQ(storage.appended.size(), 3U);
  EXPECT_EQ(storage.sizes, std::vector<size_t>{3});
  EXPECT_EQ(storage.appended.back().key, "k");
  EXPECT_EQ(Json::parse(storage.appended.back().reply).size(), 3U);
  send("PATCH", "/v1/cloud", R"({"region": {"T": {}}})");
  EXPECT_EQ(storage.sizes.back(), 1U);
}

// A crash leaves no lock free for which somebody waits.
TEST_F(ServiceTest, LockThatIsHandedOnBecomesDurableTogetherWithItsRelease) {
  MemoryStorage storage;
  start(&storage);
  send("PUT", "/v1/cloud/region/R", "{}");
  send("POST", "/v1/region/R/sync/lock", R"({"requester": "a", "requestId": "1"})");
  send("POST", "/v1/region/R/sync/lock", R"({"requester": "b", "requestId": "2", "wait": 60})");
  storage.sizes.clear();
  send("DELETE", "/v1/region/R/sync/lock", "", {{"sync-request-id", "1"}});
  EXPECT_EQ(storage.sizes, std::vector<size_t>{2});
  EXPECT_EQ(Json::parse(storage.appended.back().event)["region"]["R"]["requester"], "b");
}

TEST_F(ServiceTest, LockThatIsHandedOnBecomesDurableTogetherWithTheExpiry) {
  MemoryStorage storage;
  start(&storage);
  send("PUT", "/v1/cloud/region/R", "{}");
  send("POST", "/v1/region/R/sync/lock", R"({"requester": "a", "requestId": "1"})");
  send("POST", "/v1/region/R/sync/start", "", {{"sync-request-id", "1"}});
  send("POST", "/v1/region/R/sync/lock", R"({"requester": "b", "requestId": "2", "wait": 300})");
  storage.sizes.clear();
  pass(service_->nextTimer() - clock_.now());
  EXPECT_EQ(storage.sizes, std::vector<size_t>{2});
  EXPECT_EQ(Json::parse(storage.appended.back().event)["region"]["R"]["requester"], "b");
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

TEST_F(ServiceTest, NothingIsShownBeforeItIsDurable) {
  MemoryStorage storage;
  start(&storage);
  Follower follower = watch();
  follower.read();
  const Waiting change = send("PATCH", "/v1/cloud", kBound);
  const Waiting read = send("GET", "/v1/cloud");
  follower.read();
  EXPECT_FALSE(change->has_value());
  EXPECT_FALSE(read->has_value());
  EXPECT_EQ(follower.events.size(), 1U);
  service_->durableIs(storage.appended.back().sequence);
  EXPECT_TRUE(change->has_value());
  EXPECT_TRUE(read->has_value());
  follower.read();
  EXPECT_EQ(follower.events.size(), 2U);
}

TEST_F(ServiceTest, FailedCommitTakesChangesBack) {
  MemoryStorage storage;
  start(&storage);
  send("PATCH", "/v1/cloud", kBound);
  service_->durableIs(1);
  const Json before = get("/v1/output");
  const Waiting lost = send("PATCH", "/v1/cloud", R"({"region": {"R": {"portBinding": null}}})");
  service_->storageFailed(1, "no space is left");
  ASSERT_TRUE(lost->has_value());
  EXPECT_EQ((*lost)->status, 507U);
  EXPECT_EQ(get("/v1/output"), before);
  EXPECT_EQ(get("/v1")["revision"], 1);
  EXPECT_EQ(request("PATCH", "/v1/cloud", "{}").status, 507U);
  service_->storageIsWritable();
  service_->durableIs(storage.appended.back().sequence);
  const Waiting again = send("PATCH", "/v1/cloud", R"({"region": {"R": {"portBinding": null}}})");
  service_->durableIs(storage.appended.back().sequence);
  ASSERT_TRUE(again->has_value());
  EXPECT_EQ(Json::parse(*(*again)->body)["revision"], 2);
}

TEST_F(ServiceTest, FailedCommitTakesTimersBack) {
  MemoryStorage storage;
  start(&storage);
  const Headers mine{{"sync-request-id", "r"}};
  const auto lock = [&](const std::string& region) {
    send("POST", "/v1/region/" + region + "/sync/lock", R"({"requester": "d", "requestId": "r"})");
  };
  send("PATCH", "/v1/cloud", R"({"region": {"R": {}, "S": {}}})");
  lock("R");
  lock("S");
  send("POST", "/v1/region/R/sync/start", "", mine);
  service_->durableIs(storage.appended.back().sequence);
  const uint64_t durable = storage.appended.back().sequence;
  send("POST", "/v1/region/R/sync/complete", "", mine);
  send("POST", "/v1/region/S/sync/start", "", mine);
  service_->storageFailed(durable, "no space is left");
  EXPECT_EQ(get("/v1/region/R/sync")["syncStatus"], "syncInProgress");
  EXPECT_EQ(get("/v1/region/R/sync")["expiresIn"], 60);
  service_->storageIsWritable();
  service_->durableIs(storage.appended.back().sequence);
  pass(61);
  service_->durableIs(storage.appended.back().sequence);
  EXPECT_EQ(get("/v1/region/R/sync")["syncStatus"], "syncTimedOut");
  EXPECT_NE(get("/v1/region/S/sync")["syncStatus"], "syncTimedOut");
  EXPECT_EQ(storage.appended.back().kind, Record::Kind::kExpiry);
}

TEST_F(ServiceTest, FailedCommitDoesNotMakeETagsOlder) {
  MemoryStorage storage;
  start(&storage);
  send("PATCH", "/v1/cloud", kBound);
  send("PATCH", "/v1/cloud", R"({"region": {"R": {"port": {"p": {"vlanType": 1}}}}})");
  service_->durableIs(2);
  send("PATCH", "/v1/cloud", R"({"region": {"R": {"portBinding": null, "port": {"p": null}}}})");
  service_->storageFailed(2, "no space is left");
  service_->storageIsWritable();
  service_->durableIs(storage.appended.back().sequence);
  const std::string port = "/v1/cloud/region/R/port/p";
  EXPECT_EQ(header(request("GET", port), "etag"), "\"2\"");
  EXPECT_EQ(request("PATCH", port, "{}", {{"if-match", "\"1\""}}).status, 412U);
}

TEST_F(ServiceTest, FailedCommitLosesNoneOfTheRecordedTime) {
  MemoryStorage storage;
  start(&storage);
  pass(100);
  send("PATCH", "/v1/cloud", R"({"region": {"R": {}}})");
  service_->durableIs(1);
  pass(50);
  send("PATCH", "/v1/cloud", R"({"region": {"S": {}}})");
  ASSERT_EQ(storage.appended.size(), 2U);
  storage.appended.pop_back();
  service_->storageFailed(1, "no space is left");
  pass(7);
  service_->storageIsWritable();
  double time = 0;
  for (const Record& record : storage.appended) time += record.advance;
  EXPECT_DOUBLE_EQ(time, 157);
}

TEST_F(ServiceTest, RestartKeepsDocumentsRevisionAndWhatCanBeResumed) {
  MemoryStorage storage;
  start(&storage);
  send("PATCH", "/v1/cloud", kBound);
  send("PATCH", "/v1/cloud", R"({"config": {"vlanAssignment": {"R": {"vlan": {"100": true}}}}})");
  service_->durableIs(storage.appended.back().sequence);
  const Json output = get("/v1/output");
  const Json cloud = get("/v1/cloud");
  const Json agent = get("/v1");
  Recovered recovered;
  recovered.instance = agent["instance"];
  recovered.records = storage.appended;
  service_.reset();
  start(&storage, recovered);
  service_->durableIs(storage.appended.back().sequence);
  EXPECT_EQ(get("/v1/output"), output);
  EXPECT_EQ(get("/v1/cloud"), cloud);
  EXPECT_EQ(get("/v1")["check"], agent["check"]);
  EXPECT_EQ(get("/v1")["revision"], agent["revision"]);
  EXPECT_EQ(get("/v1")["instance"], agent["instance"]);
  Follower follower = watch("?since=0");
  follower.read();
  Json whole = follower.document;
  EXPECT_EQ(follower.events.size(), 1U);
}

TEST_F(ServiceTest, RestartGivesEachSyncAWholeTimeoutAlsoWhileTheDiskFails) {
  MemoryStorage storage;
  start(&storage);
  send("PATCH", "/v1/cloud", R"({"region": {"R": {}}})");
  send("POST", "/v1/region/R/sync/lock", R"({"requester": "d", "requestId": "r"})");
  send("POST", "/v1/region/R/sync/start", "", {{"sync-request-id", "r"}});
  pass(50);
  send("PATCH", "/v1/cloud", R"({"region": {"S": {}}})");
  Recovered recovered;
  recovered.records = storage.appended;
  service_.reset();
  start(&storage, recovered);
  service_->storageFailed(recovered.records.back().sequence, "no space is left");
  EXPECT_EQ(get("/v1/region/R/sync")["expiresIn"], 60);
}

// The patches are too large for the memory, so that a watch that is behind reads them.
TEST_F(ServiceTest, WatchEndsWhileTheHistoryCannotBeRead) {
  MemoryStorage storage;
  start(&storage);
  Json ports = Json::object();
  for (int i = 0; i < 4000; ++i) ports["port-" + std::to_string(i)] = Json::object();
  send("PATCH", "/v1/cloud", Json{{"region", {{"R", {{"port", ports}}}}}}.dump());
  send("PATCH", "/v1/cloud", R"({"region": {"R": {"port": null}}})");
  Follower follower = watch("?of=cloud");
  service_->durableIs(storage.appended.back().sequence);
  follower.read();
  Follower later = watch("?of=cloud");
  later.read();
  const Waiting change =
      send("PATCH", "/v1/cloud", Json{{"region", {{"R", {{"port", ports}}}}}}.dump());
  storage.isReadable = false;
  service_->durableIs(storage.appended.back().sequence);
  EXPECT_EQ((*change)->status, 200U);
  later.read();
  EXPECT_TRUE(later.stream->ended());
  const Reply refused = request("GET", "/v1/watch?of=cloud&since=1");
  EXPECT_EQ(refused.status, 503U);
  EXPECT_NE(refused.body->find("the disk does not answer"), std::string::npos);
  storage.isReadable = true;
  Follower back = watch("?of=cloud&since=1");
  back.read();
  EXPECT_FALSE(back.stream->ended());
}

// What is in the storage only is read in portions, with time for others in between.
TEST_F(ServiceTest, WatchThatIsFarBehindIsSentSeveralPatches) {
  MemoryStorage storage;
  start(&storage);
  const Json empty = get("/v1/cloud");
  Json networks = Json::object();
  for (int i = 0; i < 400; ++i)
    networks["a network of a region " + std::to_string(i)] = Json::object();
  for (int i = 0; i < 300; ++i) {
    const Json port{{"port-" + std::to_string(i), Json::object()}};
    const Json region{{"network", networks}, {"port", port}};
    send("PATCH", "/v1/cloud", Json{{"region", {{"R", region}}}}.dump());
    send("PATCH", "/v1/cloud", R"({"region": {"R": {"network": null}}})");
  }
  service_->durableIs(storage.appended.back().sequence);
  ASSERT_EQ(get("/v1")["revision"], 600);
  const Json now = get("/v1/cloud");
  Follower follower = watch("?of=cloud&since=0");
  follower.document = empty;
  follower.read();
  EXPECT_GT(follower.events.size(), 1U);
  EXPECT_EQ(follower.document, now);
}

TEST_F(ServiceTest, RestartsDoNotMoveTheRecordedTime) {
  MemoryStorage storage;
  start(&storage);
  pass(100);
  send("PATCH", "/v1/cloud", kBound);
  Recovered recovered;
  for (int restarts = 0; restarts < 5; ++restarts) {
    recovered.records = storage.appended;
    service_.reset();
    start(&storage, recovered);
  }
  double time = 0;
  for (const Record& record : storage.appended) time += record.advance;
  EXPECT_EQ(storage.appended.size(), 6U);
  EXPECT_DOUBLE_EQ(time, 100);
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
