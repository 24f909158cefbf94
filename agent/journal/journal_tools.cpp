#include "agent/journal/journal_tools.h"

#include "agent/journal/detail/maintenance.h"
#include "agent/journal/detail/open_journal.h"
#include "agent/journal/detail/tables.h"
#include "agent/journal/detail/verification.h"

namespace vnagent {

using detail::Database;
using detail::DurableFile;
using detail::HeldJournal;
using detail::JournalFiles;
using detail::RecordReader;
using detail::SnapshotHead;
using detail::Statement;

namespace {

// A read transaction: all that is read is of one moment, also while an agent writes.
class Reading {
 public:
  explicit Reading(const Database& database) : database_(database) { database.run("BEGIN"); }
  ~Reading() { sqlite3_exec(database_.get(), "COMMIT", nullptr, nullptr, nullptr); }
  Reading(const Reading&) = delete;
  Reading& operator=(const Reading&) = delete;

 private:
  const Database& database_;
};

// Does something with a journal that others may have open.
template <class Action>
auto look(const std::string& directory, Action&& action) {
  const JournalFiles files(directory);
  // Before the records: an agent that runs writes it after them.
  const auto mark = DurableFile::read(files);
  const Database database = detail::lookInto(files, "");
  return detail::withContext(files, [&] {
    const Reading reading(database);
    return action(database, mark);
  });
}

void readRecords(const Database& database, uint64_t firstSequence,
                 const std::function<bool(const Record&)>& take) {
  RecordReader reader(database, "WHERE sequence >= ? ORDER BY sequence");
  reader.bind(firstSequence);
  while (reader.next() && take(reader.record())) {
  }
}

}  // namespace

void checkJournal(const std::string& directory,
                  const std::function<bool(const JournalFault&)>& report) {
  look(directory,
       [&](const Database& database, const auto& mark) { detail::verify(database, mark, report); });
}

JournalContents readContents(const std::string& directory) {
  return look(directory, [&](const Database& database, const auto&) {
    JournalContents contents;
    contents.instance = detail::instanceOf(database);
    contents.bytes = detail::bytesOf(JournalFiles(directory));
    for (const SnapshotHead& head : detail::readSnapshotHeads(database)) {
      contents.snapshots.push_back(head.revision);
      contents.lastRevision = head.revision;
      contents.lastCheck = head.check;
    }
    const auto range = detail::sequencesOf(database);
    if (!range) return contents;
    contents.records = range->last - range->first + 1;
    readRecords(database, range->first, [&](const Record& record) {
      contents.firstRevision = record.revision;
      return false;
    });
    readRecords(database, range->last, [&](const Record& record) {
      contents.lastRevision = record.revision;
      contents.lastCheck = record.check;
      return false;
    });
    return contents;
  });
}

void readJournal(const std::string& directory, uint64_t first, uint64_t last,
                 const std::function<bool(const Record&)>& take) {
  look(directory, [&](const Database& database, const auto&) {
    const auto range = detail::sequencesOf(database);
    if (!range) return;
    readRecords(database, detail::firstWithRevision(database, *range, first),
                [&](const Record& record) { return record.revision <= last && take(record); });
  });
}

void replayJournal(const std::string& directory, const std::function<bool(const Snapshot&)>& begin,
                   const std::function<bool(const Record&)>& take) {
  look(directory, [&](const Database& database, const auto&) {
    const auto range = detail::sequencesOf(database);
    Snapshot snapshot;
    if (!range || range->first != 1) {
      const auto heads = detail::readSnapshotHeads(database);
      if (!heads.empty()) snapshot = detail::readSnapshot(database, heads.front());
    }
    if (!begin(snapshot) || !range) return;
    detail::Succession succession;
    succession.startAfter(snapshot.sequence, snapshot.revision, snapshot.check);
    readRecords(database, snapshot.sequence + 1, [&](const Record& record) {
      if (const auto fault = succession.next(record)) {
        throw JournalError(JournalError::Kind::kDamaged, *fault);
      }
      return take(record);
    });
  });
}

CompactReport compactJournal(const std::string& directory, const JournalSettings& settings) {
  const JournalFiles files(directory);
  detail::lookInto(files, settings.vfs);  // makes nothing where there is no journal
  CompactReport report;
  report.bytesBefore = detail::bytesOf(files);
  {
    const HeldJournal held(directory, settings);
    detail::withContext(held.files, [&] {
      detail::verify(held.database, held.mark, [](const JournalFault& fault) -> bool {
        throw JournalError(JournalError::Kind::kDamaged, fault.text);
      });
      detail::Maintenance maintenance(held.database, settings);
      if (const auto range = detail::sequencesOf(held.database)) {
        readRecords(held.database, range->last, [&](const Record& record) {
          maintenance.retain(record.revision);
          return false;
        });
      }
      while (maintenance.hasWork()) maintenance.work();
      report.recordsRemoved = maintenance.removed();
      held.database.run("VACUUM");
      held.database.run("PRAGMA wal_checkpoint(TRUNCATE)");
    });
  }
  report.bytesAfter = detail::bytesOf(files);
  return report;
}

}  // namespace vnagent
