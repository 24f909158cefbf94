#include "agent/journal/detail/log_tail.h"

#include <array>
#include <cstdint>
#include <cstring>

namespace vnagent::detail {
namespace {

// The formats of the log and of its index, as SQLite documents them for all versions.
constexpr sqlite3_int64 kLogHeader = 32;
constexpr size_t kFrameHeader = 24;
constexpr int kIndexRegion = 32'768;
constexpr size_t kPageSizeOffset = 14;
constexpr size_t kLastFrameOffset = 16;

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

}  // namespace

bool spoilLogTail(const Database& database) noexcept {
  sqlite3_file* const main = fileOf(database, SQLITE_FCNTL_FILE_POINTER);
  sqlite3_file* const log = fileOf(database, SQLITE_FCNTL_JOURNAL_POINTER);
  if (main == nullptr || log == nullptr || main->pMethods->iVersion < 2) return false;
  volatile void* index = nullptr;
  const int code = main->pMethods->xShmMap(main, 0, kIndexRegion, 0, &index);
  if (code != SQLITE_OK || index == nullptr) return false;
  // The number 1 is the page size that two bytes cannot hold.
  const auto stored = numberAt<uint16_t>(index, kPageSizeOffset);
  const sqlite3_int64 pageSize = stored == 1 ? 65'536 : stored;
  const auto frames = static_cast<sqlite3_int64>(numberAt<uint32_t>(index, kLastFrameOffset));
  const sqlite3_int64 tail =
      kLogHeader + frames * (static_cast<sqlite3_int64>(kFrameHeader) + pageSize);
  sqlite3_int64 size = 0;
  if (log->pMethods->xFileSize(log, &size) != SQLITE_OK) return false;
  if (size <= tail) return true;
  const std::array<char, kFrameHeader> nothing{};
  return log->pMethods->xWrite(log, nothing.data(), static_cast<int>(nothing.size()), tail) ==
         SQLITE_OK;
}

}  // namespace vnagent::detail
