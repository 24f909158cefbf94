#include "agent/journal/detail/tables.h"

#include <algorithm>
#include <array>
#include <bit>
#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>

#include "agent/journal/journal_error.h"
#include "agent/live/digest.h"

namespace vnagent::detail {
namespace {

// "vnag" in ASCII: tells the file from other SQLite databases.
constexpr int64_t kApplicationId = 0x766e6167;

// How much of a snapshot one row holds: what a commit that is made meanwhile waits for.
constexpr size_t kPartBytes = 256 << 10;

// Small columns first: SQLite reads a row from its beginning.
constexpr std::array kTables = {
    "CREATE TABLE meta(name TEXT PRIMARY KEY, value TEXT NOT NULL, checksum INTEGER NOT NULL) "
    "WITHOUT ROWID",
    "CREATE TABLE record(sequence INTEGER PRIMARY KEY, revision INTEGER NOT NULL, "
    "kind INTEGER NOT NULL, advance REAL NOT NULL, wall_time INTEGER NOT NULL, "
    "check_value TEXT NOT NULL, principal TEXT NOT NULL, key TEXT NOT NULL, "
    "fingerprint TEXT NOT NULL, status INTEGER NOT NULL, reply TEXT NOT NULL, "
    "bytes INTEGER NOT NULL, large_checksum INTEGER NOT NULL, checksum INTEGER NOT NULL, "
    "drawn TEXT NOT NULL, event TEXT NOT NULL, output TEXT NOT NULL, "
    "output_before TEXT NOT NULL, cloud TEXT NOT NULL, cloud_before TEXT NOT NULL)",
    "CREATE INDEX keyed ON record(sequence) WHERE key <> ''",
    "CREATE TABLE reply(sequence INTEGER PRIMARY KEY, revision INTEGER NOT NULL, "
    "wall_time INTEGER NOT NULL, principal TEXT NOT NULL, key TEXT NOT NULL, "
    "fingerprint TEXT NOT NULL, status INTEGER NOT NULL, reply TEXT NOT NULL, "
    "checksum INTEGER NOT NULL)",
    "CREATE TABLE snapshot(sequence INTEGER PRIMARY KEY, revision INTEGER NOT NULL, "
    "wall_time INTEGER NOT NULL, check_value TEXT NOT NULL, cloud_bytes INTEGER NOT NULL, "
    "output_bytes INTEGER NOT NULL, state_bytes INTEGER NOT NULL, parts INTEGER NOT NULL, "
    "checksum INTEGER NOT NULL)",
    "CREATE TABLE snapshot_part(id INTEGER PRIMARY KEY, snapshot INTEGER NOT NULL, "
    "member INTEGER NOT NULL, text TEXT NOT NULL, checksum INTEGER NOT NULL)",
    "CREATE INDEX part_of ON snapshot_part(snapshot)",
};

std::string nameOf(uint64_t sequence, uint64_t revision) {
  return "record " + std::to_string(sequence) + " (revision " + std::to_string(revision) + ")";
}

template <class... Values>
uint64_t checksum(const Values&... values) {
  Digest digest;
  (digest.add(values), ...);
  return digest.first64Bits();
}

uint64_t bits(double value) {
  return std::bit_cast<uint64_t>(value);
}

std::string joined(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) {
    text += line;
    text += '\n';
  }
  return text;
}

std::vector<std::string> split(std::string_view text) {
  std::vector<std::string> lines;
  while (!text.empty()) {
    const size_t end = std::min(text.find('\n'), text.size());
    lines.emplace_back(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return lines;
}

uint64_t largeChecksum(const Record& r, std::string_view drawn) {
  return checksum(drawn, std::string_view(r.event), std::string_view(r.output),
                  std::string_view(r.outputBefore), std::string_view(r.cloud),
                  std::string_view(r.cloudBefore));
}

uint64_t smallChecksum(const Record& r, uint64_t kind, uint64_t bytes, uint64_t large) {
  return checksum(r.sequence, r.revision, kind, bits(r.advance), static_cast<uint64_t>(r.wallTime),
                  std::string_view(r.check), std::string_view(r.principal), std::string_view(r.key),
                  std::string_view(r.fingerprint), uint64_t{r.status}, std::string_view(r.reply),
                  bytes, large);
}

uint64_t replyChecksum(const Record& r) {
  return checksum(r.sequence, r.revision, static_cast<uint64_t>(r.wallTime),
                  std::string_view(r.principal), std::string_view(r.key),
                  std::string_view(r.fingerprint), uint64_t{r.status}, std::string_view(r.reply));
}

uint64_t headChecksum(const SnapshotHead& h) {
  return checksum(h.sequence, h.revision, static_cast<uint64_t>(h.wallTime),
                  std::string_view(h.check), h.sizes[0], h.sizes[1], h.sizes[2], h.parts);
}

uint64_t partChecksum(uint64_t snapshot, uint64_t member, uint64_t offset, std::string_view text) {
  return checksum(snapshot, member, offset, text);
}

}  // namespace

// The file.

void createTables(const Database& database) {
  Transaction transaction(database);
  database.run("PRAGMA application_id = " + std::to_string(kApplicationId));
  database.run("PRAGMA user_version = " + std::to_string(kFormatVersion));
  for (const std::string_view table : kTables) database.run(table);
  instanceIs(database, to_string(boost::uuids::random_generator()()));
  transaction.commit();
}

void instanceIs(const Database& database, const std::string& instance) {
  const std::string_view name = "instance";
  database.prepare("INSERT OR REPLACE INTO meta VALUES(?, ?, ?)")
      .bind(name, std::string_view(instance), checksum(name, std::string_view(instance)))
      .run();
}

bool isEmpty(const Database& database) {
  return database.integer("PRAGMA application_id") == 0 &&
         database.integer("PRAGMA user_version") == 0 &&
         database.integer("SELECT count(*) FROM sqlite_master") == 0;
}

void checkFormat(const Database& database) {
  const int64_t application = database.integer("PRAGMA application_id");
  if (application != kApplicationId) {
    throw JournalError(JournalError::Kind::kFormat, "the database is not a journal of vnagent");
  }
  const int64_t version = database.integer("PRAGMA user_version");
  if (version != kFormatVersion) {
    throw JournalError(JournalError::Kind::kFormat,
                       "the journal has format version " + std::to_string(version) +
                           "; this program reads version " + std::to_string(kFormatVersion));
  }
  Statement query = database.prepare("SELECT count(*) FROM sqlite_master WHERE sql = ?");
  for (const std::string_view table : kTables) {
    if (!query.bind(table).step() || query.integer(0) != 1) {
      throwDamaged("the definitions of the tables are malformed");
    }
  }
}

std::string instanceOf(const Database& database) {
  const std::string_view name = "instance";
  Statement query = database.prepare("SELECT value, checksum FROM meta WHERE name = ?");
  if (!query.bind(name).step() || checksum(name, query.text(0)) != query.unsignedInteger(1)) {
    throwDamaged("the UUID of the instance is missing or wrong");
  }
  return query.string(0);
}

void probe(const Database& database) {
  // As much as records of some size need. The row does not stay.
  Transaction transaction(database);
  database.run("INSERT OR REPLACE INTO meta VALUES('probe', zeroblob(65536), 0)");
  transaction.commit();
  Transaction removal(database);
  database.run("DELETE FROM meta WHERE name = 'probe'");
  removal.commit();
}

// Records.

RecordReader::RecordReader(const Database& database, std::string_view where, Extent extent)
    : statement_(database.prepare(
          "SELECT sequence, revision, kind, advance, wall_time, check_value, principal, key, "
          "fingerprint, status, reply, bytes, large_checksum, checksum FROM record " +
          std::string(where))),
      extent_(extent),
      large_(database.prepare("SELECT drawn, event, output, output_before, cloud, cloud_before "
                              "FROM record WHERE sequence = ?")) {}

bool RecordReader::next() {
  Record& r = record_;
  r = {};
  if (!statement_.step()) return false;
  r.sequence = statement_.unsignedInteger(0);
  r.revision = statement_.unsignedInteger(1);
  const uint64_t kind = statement_.unsignedInteger(2);
  r.advance = statement_.real(3);
  r.wallTime = statement_.integer(4);
  r.check = statement_.string(5);
  r.principal = statement_.string(6);
  r.key = statement_.string(7);
  r.fingerprint = statement_.string(8);
  r.status = static_cast<unsigned>(statement_.unsignedInteger(9));
  r.reply = statement_.string(10);
  const uint64_t bytes = statement_.unsignedInteger(11);
  const uint64_t large = statement_.unsignedInteger(12);
  if (smallChecksum(r, kind, bytes, large) != statement_.unsignedInteger(13)) {
    throwDamaged(nameOf(r.sequence, r.revision) + " has a wrong checksum");
  }
  r.kind = static_cast<Record::Kind>(kind);
  r.onDisk = extent_ == Extent::kSmall && bytes > kLargeBytes;
  if (r.onDisk) return true;
  readLarge();
  if (largeChecksum(r, joined(r.drawn)) != large) {
    throwDamaged(nameOf(r.sequence, r.revision) +
                 " has a wrong checksum of its event or its patches");
  }
  return true;
}

void RecordReader::readLarge() {
  Record& r = record_;
  if (!large_->bind(r.sequence).step())
    throwDamaged(nameOf(r.sequence, r.revision) + " is not whole");
  r.drawn = split(large_->text(0));
  r.event = large_->string(1);
  r.output = large_->string(2);
  r.outputBefore = large_->string(3);
  r.cloud = large_->string(4);
  r.cloudBefore = large_->string(5);
  large_->reset();
}

RecordWriter::RecordWriter(const Database& database)
    : insert_(database.prepare(
          "INSERT INTO record(sequence, revision, kind, advance, wall_time, check_value, "
          "principal, key, fingerprint, status, reply, bytes, large_checksum, checksum, drawn, "
          "event, output, output_before, cloud, cloud_before) "
          "VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)")) {}

void RecordWriter::write(const Record& r) {
  const std::string drawn = joined(r.drawn);
  const uint64_t bytes = drawn.size() + r.event.size() + r.output.size() + r.outputBefore.size() +
                         r.cloud.size() + r.cloudBefore.size();
  const auto kind = static_cast<uint64_t>(r.kind);
  const uint64_t large = largeChecksum(r, drawn);
  insert_
      .bind(r.sequence, r.revision, kind, r.advance, r.wallTime, std::string_view(r.check),
            std::string_view(r.principal), std::string_view(r.key), std::string_view(r.fingerprint),
            r.status, std::string_view(r.reply), bytes, large, smallChecksum(r, kind, bytes, large),
            std::string_view(drawn), std::string_view(r.event), std::string_view(r.output),
            std::string_view(r.outputBefore), std::string_view(r.cloud),
            std::string_view(r.cloudBefore))
      .run();
}

std::optional<SequenceRange> sequencesOf(const Database& database) {
  Statement query = database.prepare(
      "SELECT (SELECT min(sequence) FROM record), (SELECT max(sequence) FROM record)");
  query.step();
  if (query.isNull(0) || query.isNull(1)) return std::nullopt;
  return SequenceRange{query.unsignedInteger(0), query.unsignedInteger(1)};
}

uint64_t firstWithRevision(const Database& database, const SequenceRange& range,
                           uint64_t revision) {
  // Revisions never fall as the sequence rises.
  Statement query =
      database.prepare("SELECT revision FROM record WHERE sequence >= ? ORDER BY sequence LIMIT 1");
  uint64_t low = range.first;
  uint64_t high = range.last + 1;
  while (low < high) {
    const uint64_t middle = low + (high - low) / 2;
    const bool isBelow = query.bind(middle).step() && query.unsignedInteger(0) < revision;
    (isBelow ? low : high) = isBelow ? middle + 1 : middle;
  }
  return low;
}

ReplyWriter::ReplyWriter(const Database& database)
    : insert_(database.prepare("INSERT OR REPLACE INTO reply(sequence, revision, wall_time, "
                               "principal, key, fingerprint, status, reply, checksum) "
                               "VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?)")) {}

void ReplyWriter::write(const Record& r) {
  insert_
      .bind(r.sequence, r.revision, r.wallTime, std::string_view(r.principal),
            std::string_view(r.key), std::string_view(r.fingerprint), r.status,
            std::string_view(r.reply), replyChecksum(r))
      .run();
}

std::vector<Record> readReplies(const Database& database) {
  Statement query = database.prepare(
      "SELECT sequence, revision, wall_time, principal, key, fingerprint, status, reply, checksum "
      "FROM reply ORDER BY sequence");
  std::vector<Record> replies;
  while (query.step()) {
    Record& r = replies.emplace_back();
    r.sequence = query.unsignedInteger(0);
    r.revision = query.unsignedInteger(1);
    r.kind = Record::Kind::kReply;
    r.wallTime = query.integer(2);
    r.principal = query.string(3);
    r.key = query.string(4);
    r.fingerprint = query.string(5);
    r.status = static_cast<unsigned>(query.unsignedInteger(6));
    r.reply = query.string(7);
    if (replyChecksum(r) != query.unsignedInteger(8)) {
      throwDamaged("the reply of " + nameOf(r.sequence, r.revision) + " has a wrong checksum");
    }
  }
  return replies;
}

// Snapshots.

std::vector<SnapshotHead> readSnapshotHeads(const Database& database) {
  Statement query = database.prepare(
      "SELECT sequence, revision, wall_time, check_value, cloud_bytes, output_bytes, state_bytes, "
      "parts, checksum FROM snapshot ORDER BY sequence");
  std::vector<SnapshotHead> heads;
  while (query.step()) {
    SnapshotHead& h = heads.emplace_back();
    h.sequence = query.unsignedInteger(0);
    h.revision = query.unsignedInteger(1);
    h.wallTime = query.integer(2);
    h.check = query.string(3);
    for (int i = 0; i < 3; ++i) h.sizes[i] = query.unsignedInteger(4 + i);
    h.parts = query.unsignedInteger(7);
    if (headChecksum(h) != query.unsignedInteger(8)) {
      throwDamaged("the snapshot of " + nameOf(h.sequence, h.revision) + " has a wrong checksum");
    }
  }
  return heads;
}

Snapshot readSnapshot(const Database& database, const SnapshotHead& head) {
  const std::string name = "the snapshot of " + nameOf(head.sequence, head.revision);
  Snapshot snapshot;
  snapshot.sequence = head.sequence;
  snapshot.revision = head.revision;
  snapshot.check = head.check;
  std::array<std::string*, 3> members{&snapshot.cloud, &snapshot.output, &snapshot.state};
  Statement query = database.prepare(
      "SELECT member, text, checksum FROM snapshot_part WHERE snapshot = ? ORDER BY id");
  query.bind(head.sequence);
  uint64_t parts = 0;
  while (query.step()) {
    const uint64_t member = query.unsignedInteger(0);
    if (member >= members.size()) throwDamaged(name + " has a wrong part");
    std::string& text = *members[member];
    if (text.empty()) text.reserve(std::min<uint64_t>(head.sizes[member], uint64_t{1} << 32));
    if (partChecksum(head.sequence, member, text.size(), query.text(1)) !=
        query.unsignedInteger(2)) {
      throwDamaged(name + " has a part with a wrong checksum");
    }
    text += query.text(1);
    ++parts;
  }
  const bool isWhole = parts == head.parts && snapshot.cloud.size() == head.sizes[0] &&
                       snapshot.output.size() == head.sizes[1] &&
                       snapshot.state.size() == head.sizes[2];
  if (!isWhole) throwDamaged(name + " is not whole");
  return snapshot;
}

SnapshotWriter::SnapshotWriter(const Database& database, Snapshot snapshot, int64_t wallTime)
    : snapshot_(std::move(snapshot)),
      insertPart_(database.prepare(
          "INSERT INTO snapshot_part(snapshot, member, text, checksum) VALUES(?, ?, ?, ?)")),
      insertHead_(database.prepare("INSERT OR REPLACE INTO snapshot(sequence, revision, wall_time, "
                                   "check_value, cloud_bytes, output_bytes, state_bytes, parts, "
                                   "checksum) VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?)")) {
  head_.sequence = snapshot_.sequence;
  head_.revision = snapshot_.revision;
  head_.wallTime = wallTime;
  head_.check = snapshot_.check;
  head_.sizes[0] = snapshot_.cloud.size();
  head_.sizes[1] = snapshot_.output.size();
  head_.sizes[2] = snapshot_.state.size();
}

bool SnapshotWriter::writeNext() {
  const std::array<std::string*, 3> members{&snapshot_.cloud, &snapshot_.output, &snapshot_.state};
  while (member_ < members.size() && offset_ == members[member_]->size()) {
    // Written; the memory is of no more use.
    std::string().swap(*members[member_]);
    ++member_;
    offset_ = 0;
  }
  if (member_ < members.size()) {
    const auto part = std::string_view(*members[member_]).substr(offset_, kPartBytes);
    insertPart_
        .bind(snapshot_.sequence, uint64_t{member_}, part,
              partChecksum(snapshot_.sequence, member_, offset_, part))
        .run();
    offset_ += part.size();
    ++head_.parts;
    return false;
  }
  insertHead_
      .bind(head_.sequence, head_.revision, head_.wallTime, std::string_view(head_.check),
            head_.sizes[0], head_.sizes[1], head_.sizes[2], head_.parts, headChecksum(head_))
      .run();
  return true;
}

}  // namespace vnagent::detail
