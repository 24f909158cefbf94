// Finds what is wrong in a journal: SQLite's own checks, the checksums of all rows, and whether the
// records follow from each other.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "agent/journal/detail/database.h"
#include "agent/journal/detail/state_directory.h"
#include "agent/journal/journal_tools.h"
#include "agent/live/record.h"

namespace vnagent::detail {

// "record 12 (revision 9)".
std::string recordName(uint64_t sequence, uint64_t revision);

// Checks records in ascending order, each against the one before.
class Succession {
 public:
  // What comes next follows after this record. Without it, the first record is taken as it is.
  void startAfter(uint64_t sequence, uint64_t revision, const std::string& check);

  // What is wrong with the record that comes next; nothing when it follows. The check value of a
  // record that is partly on disk is taken as it is.
  std::optional<std::string> next(const Record& record);

 private:
  bool isStarted_ = false;
  uint64_t sequence_ = 0;
  uint64_t revision_ = 0;
  std::string check_;
};

// Checks all of it, and reports fault by fault, until `report` returns false. Reads on behind what
// cannot be read. `mark` is what was acknowledged, if that is known.
void verify(const Database& database, const std::optional<DurableMark>& mark,
            const std::function<bool(JournalFault)>& report);

}  // namespace vnagent::detail
