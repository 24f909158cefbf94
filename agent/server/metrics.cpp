#include "agent/server/metrics.h"

#include <array>
#include <fstream>
#include <sstream>
#include <utility>

#include <prometheus/counter.h>
#include <prometheus/gauge.h>
#include <prometheus/histogram.h>
#include <prometheus/registry.h>
#include <prometheus/text_serializer.h>
#include <unistd.h>

#include "framework/Allocation.h"

namespace vnagent {
namespace {

using prometheus::Counter;
using prometheus::Family;
using prometheus::Gauge;
using prometheus::Histogram;

Histogram::BucketBoundaries seconds() {
  return {0.00001, 0.000025, 0.0001, 0.00025, 0.001, 0.0025, 0.01, 0.025, 0.1, 0.25, 1, 2.5, 10};
}

// What the process has in memory.
double residentBytes() {
  std::ifstream file("/proc/self/statm");
  uint64_t size = 0;
  uint64_t resident = 0;
  file >> size >> resident;
  return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE));
}

std::string_view methodOf(std::string_view method) {
  for (const std::string_view known : {"GET", "HEAD", "PATCH", "PUT", "POST", "DELETE"}) {
    if (method == known) return known;
  }
  return "other";
}

double number(uint64_t value) {
  return static_cast<double>(value);
}

}  // namespace

std::string_view routeOf(std::string_view target) {
  const std::string_view path = target.substr(0, target.find('?'));
  for (const std::string_view whole :
       {"/v1", "/v1/batch", "/v1/watch", "/v1/trace", "/v1/trace/tail", "/metrics", "/openapi.json",
        "/healthz", "/readyz"}) {
    if (path == whole) return whole;
  }
  for (const std::string_view part : {"/v1/cloud", "/v1/output", "/v1/inspect"}) {
    if (path.starts_with(part) && (path.size() == part.size() || path[part.size()] == '/')) {
      return part;
    }
  }
  if (!path.starts_with("/v1/region/")) return "other";
  for (const std::string_view call :
       {"/sync", "/sync/lock", "/sync/start", "/sync/heartbeat", "/sync/complete"}) {
    if (path.ends_with(call)) return call;
  }
  return "other";
}

class Metrics::Impl {
 public:
  Gauge& gauge(const char* name, const char* help) {
    return prometheus::BuildGauge().Name(name).Help(help).Register(registry).Add({});
  }
  Counter& counter(const char* name, const char* help) { return counters(name, help).Add({}); }
  Family<Counter>& counters(const char* name, const char* help) {
    return prometheus::BuildCounter().Name(name).Help(help).Register(registry);
  }
  Histogram& histogram(const char* name, const char* help) {
    return prometheus::BuildHistogram().Name(name).Help(help).Register(registry).Add({}, seconds());
  }

  prometheus::Registry registry;

  // The service.
  Gauge& revision = gauge("vnagent_revision", "The revision.");
  Gauge& durableRevision =
      gauge("vnagent_durable_revision", "The last revision that is acknowledged.");
  Family<Gauge>& regions = prometheus::BuildGauge()
                               .Name("vnagent_regions")
                               .Help("Regions by their sync status.")
                               .Register(registry);
  Gauge& locksHeld = gauge("vnagent_locks_held", "Sync locks that are held.");
  Gauge& locksWaitedFor =
      gauge("vnagent_lock_requests_waiting", "Requests that wait for a sync lock.");
  Gauge& watchers = gauge("vnagent_watchers", "Watches that are open.");
  Gauge& watchersLag =
      gauge("vnagent_watcher_lag_revisions", "How many revisions the slowest watcher is behind.");
  Counter& cuts = counter("vnagent_watcher_cuts_total",
                          "Clients that took nothing for too long, and were disconnected.");
  Counter& applied = counter("vnagent_changes_applied_total", "Changes that were applied.");
  Family<Counter>& refused =
      counters("vnagent_changes_refused_total", "Requests that were refused, by reason.");
  Family<Counter>& locks = counters("vnagent_lock_decisions_total", "Decisions about sync locks.");
  Family<Counter>& transitions = counters("vnagent_sync_transitions_total",
                                          "Changes of a region's sync status, by the new "
                                          "one.");
  Histogram& apply = histogram("vnagent_apply_seconds", "What applying a change takes.");
  Counter& queued = counter("vnagent_notifications_queued_total",
                            "Notifications of entities that were queued for the machines.");
  Counter& delivered =
      counter("vnagent_notifications_delivered_total", "Notifications that were delivered.");
  Counter& skipped = counter("vnagent_notifications_skipped_total",
                             "Notifications whose receiver was gone when they were due.");
  Counter& coalesced = counter("vnagent_notifications_coalesced_total",
                               "Notifications that were not queued, as the same was pending.");

  Kiv::ActivityFigures notifications{};  // those that the counters have

  // The journal.
  Histogram& commit = histogram("vnagent_commit_seconds", "What a commit to the disk takes.");
  Gauge& journalBytes = gauge("vnagent_journal_size_bytes", "The journal's size.");
  Gauge& journalRecords =
      gauge("vnagent_journal_records", "Records that were committed since the start.");
  Gauge& journalSnapshots =
      gauge("vnagent_journal_snapshots", "Snapshots that were written since the start.");
  Gauge& journalFailures =
      gauge("vnagent_journal_failures", "Commits and snapshots that failed since the start.");

  // The network and the process.
  Family<Counter>& requests =
      counters("vnagent_http_requests_total", "Replies, by method, route and status.");
  Gauge& connections = gauge("vnagent_http_connections", "Connections that are open.");
  Gauge& resident = gauge("vnagent_resident_memory_bytes", "Memory of the process.");
  Gauge& pool = gauge("vnagent_pool_memory_bytes",
                      "Memory that entities and machines have taken "
                      "from the system.");
  Family<Gauge>& objects = prometheus::BuildGauge()
                               .Name("vnagent_objects")
                               .Help("Entities, machines and what belongs to them, by type.")
                               .Register(registry);
  Family<Gauge>& objectBytes = prometheus::BuildGauge()
                                   .Name("vnagent_object_size_bytes")
                                   .Help("Their own size, without what they hold elsewhere.")
                                   .Register(registry);
};

Metrics::Metrics() : impl_(std::make_unique<Impl>()) {}
Metrics::~Metrics() = default;

void Metrics::onApplied(uint64_t, std::string_view, std::string_view, double took) {
  impl_->applied.Increment();
  impl_->apply.Observe(took);
}

void Metrics::onRefused(std::string_view, std::string_view, std::string_view name) {
  impl_->refused.Add({{"reason", std::string(name)}}).Increment();
}

void Metrics::onLock(std::string_view, std::string_view, std::string_view, std::string_view,
                     std::string_view decision) {
  impl_->locks.Add({{"decision", std::string(decision)}}).Increment();
}

void Metrics::onSyncStatus(std::string_view, std::string_view, std::string_view now) {
  impl_->transitions.Add({{"status", std::string(now)}}).Increment();
}

void Metrics::onConnected() {
  impl_->connections.Increment();
}
void Metrics::onDisconnected() {
  impl_->connections.Decrement();
}
void Metrics::onCut() {
  impl_->cuts.Increment();
}

void Metrics::onReply(std::string_view method, std::string_view target, unsigned status) {
  impl_->requests
      .Add({{"method", std::string(methodOf(method))},
            {"route", std::string(routeOf(target))},
            {"status", std::to_string(status)}})
      .Increment();
}

void Metrics::committed(double took) {
  impl_->commit.Observe(took);
}

std::string Metrics::page(const ServiceFigures& service, const JournalFigures* journal) {
  impl_->revision.Set(number(service.revision));
  impl_->durableRevision.Set(number(service.durableRevision));
  for (const auto& [status, count] : service.regionsBySyncStatus) {
    impl_->regions.Add({{"sync_status", status}}).Set(number(count));
  }
  impl_->locksHeld.Set(number(service.locksHeld));
  impl_->locksWaitedFor.Set(number(service.locksWaitedFor));
  impl_->watchers.Set(number(service.watchers));
  impl_->watchersLag.Set(number(service.watchersLag));
  // Counted anew when the machines are made anew.
  const auto count = [](Counter& counter, uint64_t now, uint64_t& before) {
    counter.Increment(number(now < before ? now : now - before));
    before = now;
  };
  const Kiv::ActivityFigures& now = service.notifications;
  Kiv::ActivityFigures& before = impl_->notifications;
  count(impl_->queued, now.queued, before.queued);
  count(impl_->delivered, now.delivered, before.delivered);
  count(impl_->skipped, now.skipped, before.skipped);
  count(impl_->coalesced, now.coalesced, before.coalesced);
  if (journal != nullptr) {
    impl_->journalBytes.Set(number(journal->bytes));
    impl_->journalRecords.Set(number(journal->records));
    impl_->journalSnapshots.Set(number(journal->snapshots));
    impl_->journalFailures.Set(number(journal->failures));
  }
  impl_->resident.Set(residentBytes());
  impl_->pool.Set(number(Kiv::kivMemTaken()));
  for (const auto& type : Kiv::AllocTrackTypeInfo::report()) {
    const prometheus::Labels labels{{"type", std::string(type.typeName)}};
    impl_->objects.Add(labels).Set(number(type.liveCount));
    impl_->objectBytes.Add(labels).Set(number(type.liveBytes));
  }
  std::ostringstream out;
  prometheus::TextSerializer().Serialize(out, impl_->registry.Collect());
  return std::move(out).str();
}

}  // namespace vnagent
