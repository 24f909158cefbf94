#include "agent/journal/journal.h"

#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "agent/journal/detail/log_tail.h"
#include "agent/journal/detail/maintenance.h"
#include "agent/journal/detail/open_journal.h"
#include "agent/journal/detail/recovery.h"
#include "agent/journal/detail/tables.h"
#include "agent/journal/detail/verification.h"

namespace vnagent {
namespace {

using Clock = std::chrono::steady_clock;
using Batch = std::vector<std::shared_ptr<const Record>>;

// How long maintenance rests after it failed.
constexpr std::chrono::seconds kMaintenanceRest{10};

double secondsSince(Clock::time_point begin) {
  return std::chrono::duration<double>(Clock::now() - begin).count();
}

void throwAtFault(const detail::HeldJournal& held) {
  detail::verify(held.database, held.mark, [](const JournalFault& fault) -> bool {
    throw JournalError(JournalError::Kind::kDamaged, fault.text);
  });
}

Recovered load(const detail::HeldJournal& held, const JournalSettings& settings) {
  return detail::withContext(held.files, [&] {
    if (detail::bytesOf(held.files) <= settings.wholeCheckBytes) throwAtFault(held);
    return detail::recoverFrom(held.database, held.mark, settings);
  });
}

detail::DurableMark lastOf(const Recovered& recovered) {
  if (recovered.records.empty()) {
    const Snapshot& snapshot = recovered.snapshot;
    return {snapshot.sequence, snapshot.revision, snapshot.check};
  }
  const Record& last = recovered.records.back();
  return {last.sequence, last.revision, last.check};
}

}  // namespace

class Journal::Impl final : public Storage {
 public:
  Impl(const std::string& directory, const JournalSettings& settings, JournalCallbacks callbacks);
  ~Impl() override;

  Recovered recover() { return std::exchange(recovered_, {}); }
  void flush();
  void turn();
  Clock::time_point nextTurn() const;
  JournalFigures figures() const;

  // For the activity thread.
  using Storage::append;
  void append(Batch records) override;
  void read(uint64_t first, uint64_t last,
            const std::function<bool(const Record&)>& take) const override;
  void snapshot(Snapshot snapshot) override;

 private:
  // For the journal's thread.
  void run();
  void await(std::unique_lock<std::mutex>& lock);
  void commit(const Batch& batch);
  void writeBatch(const Batch& batch);
  void rewriteLogOnce();
  void fail(const JournalError& error);
  bool probeWorks();
  void probeAgain();
  void maintain();
  static int onLogGrew(void* self, sqlite3*, const char*, int pages);

  const JournalSettings settings_;
  const JournalCallbacks callbacks_;
  detail::HeldJournal held_;
  Recovered recovered_;
  detail::Database reader_;

  // Of the journal's thread.
  detail::RecordWriter records_;
  detail::Maintenance maintenance_;
  detail::DurableMark durable_;
  bool isLogRewritten_ = false;
  Clock::time_point nextProbe_;
  Clock::time_point nextMaintenance_;

  // Shared, as are the figures.
  mutable std::mutex mutex_;
  std::condition_variable wake_;
  std::condition_variable idle_;
  Batch queue_;
  std::optional<Snapshot> snapshot_;
  uint64_t expected_;         // the sequence that is appended next
  bool isFailing_ = false;    // nothing can be written now
  bool dropsOthers_ = false;  // it failed, and its user may not know yet
  bool isCommitting_ = false;
  bool isStopping_ = false;
  JournalFigures figures_;

  std::thread thread_;
};

Journal::Impl::Impl(const std::string& directory, const JournalSettings& settings,
                    JournalCallbacks callbacks)
    : settings_(settings),
      callbacks_(std::move(callbacks)),
      held_(directory, settings),
      recovered_(load(held_, settings)),
      reader_(held_.files.database, detail::Database::Mode::kOpen, settings.vfs),
      records_(held_.database),
      maintenance_(held_.database, settings),
      durable_(lastOf(recovered_)),
      expected_(durable_.sequence + 1) {
  sqlite3_wal_hook(held_.database.get(), onLogGrew, this);
  figures_.lastSequence = durable_.sequence;
  figures_.lastRevision = durable_.revision;
  held_.durable.write(durable_);
  maintenance_.retain(durable_.revision);
  if (settings_.hasThread) thread_ = std::thread([this] { run(); });
}

Journal::Impl::~Impl() {
  if (!settings_.hasThread) {
    flush();
    return;
  }
  {
    const std::scoped_lock lock(mutex_);
    isStopping_ = true;
  }
  wake_.notify_one();
  thread_.join();
}

void Journal::Impl::flush() {
  if (!settings_.hasThread) {
    while (!queue_.empty()) turn();
    return;
  }
  std::unique_lock lock(mutex_);
  idle_.wait(lock, [this] { return queue_.empty() && !isCommitting_; });
}

JournalFigures Journal::Impl::figures() const {
  JournalFigures figures;
  {
    const std::scoped_lock lock(mutex_);
    figures = figures_;
  }
  figures.bytes = detail::bytesOf(held_.files);
  return figures;
}

// The activity thread.

void Journal::Impl::append(Batch records) {
  if (records.empty()) return;
  {
    const std::scoped_lock lock(mutex_);
    const uint64_t first = records.front()->sequence;
    if (isFailing_ || (dropsOthers_ && first != expected_)) return;
    if (first != expected_) {
      throw std::logic_error("record " + std::to_string(first) + " is appended where record " +
                             std::to_string(expected_) + " comes next");
    }
    dropsOthers_ = false;
    expected_ += records.size();
    // One commit takes the whole queue.
    queue_.insert(queue_.end(), std::make_move_iterator(records.begin()),
                  std::make_move_iterator(records.end()));
  }
  wake_.notify_one();
}

void Journal::Impl::read(uint64_t first, uint64_t last,
                         const std::function<bool(const Record&)>& take) const {
  detail::withContext(held_.files, [&] {
    const auto range = detail::sequencesOf(reader_);
    if (!range) return;
    detail::RecordReader reader(reader_, "WHERE sequence >= ? ORDER BY sequence");
    reader.bind(detail::firstWithRevision(reader_, *range, first));
    while (reader.next() && reader.record().revision <= last) {
      if (!take(reader.record())) break;
    }
  });
}

void Journal::Impl::snapshot(Snapshot snapshot) {
  {
    const std::scoped_lock lock(mutex_);
    if (isFailing_) return;
    snapshot_ = std::move(snapshot);
  }
  wake_.notify_one();
}

// The journal's thread.

void Journal::Impl::run() {
  for (;;) {
    {
      std::unique_lock lock(mutex_);
      if (queue_.empty()) idle_.notify_all();
      await(lock);
      if (isStopping_ && queue_.empty()) return;
    }
    turn();
  }
}

// A commit of what has arrived, or a portion of what there is to do beside commits.
void Journal::Impl::turn() {
  Batch batch;
  {
    const std::scoped_lock lock(mutex_);
    batch.swap(queue_);
    isCommitting_ = !batch.empty();
    if (snapshot_) maintenance_.snapshotIs(*std::exchange(snapshot_, std::nullopt));
  }
  if (!batch.empty()) commit(batch);
  if (isFailing_) {
    probeAgain();
  } else {
    maintain();
  }
  const std::scoped_lock lock(mutex_);
  isCommitting_ = false;
}

Clock::time_point Journal::Impl::nextTurn() const {
  const std::scoped_lock lock(mutex_);
  if (!queue_.empty() || snapshot_) return Clock::time_point::min();
  if (isFailing_) return nextProbe_;
  return maintenance_.hasWork() ? nextMaintenance_ : Clock::time_point::max();
}

void Journal::Impl::await(std::unique_lock<std::mutex>& lock) {
  const auto isWanted = [this] { return isStopping_ || !queue_.empty() || snapshot_; };
  if (isFailing_) {
    wake_.wait_until(lock, nextProbe_, isWanted);
  } else if (maintenance_.hasWork()) {
    wake_.wait_until(lock, nextMaintenance_, isWanted);
  } else {
    wake_.wait(lock, isWanted);
  }
}

void Journal::Impl::commit(const Batch& batch) {
  const auto begin = Clock::now();
  try {
    writeBatch(batch);
  } catch (const JournalError& error) {
    fail(error);
    return;
  }
  const Record& last = *batch.back();
  durable_ = {last.sequence, last.revision, last.check};
  held_.durable.write(durable_);
  {
    const std::scoped_lock lock(mutex_);
    ++figures_.commits;
    figures_.records += batch.size();
    figures_.lastSequence = last.sequence;
    figures_.lastRevision = last.revision;
  }
  if (callbacks_.committed) callbacks_.committed(last.sequence, secondsSince(begin));
}

// Before anything is written behind what the process before has left.
void Journal::Impl::rewriteLogOnce() {
  if (isLogRewritten_) return;
  detail::rewriteLog(held_.database);
  isLogRewritten_ = true;
}

void Journal::Impl::writeBatch(const Batch& batch) {
  rewriteLogOnce();
  detail::Transaction transaction(held_.database);
  for (const auto& record : batch) records_.write(*record);
  transaction.commit();
}

void Journal::Impl::fail(const JournalError& error) {
  // What failed may be in the log as a whole, only not synced. Writing something else in its place
  // keeps it from being read after a crash. A transaction may fail before it writes there, when it
  // begins the log anew and cannot sync its header.
  detail::spoilLogTail(held_.database);
  probeWorks();
  {
    const std::scoped_lock lock(mutex_);
    isFailing_ = true;
    dropsOthers_ = true;
    expected_ = durable_.sequence + 1;
    queue_.clear();
    snapshot_.reset();
    ++figures_.failures;
  }
  nextProbe_ = Clock::now() + settings_.probeInterval;
  const bool isNoSpace = error.kind() == JournalError::Kind::kNoSpace;
  if (callbacks_.failed) callbacks_.failed(durable_.sequence, error.what(), isNoSpace);
}

bool Journal::Impl::probeWorks() {
  try {
    detail::probe(held_.database);
    return true;
  } catch (const JournalError&) {
    return false;
  }
}

void Journal::Impl::probeAgain() {
  if (Clock::now() < nextProbe_) return;
  if (!probeWorks()) {
    nextProbe_ = Clock::now() + settings_.probeInterval;
    return;
  }
  {
    const std::scoped_lock lock(mutex_);
    isFailing_ = false;
  }
  if (callbacks_.writable) callbacks_.writable();
}

void Journal::Impl::maintain() {
  if (!maintenance_.hasWork() || Clock::now() < nextMaintenance_) return;
  try {
    rewriteLogOnce();
    if (maintenance_.work()) {
      const std::scoped_lock lock(mutex_);
      ++figures_.snapshots;
    }
  } catch (const JournalError&) {
    nextMaintenance_ = Clock::now() + kMaintenanceRest;
    const std::scoped_lock lock(mutex_);
    ++figures_.failures;
  }
}

int Journal::Impl::onLogGrew(void* self, sqlite3*, const char*, int pages) {
  static_cast<Impl*>(self)->maintenance_.logPagesAre(pages);
  return SQLITE_OK;
}

// The interface.

Journal::Journal(const std::string& directory, const JournalSettings& settings,
                 JournalCallbacks callbacks)
    : impl_(std::make_unique<Impl>(directory, settings, std::move(callbacks))) {}

Journal::~Journal() = default;

Recovered Journal::recover() {
  return impl_->recover();
}
Storage& Journal::storage() {
  return *impl_;
}
void Journal::flush() {
  impl_->flush();
}
void Journal::turn() {
  impl_->turn();
}
std::chrono::steady_clock::time_point Journal::nextTurn() const {
  return impl_->nextTurn();
}
JournalFigures Journal::figures() const {
  return impl_->figures();
}

}  // namespace vnagent
