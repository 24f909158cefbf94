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

#include <concepts>
#include <cstring>
#include <type_traits>

#include "framework/Clock.h"
#include "framework/Time.h"

namespace [[gnu::visibility("default")]] Kiv {

// How a handler takes a key: integers by value, everything else by reference.
template <class K>
using KeyArgument = std::conditional_t<std::integral<K>, K, const K&>;

namespace detail {

// What identifies a handler within its notifiee's class.
template <class Handler>
std::uintptr_t handlerSlot(Handler handler) {
  std::uintptr_t slot = 0;
  std::memcpy(&slot, &handler, sizeof(slot));
  return slot;
}

// One notification that waits.
class Pending {
 public:
  Pending(const Pending&) = delete;
  Pending& operator=(const Pending&) = delete;
  virtual ~Pending() = default;
  virtual void deliver() = 0;

  NotifieeBase& notifiee() const { return *notifiee_; }

  static void* operator new(std::size_t size) { return kivMemAlloc(size); }
  static void operator delete(void* memory, std::size_t size) { kivMemFree(memory, size); }

 protected:
  Pending(NotifieeBase& notifiee, std::uintptr_t slot, U32 hash)
      : notifiee_(&notifiee), slot_(slot), hash_(hash) {}

 private:
  friend class PendingQueue;
  Pending* nextInQueue_ = nullptr;
  Pending* nextInBucket_ = nullptr;
  Ptr<NotifieeBase> notifiee_;
  std::uintptr_t slot_;
  U32 hash_;
};

template <class N>
class PendingPlain final : public Pending {
 public:
  using Handler = void (N::*)();
  PendingPlain(N& notifiee, Handler handler, U32 hash)
      : Pending(notifiee, handlerSlot(handler), hash), handler_(handler) {}
  void deliver() override { (static_cast<N&>(notifiee()).*handler_)(); }

 private:
  Handler handler_;
};

template <class N, class K>
class PendingKeyed final : public Pending {
 public:
  using Handler = void (N::*)(KeyArgument<K>);
  PendingKeyed(N& notifiee, Handler handler, const K& key, U32 hash)
      : Pending(notifiee, handlerSlot(handler), hash), handler_(handler), key_(key) {}
  void deliver() override { (static_cast<N&>(notifiee()).*handler_)(key_); }
  const K& key() const { return key_; }

 private:
  Handler handler_;
  K key_;
};

// The notifications that wait, in order, and by hash so that one that waits already is found.
class PendingQueue {
 public:
  PendingQueue() = default;
  PendingQueue(const PendingQueue&) = delete;
  PendingQueue& operator=(const PendingQueue&) = delete;
  ~PendingQueue();

  bool empty() const { return first_ == nullptr; }
  std::size_t size() const { return count_; }

  static U32 hash(const NotifieeBase& notifiee, std::uintptr_t slot, U32 keyHash) {
    U64 mixed = reinterpret_cast<std::uintptr_t>(&notifiee) ^ (slot << 32) ^ keyHash;
    mixed *= 0x9e3779b97f4a7c15U;
    return static_cast<U32>(mixed >> 32);
  }

  // Whether one waits for this notifiee and slot of which `same(pending)` holds.
  template <class Same>
  bool waits(const NotifieeBase& notifiee, std::uintptr_t slot, U32 hash, Same same) const {
    if (log2_ == 0) return false;
    for (const Pending* p = buckets_[bucket(hash)]; p != nullptr; p = p->nextInBucket_) {
      if (p->hash_ == hash && p->notifiee_.get() == &notifiee && p->slot_ == slot && same(*p)) {
        return true;
      }
    }
    return false;
  }

  // Takes over `pending`, at the end.
  void push(Pending* pending);
  // Hands over the first. REQUIRES: not empty.
  [[nodiscard]] Pending* pop();

 private:
  U32 bucket(U32 hash) const { return hash >> (32 - log2_); }
  void grow();
  void freeBuckets();

  Pending* first_ = nullptr;
  Pending* last_ = nullptr;
  std::size_t count_ = 0;
  Pending** buckets_ = nullptr;
  U32 log2_ = 0;
};

}  // namespace detail

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
  void run();
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
    const std::uintptr_t slot = detail::handlerSlot(handler);
    const U32 hash = detail::PendingQueue::hash(notifiee, slot, 0);
    if (queue_.waits(notifiee, slot, hash, [](const detail::Pending&) { return true; })) return;
    queue_.push(new detail::PendingPlain<N>(notifiee, handler, hash));
  }
  template <class N, class K>
  void queue(N& notifiee, void (N::*handler)(KeyArgument<K>), const K& key) {
    using Keyed = detail::PendingKeyed<N, K>;
    const std::uintptr_t slot = detail::handlerSlot(handler);
    const U32 hash = detail::PendingQueue::hash(notifiee, slot, kivHash(key));
    const auto sameKey = [&key](const detail::Pending& p) {
      return static_cast<const Keyed&>(p).key() == key;
    };
    if (queue_.waits(notifiee, slot, hash, sameKey)) return;
    queue_.push(new Keyed(notifiee, handler, key, hash));
  }

 private:
  detail::PendingQueue queue_;
  Ptr<Clock> clock_;
  bool running_ = false;
};

}  // namespace Kiv
