// The live agent's history on disk: records, snapshots, and who the agent is, in one SQLite file of
// a directory that belongs to one agent at a time.
//
//   Journal journal(directory, settings, {.committed = ..., .failed = ..., .writable = ...});
//   Service service(settings, clock, &journal.storage(), journal.recover());
//
// A thread of the journal writes what is appended: all that arrives during one commit is in the
// next, and a commit ends with the data on the disk. The callbacks are called on that thread; the
// owner passes them on to the activity thread (Service::durableIs, storageFailed,
// storageIsWritable), in the order in which they came.
//
// The directory holds
//   journal.db     the database (with journal.db-wal and journal.db-shm while it is open),
//   lock           locked while a process has the journal open, with its process id,
//   durable        the last sequence that was acknowledged, to notice a tail that is lost.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "agent/journal/journal_error.h"
#include "agent/live/service.h"
#include "agent/live/storage.h"

namespace vnagent {

struct JournalSettings {
  // How far back records are kept: whichever of the two keeps more. Watches resume from the last
  // `keepRevisions`; `vnagent run --journal` replays all that is kept.
  double keepSeconds = 7 * 24 * 3600.0;
  uint64_t keepRevisions = 10'000;
  // How many changes with an idempotency key are remembered.
  uint64_t keepKeys = 10'000;

  // A journal of at most so many bytes is checked as a whole when it is opened. Of a larger one,
  // only what a restart reads is.
  uint64_t wholeCheckBytes = uint64_t{64} << 20;

  // How often a journal that could not write tries again.
  std::chrono::milliseconds probeInterval{500};

  // The SQLite VFS to use, by its name; empty: the system's.
  std::string vfs = {};

  // Whether the journal writes on a thread of its own. Else its owner calls turn().
  bool hasThread = true;
};

// Called on the journal's thread, or inside turn(), in order, not after the journal's destruction.
// Each may be empty; none may throw, or call the journal.
struct JournalCallbacks {
  // All records up to this sequence are on the disk; `seconds` is what the commit took.
  std::function<void(uint64_t sequence, double seconds)> committed;

  // No record after `sequence` is durable, and what was appended since is dropped, until a record
  // with the next sequence is appended after writable(). `reason` is for the log, and may name
  // files.
  std::function<void(uint64_t sequence, const std::string& reason, bool isNoSpace)> failed;

  // Writing works again.
  std::function<void()> writable;
};

// What a metrics page shows of a journal.
struct JournalFigures {
  uint64_t bytes = 0;  // of the database and its write-ahead log
  uint64_t commits = 0;
  uint64_t records = 0;    // that were committed since the journal was opened
  uint64_t snapshots = 0;  // likewise
  uint64_t failures = 0;   // of commits and snapshots
  uint64_t lastSequence = 0;
  uint64_t lastRevision = 0;
};

class Journal {
 public:
  // Opens the journal of a directory, and makes what is missing (0700, 0600): the directory, but
  // not its parents. Checks it, as the settings say. Throws JournalError.
  Journal(const std::string& directory, const JournalSettings& settings,
          JournalCallbacks callbacks);

  // Writes what was appended, and closes the file. A snapshot that is not complete is dropped.
  ~Journal();
  Journal(const Journal&) = delete;
  Journal& operator=(const Journal&) = delete;

  // What a service starts from. Throws JournalError. Once, before the first append.
  Recovered recover();

  // For the activity thread. Its read() throws JournalError. What is appended must go on after the
  // last sequence of recover().
  Storage& storage();

  // Waits until all that was appended is committed, or has failed. Any thread.
  void flush();

  // Without a thread: does a portion of what is to be done at this time, such as one commit; and
  // when there is something to be done next, which may be in the past. Any thread, one at a time;
  // append() may be called meanwhile. REQUIRES: the settings say so.
  void turn();
  std::chrono::steady_clock::time_point nextTurn() const;

  // Any thread.
  JournalFigures figures() const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace vnagent
