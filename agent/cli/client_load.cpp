// vnagent load: drives a live agent, and prints what that came to.
#include <algorithm>

#include <fmt/format.h>
#include <unistd.h>

#include "agent/cli/client_support.h"
#include "agent/load/load.h"

namespace vnagent {
namespace {

constexpr uint32_t kPortsPerHost = 40;

double milliseconds(int64_t nanoseconds) {
  return static_cast<double>(nanoseconds) / 1e6;
}

struct Row {
  const char* name;
  const char* key;
  const Latencies& latencies;
  uint64_t count;
};

std::vector<Row> rowsOf(const LoadReport& report) {
  std::vector<Row> rows = {
      {"sync call", "syncCall", report.syncCalls, report.syncCalls.count()},
      {"change", "change", report.changes, report.changes.count()},
      {"read", "read", report.reads, report.reads.count()},
      {"event", "event", report.events, report.received},
  };
  if (report.lastEvents.count() > 0) {
    rows.push_back({"last watcher's", "lastEvent", report.lastEvents, report.lastEvents.count()});
  }
  return rows;
}

// Calls of the sync protocol are made at the beginning too, so they have no rate.
double rateOf(const Row& row, const LoadReport& report) {
  if (&row.latencies == &report.syncCalls || report.seconds <= 0) return 0;
  return static_cast<double>(row.count) / report.seconds;
}

Json jsonOf(const LoadReport& report, const LoadSettings& settings) {
  Json json{{"seconds", report.seconds},           {"ports", settings.cloud.ports},
            {"regions", settings.cloud.regions},   {"hosts", settings.cloud.hosts},
            {"seed", settings.cloud.seed},         {"drivers", settings.drivers},
            {"connections", settings.connections}, {"watchers", settings.watchers},
            {"readers", settings.readers},         {"refused", report.refused},
            {"comparisons", report.checks},        {"mismatches", report.mismatches},
            {"interrupted", report.isInterrupted}};
  for (const Row& row : rowsOf(report)) {
    json[row.key] = {{"count", row.count},
                     {"p50", milliseconds(row.latencies.quantile(0.5))},
                     {"p99", milliseconds(row.latencies.quantile(0.99))},
                     {"p99.9", milliseconds(row.latencies.quantile(0.999))},
                     {"max", milliseconds(row.latencies.max())}};
    if (const double rate = rateOf(row, report); rate > 0) json[row.key]["rate"] = rate;
  }
  return json;
}

void printReport(const LoadReport& report) {
  const auto time = [](int64_t nanoseconds) {
    return fmt::format("{:.3f}", milliseconds(nanoseconds));
  };
  Table table({"WHAT", "COUNT", "A SECOND", "P50 ms", "P99 ms", "P99.9 ms", "MAX ms"});
  for (const Row& row : rowsOf(report)) {
    if (row.count == 0) continue;
    const double rate = rateOf(row, report);
    const Latencies& latencies = row.latencies;
    table.add({row.name, std::to_string(row.count), rate > 0 ? fmt::format("{:.1f}", rate) : "",
               time(latencies.quantile(0.5)), time(latencies.quantile(0.99)),
               time(latencies.quantile(0.999)), time(latencies.max())});
  }
  printTable(table);
  for (const auto& [name, count] : report.refused) {
    printOut(fmt::format("refused: {} ({})\n", count, name));
  }
  printOut(
      fmt::format("comparisons of a watcher's document with the agent's: {}, of which {} "
                  "differed\n",
                  report.checks + report.mismatches.size(), report.mismatches.size()));
}

// One line on standard error that is written over, where that is a terminal.
class ProgressLine {
 public:
  explicit ProgressLine(bool isWanted) : isShown_(isWanted && isatty(STDERR_FILENO) == 1) {}
  ~ProgressLine() {
    if (isShown_) fmt::print(stderr, "\r\033[K");
  }
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

  void show(const LoadProgress& progress) const {
    if (!isShown_) return;
    fmt::print(stderr, "\r\033[K{}", progress.what);
    if (progress.seconds > 0) {
      fmt::print(stderr, " {:.0f} of {:.0f} s: {} changes, {} reads, {} events, {} comparisons",
                 progress.seconds, progress.of, progress.changes, progress.reads, progress.received,
                 progress.checks);
    }
    std::fflush(stderr);
  }

 private:
  const bool isShown_;
};

LoadSettings settingsOf(const LoadOptions& options) {
  LoadSettings settings;
  settings.endpoint = connected(options).endpoint();
  settings.cloud.prefix = options.prefix;
  settings.cloud.regions = options.regions;
  settings.cloud.ports = options.ports;
  settings.cloud.hosts =
      options.hosts.value_or(std::max(options.ports / kPortsPerHost, 2 * options.regions));
  settings.cloud.seed = options.seed;
  settings.drivers = options.drivers;
  settings.connections = options.connections;
  settings.rate = options.rate;
  settings.syncInterval = options.syncInterval;
  settings.watchers = options.watchers;
  settings.watched = options.watch == "output"  ? LoadSettings::Watched::kOutput
                     : options.watch == "cloud" ? LoadSettings::Watched::kCloud
                                                : LoadSettings::Watched::kHosts;
  settings.readers = options.readers;
  settings.readRate = options.readRate;
  settings.seconds = options.seconds;
  settings.deadline = options.deadline;
  settings.keep = options.keep;
  settings.overwrite = options.overwrite;
  if (settings.cloud.hosts / settings.cloud.regions < 2) {
    throw RejectedArgument("--hosts: each region needs two, to move ports between them");
  }
  if (settings.cloud.ports < settings.cloud.regions) {
    throw RejectedArgument("--ports: each region needs one");
  }
  if (settings.drivers > settings.cloud.regions) {
    throw RejectedArgument("--drivers: there are not so many regions");
  }
  return settings;
}

}  // namespace

ExitStatus load(const LoadOptions& options) {
  const LoadSettings settings = settingsOf(options);
  LoadReport report;
  try {
    const ProgressLine line(!options.json);
    report = runLoad(settings, [&](const LoadProgress& progress) { line.show(progress); });
  } catch (const RegionsExist& error) {
    reportError(error.what());
    return ExitStatus::kRefused;
  }
  if (options.json) {
    printJson(jsonOf(report, settings), true);
  } else {
    printReport(report);
  }
  for (const std::string& region : report.left) reportNote("region " + region + " is left");
  for (const std::string& mismatch : report.mismatches) reportError(mismatch);
  return report.mismatches.empty() ? ExitStatus::kOk : ExitStatus::kNotYet;
}

}  // namespace vnagent
