// The activity manager: the loop that delivers notifications, and the owner of the clock.
//
// The host makes one (one at a time in a process), before it makes entities that are observed, and
// keeps it until they are gone. The host owns the thread:
//
//   Kiv::ActivityManager loop;
//   ... change entities ...
//   loop.run();                                    // deliver until idle
//   sleepUntil(loop.nextTimer());                  // in a poll of the host's own
//   loop.runTimers();                              // fire what is due, and deliver
//
// Notifications are delivered first in, first out. While one for the same notifiee, attribute and
// key waits, another adds nothing. An entry holds its notifiee until it is delivered or skipped.
// Nothing here starts a thread, sleeps or blocks. Activity thread only.
#pragma once

#include "framework/Clock.h"
#include "framework/Time.h"
#include "framework/detail/PendingQueue.h"

namespace [[gnu::visibility("default")]] Kiv {

// The activity of an object that does not run on its owner's. The framework has none such; machines
// answer null.
class Activity;

// The loop and its clock; see above.
class ActivityManager {
 public:
  // Becomes the process's. REQUIRES: there is none.
  ActivityManager();
  // Drops what still waits, undelivered.
  ~ActivityManager();
  ActivityManager(const ActivityManager&) = delete;
  ActivityManager& operator=(const ActivityManager&) = delete;

  // The activity manager of the process. REQUIRES: there is one.
  static ActivityManager& instance();

  // Delivery
  // Delivers until nothing waits, also what the handlers add meanwhile. Called from a handler it
  // does nothing. What a handler throws passes through: its notification is spent, the rest waits
  // for the next call.
  [[gnu::hot]] void run();
  // Whether nothing waits.
  bool idle() const { return queue_.empty(); }
  // How many notifications wait.
  std::size_t waiting() const { return queue_.size(); }

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
  // Queues a call of `handler`, unless the same one waits. The attributes of entities call this.
  template <class N>
  void queue(N& notifiee, void (N::*handler)()) {
    queue_.push(notifiee, handler);
  }
  template <class N, class K>
  void queue(N& notifiee, void (N::*handler)(KeyArgument<K>), const K& key) {
    queue_.template push<N, K>(notifiee, handler, key);
  }

 private:
  detail::PendingQueue queue_;
  Ptr<Clock> clock_;
  bool running_ = false;
};

}  // namespace Kiv
