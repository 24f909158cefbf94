// The activity manager: the loop that delivers notifications, and the owner of the clock.
//
// The host makes one (one at a time in a process) before it makes entities that are observed, and
// destroys it after them. The host owns the thread:
//
//   Kiv::ActivityManager loop;
//   ... change entities ...
//   loop.run();                                    // deliver until idle
//   sleepUntil(loop.nextTimer());                  // in a poll of the host's own
//   loop.runTimers();                              // fire the timers that are due, and deliver
//
// Notifications are delivered first in, first out. While one is pending for the same notifiee,
// handler and key, another is not queued. A pending notification holds its notifiee until it is
// delivered or skipped; it is skipped when the notifiee does not listen then.
// Nothing here starts a thread, sleeps or blocks. Activity thread only.
#pragma once

#include "framework/Clock.h"
#include "framework/Time.h"
#include "framework/detail/PendingQueue.h"

namespace [[gnu::visibility("default")]] Kiv {

// The activity of an object that does not run on its owner's. The framework has none such; machines
// answer null.
class Activity;

// How many notifications a loop has had since it was made.
struct ActivityFigures {
  U64 queued;     // those that were pending at some time, and were not rolled back
  U64 delivered;  // of these, how many a handler was called for
  U64 skipped;    // and how many found their notifiee not listening
  U64 coalesced;  // not queued, as the same was pending
};

// The loop and its clock; see above.
class ActivityManager {
 public:
  // Becomes the instance() of the process. REQUIRES: there is none.
  ActivityManager();
  // Drops what is pending, undelivered.
  ~ActivityManager();
  ActivityManager(const ActivityManager&) = delete;
  ActivityManager& operator=(const ActivityManager&) = delete;

  // The activity manager of the process. REQUIRES: there is one.
  static ActivityManager& instance();

  // Delivery
  // Delivers until nothing is pending, also what the handlers queue meanwhile. Does nothing when
  // called from a handler. What a handler throws passes through: its notification counts as
  // delivered, the others stay pending for the next call.
  [[gnu::hot]] void run();
  // Whether nothing is pending.
  bool idle() const { return queue_.empty(); }
  // How many notifications are pending.
  std::size_t waiting() const { return queue_.size(); }
  // What the loop has had to do so far.
  ActivityFigures figures() const;

  // Time
  // The clock that timers observe.
  Ptr<const Clock> clock() const { return clock_; }
  // When the next timer is due: a time of System::currentTime(), +infinity when none is armed.
  Seconds nextTimer() const { return clock_->nextTime(); }
  // Queues onTime() of the earliest timer that is due by now; returns false when none is.
  bool fireNextTimer() { return clock_->fireNext(System::currentTime()); }
  // Fires every timer that is due by now, in order of time, and runs until idle after each.
  void runTimers();

  // Queueing
  // Queues a call of `handler`, unless the same call is pending. The attributes of entities use
  // this. Throws std::bad_alloc; nothing was queued then.
  template <class N>
  void queue(N& notifiee, void (N::*handler)()) {
    queue_.push(notifiee, handler);
  }
  template <class N, class K>
  void queue(N& notifiee, void (N::*handler)(KeyArgument<K>), const K& key) {
    queue_.push<N, K>(notifiee, handler, key);
  }
  // A transaction: its end removes what was queued since its beginning, unless keep() was called.
  // For a change that is to be queued before it is made. REQUIRES: run() was not called meanwhile.
  class TentativeQueueing {
   public:
    // Begins on this loop, which must outlive it.
    explicit TentativeQueueing(ActivityManager& loop) : loop_(loop), end_(loop.queue_.end()) {}
    // Rolls back unless keep() was called.
    ~TentativeQueueing() {
      if (!kept_) loop_.queue_.removeSince(end_);
    }
    TentativeQueueing(const TentativeQueueing&) = delete;
    TentativeQueueing& operator=(const TentativeQueueing&) = delete;

    // The loop that it queues on.
    ActivityManager& loop() const { return loop_; }
    // Commits: what was queued stays queued. Throws nothing.
    void keep() { kept_ = true; }

   private:
    ActivityManager& loop_;
    U32 end_;
    bool kept_ = false;
  };

 private:
  // How many notifications were taken from the queue.
  U64 taken() const { return taken_ + static_cast<U32>(queue_.first() - counted_); }

  detail::PendingQueue queue_;
  Ptr<Clock> clock_;
  bool running_ = false;
  U32 counted_ = queue_.first();  // the first notification that taken_ does not have yet
  U64 taken_ = 0;
};

}  // namespace Kiv
