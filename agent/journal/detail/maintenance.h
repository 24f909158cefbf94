// What a journal does between commits, in portions that a commit can wait for: writes a snapshot,
// removes what is older than is kept, and moves the write-ahead log into the database.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <vector>

#include "agent/journal/detail/database.h"
#include "agent/journal/detail/tables.h"
#include "agent/journal/journal.h"

namespace vnagent::detail {

// Which snapshots are kept, and which records.
struct Retention {
  uint64_t removeUpTo = 0;        // the last sequence of which records are removed
  std::vector<uint64_t> dropped;  // the sequences of snapshots
};

// Keeps the two newest snapshots; the newest one that is older than all that must be kept, from
// which a replay begins; and between them a few, so that the latter advances later.
Retention planRetention(const std::vector<SnapshotHead>& heads, uint64_t lastRevision,
                        int64_t wallTime, const JournalSettings& settings);

// On the thread of the connection that writes.
class Maintenance {
 public:
  // REQUIRES: all but the settings outlive it.
  Maintenance(const Database& database, const JournalSettings& settings);

  // Snapshots wait until the one before is written; the newest that waits replaces the others.
  void snapshotIs(Snapshot snapshot);

  // A commit has left so many pages in the write-ahead log.
  void logPagesAre(int pages) { logPages_ = pages; }

  // Starts to look for what is too old; `lastRevision` is the latest that is durable.
  void retain(uint64_t lastRevision);

  bool hasWork() const;

  // Does a portion of it. Returns whether a snapshot became complete. What fails is given up until
  // the next snapshot. Throws JournalError.
  bool work();

  // Records that were removed so far.
  uint64_t removed() const { return removed_; }

 private:
  bool isCheckpointDue() const;
  void checkpoint();
  void removeOrphans();
  bool writeSnapshot();
  void plan();
  void removeRecords();
  void trimReplies();

  const Database& database_;
  JournalSettings settings_;

  std::optional<Snapshot> waiting_;
  std::unique_ptr<SnapshotWriter> writer_;
  bool mayHaveOrphans_ = true;  // parts of snapshots that were never complete, or are dropped

  std::optional<uint64_t> retainAt_;  // the revision of a retention that is to be planned
  uint64_t removeUpTo_ = 0;           // 0: none to remove
  uint64_t removed_ = 0;

  int logPages_ = 0;
  int triedPages_ = 0;  // in the log when it was last moved
};

// Milliseconds since 1970.
int64_t wallTimeNow();

}  // namespace vnagent::detail
