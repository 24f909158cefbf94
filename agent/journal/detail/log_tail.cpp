#include "agent/journal/detail/log_tail.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "agent/journal/journal_error.h"

namespace vnagent::detail {
namespace {

// The formats of the log and of its index, as SQLite documents them for all versions.
constexpr sqlite3_int64 kLogHeader = 32;
constexpr size_t kFrameHeader = 24;
constexpr int kIndexRegion = 32'768;
constexpr size_t kPageSizeOffset = 14;
constexpr size_t kLastFrameOffset = 16;

// How much of the log is rewritten at a time. SQLite's own files take less than 128 KiB in a call.
constexpr int kPortion = 1 << 16;

template <class Number>
Number numberAt(const volatile void* index, size_t offset) {
  Number number = 0;
  std::memcpy(&number, const_cast<const char*>(static_cast<const volatile char*>(index)) + offset,
              sizeof(number));
  return number;
}

sqlite3_file* fileOf(const Database& database, int which) {
  sqlite3_file* file = nullptr;
  const int code = sqlite3_file_control(database.get(), "main", which, &file);
  return code == SQLITE_OK && file != nullptr && file->pMethods != nullptr ? file : nullptr;
}

// The log, and where what was committed ends in it. Its file is null where it is not in use.
struct Log {
  sqlite3_file* file = nullptr;
  sqlite3_int64 end = 0;
};

Log logOf(const Database& database) noexcept {
  sqlite3_file* const main = fileOf(database, SQLITE_FCNTL_FILE_POINTER);
  sqlite3_file* const log = fileOf(database, SQLITE_FCNTL_JOURNAL_POINTER);
  if (main == nullptr || log == nullptr || main->pMethods->iVersion < 2) return {};
  volatile void* index = nullptr;
  const int code = main->pMethods->xShmMap(main, 0, kIndexRegion, 0, &index);
  if (code != SQLITE_OK || index == nullptr) return {};
  // The number 1 is the page size that two bytes cannot hold.
  const auto stored = numberAt<uint16_t>(index, kPageSizeOffset);
  const sqlite3_int64 pageSize = stored == 1 ? 65'536 : stored;
  const auto frames = static_cast<sqlite3_int64>(numberAt<uint32_t>(index, kLastFrameOffset));
  return {log, kLogHeader + frames * (static_cast<sqlite3_int64>(kFrameHeader) + pageSize)};
}

void require(int code, const char* what) {
  if (code == SQLITE_OK) return;
  const bool isFull = (code & 0xff) == SQLITE_FULL;
  throw JournalError(isFull ? JournalError::Kind::kNoSpace : JournalError::Kind::kIo,
                     std::string("the write-ahead log cannot be ") + what + ": " +
                         sqlite3_errstr(code) + " (SQLite " + std::to_string(code) + ")");
}

}  // namespace

bool spoilLogTail(const Database& database) noexcept {
  const Log log = logOf(database);
  if (log.file == nullptr) return false;
  sqlite3_int64 size = 0;
  if (log.file->pMethods->xFileSize(log.file, &size) != SQLITE_OK) return false;
  if (size <= log.end) return true;
  const std::array<char, kFrameHeader> nothing{};
  return log.file->pMethods->xWrite(log.file, nothing.data(), static_cast<int>(nothing.size()),
                                    log.end) == SQLITE_OK;
}

void rewriteLog(const Database& database) {
  // The log is opened by the first read.
  database.integer("SELECT count(*) FROM sqlite_schema");
  const Log log = logOf(database);
  if (log.file == nullptr) return;
  sqlite3_int64 size = 0;
  require(log.file->pMethods->xFileSize(log.file, &size), "read");
  const sqlite3_int64 end = std::min(size, log.end);
  std::vector<char> bytes(kPortion);
  for (sqlite3_int64 done = 0; done < end;) {
    const auto portion = static_cast<int>(std::min(end - done, sqlite3_int64{kPortion}));
    require(log.file->pMethods->xRead(log.file, bytes.data(), portion, done), "read");
    require(log.file->pMethods->xWrite(log.file, bytes.data(), portion, done), "written");
    done += portion;
  }
  if (end > 0) require(log.file->pMethods->xSync(log.file, SQLITE_SYNC_NORMAL), "synced");
}

}  // namespace vnagent::detail
