// What an operator does with a journal while no agent needs it: look into it, check it, repair it.
//
// Every function throws JournalError when the directory has no journal, or none that can be opened.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "agent/journal/journal.h"
#include "agent/live/record.h"

namespace vnagent {

// Something in a journal that is not as it was written.
struct JournalFault {
  uint64_t sequence = 0;  // of the record or snapshot; 0: of the file as a whole
  uint64_t revision = 0;  // likewise
  std::string text;       // names both
};

// What a journal holds.
struct JournalContents {
  std::string instance;
  uint64_t records = 0;
  uint64_t firstRevision = 0;  // of the first record, 0 when there is none
  uint64_t lastRevision = 0;
  std::string lastCheck;
  std::vector<uint64_t> snapshots;  // their revisions, in ascending order
  uint64_t bytes = 0;
};

// Looking, also while an agent has the journal open.

// All checks. `report` gets each fault, and ends the check by returning false.
void checkJournal(const std::string& directory,
                  const std::function<bool(const JournalFault&)>& report);

JournalContents readContents(const std::string& directory);

// Reads records of revisions first..last in ascending order of sequence; ends when `take` returns
// false. Throws JournalError at the first one that is damaged.
void readJournal(const std::string& directory, uint64_t first, uint64_t last,
                 const std::function<bool(const Record&)>& take);

// Reads what a replay needs: first `begin` gets the oldest snapshot, from which all later records
// are there; an empty one, with sequence 0, when the records go back to the first. Then `take` gets
// the records after it, until one of the two returns false.
void replayJournal(const std::string& directory, const std::function<bool(const Snapshot&)>& begin,
                   const std::function<bool(const Record&)>& take);

// Changing; refused while an agent has the journal open.

struct CompactReport {
  uint64_t bytesBefore = 0;
  uint64_t bytesAfter = 0;
  uint64_t recordsRemoved = 0;
};

// Removes what is older than the settings keep, and gives the space back to the file system.
CompactReport compactJournal(const std::string& directory, const JournalSettings& settings);

struct RepairReport {
  bool isDamaged = false;           // false: nothing was wrong, and nothing was changed
  uint64_t lastRevision = 0;        // of what was kept
  uint64_t firstRevision = 0;       // the first that can be resumed from
  std::vector<std::string> gone;    // one line each, which revisions are gone
  std::vector<std::string> copies;  // the files that the damaged ones were copied to
};

// Makes the journal good again: keeps the latest state that can be reached from a good snapshot, or
// from the beginning, through good records, and the records before it without a gap. The damaged
// files are kept beside it.
RepairReport repairJournal(const std::string& directory);

}  // namespace vnagent
