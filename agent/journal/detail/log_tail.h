// The end of the write-ahead log, behind what was committed.
#pragma once

#include "agent/journal/detail/database.h"

namespace vnagent::detail {

// Spoils the frame that follows those of committed transactions, so that a transaction of which
// only the sync failed is not read back after a crash. That is not synced: a crash of the whole
// system may undo it. Returns whether it worked; nothing is thrown. REQUIRES: the log is in use, no
// transaction is open, and no other connection writes.
bool spoilLogTail(const Database& database) noexcept;

}  // namespace vnagent::detail
