// What changed at each of the last revisions: what a watch is fed from, and resumes from.
//
// Where there is a storage, only the last records are kept in memory, so many as take a few
// megabytes, and none that is large; the others are read from it. Activity thread only.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "agent/live/delta.h"
#include "agent/live/record.h"
#include "agent/live/storage.h"

namespace vnagent {

enum class Document : uint8_t { kCloud, kOutput };

class History {
 public:
  // How many revisions can be resumed from, at least.
  static constexpr size_t kRevisions = 10'000;

  // `storage` null: everything is kept in memory. It outlives the history.
  explicit History(const Storage* storage) : storage_(storage) {}

  // Starts before the first record: with revision 0, or with what was recovered.
  void startIs(uint64_t revision, std::string check);

  // Adds the record of the next revision.
  void add(std::shared_ptr<const Record> record);
  // Forgets the revisions after this one, which never became durable.
  void truncate(uint64_t revision);

  // The revisions up to this one can be read from the storage.
  void durableIs(uint64_t revision);

  // In a copy of the process: does not read the storage any more.
  void detachFromStorage() { storage_ = nullptr; }

  // The revisions that can be resumed from: first() to last().
  uint64_t first() const { return first_; }
  uint64_t last() const { return first_ + entries_.size(); }
  // The check value of one of them.
  const std::string& check(uint64_t revision) const;
  // The sequence of its record; 0 of the first.
  uint64_t sequence(uint64_t revision) const;

  // How far a reader goes at once, on the way from one of them to a later one: so far that it keeps
  // nobody waiting while the storage is read.
  uint64_t portionEnd(Document document, uint64_t from, uint64_t to) const;

  // What changed from one of them to a later one.
  Delta between(Document document, uint64_t from, uint64_t to) const;

  // The merge patch from one of them to a later one, as a text that all who ask for it share; "{}"
  // for none.
  std::shared_ptr<const std::string> patch(Document document, uint64_t from, uint64_t to) const;

 private:
  struct Entry {
    uint64_t sequence = 0;
    std::string check;
    bool changesCloud = true;              // or may do so
    bool changesOutput = true;             // likewise
    std::shared_ptr<const Record> record;  // null: it is to be read from the storage

    // Of the record; 0 where it is left to the storage.
    size_t bytes() const;

    bool isStored() const { return record == nullptr; }
    bool isRead(Document document) const {
      return isStored() && (document == Document::kCloud ? changesCloud : changesOutput);
    }
  };
  // The last patches that were put together from several revisions.
  struct Merged {
    Document document;
    uint64_t from;
    uint64_t to;
    std::shared_ptr<const std::string> patch;
  };

  const Entry& entry(uint64_t revision) const { return entries_[revision - first_ - 1]; }
  // Leaves the oldest differences to the storage, as far as there are too many.
  void trim();
  Delta storedDelta(Document document, uint64_t first, uint64_t last) const;

  const Storage* storage_;
  uint64_t first_ = 0;
  std::string firstCheck_{kFirstCheck};
  std::deque<Entry> entries_;  // of first_ + 1, ...
  size_t bytes_ = 0;           // of the records in memory
  uint64_t trimmed_ = 0;       // the differences up to this revision are left to the storage
  uint64_t durable_ = 0;
  mutable std::deque<Merged> merged_;
};

}  // namespace vnagent
