#include "agent/journal/detail/verification.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "agent/journal/detail/tables.h"
#include "agent/journal/journal_error.h"

namespace vnagent::detail {
namespace {

class Verification {
 public:
  Verification(const Database& database, const std::optional<DurableMark>& mark,
               const std::function<bool(JournalFault)>& report)
      : database_(database), mark_(mark), report_(report) {}

  void run() {
    checkFile();
    attempt("the UUID of the instance", [&] { instanceOf(database_); });
    checkSnapshots();
    checkRecords();
    attempt("the replies", [&] { readReplies(database_); });
    checkMark();
  }

 private:
  void report(uint64_t sequence, uint64_t revision, std::string text) {
    if (!isEnded_) isEnded_ = !report_({sequence, revision, std::move(text)});
  }

  // Does something that damage makes fail, and reports that. `revision` is read after it failed.
  template <class Action>
  bool attempt(const std::string& what, Action&& action, uint64_t sequence = 0,
               const uint64_t& revision = 0) {
    if (isEnded_) return false;
    try {
      action();
      return true;
    } catch (const JournalError& error) {
      if (error.kind() != JournalError::Kind::kDamaged) throw;
      const std::string text = error.what();
      const bool isNamed = text.find("record") != text.npos || text.find(what) != text.npos;
      report(sequence, revision, isNamed ? text : what + ": " + text);
      return false;
    }
  }

  void checkFile() {
    attempt("the file", [&] {
      Statement check = database_.prepare("PRAGMA integrity_check");
      while (!isEnded_ && check.step()) {
        if (const auto line = check.text(0); line != "ok") {
          report(0, 0, "the file is malformed: " + std::string(line));
        }
      }
    });
  }

  void checkSnapshots() {
    if (!attempt("the snapshots", [&] { heads_ = readSnapshotHeads(database_); })) return;
    for (const SnapshotHead& head : heads_) {
      attempt(
          "the snapshot of " + recordName(head.sequence, head.revision),
          [&] { readSnapshot(database_, head); }, head.sequence, head.revision);
    }
  }

  void checkRecords() {
    std::optional<SequenceRange> range;
    if (!attempt("the records", [&] { range = sequencesOf(database_); })) return;
    const uint64_t newest = heads_.empty() ? 0 : heads_.back().sequence;
    last_ = newest;
    if (!range) {
      if (newest > 0) report(newest, heads_.back().revision, "all records are missing");
      return;
    }
    const uint64_t oldest = heads_.empty() ? 0 : heads_.front().sequence;
    if (range->first > oldest + 1) reportMissing(oldest + 1, range->first - 1);
    if (range->first == 1) succession_.startAfter(0, 0, std::string(kFirstCheck));
    RecordReader reader(database_, "WHERE sequence = ?");
    for (uint64_t sequence = range->first; sequence <= range->last && !isEnded_;) {
      sequence = checkRecord(reader, sequence);
    }
    if (range->last < newest) reportMissing(range->last + 1, newest);
    last_ = std::max(range->last, newest);
  }

  // Checks the record of a sequence, and returns the sequence to go on with.
  uint64_t checkRecord(RecordReader& reader, uint64_t sequence) {
    bool isThere = false;
    const bool isRead = attempt(
        "record " + std::to_string(sequence),
        [&] {
          reader.bind(sequence);
          isThere = reader.next();
        },
        sequence, reader.record().revision);
    if (!isRead) {
      succession_ = {};
      return sequence + 1;
    }
    if (!isThere) {
      uint64_t next = UINT64_MAX;
      attempt("the records", [&] { next = sequenceAfter(sequence); });
      if (next != UINT64_MAX) reportMissing(sequence, next - 1);
      succession_ = {};
      return next;
    }
    const Record& record = reader.record();
    if (const auto fault = succession_.next(record)) {
      report(sequence, record.revision, *fault);
    }
    checkAgainstHead(record);
    if (mark_ && mark_->sequence == sequence && mark_->check != record.check) {
      report(sequence, record.revision,
             recordName(sequence, record.revision) + " is not the one that was acknowledged");
    }
    return sequence + 1;
  }

  void checkAgainstHead(const Record& record) {
    const auto head = std::ranges::find(heads_, record.sequence, &SnapshotHead::sequence);
    if (head == heads_.end()) return;
    if (head->check == record.check && head->revision == record.revision) return;
    report(record.sequence, record.revision,
           "the snapshot of " + recordName(record.sequence, record.revision) +
               " has another check value or revision than the record");
  }

  uint64_t sequenceAfter(uint64_t sequence) {
    Statement query = database_.prepare("SELECT min(sequence) FROM record WHERE sequence > ?");
    query.bind(sequence).step();
    return query.isNull(0) ? UINT64_MAX : query.unsignedInteger(0);
  }

  void reportMissing(uint64_t first, uint64_t last) {
    report(first, 0,
           first == last ? "record " + std::to_string(first) + " is missing"
                         : "records " + std::to_string(first) + " to " + std::to_string(last) +
                               " are missing");
  }

  void checkMark() {
    if (!mark_ || mark_->sequence <= last_) return;
    report(mark_->sequence, mark_->revision,
           recordName(mark_->sequence, mark_->revision) +
               " was acknowledged and is missing, and what came before it from record " +
               std::to_string(last_ + 1) + " on");
  }

  const Database& database_;
  const std::optional<DurableMark>& mark_;
  const std::function<bool(JournalFault)>& report_;
  bool isEnded_ = false;
  std::vector<SnapshotHead> heads_;
  Succession succession_;
  uint64_t last_ = 0;
};

}  // namespace

std::string recordName(uint64_t sequence, uint64_t revision) {
  return "record " + std::to_string(sequence) + " (revision " + std::to_string(revision) + ")";
}

void Succession::startAfter(uint64_t sequence, uint64_t revision, const std::string& check) {
  isStarted_ = true;
  sequence_ = sequence;
  revision_ = revision;
  check_ = check;
}

std::optional<std::string> Succession::next(const Record& record) {
  std::optional<std::string> fault;
  if (isStarted_) {
    const std::string name = recordName(record.sequence, record.revision);
    if (record.sequence != sequence_ + 1) {
      fault =
          name + " comes after record " + std::to_string(sequence_) + "; those between are missing";
    } else if (record.revision < revision_ || record.revision > revision_ + 1) {
      fault = name + " comes after revision " + std::to_string(revision_);
    } else if (!record.onDisk && record.check != nextCheck(check_, record)) {
      fault = name + " has a check value that does not follow from the record before";
    }
  }
  startAfter(record.sequence, record.revision, record.check);
  return fault;
}

void verify(const Database& database, const std::optional<DurableMark>& mark,
            const std::function<bool(JournalFault)>& report) {
  Verification(database, mark, report).run();
}

}  // namespace vnagent::detail
