// Drives a live agent with a cloud of its own: drivers that sync its regions and move its ports,
// watchers that follow, and readers. All of them share one thread; what the watchers receive is
// compared with what the agent says when it is asked on a second one.
//
//   LoadReport report = runLoad(settings, [](const LoadProgress& progress) { ... });
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "agent/client/http.h"
#include "agent/load/latencies.h"
#include "agent/load/load_cloud.h"

namespace vnagent {

struct LoadSettings {
  // What the watchers follow: each a host of the output (but for two, which follow the whole
  // documents), or each the whole output or cloud.
  enum class Watched : uint8_t { kHosts, kOutput, kCloud };

  Endpoint endpoint;
  CloudShape cloud;
  uint32_t drivers = 1;
  uint32_t connections = 4;  // of all drivers
  double rate = 100;         // changes a second, of all drivers; 0: as fast as they are answered
  double syncInterval = 0;   // seconds after which a driver syncs again; 0: only at the beginning
  uint32_t watchers = 10;
  Watched watched = Watched::kHosts;
  uint32_t readers = 1;
  double readRate = 100;  // reads a second, of all readers; 0: as fast as they are answered
  double seconds = 10;
  double deadline = 30;    // seconds for an answer
  bool keep = false;       // leaves its regions
  bool overwrite = false;  // removes regions of these names first
};

// The agent has regions with the names of the load's.
class RegionsExist : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct LoadReport {
  double seconds = 0;  // that were measured
  Latencies syncCalls;
  Latencies changes;
  Latencies reads;
  Latencies events;       // from a change's request to a watcher's event
  Latencies lastEvents;   // to that of the last watcher; only where each follows all
  uint64_t received = 0;  // events of all watchers
  // Changes and reads that were not done, by the problem's name or the status.
  std::map<std::string, uint64_t> refused;
  uint64_t checks = 0;  // comparisons of a watcher's document
  std::vector<std::string> mismatches;
  bool isInterrupted = false;
  std::vector<std::string> left;  // regions that could not be removed at the end
};

struct LoadProgress {
  std::string what;    // being done
  double seconds = 0;  // since the measurement began; 0 before
  double of = 0;       // its length
  uint64_t changes = 0;
  uint64_t reads = 0;
  uint64_t received = 0;
  uint64_t checks = 0;
};

// Runs a load from begin to end, and removes its regions. SIGINT and SIGTERM end it early.
// `progress` is called a few times a second, on the calling thread. Throws Unreachable,
// RequestRefused and RegionsExist; the regions are removed also then, where that is possible.
LoadReport runLoad(const LoadSettings& settings,
                   const std::function<void(const LoadProgress&)>& progress);

}  // namespace vnagent
