#include "agent/journal/detail/database.h"

#include <cerrno>
#include <system_error>

#include "agent/journal/journal_error.h"

namespace vnagent::detail {
namespace {

JournalError::Kind kindOf(int code, int systemError) {
  switch (code & 0xff) {
    case SQLITE_FULL:
      return JournalError::Kind::kNoSpace;
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
    case SQLITE_ERROR:  // the statements are right: the tables are not
      return JournalError::Kind::kDamaged;
    default:
      break;
  }
  const bool isFull = systemError == ENOSPC || systemError == EDQUOT;
  return isFull && (code & 0xff) == SQLITE_IOERR ? JournalError::Kind::kNoSpace
                                                 : JournalError::Kind::kIo;
}

[[noreturn]] void fail(sqlite3* database) {
  const int code = sqlite3_extended_errcode(database);
  const int systemError = sqlite3_system_errno(database);
  std::string text = sqlite3_errmsg(database);
  const int primary = code & 0xff;
  if ((primary == SQLITE_IOERR || primary == SQLITE_CANTOPEN) && systemError != 0) {
    text += ": " + std::generic_category().message(systemError);
  }
  throw JournalError(kindOf(code, systemError), text + " (SQLite " + std::to_string(code) + ")");
}

}  // namespace

Statement::Statement(sqlite3* database, std::string_view sql) {
  sqlite3_stmt* statement = nullptr;
  const int code = sqlite3_prepare_v3(database, sql.data(), static_cast<int>(sql.size()),
                                      SQLITE_PREPARE_PERSISTENT, &statement, nullptr);
  statement_.reset(statement);
  if (code != SQLITE_OK) fail(database);
}

bool Statement::step() {
  const int code = sqlite3_step(statement_.get());
  if (code == SQLITE_ROW) return true;
  if (code == SQLITE_DONE) return false;
  fail(sqlite3_db_handle(statement_.get()));
}

void Statement::run() {
  while (step()) {
  }
  reset();
}

std::string_view Statement::text(int column) const {
  const void* bytes = sqlite3_column_blob(statement_.get(), column);
  const int size = sqlite3_column_bytes(statement_.get(), column);
  // No memory is the only reason for null with a size.
  if (bytes == nullptr) return {};
  return {static_cast<const char*>(bytes), static_cast<size_t>(size)};
}

void Statement::bindOne(int index, int64_t value) {
  if (sqlite3_bind_int64(statement_.get(), index, value) != SQLITE_OK) {
    fail(sqlite3_db_handle(statement_.get()));
  }
}

void Statement::bindOne(int index, double value) {
  if (sqlite3_bind_double(statement_.get(), index, value) != SQLITE_OK) {
    fail(sqlite3_db_handle(statement_.get()));
  }
}

void Statement::bindOne(int index, std::string_view value) {
  const char* bytes = value.data() == nullptr ? "" : value.data();
  if (sqlite3_bind_text64(statement_.get(), index, bytes, value.size(), SQLITE_STATIC,
                          SQLITE_UTF8) != SQLITE_OK) {
    fail(sqlite3_db_handle(statement_.get()));
  }
}

Database::Database(const std::string& path, Mode mode, const std::string& vfs) {
  int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_PRIVATECACHE;
  if (mode == Mode::kCreate) flags |= SQLITE_OPEN_CREATE;
  sqlite3* database = nullptr;
  const int code =
      sqlite3_open_v2(path.c_str(), &database, flags, vfs.empty() ? nullptr : vfs.c_str());
  database_.reset(database);
  if (database == nullptr) throw JournalError(JournalError::Kind::kIo, "no memory for SQLite");
  if (code != SQLITE_OK) fail(database);
  sqlite3_extended_result_codes(database, 1);
  sqlite3_busy_timeout(database, 5000);
  sqlite3_db_config(database, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
  if (mode == Mode::kLook) {
    sqlite3_db_config(database, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
  }
}

void Database::run(std::string_view sql) const {
  prepare(sql).run();
}

int64_t Database::integer(std::string_view sql) const {
  Statement statement = prepare(sql);
  return statement.step() ? statement.integer(0) : 0;
}

Transaction::~Transaction() {
  // After a failure, or an exception. Where SQLite has rolled back by itself, there is none left.
  if (sqlite3_get_autocommit(database_.get()) == 0) {
    sqlite3_exec(database_.get(), "ROLLBACK", nullptr, nullptr, nullptr);
  }
}

}  // namespace vnagent::detail
