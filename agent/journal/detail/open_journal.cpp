#include "agent/journal/detail/open_journal.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "agent/journal/detail/tables.h"

namespace vnagent::detail {
namespace {

uint64_t sizeOf(const std::string& path) {
  std::error_code error;
  const auto size = std::filesystem::file_size(path, error);
  return error ? 0 : size;
}

JournalFiles ready(const std::string& directory) {
  makeDirectory(directory);
  return JournalFiles(directory);
}

// SQLite gives the mode of the database to the files beside it.
void makeDatabaseFile(const JournalFiles& files, const std::optional<DurableMark>& mark) {
  if (sizeOf(files.database) > 0) return;
  if (mark && mark->sequence > 0) {
    throw JournalError(JournalError::Kind::kDamaged,
                       files.database + " is missing or empty, and " + files.durable +
                           " says that record " + std::to_string(mark->sequence) +
                           " was acknowledged; remove that file too to start with nothing");
  }
  const Descriptor file(open(files.database.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  if (!file.isOpen()) {
    throw JournalError(JournalError::Kind::kIo, files.database + " cannot be made: " +
                                                    std::generic_category().message(errno));
  }
  syncDirectory(files.folder);
}

Database openDatabase(const JournalFiles& files, const std::optional<DurableMark>& mark,
                      const std::string& vfs) {
  makeDatabaseFile(files, mark);
  return withContext(files, [&] {
    Database database(files.database, Database::Mode::kOpen, vfs);
    const bool isNew = isEmpty(database);
    if (!isNew) checkFormat(database);
    Statement mode = database.prepare("PRAGMA journal_mode = WAL");
    if (!mode.step() || mode.text(0) != "wal") {
      throw JournalError(JournalError::Kind::kIo, "the file system cannot share memory");
    }
    mode.reset();
    // Each commit ends with the write-ahead log on the disk.
    database.run("PRAGMA synchronous = FULL");
    database.run("PRAGMA journal_size_limit = 16777216");
    database.run("PRAGMA temp_store = MEMORY");
    if (isNew) createTables(database);
    return database;
  });
}

}  // namespace

HeldJournal::HeldJournal(const std::string& directory, const JournalSettings& settings)
    : files(ready(directory)),
      lock(files),
      mark(DurableFile::read(files)),
      database(openDatabase(files, mark, settings.vfs)),
      durable(files) {}

Database lookInto(const JournalFiles& files, const std::string& vfs) {
  if (!std::filesystem::exists(files.database)) {
    throw JournalError(JournalError::Kind::kIo, files.folder + " has no journal.db");
  }
  return withContext(files, [&] {
    Database database(files.database, Database::Mode::kLook, vfs);
    checkFormat(database);
    return database;
  });
}

uint64_t bytesOf(const JournalFiles& files) {
  return sizeOf(files.database) + sizeOf(files.writeAheadLog);
}

}  // namespace vnagent::detail
