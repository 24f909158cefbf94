#include "agent/journal/detail/maintenance.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace vnagent::detail {
namespace {

// The log is moved into the database each time that it has grown by so many pages of 4 KiB.
constexpr int kCheckpointPages = 1000;

// What one portion removes at most.
constexpr uint64_t kRemovedRecords = 256;
constexpr uint64_t kRemovedBytes = 4 << 20;
constexpr uint64_t kRemovedParts = 16;

}  // namespace

int64_t wallTimeNow() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

Retention planRetention(const std::vector<SnapshotHead>& heads, uint64_t lastRevision,
                        int64_t wallTime, const JournalSettings& settings) {
  Retention retention;
  if (heads.size() < 2) return retention;
  const uint64_t oldestRevision =
      lastRevision > settings.keepRevisions ? lastRevision - settings.keepRevisions : 0;
  const double oldestTime = static_cast<double>(wallTime) - settings.keepSeconds * 1000;
  const size_t newest = heads.size() - 1;
  size_t base = 0;
  for (size_t i = 0; i < newest; ++i) {
    const bool isOld =
        heads[i].revision <= oldestRevision && static_cast<double>(heads[i].wallTime) <= oldestTime;
    if (!isOld) continue;
    base = i;
    retention.removeUpTo = heads[i].sequence;
  }
  for (size_t i = 0; i < base; ++i) retention.dropped.push_back(heads[i].sequence);
  const uint64_t span = heads[newest].sequence - heads[base].sequence;
  uint64_t kept = heads[base].sequence;
  for (size_t i = base + 1; i + 1 < newest; ++i) {
    if (heads[i].sequence - kept < span / 2) {
      retention.dropped.push_back(heads[i].sequence);
    } else {
      kept = heads[i].sequence;
    }
  }
  return retention;
}

Maintenance::Maintenance(const Database& database, const JournalSettings& settings)
    : database_(database), settings_(settings) {}

void Maintenance::snapshotIs(Snapshot snapshot) {
  waiting_ = std::move(snapshot);
}

void Maintenance::retain(uint64_t lastRevision) {
  retainAt_ = lastRevision;
}

bool Maintenance::hasWork() const {
  return isCheckpointDue() || mayHaveOrphans_ || writer_ || waiting_ || retainAt_ ||
         removeUpTo_ > 0;
}

bool Maintenance::work() {
  try {
    if (isCheckpointDue()) {
      checkpoint();
    } else if (writer_) {
      return writeSnapshot();
    } else if (mayHaveOrphans_) {
      removeOrphans();
    } else if (waiting_) {
      const auto heads = readSnapshotHeads(database_);
      const bool isNewer = heads.empty() || waiting_->sequence > heads.back().sequence;
      if (isNewer && waiting_->sequence > 0) {
        writer_ = std::make_unique<SnapshotWriter>(database_, std::move(*waiting_), wallTimeNow());
      }
      waiting_.reset();
    } else if (retainAt_) {
      plan();
    } else if (removeUpTo_ > 0) {
      removeRecords();
    }
  } catch (...) {
    // A later snapshot starts it again.
    writer_.reset();
    waiting_.reset();
    retainAt_.reset();
    removeUpTo_ = 0;
    mayHaveOrphans_ = false;
    throw;
  }
  return false;
}

bool Maintenance::isCheckpointDue() const {
  return logPages_ >= kCheckpointPages &&
         (logPages_ < triedPages_ || logPages_ - triedPages_ >= kCheckpointPages);
}

void Maintenance::checkpoint() {
  // Who reads meanwhile can keep part of it in the log; the rest is moved the next time.
  triedPages_ = logPages_;
  database_.run("PRAGMA wal_checkpoint(PASSIVE)");
}

void Maintenance::removeOrphans() {
  Statement find = database_.prepare(
      "SELECT id FROM snapshot_part WHERE snapshot NOT IN (SELECT sequence FROM snapshot) LIMIT ?");
  std::vector<uint64_t> orphans;
  find.bind(kRemovedParts);
  while (find.step()) orphans.push_back(find.unsignedInteger(0));
  find.reset();
  mayHaveOrphans_ = orphans.size() == kRemovedParts;
  if (orphans.empty()) return;
  Transaction transaction(database_);
  Statement remove = database_.prepare("DELETE FROM snapshot_part WHERE id = ?");
  for (const uint64_t id : orphans) remove.bind(id).run();
  transaction.commit();
}

bool Maintenance::writeSnapshot() {
  Transaction transaction(database_);
  const bool isComplete = writer_->writeNext();
  transaction.commit();
  if (!isComplete) return false;
  retainAt_ = writer_->snapshot().revision;
  writer_.reset();
  return true;
}

void Maintenance::plan() {
  const auto retention =
      planRetention(readSnapshotHeads(database_), *retainAt_, wallTimeNow(), settings_);
  retainAt_.reset();
  removeUpTo_ = retention.removeUpTo;
  if (retention.dropped.empty()) return;
  Transaction transaction(database_);
  Statement drop = database_.prepare("DELETE FROM snapshot WHERE sequence = ?");
  for (const uint64_t sequence : retention.dropped) drop.bind(sequence).run();
  transaction.commit();
  mayHaveOrphans_ = true;
}

void Maintenance::removeRecords() {
  uint64_t last = 0;
  {
    Statement find = database_.prepare(
        "SELECT sequence, bytes FROM record WHERE sequence <= ? ORDER BY sequence LIMIT ?");
    find.bind(removeUpTo_, kRemovedRecords);
    uint64_t bytes = 0;
    while (bytes < kRemovedBytes && find.step()) {
      last = find.unsignedInteger(0);
      bytes += find.unsignedInteger(1);
    }
  }
  if (last == 0) {
    removeUpTo_ = 0;
    trimReplies();
    return;
  }
  Transaction transaction(database_);
  ReplyWriter replies(database_);
  RecordReader keyed(database_, "WHERE key <> '' AND sequence <= ?", RecordReader::Extent::kSmall);
  keyed.bind(last);
  while (keyed.next()) replies.write(keyed.record());
  Statement remove = database_.prepare("DELETE FROM record WHERE sequence <= ?");
  remove.bind(last).run();
  const auto count = static_cast<uint64_t>(sqlite3_changes64(database_.get()));
  transaction.commit();
  removed_ += count;
}

void Maintenance::trimReplies() {
  // As many as are remembered, even if no later change has a key.
  Transaction transaction(database_);
  Statement trim = database_.prepare(
      "DELETE FROM reply WHERE sequence NOT IN "
      "(SELECT sequence FROM reply ORDER BY sequence DESC LIMIT ?)");
  trim.bind(settings_.keepKeys).run();
  transaction.commit();
}

}  // namespace vnagent::detail
