// What the live agent keeps: records that become durable together, commits that fail, restarts, and
// a history that is read again.
#include <string>
#include <vector>

#include "tests/agent/service_support.h"

namespace vnagent {
namespace {

class ServiceStorageTest : public ServiceTest {};

// Or a crash between two records would lose the key of a call that was made.
TEST_F(ServiceStorageTest, CallAndItsKeyAreOneRecord) {
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

TEST_F(ServiceStorageTest, BatchAndItsKeyBecomeDurableTogether) {
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
TEST_F(ServiceStorageTest, LockThatIsHandedOnBecomesDurableTogetherWithItsRelease) {
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

TEST_F(ServiceStorageTest, LockThatIsHandedOnBecomesDurableTogetherWithTheExpiry) {
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

TEST_F(ServiceStorageTest, NothingIsShownBeforeItIsDurable) {
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

TEST_F(ServiceStorageTest, FailedCommitTakesChangesBack) {
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

TEST_F(ServiceStorageTest, FailedCommitTakesTimersBack) {
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

TEST_F(ServiceStorageTest, FailedCommitDoesNotMakeETagsOlder) {
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

TEST_F(ServiceStorageTest, FailedCommitLosesNoneOfTheRecordedTime) {
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

TEST_F(ServiceStorageTest, RestartKeepsDocumentsRevisionAndWhatCanBeResumed) {
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

TEST_F(ServiceStorageTest, RestartGivesEachSyncAWholeTimeoutAlsoWhileTheDiskFails) {
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
TEST_F(ServiceStorageTest, WatchEndsWhileTheHistoryCannotBeRead) {
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
TEST_F(ServiceStorageTest, WatchThatIsFarBehindIsSentSeveralPatches) {
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

TEST_F(ServiceStorageTest, RestartsDoNotMoveTheRecordedTime) {
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

}  // namespace
}  // namespace vnagent
