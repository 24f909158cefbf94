// An SQLite connection and its prepared statements, with exceptions.
//
// One thread at a time uses a connection and its statements. Every failure is a JournalError: of
// kind kNoSpace when the disk is full, kDamaged when SQLite finds the file malformed, else kIo.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include <sqlite3.h>

namespace vnagent::detail {

class Statement {
 public:
  Statement(sqlite3* database, std::string_view sql);

  // Binds all parameters, in order. Texts must stay as they are until reset().
  template <class... Values>
  Statement& bind(const Values&... values) {
    reset();
    int index = 0;
    (bindOne(++index, values), ...);
    return *this;
  }

  // Goes to the next row; false after the last.
  bool step();

  // Runs to the end, and is ready to be bound again.
  void run();
  void reset() { sqlite3_reset(statement_.get()); }

  // The columns of the row, from 0. Texts are valid until the next step.
  int64_t integer(int column) const { return sqlite3_column_int64(statement_.get(), column); }
  uint64_t unsignedInteger(int column) const { return static_cast<uint64_t>(integer(column)); }
  double real(int column) const { return sqlite3_column_double(statement_.get(), column); }
  bool isNull(int column) const {
    return sqlite3_column_type(statement_.get(), column) == SQLITE_NULL;
  }
  std::string_view text(int column) const;
  std::string string(int column) const { return std::string(text(column)); }

 private:
  struct Finalize {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
  };

  void bindOne(int index, int64_t value);
  void bindOne(int index, uint64_t value) { bindOne(index, static_cast<int64_t>(value)); }
  void bindOne(int index, unsigned value) { bindOne(index, static_cast<int64_t>(value)); }
  void bindOne(int index, double value);
  void bindOne(int index, std::string_view value);

  std::unique_ptr<sqlite3_stmt, Finalize> statement_;
};

class Database {
 public:
  enum class Mode : uint8_t {
    kCreate,  // opens a file, and makes it where there is none
    kOpen,    // opens a file that exists
    kLook,    // likewise; leaves the file and its write-ahead log as they are
  };

  // `vfs` is the name of the SQLite VFS; empty for the system's.
  Database(const std::string& path, Mode mode, const std::string& vfs);

  Statement prepare(std::string_view sql) const { return {database_.get(), sql}; }

  // Runs one statement without parameters or rows that matter.
  void run(std::string_view sql) const;
  // The first column of the first row of a query; 0 where there is no row.
  int64_t integer(std::string_view sql) const;

  sqlite3* get() const { return database_.get(); }

 private:
  struct Close {
    void operator()(sqlite3* database) const { sqlite3_close_v2(database); }
  };

  std::unique_ptr<sqlite3, Close> database_;
};

// All that is written until commit() becomes durable together, or not at all.
class Transaction {
 public:
  explicit Transaction(const Database& database) : database_(database) {
    database.run("BEGIN IMMEDIATE");
  }
  ~Transaction();
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;

  void commit() { database_.run("COMMIT"); }

 private:
  const Database& database_;
};

}  // namespace vnagent::detail
