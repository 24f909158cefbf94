#include "agent/load/load.h"

#include <algorithm>
#include <csignal>
#include <memory>

#include <sys/resource.h>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>

#include "agent/client/live_agent.h"
#include "agent/load/detail/driver.h"
#include "agent/load/detail/watcher.h"

namespace vnagent {
namespace {

using namespace detail;

// Comparisons that are asked for, a second: each reads a place, which may be a whole document.
constexpr double kChecksASecond = 20;
// How long a watcher may take to receive the last events, once nothing changes any more.
constexpr double kLastEventsSeconds = 10;
constexpr std::chrono::milliseconds kCheckAgain{50};
// Streams that are begun at a time; what waits to be accepted is bounded.
constexpr size_t kOpenedAtOnce = 32;
constexpr size_t kMostMismatches = 10;

// The connections of this process, and room for others.
void raiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

double secondsSince(int64_t time) {
  return static_cast<double>(steadyNanoseconds() - time) / 1e9;
}

class Load {
 public:
  Load(const LoadSettings& settings, const std::function<void(const LoadProgress&)>& progress)
      : settings_(settings),
        progress_(progress),
        agent_(settings.endpoint, settings.deadline),
        context_(settings),
        random_(settings.cloud.seed),
        signals_(context_.io, SIGINT, SIGTERM),
        checkTimer_(context_.io) {
    context_.onTick = [this] { report(); };
    signals_.async_wait([this](const boost::system::error_code& error, int) {
      if (!error) context_.report.isInterrupted = true;
    });
  }

  LoadReport run() {
    raiseDescriptorLimit();
    claimRegions();
    try {
      openAll();
      sync();
      watch();
      measure();
      if (!isInterrupted()) checkAtEnd();
    } catch (...) {
      finish();
      throw;
    }
    finish();
    LoadReport report = std::move(context_.report);
    report.events = context_.times.toWatcher();
    report.lastEvents = context_.times.toLastWatcher();
    return report;
  }

 private:
  bool isInterrupted() const { return context_.report.isInterrupted; }

  std::string target(uint32_t region) const {
    return "/v1/cloud/region/" + context_.cloud.regionName(region);
  }

  // Before anything is changed: what is somebody else's is left alone.
  void claimRegions() {
    what_ = "looking for regions of these names";
    for (uint32_t region = 0; region < context_.cloud.regions(); ++region) {
      if (!exists(region)) continue;
      if (!settings_.overwrite) {
        throw RegionsExist("region " + context_.cloud.regionName(region) +
                           " exists already; choose another --prefix, or --overwrite");
      }
      agent_.request("DELETE", target(region));
    }
  }

  bool exists(uint32_t region) const {
    try {
      agent_.request("HEAD", target(region));
      return true;
    } catch (const RequestRefused& refused) {
      if (refused.status() == 404) return false;
      throw;
    }
  }

  void openAll() {
    what_ = "connecting";
    for (uint32_t i = 0; i < settings_.drivers; ++i) {
      drivers_.push_back(std::make_unique<Driver>(context_, i));
      drivers_.back()->open();
    }
    for (uint32_t i = 0; i < settings_.readers; ++i) {
      context_.open(
          [this](std::shared_ptr<HttpChannel> channel) { readers_.push_back(std::move(channel)); });
    }
    context_.open([this](std::shared_ptr<HttpChannel> channel) { checker_ = std::move(channel); });
    context_.runUntil([this] {
      return isInterrupted() ||
             (std::ranges::all_of(drivers_, [](const auto& driver) { return driver->isOpen(); }) &&
              readers_.size() == settings_.readers && checker_ != nullptr);
    });
  }

  void sync() {
    if (isInterrupted()) return;
    what_ = "syncing the regions";
    for (const auto& driver : drivers_) driver->sync();
    context_.runUntil([this] {
      return isInterrupted() ||
             std::ranges::all_of(drivers_, [](const auto& driver) { return driver->isSynced(); });
    });
  }

  void watch() {
    what_ = "starting the watchers";
    for (uint32_t i = 0; i < settings_.watchers && !isInterrupted(); ++i) {
      watchers_.push_back(newWatcher(i));
      watchers_.back()->open();
      if (i % kOpenedAtOnce == kOpenedAtOnce - 1) awaitWatchers();
    }
    awaitWatchers();
  }

  std::unique_ptr<DocumentWatcher> newWatcher(uint32_t number) {
    const bool isHost = settings_.watched == LoadSettings::Watched::kHosts && number >= 2;
    const bool isCloud = settings_.watched == LoadSettings::Watched::kCloud ||
                         (settings_.watched == LoadSettings::Watched::kHosts && number == 1);
    std::string pointer;
    if (isHost) {
      pointer = "/requestedResources/resourcesForHostname/" +
                context_.cloud.hostName((number - 2) % context_.cloud.hosts());
    }
    return std::make_unique<DocumentWatcher>(context_, replicas_, isCloud ? "cloud" : "output",
                                             pointer);
  }

  void awaitWatchers() {
    context_.runUntil([this] {
      return isInterrupted() ||
             std::ranges::all_of(watchers_, [](const auto& watcher) { return watcher->isReady(); });
    });
  }

  void measure() {
    if (isInterrupted()) return;
    what_ = "running";
    context_.times =
        RevisionTimes(settings_.watched == LoadSettings::Watched::kHosts ? 0 : settings_.watchers);
    context_.isMeasuring = true;
    began_ = steadyNanoseconds();
    for (const auto& driver : drivers_) driver->beginMoves();
    beginReads();
    checkLater();
    context_.runUntil(
        [this] { return isInterrupted() || secondsSince(began_) >= settings_.seconds; });
    context_.report.seconds = secondsSince(began_);
    context_.isMeasuring = false;
    context_.isStopping = true;
    began_ = 0;
    what_ = "ending";
    for (const auto& driver : drivers_) driver->stop();
    for (const auto& lane : reads_) lane->stop();
    checkTimer_.cancel();
    for (const auto& watcher : watchers_) watcher->giveUpCheck();
    context_.runUntil([this] {
      const auto isIdle = [](const auto& each) { return each->isIdle(); };
      return std::ranges::all_of(drivers_, isIdle) && std::ranges::all_of(reads_, isIdle) &&
             !isChecking_;
    });
  }

  // Reads.

  void beginReads() {
    for (uint32_t i = 0; i < settings_.readers; ++i) {
      reads_.push_back(std::make_unique<Lane>(
          context_, Pace(settings_.readRate, settings_.readers, i),
          [this, i](int64_t due, const Lane::Answered& answered) { read(i, due, answered); }));
      reads_.back()->begin();
    }
  }

  void read(uint32_t reader, int64_t due, const Lane::Answered& answered) {
    readers_[reader]->send(context_.head.request("GET", randomTarget()),
                           [this, due, answered](const ChannelReply& reply) {
                             if (!reply.error.empty()) return context_.failAsRefused(reply);
                             // A host that has no port now is absent.
                             if (reply.status != 200 && reply.status != 404) {
                               context_.refused(reply);
                             } else if (context_.isMeasuring) {
                               context_.report.reads.add(steadyNanoseconds() - due);
                             }
                             answered();
                           });
  }

  std::string randomTarget() {
    const LoadCloud& cloud = context_.cloud;
    switch (random_() % 3) {
      case 0:
        return cloud.bindingTarget(static_cast<uint32_t>(random_() % cloud.ports()));
      case 1:
        return "/v1/output/requestedResources/resourcesForHostname/" +
               cloud.hostName(static_cast<uint32_t>(random_() % cloud.hosts()));
      default:
        return "/v1/region/" +
               cloud.regionName(static_cast<uint32_t>(random_() % cloud.regions())) + "/sync";
    }
  }

  // Comparisons: one watcher after another.

  void checkLater() {
    checkTimer_.expires_after(std::chrono::nanoseconds(static_cast<int64_t>(1e9 / kChecksASecond)));
    checkTimer_.async_wait([this](const boost::system::error_code& error) {
      if (error || context_.isStopping || watchers_.empty()) return;
      checkNext();
    });
  }

  void checkNext() {
    DocumentWatcher& watcher = *watchers_[nextCheck_];
    nextCheck_ = (nextCheck_ + 1) % watchers_.size();
    isChecking_ = true;
    const int64_t began = steadyNanoseconds();
    watcher.check(checker_,
                  [this, &watcher, began](Replica::Verdict verdict, const std::string& difference) {
                    isChecking_ = false;
                    note(watcher, verdict, difference);
                    // A large document takes a while to be read and compared: no more than half of
                    // the time.
                    const int64_t took = steadyNanoseconds() - began;
                    if (took < static_cast<int64_t>(1e9 / kChecksASecond)) return checkLater();
                    checkTimer_.expires_after(std::chrono::nanoseconds(took));
                    checkTimer_.async_wait([this](const boost::system::error_code& error) {
                      if (!error && !context_.isStopping) checkNext();
                    });
                  });
    // Events that are needed may not come while nothing of the place changes.
    giveUp_.expires_after(std::chrono::seconds(1));
    giveUp_.async_wait([&watcher](const boost::system::error_code& error) {
      if (!error) watcher.giveUpCheck();
    });
  }

  void note(const DocumentWatcher& watcher, Replica::Verdict verdict,
            const std::string& difference) {
    if (verdict == Replica::Verdict::kEqual) ++context_.report.checks;
    if (verdict == Replica::Verdict::kDifferent) mismatch(watcher, difference);
  }

  void mismatch(const DocumentWatcher& watcher, const std::string& difference) {
    auto& mismatches = context_.report.mismatches;
    if (mismatches.size() == kMostMismatches) return;
    mismatches.push_back("a watcher's document is not what the agent says of " + watcher.name() +
                         ": " + difference);
  }

  // Nothing changes any more: each watcher must get to what the agent says.
  void checkAtEnd() {
    what_ = "comparing the watchers' documents";
    for (const auto& watcher : watchers_) {
      const int64_t began = steadyNanoseconds();
      Replica::Verdict verdict = Replica::Verdict::kUnknown;
      std::string difference;
      while (verdict == Replica::Verdict::kUnknown && !isInterrupted()) {
        bool isDone = false;
        watcher->check(checker_, [&](Replica::Verdict result, const std::string& text) {
          verdict = result;
          difference = text;
          isDone = true;
        });
        boost::asio::steady_timer limit(context_.io, kCheckAgain);
        limit.async_wait([&](const boost::system::error_code& error) {
          if (!error) watcher->giveUpCheck();
        });
        context_.runUntil([&] { return isDone; });
        if (verdict == Replica::Verdict::kUnknown && secondsSince(began) > kLastEventsSeconds) {
          verdict = Replica::Verdict::kDifferent;
          difference = "it has not become equal within 10 s after the last change";
        }
      }
      note(*watcher, verdict, difference);
    }
  }

  // The end.

  void finish() {
    context_.isStopping = true;
    what_ = "removing the regions";
    for (uint32_t region = 0; region < context_.cloud.regions() && !settings_.keep; ++region) {
      try {
        agent_.request("DELETE", target(region));
      } catch (const RequestRefused& refused) {
        if (refused.status() != 404) {
          context_.report.left.push_back(context_.cloud.regionName(region));
        }
      } catch (const Unreachable&) {
        context_.report.left.push_back(context_.cloud.regionName(region));
      }
    }
  }

  void report() const {
    if (!progress_) return;
    const LoadReport& report = context_.report;
    progress_({.what = what_,
               .seconds = began_ == 0 ? 0 : secondsSince(began_),
               .of = settings_.seconds,
               .changes = report.changes.count(),
               .reads = report.reads.count(),
               .received = report.received,
               .checks = report.checks});
  }

  const LoadSettings& settings_;
  const std::function<void(const LoadProgress&)>& progress_;
  LiveAgent agent_;
  LoadContext context_;
  std::mt19937_64 random_;
  boost::asio::signal_set signals_;
  boost::asio::steady_timer checkTimer_;
  boost::asio::steady_timer giveUp_{context_.io};
  std::string what_;
  int64_t began_ = 0;  // of the measurement; 0: it does not run
  std::vector<std::unique_ptr<Driver>> drivers_;
  std::vector<std::shared_ptr<HttpChannel>> readers_;
  std::vector<std::unique_ptr<Lane>> reads_;
  std::vector<std::unique_ptr<DocumentWatcher>> watchers_;
  std::shared_ptr<HttpChannel> checker_;
  size_t nextCheck_ = 0;
  bool isChecking_ = false;
  ReplicaThread replicas_;  // ends before what it calls back
};

}  // namespace

LoadReport runLoad(const LoadSettings& settings,
                   const std::function<void(const LoadProgress&)>& progress) {
  return Load(settings, progress).run();
}

}  // namespace vnagent
