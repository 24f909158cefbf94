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
#include <new>
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

// One notification that waits. Its place in the queue is reused.
class Pending {
 public:
  Pending() = default;
  Pending(const Pending&) = delete;
  Pending& operator=(const Pending&) = delete;

  NotifieeBase& notifiee() const { return *notifiee_; }
  // Calls the handler. REQUIRES: stands in the queue, or is the one taken from it.
  void deliver() { operate_(*this, Operation::deliver); }

 private:
  friend class PendingQueue;
  enum class Operation : U8 { deliver, drop };

  static constexpr std::size_t kKeyRoom = 2 * sizeof(void*);

  // What the entry holds beside its notifiee: a handler of class N, and a key where it takes one.
  // A key that has no room here lies elsewhere.
  template <class N, class K>
  struct Keyed {
    using Handler = void (N::*)(KeyArgument<K>);
    static constexpr bool kInside = sizeof(K) <= kKeyRoom && alignof(K) <= alignof(void*);

    static const K& key(const Pending& p) {
      if constexpr (kInside) {
        return *std::launder(reinterpret_cast<const K*>(p.key_));
      } else {
        return **std::launder(reinterpret_cast<const K* const*>(p.key_));
      }
    }
    static void keyIs(Pending& p, const K& key) {
      if constexpr (kInside) {
        new (p.key_) K(key);
      } else {
        new (p.key_) const K*(new K(key));
      }
    }
    static void operate(Pending& p, Operation operation) {
      if (operation == Operation::deliver) {
        (static_cast<N&>(*p.notifiee_).*p.handler<Handler>())(key(p));
      } else if constexpr (kInside) {
        key(p).~K();
      } else {
        delete &key(p);
      }
    }
  };
  template <class N>
  struct Plain {
    using Handler = void (N::*)();
    static void operate(Pending& p, Operation operation) {
      if (operation == Operation::deliver) {
        (static_cast<N&>(*p.notifiee_).*p.handler<Handler>())();
      }
    }
  };

  template <class Handler>
  void handlerIs(Handler called) {
    static_assert(sizeof(called) <= sizeof(handler_));
    std::memcpy(handler_, &called, sizeof(called));
  }
  template <class Handler>
  Handler handler() const {
    Handler called;
    std::memcpy(&called, handler_, sizeof(called));
    return called;
  }

  Ptr<NotifieeBase> notifiee_;
  void (*operate_)(Pending&, Operation) = nullptr;
  alignas(void*) std::byte handler_[2 * sizeof(void*)];
  alignas(void*) std::byte key_[kKeyRoom];
  Pending* nextInBucket_ = nullptr;
  U32 hash_ = 0;
};

// The notifications that wait, in order, and by hash so that one that waits already is found.
class PendingQueue {
 public:
  PendingQueue() = default;
  PendingQueue(const PendingQueue&) = delete;
  PendingQueue& operator=(const PendingQueue&) = delete;
  ~PendingQueue();

  bool empty() const { return count_ == 0; }
  std::size_t size() const { return count_; }

  // Puts a call at the end, unless the same one waits.
  template <class N>
  void push(N& notifiee, void (N::*handler)()) {
    const U32 hash = hashOf(notifiee, handlerSlot(handler), 0);
    if (waits(notifiee, handler, hash, [](const Pending&) { return true; })) return;
    Pending& pending = place();
    commit(pending, notifiee, handler, hash, &Pending::Plain<N>::operate);
  }
  template <class N, class K>
  void push(N& notifiee, void (N::*handler)(KeyArgument<K>), const K& key) {
    using Keyed = Pending::Keyed<N, K>;
    const U32 hash = hashOf(notifiee, handlerSlot(handler), kivOrder(key));
    const auto sameKey = [&key](const Pending& p) { return Keyed::key(p) == key; };
    if (waits(notifiee, handler, hash, sameKey)) return;
    Pending& pending = place();
    Keyed::keyIs(pending, key);
    commit(pending, notifiee, handler, hash, &Keyed::operate);
  }

  // The first, taken out; stays as it is until it is released. REQUIRES: not empty, and what was
  // taken before is released.
  [[nodiscard]] Pending& take();
  // Lets go of what a taken one holds.
  void release(Pending& taken) {
    clear(taken);
    if (count_ == 0 && first_ == last_) rewind();
  }

 private:
  static constexpr U32 kBlockSize = 64;
  static constexpr U32 kLog2ToKeep = 10;  // buckets that a burst has left are given back
  // A stretch of the queue.
  struct Block {
    Block* next = nullptr;
    Pending pending[kBlockSize];
  };

  static U32 hashOf(const NotifieeBase& notifiee, std::uintptr_t slot, U32 keyOrder) {
    U64 mixed = reinterpret_cast<std::uintptr_t>(&notifiee) ^ (slot << 32) ^ keyOrder;
    mixed *= 0x9e3779b97f4a7c15U;
    return static_cast<U32>(mixed >> 32);
  }
  U32 bucket(U32 hash) const { return hash >> (32 - log2_); }

  // Whether one waits for this notifiee and handler of which `same(pending)` holds.
  template <class Handler, class Same>
  bool waits(const NotifieeBase& notifiee, Handler handler, U32 hash, Same same) const {
    if (count_ == 0 || log2_ == 0) return false;
    for (const Pending* p = buckets_[bucket(hash)]; p != nullptr; p = p->nextInBucket_) {
      if (p->hash_ == hash && p->notifiee_.get() == &notifiee &&
          handlerSlot(p->template handler<Handler>()) == handlerSlot(handler) && same(*p)) {
        return true;
      }
    }
    return false;
  }

  // The place that comes next at the end, still empty. Throws std::bad_alloc.
  Pending& place() {
    if (last_ == nullptr || lastAt_ == kBlockSize) addBlock();
    return last_->pending[lastAt_];
  }
  template <class Handler>
  void commit(Pending& pending, NotifieeBase& notifiee, Handler handler, U32 hash,
              void (*operate)(Pending&, Pending::Operation)) {
    pending.notifiee_ = Ptr<NotifieeBase>(&notifiee);
    pending.operate_ = operate;
    pending.handlerIs(handler);
    pending.hash_ = hash;
    ++lastAt_;
    if (++count_ > (log2_ == 0 ? 0 : std::size_t{1} << log2_)) {
      grow();  // takes in this one, too
    } else {
      hang(pending);
    }
  }
  void hang(Pending& pending) {
    Pending*& head = buckets_[bucket(pending.hash_)];
    pending.nextInBucket_ = head;
    head = &pending;
  }
  static void clear(Pending& pending) {
    pending.operate_(pending, Pending::Operation::drop);
    pending.notifiee_ = nullptr;
  }

  // Nothing waits: what comes next starts over, in memory that is warm.
  void rewind() {
    firstAt_ = lastAt_ = 0;
    if (log2_ > kLog2ToKeep) freeBuckets();
  }

  void addBlock();
  void grow();
  void freeBuckets();

  Block* first_ = nullptr;  // where the first one waits, or was taken last
  Block* last_ = nullptr;
  Block* spare_ = nullptr;  // to be used again
  U32 firstAt_ = 0;         // in first_
  U32 lastAt_ = 0;          // in last_
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
