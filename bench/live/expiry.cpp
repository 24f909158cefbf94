#include "bench/live/expiry.h"

#include <chrono>
#include <deque>
#include <memory>
#include <stdexcept>
#include <unordered_map>
#include <vector>

#include <unistd.h>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

#include "agent/client/http.h"
#include "agent/load/event_splitter.h"
#include "agent/load/http_channel.h"
#include "agent/load/latencies.h"
#include "bench/live/peers.h"

namespace bench {
namespace {

namespace asio = boost::asio;

using nlohmann::json;
using vnagent::ChannelReply;
using vnagent::Endpoint;
using vnagent::HttpChannel;
using vnagent::RequestHead;
using vnagent::steadyNanoseconds;

// Connections that move ports meanwhile.
constexpr std::size_t kMovers = 8;
// The share of the timeout over which the heartbeats are spread.
constexpr double kSpread = 0.5;
// How long after it was due a time-out is waited for.
constexpr double kPatience = 5;

class Expiries {
 public:
  explicit Expiries(const ExpirySettings& settings)
      : settings_(settings),
        endpoint_(Endpoint::ofSocket(settings.socket)),
        head_(endpoint_),
        heartbeats_(settings.regions),
        load_(makeAgentPeer(context_, settings.socket,
                            {.prefix = "bench-", .ports = settings.ports, .hosts = 250})) {}

  json run() {
    open();
    sendAll("PATCH", {{"/v1/cloud", regionsText(), ""}});
    sendAll("POST", syncCalls("lock"));
    sendAll("POST", syncCalls("start"));
    follow();
    beginMoves();
    heartbeat();
    const auto waited = static_cast<std::int64_t>((settings_.timeout + kPatience) * 1e9);
    const std::int64_t end = steadyNanoseconds() + waited;
    while (expired_ < settings_.regions && steadyNanoseconds() < end) context_.run_one();
    if (expired_ < settings_.regions) {
      throw std::runtime_error(std::to_string(settings_.regions - expired_) +
                               " syncs have not timed out");
    }
    const auto micros = [&](double q) { return static_cast<double>(late_.quantile(q)) / 1e3; };
    return {{"regions", settings_.regions},
            {"early", early_},
            {"late", {{"p50", micros(0.5)}, {"p99", micros(0.99)}, {"max", micros(1)}}},
            {"moves", static_cast<double>(moves_) / settings_.timeout}};
  }

 private:
  struct Call {
    std::string target;
    std::string body;
    std::string headers;
  };

  static std::string nameOf(std::size_t region) { return "expiry-" + std::to_string(region); }
  static std::string idOf(std::size_t region) {
    return std::to_string(getpid()) + "-" + std::to_string(region);
  }

  std::string regionsText() const {
    json regions = json::object();
    for (std::size_t i = 0; i < settings_.regions; ++i) regions[nameOf(i)] = json::object();
    return json{{"region", std::move(regions)}}.dump();
  }

  static Call syncCall(std::size_t region, const std::string& call) {
    const std::string target = "/v1/region/" + nameOf(region) + "/sync/" + call;
    if (call == "lock") {
      return {target, json{{"requester", "bench"}, {"requestId", idOf(region)}}.dump(), ""};
    }
    return {target, "", "Sync-Request-Id: " + idOf(region) + "\r\n"};
  }

  std::vector<Call> syncCalls(const std::string& call) const {
    std::vector<Call> calls;
    for (std::size_t i = 0; i < settings_.regions; ++i) calls.push_back(syncCall(i, call));
    return calls;
  }

  void open() {
    std::size_t pending = settings_.connections;
    for (std::size_t i = 0; i < settings_.connections; ++i) {
      channels_.push_back(HttpChannel::make(context_, endpoint_));
      channels_.back()->open([&pending](const std::string& error) {
        if (!error.empty()) throw std::runtime_error(error);
        --pending;
      });
    }
    while (pending > 0) context_.run_one();
    free_.assign(channels_.begin(), channels_.end());
    bool isOpen = false;
    load_->open(kMovers, [&isOpen](const Peer::Outcome& outcome) {
      if (!outcome.error.empty()) throw std::runtime_error(outcome.error);
      isOpen = true;
    });
    while (!isOpen) context_.run_one();
  }

  // Sends a request as soon as a connection is free; `began` is called then.
  void send(std::string request, std::function<void()> began,
            std::function<void(const ChannelReply&)> answered) {
    waiting_.push_back({std::move(request), std::move(began), std::move(answered)});
    sendWaiting();
  }

  void sendWaiting() {
    while (!free_.empty() && !waiting_.empty()) {
      const auto channel = free_.front();
      free_.pop_front();
      Waiting waiting = std::move(waiting_.front());
      waiting_.pop_front();
      if (waiting.began) waiting.began();
      channel->send(std::move(waiting.request),
                    [this, channel, answered = std::move(waiting.answered)](ChannelReply reply) {
                      if (reply.status != 200) {
                        throw std::runtime_error(reply.error + reply.body.substr(0, 300));
                      }
                      answered(reply);
                      free_.push_back(channel);
                      sendWaiting();
                    });
    }
  }

  void sendAll(std::string_view method, const std::vector<Call>& calls) {
    std::size_t pending = calls.size();
    for (const Call& call : calls) {
      send(head_.request(method, call.target, call.body, call.headers), nullptr,
           [&pending](const ChannelReply&) { --pending; });
    }
    while (pending > 0) context_.run_one();
  }

  void follow() {
    watcher_ = HttpChannel::make(context_, endpoint_);
    bool isWatching = false;
    watcher_->open([&, this](const std::string& error) {
      if (!error.empty()) throw std::runtime_error(error);
      watcher_->stream(head_.request("GET", "/v1/watch?at=/regionStatus"),
                       [this, &isWatching](const HttpChannel::Part& part) {
                         if (!part.error.empty()) throw std::runtime_error(part.error);
                         events_.feed(part.bytes, [&](const vnagent::SplitEvent& event) {
                           if (event.name == "snapshot") isWatching = true;
                           if (event.name == "patch") take(event);
                         });
                       });
    });
    while (!isWatching) context_.run_one();
  }

  void take(const vnagent::SplitEvent& event) {
    const std::int64_t now = steadyNanoseconds();
    const json patch = json::parse(event.data);
    for (const auto& [name, status] : patch.at("regionStatus").items()) {
      if (!name.starts_with("expiry-") || status.value("syncStatus", "") != "syncTimedOut") {
        continue;
      }
      const std::size_t region = std::stoul(name.substr(name.find('-') + 1));
      const auto timeout = static_cast<std::int64_t>(settings_.timeout * 1e9);
      const std::int64_t late = now - heartbeats_.at(region) - timeout;
      if (heartbeats_[region] == 0 || late < 0) ++early_;
      late_.add(late);
      ++expired_;
    }
  }

  // Moves, over connections of their own.
  void beginMoves() {
    for (std::size_t i = 0; i < kMovers; ++i) {
      timers_.push_back(std::make_unique<asio::steady_timer>(context_));
      move(i, steadyNanoseconds());
    }
  }

  void move(std::size_t mover, std::int64_t due) {
    auto& timer = *timers_[mover];
    timer.expires_after(std::chrono::nanoseconds(due - steadyNanoseconds()));
    timer.async_wait([this, mover, due](boost::system::error_code) {
      load_->change(mover, [this, mover, due](const Peer::Outcome& outcome) {
        if (!outcome.error.empty()) throw std::runtime_error(outcome.error);
        ++moves_;
        const auto interval =
            static_cast<std::int64_t>(1e9 * static_cast<double>(kMovers) / settings_.rate);
        move(mover, std::max(due + interval, steadyNanoseconds()));
      });
    });
  }

  // A heartbeat of each region, spread over time.
  void heartbeat() {
    const std::int64_t begin = steadyNanoseconds();
    for (std::size_t region = 0; region < settings_.regions; ++region) {
      const double share = static_cast<double>(region) / settings_.regions;
      beats_.push_back(std::make_unique<asio::steady_timer>(context_));
      const auto due = begin + static_cast<std::int64_t>(share * kSpread * settings_.timeout * 1e9);
      beats_.back()->expires_after(std::chrono::nanoseconds(due - steadyNanoseconds()));
      beats_.back()->async_wait([this, region](boost::system::error_code) {
        const Call call = syncCall(region, "heartbeat");
        send(
            head_.request("POST", call.target, call.body, call.headers),
            [this, region] { heartbeats_[region] = steadyNanoseconds(); },
            [](const ChannelReply&) {});
      });
    }
  }

  struct Waiting {
    std::string request;
    std::function<void()> began;
    std::function<void(const ChannelReply&)> answered;
  };

  const ExpirySettings settings_;
  const Endpoint endpoint_;
  const RequestHead head_;
  asio::io_context context_{1};
  // It has nothing to do between two steps.
  const asio::executor_work_guard<asio::io_context::executor_type> work_{context_.get_executor()};
  std::vector<std::shared_ptr<HttpChannel>> channels_;
  std::deque<std::shared_ptr<HttpChannel>> free_;
  std::deque<Waiting> waiting_;
  std::shared_ptr<HttpChannel> watcher_;
  vnagent::EventSplitter events_;
  std::vector<std::unique_ptr<asio::steady_timer>> beats_;
  std::vector<std::unique_ptr<asio::steady_timer>> timers_;
  std::vector<std::int64_t> heartbeats_;  // when each region's was sent; 0: not yet
  std::unique_ptr<Peer> load_;
  vnagent::Latencies late_;
  std::uint32_t early_ = 0;
  std::uint32_t expired_ = 0;
  std::uint64_t moves_ = 0;
};

}  // namespace

json expiries(const ExpirySettings& settings) {
  return Expiries(settings).run();
}

}  // namespace bench
