// The tables of a journal, and how records and snapshots are rows of them.
//
// Each row has a checksum over all its columns. What is large in a record (its event and patches)
// has a checksum of its own, so that the rest can be read and checked without it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "agent/journal/detail/database.h"
#include "agent/live/record.h"

namespace vnagent::detail {

// The format version that this program reads and writes.
inline constexpr int kFormatVersion = 1;

// Makes the tables of a new journal, and the UUID that stays with it.
void createTables(const Database& database);

// Whether the file has nothing yet: no table, no version.
bool isEmpty(const Database& database);

// Throws JournalError: of kind kFormat when the file is no journal of this version, kDamaged when
// it lacks a table.
void checkFormat(const Database& database);

// The UUID of the journal. Throws JournalError.
std::string instanceOf(const Database& database);

// Gives the journal another UUID.
void instanceIs(const Database& database, const std::string& instance);

// Writes something, to see that the disk takes it.
void probe(const Database& database);

// Records.

// Everything of a row, with what is needed to check it.
class RecordReader {
 public:
  enum class Extent : uint8_t {
    kWhole,
    kSmall,  // without event, drawn and the patches of records of more than kLargeBytes
  };

  // `where` is what follows the table's name: a condition and an order, with parameters.
  RecordReader(const Database& database, std::string_view where, Extent extent = Extent::kWhole);

  template <class... Values>
  void bind(const Values&... values) {
    statement_.bind(values...);
  }

  // Reads the next row; false after the last. Throws JournalError when a checksum is wrong.
  bool next();

  // What was read last. Where next() threw, as much as could be read.
  const Record& record() const { return record_; }
  Record take() { return std::move(record_); }

 private:
  void readLarge();

  Statement statement_;
  Extent extent_;
  std::optional<Statement> large_;
  Record record_;
};

// What a record is stored with beside itself; above this many bytes in event and patches, it stays
// on the disk after a restart.
inline constexpr uint64_t kLargeBytes = 64 << 10;

class RecordWriter {
 public:
  explicit RecordWriter(const Database& database);
  void write(const Record& record);

 private:
  Statement insert_;
};

// The first and last sequence in the table; nothing when it is empty.
struct SequenceRange {
  uint64_t first = 0;
  uint64_t last = 0;
};
std::optional<SequenceRange> sequencesOf(const Database& database);

// The first sequence whose record has at least this revision; range.last + 1 when none has.
uint64_t firstWithRevision(const Database& database, const SequenceRange& range, uint64_t revision);

// Replies to changes with a key, whose records are gone: the columns of a record that
// Recovered::history has of them.
class ReplyWriter {
 public:
  explicit ReplyWriter(const Database& database);
  void write(const Record& record);

 private:
  Statement insert_;
};

// All replies of the table in ascending order. Throws JournalError when a checksum is wrong.
std::vector<Record> readReplies(const Database& database);

// Snapshots.

struct SnapshotHead {
  uint64_t sequence = 0;
  uint64_t revision = 0;
  int64_t wallTime = 0;  // when it was written, in milliseconds since 1970
  std::string check;
  uint64_t sizes[3] = {};  // of cloud, output and state, in bytes
  uint64_t parts = 0;      // how many rows they are in
};

// The heads of all complete snapshots, in ascending order of sequence. Throws JournalError when a
// checksum is wrong.
std::vector<SnapshotHead> readSnapshotHeads(const Database& database);

// Throws JournalError when a part is missing or wrong.
Snapshot readSnapshot(const Database& database, const SnapshotHead& head);

// Writes a snapshot part by part, each in a transaction of the caller's. A snapshot is one when its
// last row, the head, is there.
class SnapshotWriter {
 public:
  SnapshotWriter(const Database& database, Snapshot snapshot, int64_t wallTime);

  // Writes the next part, or the head after the last one. Returns whether it is complete.
  bool writeNext();

  const Snapshot& snapshot() const { return snapshot_; }

 private:
  Snapshot snapshot_;
  SnapshotHead head_;
  Statement insertPart_;
  Statement insertHead_;
  size_t member_ = 0;
  size_t offset_ = 0;
};

}  // namespace vnagent::detail
