// Why a journal cannot be opened, read or written.
#pragma once

#include <cstdint>
#include <string>

#include "agent/live/storage.h"

namespace vnagent {

// The text is for the operator, and may name files.
class JournalError final : public StorageError {
 public:
  enum class Kind : uint8_t {
    kHeld,     // another process has it open; the text has its process id
    kDamaged,  // a check failed; the text names the record and revision, and the command that helps
    kFormat,   // it is no journal, or one of another format version
    kIo,       // the system refused to read or write
    kNoSpace,  // the disk is full
  };

  JournalError(Kind kind, const std::string& text) : StorageError(text), kind_(kind) {}
  Kind kind() const { return kind_; }

 private:
  Kind kind_;
};

[[noreturn]] inline void throwDamaged(const std::string& text) {
  throw JournalError(JournalError::Kind::kDamaged, text);
}

}  // namespace vnagent
