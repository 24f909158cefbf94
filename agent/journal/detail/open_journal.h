// The files of a journal, opened and checked: what an agent and the tools begin with.
#pragma once

#include <optional>
#include <string>

#include "agent/journal/detail/database.h"
#include "agent/journal/detail/state_directory.h"
#include "agent/journal/journal.h"

namespace vnagent::detail {

// Does something with the database of a journal; errors name the directory, and what helps.
template <class Action>
auto withContext(const JournalFiles& files, Action&& action) {
  const auto context = [&](const JournalError& error) {
    std::string text = files.database + ": " + error.what();
    if (error.kind() == JournalError::Kind::kDamaged) {
      text += "; 'vnagent journal check " + files.folder +
              "' lists every fault, 'vnagent journal repair " + files.folder +
              "' keeps what is good";
    }
    return JournalError(error.kind(), text);
  };
  try {
    return action();
  } catch (const JournalError& error) {
    throw context(error);
  }
}

// A journal that this process holds.
struct HeldJournal {
  // Makes what is missing, where `settings` are those of an agent; throws JournalError. Checks the
  // format, nothing else.
  HeldJournal(const std::string& directory, const JournalSettings& settings);

  JournalFiles files;
  JournalLock lock;
  std::optional<DurableMark> mark;  // as it was found
  Database database;
  DurableFile durable;
};

// Opens the database of a journal that another process may hold. Throws JournalError.
Database lookInto(const JournalFiles& files, const std::string& vfs);

// The bytes of the database and its write-ahead log.
uint64_t bytesOf(const JournalFiles& files);

}  // namespace vnagent::detail
