// The cloud of the live agent, with its revision and its history: applies changes, makes a record
// of each, and starts again from records.
//
// Activity thread only.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "agent/live/etags.h"
#include "agent/live/history.h"
#include "agent/live/record.h"
#include "agent/live/service.h"
#include "agent/live/storage.h"
#include "agent/session/session.h"

namespace vnagent {

// The time of a live agent: that of a clock, but for records that are played back.
class LiveClock final : public Kiv::TimeSource {
 public:
  explicit LiveClock(const Kiv::TimeSource& base) : base_(base) {}

  Kiv::Seconds now() const override { return stopped_ ? *stopped_ : base_.now() + offset_; }

  // Stops, and is moved by hand.
  void stop() { stopped_ = now(); }
  void nowIs(Kiv::Seconds now) { stopped_ = now; }
  // Goes on from where it is.
  void resume() {
    offset_ = *stopped_ - base_.now();
    stopped_.reset();
  }

  Kiv::Seconds offset() const { return offset_; }

 private:
  const Kiv::TimeSource& base_;
  Kiv::Seconds offset_ = 0;
  std::optional<Kiv::Seconds> stopped_;
};

// What a step did.
struct LiveStep {
  std::vector<Fault> faults;         // why a patch was refused
  std::vector<std::string> regions;  // whose status in the output has changed
  uint64_t revision = 0;             // after it
  uint64_t sequence = 0;             // of its record; 0: it has none
};

class LiveCloud {
 public:
  // Fills in a record before it is appended: the reply that is to be remembered with it.
  using Complete = std::function<void(Record& record)>;

  // Starts from what was recovered. Throws std::runtime_error where that cannot be played back.
  LiveCloud(const ServiceSettings& settings, const Kiv::TimeSource& clock, Storage* storage,
            const Recovered& recovered);
  ~LiveCloud();
  LiveCloud(const LiveCloud&) = delete;
  LiveCloud& operator=(const LiveCloud&) = delete;

  // Applies or refuses a merge patch on the cloud document, one line of JSON that was parsed
  // without an error or flaw. `tree` is what it was parsed into; null: it is parsed again, and the
  // tree freed early.
  LiveStep apply(std::string patch, const JsonValue* tree, const Complete& complete);

  // Fires the earliest timer that is due; nothing where none is.
  std::optional<LiveStep> expire();

  // Appends a record of a reply that is to be remembered, where no change carries it.
  LiveStep remember(const Complete& complete);

  // While it lives, records are held; its end appends them so that they become durable together, or
  // not at all.
  class Together {
   public:
    explicit Together(LiveCloud& cloud) : cloud_(cloud) { cloud_.holdsRecords_ = true; }
    ~Together() { cloud_.appendHeld(); }
    Together(const Together&) = delete;
    Together& operator=(const Together&) = delete;

   private:
    LiveCloud& cloud_;
  };

  // All records up to this sequence are durable; returns the revision of the last of them.
  uint64_t durableIs(uint64_t sequence);

  // Goes back to the state after the last record that is durable, with this sequence: what came
  // later will never be. Records are refused until resumed() is called.
  void goBackTo(uint64_t sequence);
  // Records can be written again: appends one that says that the machines were made anew.
  void resume();

  // In a copy of the process: leaves the storage alone from now on.
  void detachFromStorage();

  // Reading.

  const Session& session() const { return *session_; }
  const CloudState& document() const { return session_->document(); }
  const Etags& etags() const { return etags_; }
  const History& history() const { return history_; }
  uint64_t revision() const { return revision_; }
  uint64_t sequence() const { return sequence_; }
  // The check value of the last record.
  const std::string& check() const { return check_; }
  double time() const { return clock_.now(); }
  // When the next timer is due, in time().
  double nextTimer() const { return session_->nextTimer(); }

  // A time of time() as one of the clock that the cloud was given.
  double clockTime(double time) const { return time - clock_.offset(); }

  // The region sync timeout, in seconds.
  double regionSyncTimeout() const;

  // The whole state after the last record.
  Snapshot snapshot() const;

  // What a restart from the last snapshot would have to play back.
  uint64_t recordsSinceSnapshot() const { return recordsSinceSnapshot_; }
  uint64_t bytesSinceSnapshot() const { return bytesSinceSnapshot_; }
  // A snapshot of the present state is being kept.
  void snapshotTaken() { recordsSinceSnapshot_ = bytesSinceSnapshot_ = 0; }

 private:
  class Uuids;

  void start(const Recovered& recovered);
  void replay(const Record& record);
  StepOutcome step(Record& record, const std::function<StepOutcome()>& run);
  void describe(const StepOutcome& outcome, Record& record, LiveStep& step);
  // `changed`: what a patch changed of the document; null of other records.
  void append(Record record, LiveStep& step, const Complete& complete,
              const Change* changed = nullptr);
  void appendHeld();
  std::unique_ptr<Session> newSession();

  // When the timers of some regions are due; nothing where one is off.
  using Timers = std::vector<std::pair<std::string, std::optional<double>>>;
  Timers timersOf(const std::vector<std::string>& regions) const;
  // Of the regions whose timers a record may have moved.
  Timers timersAfter(const Record& record, const Change* changed) const;
  void keepTimers(const Timers& timers);
  // Those that are there, and those that were and had a timer.
  std::vector<std::string> regionsWithTimers() const;
  std::vector<std::string> regionsAtTimer() const;

  ServiceSettings settings_;
  LiveClock clock_;
  Storage* storage_;
  std::unique_ptr<Uuids> uuids_;
  std::unique_ptr<Session> session_;
  Etags etags_;
  History history_;
  uint64_t revision_ = 0;
  uint64_t sequence_ = 0;
  std::string check_{kFirstCheck};  // of the last record
  double lastTime_ = 0;             // of the last record
  // Records that may not be durable yet, in ascending order.
  struct Pending {
    std::shared_ptr<const Record> record;
    double time;    // of it
    Timers timers;  // after it, where it may have moved them
  };
  std::deque<Pending> pending_;
  // After the last record that is durable: which timers are armed, and until when.
  std::map<std::string, double, std::less<>> durableTimers_;
  std::vector<std::string> expired_;  // of the expiry that is being recorded
  // Those of pending_ that the storage does not have yet.
  std::vector<std::shared_ptr<const Record>> held_;
  bool holdsRecords_ = false;
  std::string scratch_;  // for the texts of a record
  uint64_t durableRevision_ = 0;
  std::string durableCheck_{kFirstCheck};
  double durableTime_ = 0;  // of the last record that is durable
  uint64_t recordsSinceSnapshot_ = 0;
  uint64_t bytesSinceSnapshot_ = 0;
};

}  // namespace vnagent
