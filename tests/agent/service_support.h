// A live agent without its network, in virtual time, with a storage in memory: requests in, replies
// out.
#pragma once

#include <algorithm>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "agent/live/service.h"

namespace vnagent {

using Json = nlohmann::json;

inline Principal admin() {
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

}  // namespace vnagent
