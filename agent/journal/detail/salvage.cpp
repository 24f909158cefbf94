#include "agent/journal/detail/salvage.h"

#include <algorithm>
#include <utility>

#include "agent/journal/detail/verification.h"
#include "agent/journal/journal_error.h"

namespace vnagent::detail {
namespace {

// The result of a reading; nothing where damage keeps it from succeeding.
template <class Action>
auto undamaged(Action&& action) -> std::optional<decltype(action())> {
  try {
    return action();
  } catch (const JournalError& error) {
    if (error.kind() != JournalError::Kind::kDamaged) throw;
    return std::nullopt;
  }
}

// Snapshots of which every part is good, in ascending order.
std::vector<SnapshotHead> goodSnapshots(const Database& database) {
  auto heads =
      undamaged([&] { return readSnapshotHeads(database); }).value_or(std::vector<SnapshotHead>());
  std::erase_if(heads, [&](const SnapshotHead& head) {
    return !undamaged([&] { return readSnapshot(database, head); });
  });
  return heads;
}

class Search {
 public:
  Search(const Database& database, uint64_t last)
      : database_(database), last_(last), heads_(goodSnapshots(database)) {}

  GoodHistory run() {
    uint64_t sequence = firstTrace(database_);
    while (sequence <= last_) sequence = follow(sequence);
    // A snapshot can be good without any record.
    for (const SnapshotHead& head : heads_) {
      if (head.sequence > best_.last) best_ = only(head);
    }
    return std::move(best_);
  }

 private:
  static GoodHistory only(const SnapshotHead& head) {
    return {.first = head.sequence + 1,
            .last = head.sequence,
            .firstRevision = head.revision,
            .lastRevision = head.revision,
            .lastCheck = head.check,
            .snapshots = {head}};
  }

  // Follows good records from this one on. Keeps the history that they are, if a restart can begin
  // with it. Returns the sequence to go on with.
  uint64_t follow(uint64_t begin) {
    auto record = goodRecord(database_, begin);
    if (!record) return nextTrace(begin);
    GoodHistory history;
    history.first = begin;
    history.firstRevision = record->revision;
    Succession succession;
    if (begin == 1) succession.startAfter(0, 0, std::string(kFirstCheck));
    addSnapshotBefore(*record, history, succession);
    while (record && !succession.next(*record)) {
      history.last = record->sequence;
      history.lastRevision = record->revision;
      history.lastCheck = record->check;
      addSnapshotOf(*record, history);
      record = goodRecord(database_, record->sequence + 1);
    }
    if (history.last < begin) return begin + 1;  // even the first one does not follow
    const bool canBegin = begin == 1 || !history.snapshots.empty();
    const uint64_t next = history.last + 1;
    if (canBegin) best_ = std::move(history);
    return next;
  }

  // The next sequence that may have a record.
  uint64_t nextTrace(uint64_t sequence) const {
    return undamaged([&] {
             Statement query =
                 database_.prepare("SELECT min(sequence) FROM record WHERE sequence > ?");
             query.bind(sequence).step();
             return query.isNull(0) ? last_ + 1 : query.unsignedInteger(0);
           })
        .value_or(sequence + 1);
  }

  void addSnapshotBefore(const Record& first, GoodHistory& history, Succession& succession) const {
    const auto head = headOf(first.sequence - 1);
    if (head == nullptr || nextCheck(head->check, first) != first.check) return;
    history.snapshots.push_back(*head);
    succession.startAfter(head->sequence, head->revision, head->check);
  }

  void addSnapshotOf(const Record& record, GoodHistory& history) const {
    const auto head = headOf(record.sequence);
    const bool belongs =
        head != nullptr && head->check == record.check && head->revision == record.revision;
    if (belongs) history.snapshots.push_back(*head);
  }

  const SnapshotHead* headOf(uint64_t sequence) const {
    const auto head = std::ranges::find(heads_, sequence, &SnapshotHead::sequence);
    return head == heads_.end() ? nullptr : &*head;
  }

  const Database& database_;
  uint64_t last_;
  std::vector<SnapshotHead> heads_;
  GoodHistory best_;
};

}  // namespace

GoodHistory findGoodHistory(const Database& database, uint64_t last) {
  return Search(database, last).run();
}

uint64_t firstTrace(const Database& database) {
  const auto range = undamaged([&] { return sequencesOf(database); }).value_or(std::nullopt);
  return range ? range->first : 1;
}

uint64_t lastTrace(const Database& database) {
  uint64_t last = 0;
  for (const char* query :
       {"SELECT max(sequence) FROM record", "SELECT max(sequence) FROM snapshot",
        "SELECT max(sequence) FROM reply"}) {
    const auto found = undamaged([&] { return database.integer(query); }).value_or(0);
    last = std::max(last, static_cast<uint64_t>(std::max<int64_t>(found, 0)));
  }
  return last;
}

std::optional<Record> goodRecord(const Database& database, uint64_t sequence) {
  return undamaged([&]() -> std::optional<Record> {
           RecordReader reader(database, "WHERE sequence = ?");
           reader.bind(sequence);
           if (!reader.next()) return std::nullopt;
           return reader.take();
         })
      .value_or(std::nullopt);
}

std::vector<Record> goodReplies(const Database& database) {
  return undamaged([&] { return readReplies(database); }).value_or(std::vector<Record>());
}

std::optional<std::string> goodInstance(const Database& database) {
  return undamaged([&] { return instanceOf(database); });
}

}  // namespace vnagent::detail
