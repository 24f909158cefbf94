// Finds what is good in a damaged journal.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "agent/journal/detail/database.h"
#include "agent/journal/detail/tables.h"
#include "agent/live/record.h"

namespace vnagent::detail {

// Records without a gap, and the snapshots among them. A restart begins with the newest snapshot,
// or with the first record where that has sequence 1.
struct GoodHistory {
  uint64_t first = 1;  // sequences; there is no record when last < first
  uint64_t last = 0;
  uint64_t firstRevision = 0;  // that of the first record; without one that of the snapshot
  uint64_t lastRevision = 0;
  std::string lastCheck{kFirstCheck};
  std::vector<SnapshotHead> snapshots;
};

// The good history that ends last. `last` is the last sequence that is known to have been there.
// Throws JournalError where more than damage keeps it from reading.
GoodHistory findGoodHistory(const Database& database, uint64_t last);

// The first and the last sequence that the tables have a trace of; 1 and 0 where there is none.
uint64_t firstTrace(const Database& database);
uint64_t lastTrace(const Database& database);

// The record of a sequence; nothing where there is none, or a damaged one.
std::optional<Record> goodRecord(const Database& database, uint64_t sequence);

// The replies to older changes, or none when they are damaged.
std::vector<Record> goodReplies(const Database& database);

// The journal's UUID, or nothing when it is damaged.
std::optional<std::string> goodInstance(const Database& database);

}  // namespace vnagent::detail
