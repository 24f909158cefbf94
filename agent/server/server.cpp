#include "agent/server/server.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>

#include <fmt/format.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <systemd/sd-daemon.h>
#include <boost/asio/post.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>

#include "agent/journal/journal.h"
#include "agent/server/activity_thread.h"
#include "agent/server/log.h"
#include "agent/server/metrics.h"
#include "agent/server/network.h"
#include "agent/server/service_host.h"
#include "agent/server/tls.h"

namespace vnagent {
namespace {

// An activity thread that has not turned for so long is not healthy.
constexpr std::chrono::seconds kLongestTurn{5};
// How long a stop waits for clients that do not take their replies, and for a disk that is full.
constexpr std::chrono::seconds kLongestStop{10};
constexpr std::chrono::milliseconds kStopPoll{10};

// Passes on what the service does to two observers.
class Observers final : public ServiceObserver {
 public:
  Observers(ServiceObserver& first, ServiceObserver& second) : first_(first), second_(second) {}

  void onApplied(uint64_t revision, std::string_view principal, std::string_view what,
                 double seconds) override {
    first_.onApplied(revision, principal, what, seconds);
    second_.onApplied(revision, principal, what, seconds);
  }
  void onRefused(std::string_view principal, std::string_view what,
                 std::string_view name) override {
    first_.onRefused(principal, what, name);
    second_.onRefused(principal, what, name);
  }
  void onLock(std::string_view region, std::string_view principal, std::string_view requester,
              std::string_view requestId, std::string_view decision) override {
    first_.onLock(region, principal, requester, requestId, decision);
    second_.onLock(region, principal, requester, requestId, decision);
  }
  void onSyncStatus(std::string_view region, std::string_view before,
                    std::string_view now) override {
    first_.onSyncStatus(region, before, now);
    second_.onSyncStatus(region, before, now);
  }

 private:
  ServiceObserver& first_;
  ServiceObserver& second_;
};

// Whether writes are taken, and why not. Any thread.
class Readiness {
 public:
  void notReady(std::string why) {
    const std::lock_guard lock(mutex_);
    why_ = std::move(why);
  }
  void ready() {
    const std::lock_guard lock(mutex_);
    why_.reset();
  }
  std::optional<std::string> fault() const {
    const std::lock_guard lock(mutex_);
    return why_;
  }

 private:
  mutable std::mutex mutex_;
  std::optional<std::string> why_ = "the state is being restored";
};

// Each connection takes a descriptor; the system's default is no more than they may be.
void raiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

TokenTable readTokens(const ServeOptions& options) {
  return options.tokens.empty() ? TokenTable() : TokenTable::read(options.tokens);
}

std::shared_ptr<boost::asio::ssl::context> readTls(const ServeOptions& options) {
  if (options.tlsCertificate.empty()) return nullptr;
  return readTls(TlsFiles{options.tlsCertificate, options.tlsKey, options.clientCa});
}

NetworkLimits limitsOf(const ServeOptions& options) {
  constexpr uint64_t kTimes = 4;
  constexpr auto kMost = std::numeric_limits<uint64_t>::max();
  NetworkLimits limits;
  limits.bodyBytes = options.maxBody;
  limits.bodiesBytes = options.maxBodies > 0 ? options.maxBodies
                                             : kTimes * std::min(options.maxBody, kMost / kTimes);
  limits.connections = options.maxConnections;
  return limits;
}

// The folder of the default socket is made by the service manager, or by whoever starts the agent
// by hand and may make it.
void makeSocketFolder(const ServeOptions& options) {
  if (options.socket == ServeOptions().socket) mkdir("/run/vnagent", 0755);
}

class Server {
 public:
  explicit Server(const ServeSettings& settings)
      : settings_(settings),
        options_(settings.options),
        signals_(control_, SIGTERM, SIGINT, SIGHUP),
        stopPoll_(control_),
        serviceLog_(log_),
        observers_(metrics_, serviceLog_),
        network_(limitsOf(options_), activity_,
                 {.unhealthy = [this] { return unhealthy(); },
                  .unready = [this] { return readiness_.fault(); }},
                 metrics_) {}

  void run() {
    std::signal(SIGPIPE, SIG_IGN);
    // A file that may not grow is an error like a full disk.
    std::signal(SIGXFSZ, SIG_IGN);
    raiseDescriptorLimit();
    listen();
    activity_.onBeatIs([this] {
      sd_notify(0, "WATCHDOG=1");
      if (service_) service_->beat();
    });
    activity_.start();
    network_.start();
    awaitSignal();
    boost::asio::post(activity_.context(), [this] { restore(); });
    control_.run();
    finish();
    if (failure_) std::rethrow_exception(failure_);
    log_.info("stopped");
  }

 private:
  // Begin.

  void listen() {
    network_.tokensAre(readTokens(options_));
    network_.tlsIs(readTls(options_));
    if (!options_.socket.empty()) {
      makeSocketFolder(options_);
      network_.listenOnUnixSocket(options_.socket,
                                  {.name = "", .role = options_.socketRole, .regions = {}});
    }
    if (!options_.listen.empty()) network_.listenOnTcp(options_.listen);
    for (const std::string& address : network_.addresses()) {
      settings_.announce("listening on " + address);
    }
  }

  // Opens the journal and makes the service. Activity thread.
  void restore() {
    try {
      ServiceSettings settings;
      settings.toggle = options_.toggle;
      settings.regionSyncTimeout = options_.regionSyncTimeout;
      settings.requireLock = options_.requireLock;
      settings.version = settings_.version;
      settings.observer = &observers_;
      settings.metrics = [this] { return metricsPage(); };
      Recovered recovered;
      if (options_.stateDirectory.empty()) {
        log_.warning("everything is in memory only and ends with the process; see --state-dir");
      } else {
        openJournal();
        recovered = journal_->recover();
      }
      service_ = std::make_unique<ServiceHost>(activity_, std::move(settings),
                                               journal_ ? &journal_->storage() : nullptr,
                                               std::move(recovered));
      isRestored_ = true;
      const uint64_t revision = service_->figures().revision;
      log_.info("restored", {{"revision", std::to_string(revision)}});
      if (revision == 0 && !settings_.cloud.empty()) return loadCloud();
      serveRequests();
    } catch (...) {
      fail();
    }
  }

  void openJournal() {
    JournalCallbacks callbacks;
    callbacks.committed = [this](uint64_t sequence, double seconds) {
      metrics_.committed(seconds);
      boost::asio::post(activity_.context(), [this, sequence] {
        if (service_) service_->durableIs(sequence);
      });
    };
    callbacks.failed = [this](uint64_t sequence, const std::string& reason, bool isNoSpace) {
      log_.error("cannot write the journal", {{"reason", reason}});
      // What clients read names no file.
      const std::string why =
          isNoSpace ? "no space is left on the disk" : "the disk cannot be written";
      boost::asio::post(activity_.context(), [this, sequence, why] {
        readiness_.notReady(why);
        if (service_) service_->storageFailed(sequence, why);
      });
    };
    callbacks.writable = [this] {
      log_.info("the journal can be written again");
      boost::asio::post(activity_.context(), [this] {
        if (service_) service_->storageIsWritable();
        if (!isStopping_) readiness_.ready();
      });
    };
    JournalSettings settings;
    settings.keepSeconds = options_.keepSeconds;
    settings.keepRevisions = options_.keepRevisions;
    journal_ = std::make_unique<Journal>(options_.stateDirectory, settings, std::move(callbacks));
  }

  // The first change of an empty state. Activity thread.
  void loadCloud() {
    Request request;
    request.method = "PATCH";
    request.target = "/v1/cloud";
    request.headers = {{"content-type", "application/merge-patch+json"}};
    request.body = settings_.cloud;
    request.principal = Principal{.name = "start", .role = Role::kAdmin, .regions = {}};
    service_->handle(std::move(request), [this](Reply reply) {
      if (reply.status == 200) return serveRequests();
      failure_ = std::make_exception_ptr(
          RefusedCloud(reply.body ? *reply.body : std::to_string(reply.status)));
      boost::asio::post(control_, [this] { end(); });
    });
  }

  // Activity thread.
  void serveRequests() {
    if (isStopping_) return;
    network_.handlerIs(service_.get());
    readiness_.ready();
    sd_notify(0, "READY=1");
    log_.info("ready");
  }

  void fail() {
    failure_ = std::current_exception();
    boost::asio::post(control_, [this] { end(); });
  }

  // While it runs.

  std::optional<std::string> unhealthy() const {
    if (activity_.sinceTurn() <= kLongestTurn) return std::nullopt;
    return "the activity thread has not turned for 5 seconds";
  }

  // Activity thread.
  std::string metricsPage() {
    if (!journal_) return metrics_.page(service_->figures(), nullptr);
    const JournalFigures journal = journal_->figures();
    return metrics_.page(service_->figures(), &journal);
  }

  void awaitSignal() {
    signals_.async_wait([this](const boost::system::error_code& error, int signal) {
      if (error) return;
      if (signal == SIGHUP) {
        reload();
      } else if (isStopping_ || !isRestored_) {
        // The second one, or before there is anything to finish.
        std::_Exit(isStopping_ ? 1 : 0);
      } else {
        stop(signal);
      }
      awaitSignal();
    });
  }

  // Certificates and tokens anew. A file that cannot be used changes nothing.
  void reload() {
    try {
      auto tokens = readTokens(options_);
      auto tls = readTls(options_);
      network_.tokensAre(std::move(tokens));
      network_.tlsIs(std::move(tls));
      log_.info("read certificates and tokens anew");
    } catch (const std::exception& error) {
      log_.error("keeps the certificates and tokens that it has", {{"reason", error.what()}});
    }
  }

  // End.

  void stop(int signal) {
    log_.info("stopping", {{"signal", signal == SIGINT ? "SIGINT" : "SIGTERM"}});
    isStopping_ = true;
    sd_notify(0, "STOPPING=1");
    readiness_.notReady("the agent stops");
    network_.stopAccepting();
    boost::asio::post(activity_.context(), [this] {
      service_->stop();
      network_.stop();
    });
    stopBefore_ = std::chrono::steady_clock::now() + kLongestStop;
    awaitIdle();
  }

  void awaitIdle() {
    const bool isIdle = service_->isIdle() && network_.connectionCount() == 0;
    if (isIdle || std::chrono::steady_clock::now() > stopBefore_) return end();
    stopPoll_.expires_after(kStopPoll);
    stopPoll_.async_wait([this](const boost::system::error_code& error) {
      if (!error) awaitIdle();
    });
  }

  void end() { control_.stop(); }

  void finish() {
    // A signal ends the process at once now.
    signals_.clear();
    network_.finish();
    // The service goes before its journal, both on their thread. What they posted finds nothing.
    activity_.run([this] {
      network_.handlerIs(nullptr);
      service_ = nullptr;
      journal_ = nullptr;
    });
    activity_.finish();
  }

  const ServeSettings& settings_;
  const ServeOptions& options_;

  // The thread of run(): signals, and the end.
  boost::asio::io_context control_{1};
  boost::asio::signal_set signals_;
  boost::asio::steady_timer stopPoll_;
  std::chrono::steady_clock::time_point stopBefore_;
  std::atomic<bool> isStopping_{false};
  std::atomic<bool> isRestored_{false};
  std::exception_ptr failure_;

  Log log_;
  ServiceLog serviceLog_;
  Metrics metrics_;
  Observers observers_;
  Readiness readiness_;
  ActivityThread activity_;
  Network network_;

  // Activity thread.
  std::unique_ptr<Journal> journal_;
  std::unique_ptr<ServiceHost> service_;
};

}  // namespace

void serve(const ServeSettings& settings) {
  if (const auto fault = faultOf(settings.options); !fault.empty()) throw BadConfiguration(fault);
  Server(settings).run();
}

}  // namespace vnagent
