// The write-ahead log as a file: what SQLite leaves to its user when a sync fails.
#pragma once

#include "agent/journal/detail/database.h"

namespace vnagent::detail {

// Spoils the frame that follows those of committed transactions, so that a transaction of which
// only the sync failed is not read back after a crash. That is not synced: a crash of the whole
// system may undo it. Returns whether it worked; nothing is thrown. REQUIRES: the log is in use, no
// transaction is open, and no other connection writes.
bool spoilLogTail(const Database& database) noexcept;

// Writes what was committed into the log once more, and syncs it. After a sync that failed, the
// system may keep what was written in its cache alone, and no later sync writes it. When the
// process was killed then, the next one reads it there; what it commits behind that would be lost
// with it in a crash of the whole system. Throws JournalError. REQUIRES: no other connection
// writes.
void rewriteLog(const Database& database);

}  // namespace vnagent::detail
