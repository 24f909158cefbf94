// Reads from a journal what an agent starts from.
#pragma once

#include "agent/journal/detail/database.h"
#include "agent/journal/detail/state_directory.h"
#include "agent/journal/journal.h"

namespace vnagent::detail {

// Checks what it reads. Throws JournalError.
Recovered recoverFrom(const Database& database, const std::optional<DurableMark>& mark,
                      const JournalSettings& settings);

}  // namespace vnagent::detail
