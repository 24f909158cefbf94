#include "agent/journal/detail/recovery.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "agent/journal/detail/tables.h"
#include "agent/journal/detail/verification.h"
#include "agent/journal/journal_error.h"

namespace vnagent::detail {
namespace {

// Of the history's events and patches, so much of the newest is held in memory.
constexpr size_t kHistoryBytes = size_t{4} << 20;

size_t bytesOf(const Record& record) {
  return record.event.size() + record.output.size() + record.outputBefore.size() +
         record.cloud.size() + record.cloudBefore.size();
}

void leaveOnDisk(Record& record) {
  for (std::string* text :
       {&record.event, &record.output, &record.outputBefore, &record.cloud, &record.cloudBefore}) {
    *text = std::string();
  }
  record.drawn = {};
  record.onDisk = true;
}

class Recovery {
 public:
  Recovery(const Database& database, const std::optional<DurableMark>& mark,
           const JournalSettings& settings)
      : database_(database), mark_(mark), settings_(settings) {}

  Recovered run() {
    recovered_.instance = instanceOf(database_);
    if (const auto heads = readSnapshotHeads(database_); !heads.empty()) {
      recovered_.snapshot = readSnapshot(database_, heads.back());
    }
    const Snapshot& snapshot = recovered_.snapshot;
    const auto range = sequencesOf(database_);
    if (range) {
      readRecords();
      readHistory(*range);
    }
    const Record* last = lastRecord();
    checkEnd(last == nullptr ? snapshot.sequence : last->sequence,
             last == nullptr ? snapshot.check : last->check);
    readReplies(range ? historyBegin_ : 0);
    return std::move(recovered_);
  }

 private:
  const Record* lastRecord() const {
    if (!recovered_.records.empty()) return &recovered_.records.back();
    return nullptr;
  }

  void readRecords() {
    const Snapshot& snapshot = recovered_.snapshot;
    Succession succession;
    succession.startAfter(snapshot.sequence, snapshot.revision, snapshot.check);
    RecordReader reader(database_, "WHERE sequence > ? ORDER BY sequence");
    reader.bind(snapshot.sequence);
    while (reader.next()) {
      if (const auto fault = succession.next(reader.record())) throwDamaged(*fault);
      recovered_.records.push_back(reader.take());
    }
  }

  void readHistory(const SequenceRange& range) {
    const Snapshot& snapshot = recovered_.snapshot;
    const Record* last = lastRecord();
    const uint64_t revision = last == nullptr ? snapshot.revision : last->revision;
    const uint64_t oldest =
        revision > settings_.keepRevisions ? revision - settings_.keepRevisions : 0;
    historyBegin_ = firstWithRevision(database_, range, oldest + 1);
    if (historyBegin_ > snapshot.sequence) return;
    Succession succession;
    size_t bytes = 0;
    size_t stripped = 0;
    RecordReader reader(database_, "WHERE sequence BETWEEN ? AND ? ORDER BY sequence",
                        RecordReader::Extent::kSmall);
    reader.bind(historyBegin_, snapshot.sequence);
    while (reader.next()) {
      if (const auto fault = succession.next(reader.record())) throwDamaged(*fault);
      recovered_.history.push_back(reader.take());
      bytes += bytesOf(recovered_.history.back());
      for (; bytes > kHistoryBytes; ++stripped) {
        bytes -= bytesOf(recovered_.history[stripped]);
        leaveOnDisk(recovered_.history[stripped]);
      }
    }
    const bool isWhole = !recovered_.history.empty() &&
                         recovered_.history.back().sequence == snapshot.sequence &&
                         recovered_.history.back().check == snapshot.check;
    if (!isWhole) {
      throwDamaged("the snapshot of " + recordName(snapshot.sequence, snapshot.revision) +
                   " does not belong to the records before it");
    }
  }

  // Replies to changes with a key whose records are older than the history, or gone.
  void readReplies(uint64_t before) {
    const auto hasKey = [](const Record& record) { return !record.key.empty(); };
    const auto present = static_cast<uint64_t>(std::ranges::count_if(recovered_.records, hasKey) +
                                               std::ranges::count_if(recovered_.history, hasKey));
    std::vector<Record> replies;  // the newest first
    const uint64_t wanted = settings_.keepKeys > present ? settings_.keepKeys - present : 0;
    RecordReader reader(database_,
                        "WHERE key <> '' AND sequence < ? ORDER BY sequence DESC LIMIT ?",
                        RecordReader::Extent::kSmall);
    reader.bind(before, wanted);
    while (reader.next()) replies.push_back(replyOf(reader.record()));
    auto older = detail::readReplies(database_);
    while (replies.size() < wanted && !older.empty()) {
      replies.push_back(std::move(older.back()));
      older.pop_back();
    }
    recovered_.history.insert(recovered_.history.begin(), std::make_move_iterator(replies.rbegin()),
                              std::make_move_iterator(replies.rend()));
  }

  static Record replyOf(const Record& record) {
    Record reply;
    reply.sequence = record.sequence;
    reply.revision = record.revision;
    reply.kind = Record::Kind::kReply;
    reply.wallTime = record.wallTime;
    reply.principal = record.principal;
    reply.key = record.key;
    reply.fingerprint = record.fingerprint;
    reply.status = record.status;
    reply.reply = record.reply;
    return reply;
  }

  void checkEnd(uint64_t sequence, const std::string& check) const {
    if (!mark_) return;
    if (mark_->sequence > sequence) {
      throwDamaged(recordName(mark_->sequence, mark_->revision) +
                   " was acknowledged and is missing; the last one is record " +
                   std::to_string(sequence));
    }
    if (mark_->sequence == sequence && mark_->check != check) {
      throwDamaged(recordName(mark_->sequence, mark_->revision) +
                   " is not the one that was acknowledged");
    }
  }

  const Database& database_;
  const std::optional<DurableMark>& mark_;
  const JournalSettings& settings_;
  Recovered recovered_;
  uint64_t historyBegin_ = 0;
};

}  // namespace

Recovered recoverFrom(const Database& database, const std::optional<DurableMark>& mark,
                      const JournalSettings& settings) {
  return Recovery(database, mark, settings).run();
}

}  // namespace vnagent::detail
