// The client of the benchmarks of the live agent: makes changes over many connections, and follows
// them. It measures several servers by turns, in one process, and prints JSON. The same code sends
// to all that speak HTTP.
//
//   live_client changes --agent SOCKET --etcd URL --connections 64 --seconds 3 --rounds 5
//   live_client watch   --agent SOCKET --etcd URL --watchers 1000 --rate 10
//   live_client expiry  --agent SOCKET --regions 1000 --timeout 5
//   live_client cloud   --ports 100000
#include <sys/resource.h>
#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <iostream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

#include "agent/load/http_channel.h"
#include "agent/load/latencies.h"
#include "agent/load/revision_times.h"
#include "bench/live/expiry.h"
#include "bench/live/peers.h"

namespace bench {
namespace {

namespace asio = boost::asio;

using nlohmann::json;
using vnagent::Latencies;
using vnagent::RevisionTimes;
using vnagent::steadyNanoseconds;

struct Options {
  std::string agent;
  std::string bare;
  std::string etcd;
  std::string ovsdb;
  std::size_t connections = 16;
  std::size_t watchers = 1;
  double rate = 0;  // changes a second in all; 0: each connection sends as soon as it is answered
  double seconds = 3;
  double warmUp = 0.5;
  int rounds = 1;
  double timeout = 5;
  vnagent::CloudShape shape{.prefix = "bench-", .ports = 10000, .hosts = 250};
};

constexpr double kNanoseconds = 1e9;

json figures(const Latencies& latencies) {
  const auto micros = [&](double quantile) {
    return static_cast<double>(latencies.quantile(quantile)) / 1e3;
  };
  return {{"count", latencies.count()},
          {"p50", micros(0.5)},
          {"p99", micros(0.99)},
          {"p99.9", micros(0.999)},
          {"max", static_cast<double>(latencies.max()) / 1e3}};
}

// Changes over all connections of a peer, for some seconds.
class Changes {
 public:
  Changes(asio::io_context& context, Peer& peer, const Options& options, RevisionTimes* times)
      : context_(context), peer_(peer), options_(options), times_(times) {}

  json run() {
    begin_ = steadyNanoseconds();
    counted_ = begin_ + static_cast<std::int64_t>(options_.warmUp * kNanoseconds);
    end_ = counted_ + static_cast<std::int64_t>(options_.seconds * kNanoseconds);
    for (std::size_t i = 0; i < options_.connections; ++i) {
      timers_.push_back(std::make_unique<asio::steady_timer>(context_));
      ++active_;
      next(i, begin_ + interval() * static_cast<std::int64_t>(i) /
                           static_cast<std::int64_t>(options_.connections));
    }
    while (active_ > 0) context_.run_one();
    if (!error_.empty()) throw std::runtime_error(peer_.name() + ": " + error_);
    json result = figures(latencies_);
    result["rate"] = static_cast<double>(latencies_.count()) / options_.seconds;
    return result;
  }

 private:
  // Between two changes of a connection.
  std::int64_t interval() const {
    if (options_.rate <= 0) return 0;
    return static_cast<std::int64_t>(kNanoseconds * static_cast<double>(options_.connections) /
                                     options_.rate);
  }

  // Makes the change that is due at `due`. Times count from then, also where the one before took
  // so long that it is sent later.
  void next(std::size_t connection, std::int64_t due) {
    const std::int64_t now = steadyNanoseconds();
    if (now >= end_ || !error_.empty()) {
      --active_;
      return;
    }
    if (options_.rate <= 0) return send(connection, now);
    if (due <= now) return send(connection, due);
    auto& timer = *timers_[connection];
    timer.expires_after(std::chrono::nanoseconds(due - now));
    timer.async_wait([this, connection, due](boost::system::error_code) { send(connection, due); });
  }

  void send(std::size_t connection, std::int64_t due) {
    peer_.change(connection, [this, connection, due](const Peer::Outcome& outcome) {
      if (!outcome.error.empty()) error_ = outcome.error;
      const std::int64_t now = steadyNanoseconds();
      if (due >= counted_ && now <= end_) {
        latencies_.add(now - due);
        if (times_ != nullptr) times_->sent(outcome.revision, due);
      }
      next(connection, due + interval());
    });
  }

  asio::io_context& context_;
  Peer& peer_;
  const Options& options_;
  RevisionTimes* times_;
  std::vector<std::unique_ptr<asio::steady_timer>> timers_;
  std::size_t active_ = 0;
  std::int64_t begin_ = 0;
  std::int64_t counted_ = 0;
  std::int64_t end_ = 0;
  Latencies latencies_;
  std::string error_;
};

std::vector<std::unique_ptr<Peer>> peersOf(asio::io_context& context, const Options& options) {
  std::vector<std::unique_ptr<Peer>> peers;
  const auto& shape = options.shape;
  if (!options.agent.empty()) peers.push_back(makeAgentPeer(context, options.agent, shape));
  if (!options.bare.empty()) peers.push_back(makeBarePeer(context, options.bare, shape));
  if (!options.etcd.empty()) peers.push_back(makeEtcdPeer(context, options.etcd, shape));
  if (!options.ovsdb.empty()) peers.push_back(makeOvsdbPeer(context, options.ovsdb, shape));
  if (peers.empty()) throw std::invalid_argument("no server is named");
  return peers;
}

// Runs the context until what was started has called back.
void await(asio::io_context& context, const Peer& peer,
           const std::function<void(Peer::Done)>& start) {
  std::optional<Peer::Outcome> result;
  start([&result](const Peer::Outcome& outcome) { result = outcome; });
  while (!result && context.run_one() > 0) {
  }
  if (!result) throw std::runtime_error(peer.name() + ": no answer");
  if (!result->error.empty()) throw std::runtime_error(peer.name() + ": " + result->error);
}

json changes(const Options& options) {
  asio::io_context context(1);
  const auto work = asio::make_work_guard(context);
  const auto peers = peersOf(context, options);
  json results;
  for (const auto& peer : peers) {
    await(context, *peer, [&](Peer::Done done) { peer->open(options.connections, done); });
  }
  for (int round = 0; round < options.rounds; ++round) {
    for (const auto& peer : peers) {
      results[peer->name()].push_back(Changes(context, *peer, options, nullptr).run());
    }
  }
  return results;
}

// Changes that are followed by watchers: what the change takes, what any watcher's event, and the
// last watcher's.
json watch(const Options& options) {
  asio::io_context context(1);
  const auto work = asio::make_work_guard(context);
  const auto peers = peersOf(context, options);
  json results;
  std::vector<RevisionTimes> times(peers.size());
  for (std::size_t i = 0; i < peers.size(); ++i) {
    Peer& peer = *peers[i];
    await(context, peer, [&](Peer::Done done) { peer.open(options.connections, done); });
    for (std::size_t watcher = 0; watcher < options.watchers; ++watcher) {
      await(context, peer, [&](Peer::Done done) {
        peer.watch(
            [done = std::make_shared<Peer::Done>(done),
             isReady = std::make_shared<bool>()](const Peer::Outcome& outcome) {
              if (*isReady) throw std::runtime_error("a watcher has lost its stream");
              *isReady = true;
              (*done)(outcome);
            },
            [&times, i](std::uint64_t revision) { times[i].seen(revision, steadyNanoseconds()); });
      });
    }
  }
  for (int round = 0; round < options.rounds; ++round) {
    for (std::size_t i = 0; i < peers.size(); ++i) {
      times[i] = RevisionTimes(static_cast<std::uint32_t>(options.watchers));
      json result = {{"change", Changes(context, *peers[i], options, &times[i]).run()}};
      // What is on its way.
      asio::steady_timer rest(context, std::chrono::milliseconds(500));
      bool isOver = false;
      rest.async_wait([&](boost::system::error_code) { isOver = true; });
      while (!isOver) context.run_one();
      result["event"] = figures(times[i].toWatcher());
      result["last"] = figures(times[i].toLastWatcher());
      results[peers[i]->name()].push_back(std::move(result));
    }
  }
  return results;
}

void addOptions(CLI::App& command, Options& options) {
  command.add_option("--agent", options.agent, "socket of the agent");
  command.add_option("--bare", options.bare, "socket of the bare server");
  command.add_option("--etcd", options.etcd, "URL of etcd");
  command.add_option("--ovsdb", options.ovsdb, "socket of ovsdb-server");
  command.add_option("--connections", options.connections, "connections for changes");
  command.add_option("--watchers", options.watchers, "watchers of each server");
  command.add_option("--rate", options.rate, "changes a second; 0: as fast as answered");
  command.add_option("--seconds", options.seconds, "length of a round");
  command.add_option("--warm-up", options.warmUp, "seconds before it that do not count");
  command.add_option("--rounds", options.rounds, "rounds of each server");
  command.add_option("--timeout", options.timeout, "the agent's region sync timeout");
  command.add_option("--ports", options.shape.ports, "ports of the cloud");
  command.add_option("--hosts", options.shape.hosts, "hosts of the cloud");
  command.add_option("--regions", options.shape.regions, "regions of the cloud");
}

void raiseDescriptorLimit() {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

int run(int argc, char** argv) {
  CLI::App app("The client of the benchmarks of the live agent");
  app.require_subcommand(1);
  Options options;
  for (const char* name : {"changes", "watch", "expiry", "cloud"}) {
    addOptions(*app.add_subcommand(name), options);
  }
  CLI11_PARSE(app, argc, argv);
  raiseDescriptorLimit();
  if (app.got_subcommand("cloud")) {
    std::cout << vnagent::LoadCloud(options.shape).documentText() << '\n';
    return 0;
  }
  json results;
  if (app.got_subcommand("changes")) results = changes(options);
  if (app.got_subcommand("watch")) results = watch(options);
  if (app.got_subcommand("expiry")) {
    results = expiries({.socket = options.agent,
                        .regions = options.shape.regions,
                        .timeout = options.timeout,
                        .connections = options.connections,
                        .ports = options.shape.ports,
                        .rate = options.rate});
  }
  std::cout << results.dump(1) << '\n';
  return 0;
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  try {
    return bench::run(argc, argv);
  } catch (const std::exception& error) {
    std::cerr << "live_client: " << error.what() << '\n';
    return 1;
  }
}
