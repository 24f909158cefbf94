// The commands that talk to a live agent.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "agent/cli/report.h"
#include "agent/export/export_mode.h"

namespace CLI {
class App;
}

namespace vnagent {

// Where the agent is, and how answers are printed: options of every such command.
struct ClientOptions {
  std::string socket;  // empty: $VNAGENT_SOCKET, else the default
  std::string url;     // instead of the socket
  std::string tokenFile;
  std::string authorities;
  double deadline = 30;
  bool json = false;
};

struct ShowOptions : ClientOptions {
  std::string what;  // empty: an overview
};

struct GetOptions : ClientOptions {
  std::string place;
  bool keys = false;
};

struct PatchOptions : ClientOptions {
  std::string file = "-";
  std::string at;         // JSON Pointer
  std::string ifMatch;    // revision of an ETag
  std::string requestId;  // of the holder of the lock
  std::string key;        // idempotency key
  bool dryRun = false;
};

struct ReplaceOptions : ClientOptions {
  std::string region;
  std::string file;
  std::string requestId;
  bool dryRun = false;
};

struct ApplyOptions : ClientOptions {
  std::string file;
  std::string requestId;
  bool dryRun = false;
};

struct WatchOptions : ClientOptions {
  std::string of = "output";
  std::vector<std::string> at;
  std::string since;
  uint64_t count = 0;  // 0: no end
};

struct WaitOptions : ClientOptions {
  uint64_t revision = 0;
  double seconds = 30;
};

struct LockOptions : ClientOptions {
  std::string region;
  std::vector<std::string> command;  // empty: show the lock
  std::string requester;
  std::string requestId;  // empty: a new one
  double wait = 30;
  bool sync = false;   // start, heartbeats, and completion if the command succeeds
  bool force = false;  // free the lock, whoever holds it
};

struct TraceOptions : ClientOptions {
  std::optional<int> level;
  bool tail = false;
};

struct LoadOptions : ClientOptions {
  uint32_t ports = 1000;
  uint32_t regions = 1;
  std::optional<uint32_t> hosts;  // unset: one for each 40 ports, and two for each region
  std::string prefix = "load-";
  uint64_t seed = 1;
  uint32_t drivers = 1;
  uint32_t connections = 4;
  double rate = 100;        // changes a second; 0: as fast as they are answered
  double syncInterval = 0;  // seconds; 0: only at the beginning
  uint32_t watchers = 10;
  std::string watch = "hosts";
  uint32_t readers = 1;
  double readRate = 100;
  double seconds = 10;
  bool overwrite = false;
  bool keep = false;
};

struct ExportOptions : ClientOptions {
  std::string kind;  // "hardware-vtep"
  std::string map;
  std::string outputs;  // empty: the live agent
  ExportMode mode = ExportMode::kRepair;
  bool once = false;
  bool status = false;
  std::string control;  // empty: the default
  std::string metrics;  // empty: none
};

// Words that may stand on the command line: names of regions, or places.
struct CompleteOptions : ClientOptions {
  std::string what;
  std::string text;
};

// Each runs a command. They throw what agent/client throws, and UnreadableFile.
ExitStatus show(const ShowOptions& options);
ExitStatus get(const GetOptions& options);
ExitStatus patch(const PatchOptions& options);
ExitStatus replace(const ReplaceOptions& options);
ExitStatus diff(const ApplyOptions& options);
ExitStatus apply(const ApplyOptions& options);
ExitStatus watch(const WatchOptions& options);
ExitStatus wait(const WaitOptions& options);
ExitStatus lock(const LockOptions& options);
ExitStatus trace(const TraceOptions& options);
ExitStatus load(const LoadOptions& options);
ExitStatus complete(const CompleteOptions& options);
ExitStatus exportHardwareVtep(const ExportOptions& options);

// The commands' part of the command line. Lives as long as the parsing and the run.
class ClientCommands {
 public:
  // Adds the commands with their options.
  explicit ClientCommands(CLI::App& app);
  ~ClientCommands();

  // Runs the command that the command line named, and reports what went wrong; nothing where it
  // named none of these.
  std::optional<ExitStatus> run() const;

 private:
  struct Options;

  CLI::App& app_;
  std::unique_ptr<Options> options_;
};

}  // namespace vnagent
