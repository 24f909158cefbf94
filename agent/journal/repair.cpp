// The repair of a journal: copies what is good into a new file, which takes the old one's place.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <filesystem>
#include <optional>
#include <system_error>

#include "agent/journal/detail/open_journal.h"
#include "agent/journal/detail/salvage.h"
#include "agent/journal/detail/tables.h"
#include "agent/journal/detail/verification.h"
#include "agent/journal/journal_tools.h"

namespace vnagent {

using detail::Database;
using detail::DurableFile;
using detail::DurableMark;
using detail::GoodHistory;
using detail::JournalFiles;

namespace {

// So many records are copied in one transaction.
constexpr uint64_t kCopiedRecords = 1000;

bool isDamaged(const Database& database, const std::optional<DurableMark>& mark) {
  bool found = false;
  detail::verify(database, mark, [&](const JournalFault&) {
    found = true;
    return false;
  });
  return found;
}

std::string timeStamp() {
  const std::time_t now = std::time(nullptr);
  std::tm utc{};
  gmtime_r(&now, &utc);
  char text[32];
  std::strftime(text, sizeof text, "%Y%m%dT%H%M%SZ", &utc);
  return text;
}

void copyRecords(const Database& from, const Database& to, const GoodHistory& history) {
  detail::RecordWriter writer(to);
  for (uint64_t begin = history.first; begin <= history.last; begin += kCopiedRecords) {
    detail::Transaction transaction(to);
    detail::RecordReader reader(from, "WHERE sequence = ?");
    for (uint64_t i = begin; i <= std::min(begin + kCopiedRecords - 1, history.last); ++i) {
      reader.bind(i);
      if (!reader.next()) {
        throw JournalError(JournalError::Kind::kIo,
                           "record " + std::to_string(i) + " cannot be read any more");
      }
      writer.write(reader.record());
    }
    transaction.commit();
  }
}

void copyRest(const Database& from, const Database& to, const GoodHistory& history) {
  detail::Transaction transaction(to);
  for (const auto& head : history.snapshots) {
    detail::SnapshotWriter writer(to, detail::readSnapshot(from, head), head.wallTime);
    while (!writer.writeNext()) {
    }
  }
  detail::ReplyWriter replies(to);
  for (const Record& reply : detail::goodReplies(from)) {
    if (reply.sequence < history.first) replies.write(reply);
  }
  transaction.commit();
}

// Writes what is good into a new file.
void copyGood(const Database& from, const std::string& path, const GoodHistory& history) {
  std::filesystem::remove(path);
  const Database to(path, Database::Mode::kCreate, "");
  detail::createTables(to);
  if (const auto instance = detail::goodInstance(from)) detail::instanceIs(to, *instance);
  copyRecords(from, to, history);
  copyRest(from, to, history);
}

void rename(const std::string& from, const std::string& to) {
  std::error_code error;
  std::filesystem::rename(from, to, error);
  if (error) throw JournalError(JournalError::Kind::kIo, from + ": " + error.message());
}

// Puts the new file into the place of the damaged ones, which are kept under other names.
std::vector<std::string> replaceFiles(const JournalFiles& files, const std::string& newFile) {
  std::vector<std::string> copies;
  const std::string copy = files.database + ".damaged-" + timeStamp();
  std::error_code ignored;
  std::filesystem::permissions(newFile, std::filesystem::status(files.database).permissions(),
                               ignored);
  if (std::filesystem::exists(files.writeAheadLog)) {
    rename(files.writeAheadLog, copy + "-wal");
    copies.push_back(copy + "-wal");
  }
  std::filesystem::remove(files.database + "-shm", ignored);
  rename(files.database, copy);
  copies.insert(copies.begin(), copy);
  rename(newFile, files.database);
  detail::syncDirectory(files.folder);
  return copies;
}

std::string range(const char* what, uint64_t first, uint64_t last) {
  return first == last
             ? std::string(what) + ' ' + std::to_string(first)
             : std::string(what) + "s " + std::to_string(first) + " to " + std::to_string(last);
}

// What is not in the new file, and was in the old one.
std::vector<std::string> goneFrom(const Database& database, const GoodHistory& history,
                                  uint64_t lastSequence, const std::optional<DurableMark>& mark) {
  std::vector<std::string> gone;
  const uint64_t firstSequence = detail::firstTrace(database);
  if (firstSequence < history.first && history.last > 0) {
    gone.push_back("revisions up to " + std::to_string(history.firstRevision - 1) +
                   " can be neither replayed nor resumed from any more (" +
                   range("record", firstSequence, history.first - 1) + ")");
  }
  if (lastSequence <= history.last) return gone;
  uint64_t lastRevision = mark ? mark->revision : 0;
  if (const auto record = detail::goodRecord(database, lastSequence)) {
    lastRevision = std::max(lastRevision, record->revision);
  }
  const std::string records = range("record", history.last + 1, lastSequence);
  gone.push_back(lastRevision > history.lastRevision
                     ? range("revision", history.lastRevision + 1, lastRevision) +
                           (lastRevision == history.lastRevision + 1 ? " is" : " are") + " gone (" +
                           records + ")"
                     : "what came after revision " + std::to_string(history.lastRevision) +
                           " is gone (" + records + ")");
  return gone;
}

}  // namespace

RepairReport repairJournal(const std::string& directory) {
  const JournalFiles files(directory);
  if (!std::filesystem::exists(files.database)) {
    throw JournalError(JournalError::Kind::kIo, files.folder + " has no journal.db");
  }
  const detail::JournalLock lock(files);
  const auto mark = DurableFile::read(files);
  RepairReport report;
  GoodHistory history;
  const std::string newFile = files.database + ".new";
  detail::withContext(files, [&] {
    const Database database(files.database, Database::Mode::kLook, "");
    detail::checkFormat(database);
    report.isDamaged = isDamaged(database, mark);
    if (!report.isDamaged) return;
    const uint64_t last = std::max(mark ? mark->sequence : 0, detail::lastTrace(database));
    history = detail::findGoodHistory(database, last);
    report.firstRevision = history.firstRevision;
    report.lastRevision = history.lastRevision;
    report.gone = goneFrom(database, history, last, mark);
    if (!detail::goodInstance(database)) {
      report.gone.push_back("the UUID of the instance is gone; it has a new one");
    }
    copyGood(database, newFile, history);
  });
  if (!report.isDamaged) return report;
  report.copies = replaceFiles(files, newFile);
  DurableFile(files).write({history.last, history.lastRevision, history.lastCheck});
  return report;
}

}  // namespace vnagent
