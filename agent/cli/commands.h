// The commands of vnagent, each with what its command line chose.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "agent/cli/input_file.h"
#include "agent/cli/report.h"
#include "agent/output/trace_lines.h"

namespace vnagent {

struct RunOptions {
  std::string cloud;            // empty for none, "-" for standard input
  std::string events;           // likewise
  std::string journal;          // the directory of the journal to play back; empty for none
  uint64_t until = UINT64_MAX;  // the last revision of it
  uint64_t maxInputBytes = kDefaultMaxInputBytes;
  double regionSyncTimeout = 60;
  bool toggle = true;
  std::optional<bool> tree;  // how the final document is printed; by the terminal where unset
  std::string inspect;       // the path to print instead of the final document; empty for none
  bool each = false;
  bool changes = false;  // each step shows what has changed of the output, not all of it
  bool keepGoing = false;
  std::optional<int> traceLevel;
  std::string traceFile;  // empty for standard error
  bool traceText = false;
};

struct CheckOptions {
  std::string cloud;   // "-" for standard input
  std::string events;  // likewise; empty for none
  uint64_t maxInputBytes = kDefaultMaxInputBytes;
};

struct ImportOptions {
  std::string region;
  std::string directory;
  uint64_t maxInputBytes = kDefaultMaxInputBytes;  // of each file
};

struct SchemaOptions {
  bool output = false;  // of the output document, instead of the cloud document
};

struct JournalOptions {
  enum class Action : uint8_t { kCheck, kShow, kCompact, kRepair };

  Action action = Action::kCheck;
  std::string directory;
  uint64_t from = 0;  // revisions that are shown
  uint64_t until = UINT64_MAX;
  bool json = false;
  double keepDays = 7;  // what a compaction keeps: whichever keeps more
  uint64_t keepRevisions = 10'000;
};

// Called with the exit status of a run once all output is written, and before the run's objects are
// destroyed. It may end the process.
using Finished = std::function<void(int status)>;

// Each runs a command and reports errors on standard error. Exceptions that pass through are
// failures of the agent or a machine, except UnreadableFile.
ExitStatus run(const RunOptions& options, const Finished& finished);
ExitStatus check(const CheckOptions& options);
ExitStatus importNeutron(const ImportOptions& options);
ExitStatus printSchema(const SchemaOptions& options);
ExitStatus journal(const JournalOptions& options);

}  // namespace vnagent
