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
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

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

// One notification that waits: a handler of a notifiee, and a key where it takes one.
class Pending {
 public:
  Pending() = default;
  Pending(const Pending&) = delete;
  Pending& operator=(const Pending&) = delete;

  NotifieeBase& notifiee() const { return *notifiee_; }
  // Calls the handler. REQUIRES: not empty.
  void deliver() { kind_->deliver(*this); }

 private:
  friend class PendingQueue;

  // What differs between handlers. Where a key needs nothing done, there is nothing to call.
  struct Kind {
    void (*deliver)(Pending&);
    void (*moveKey)(Pending& from, Pending& to) noexcept;  // null: as bytes
    void (*dropKey)(Pending&) noexcept;                    // null: not needed
  };

  static constexpr std::size_t kKeyRoom = 2 * sizeof(void*);

  // A key that has no room in the entry lies elsewhere.
  template <class N, class K>
  struct Keyed {
    using Handler = void (N::*)(KeyArgument<K>);
    static constexpr bool kInside = sizeof(K) <= kKeyRoom && alignof(K) <= alignof(void*) &&
                                    std::is_nothrow_move_constructible_v<K>;
    using Held = std::conditional_t<kInside, K, std::unique_ptr<K>>;
    static constexpr bool kBytes = std::is_trivially_copyable_v<Held>;

    static Held& held(Pending& p) { return *std::launder(reinterpret_cast<Held*>(p.key_)); }
    static const K& key(Pending& p) {
      if constexpr (kInside) {
        return held(p);
      } else {
        return *held(p);
      }
    }
    static void keyIs(Pending& p, const K& key) {
      if constexpr (kInside) {
        new (p.key_) K(key);
      } else {
        new (p.key_) std::unique_ptr<K>(std::make_unique<K>(key));
      }
    }
    static void deliver(Pending& p) {
      (static_cast<N&>(*p.notifiee_).*p.handler<Handler>())(key(p));
    }
    static void moveKey(Pending& from, Pending& to) noexcept {
      new (to.key_) Held(std::move(held(from)));
      held(from).~Held();
    }
    static void dropKey(Pending& p) noexcept { held(p).~Held(); }
    static constexpr Kind kind{&deliver, kBytes ? nullptr : &moveKey, kBytes ? nullptr : &dropKey};
  };
  template <class N>
  struct Plain {
    using Handler = void (N::*)();
    static void deliver(Pending& p) { (static_cast<N&>(*p.notifiee_).*p.handler<Handler>())(); }
    static constexpr Kind kind{&deliver, nullptr, nullptr};
  };

  template <class Handler>
  Handler handler() const {
    Handler called;
    std::memcpy(&called, handler_, sizeof(called));
    return called;
  }

  template <class Handler>
  void fill(NotifieeBase& notifiee, Handler called, U32 hash, const Kind& kind) {
    static_assert(sizeof(called) <= sizeof(handler_));
    std::memcpy(handler_, &called, sizeof(called));
    notifiee_ = Ptr<NotifieeBase>(&notifiee);
    kind_ = &kind;
    hash_ = hash;
  }
  // Lets go of what it holds.
  void clear() noexcept {
    if (kind_->dropKey != nullptr) kind_->dropKey(*this);
    notifiee_ = nullptr;
  }
  // Gives what it holds to an empty one.
  void moveTo(Pending& other) noexcept {
    std::memcpy(other.handler_, handler_, sizeof(handler_));
    if (kind_->moveKey == nullptr) {
      std::memcpy(other.key_, key_, sizeof(key_));
    } else {
      kind_->moveKey(*this, other);
    }
    other.notifiee_ = std::move(notifiee_);
    other.kind_ = kind_;
    other.hash_ = hash_;
  }

  Ptr<NotifieeBase> notifiee_;
  const Kind* kind_ = nullptr;
  alignas(void*) std::byte handler_[2 * sizeof(void*)]{};
  alignas(void*) std::byte key_[kKeyRoom]{};
  U32 hash_ = 0;
  U32 older_ = 0;  // the number of the one before it with such a hash
};

// The notifications that wait: a ring, in which one that waits already is found by its hash.
//
// Each has a number, one more than that of the one before it. A bucket keeps the number of the
// youngest of its hash, and each entry that of the one before it; numbers of those that are gone
// are left where they are, and known by being out of range.
class PendingQueue {
 public:
  PendingQueue() = default;
  PendingQueue(const PendingQueue&) = delete;
  PendingQueue& operator=(const PendingQueue&) = delete;
  ~PendingQueue();

  bool empty() const { return count_ == 0; }
  std::size_t size() const { return count_; }

  // Puts a call at the end, unless the same one waits. Throws std::bad_alloc.
  template <class N>
  void push(N& notifiee, void (N::*handler)()) {
    const U32 hash = hashOf(notifiee, handlerSlot(handler), 0);
    if (waits(notifiee, handler, hash, [](Pending&) { return true; })) return;
    Pending& pending = place();
    pending.fill(notifiee, handler, hash, Pending::Plain<N>::kind);
    commit(pending);
  }
  template <class N, class K>
  void push(N& notifiee, void (N::*handler)(KeyArgument<K>), const K& key) {
    using Keyed = Pending::Keyed<N, K>;
    const U32 hash = hashOf(notifiee, handlerSlot(handler), kivOrder(key));
    if (waits(notifiee, handler, hash, [&](Pending& p) { return Keyed::key(p) == key; })) return;
    Pending& pending = place();
    Keyed::keyIs(pending, key);
    pending.fill(notifiee, handler, hash, Keyed::kind);
    commit(pending);
  }

  // The first, taken out; stays as it is until it is released. REQUIRES: not empty, and what was
  // taken before is released.
  [[nodiscard]] Pending& take() {
    Pending& taken = at(first_);
    ++first_;
    --count_;
    return taken;
  }
  // Lets go of what a taken one holds.
  void release(Pending& taken) {
    taken.clear();
    if (outgrown_ != nullptr) outgrown_.reset();
  }
  // Gives back the memory that a burst has left. REQUIRES: empty.
  void shrink() {
    if (log2_ > kLog2ToKeep) freeRing();
  }

 private:
  static constexpr U32 kLog2AtFirst = 6;
  static constexpr U32 kLog2ToKeep = 10;

  static U32 hashOf(const NotifieeBase& notifiee, std::uintptr_t slot, U32 keyOrder) {
    U64 mixed = reinterpret_cast<std::uintptr_t>(&notifiee) ^ (slot << 32) ^ keyOrder;
    mixed *= 0x9e3779b97f4a7c15U;
    return static_cast<U32>(mixed >> 32);
  }
  Pending& at(U32 number) const { return ring_[number & ((U32{1} << log2_) - 1)]; }
  U32& youngest(U32 hash) const { return youngest_[hash >> (32 - log2_)]; }

  // Whether one waits for this notifiee and handler of which `same(pending)` holds.
  template <class Handler, class Same>
  bool waits(const NotifieeBase& notifiee, Handler handler, U32 hash, Same same) const {
    // Each step goes to an older one, whatever a number that was left behind says.
    U32 younger = count_;
    for (U32 number = count_ == 0 ? 0 : youngest(hash); number - first_ < younger;) {
      Pending& p = at(number);
      if (p.hash_ == hash && p.notifiee_.get() == &notifiee &&
          handlerSlot(p.template handler<Handler>()) == handlerSlot(handler) && same(p)) {
        return true;
      }
      younger = number - first_;
      number = p.older_;
    }
    return false;
  }

  // The place that comes next at the end, still empty. Throws std::bad_alloc.
  Pending& place() {
    // One place is left to what was taken, and is being delivered.
    if (log2_ == 0 || count_ + 1 == U32{1} << log2_) grow();
    return at(first_ + count_);
  }
  void commit(Pending& pending) {
    U32& newest = youngest(pending.hash_);
    pending.older_ = newest;
    newest = first_ + count_;
    ++count_;
  }

  void grow();
  void freeRing();

  // A ring that was outgrown while what had been taken from it was being delivered.
  struct Outgrown {
    std::unique_ptr<Pending[]> ring;
    std::unique_ptr<Outgrown> before;
  };

  std::unique_ptr<Pending[]> ring_;  // those that wait, by number
  std::unique_ptr<U32[]> youngest_;  // by hash
  std::unique_ptr<Outgrown> outgrown_;
  U32 log2_ = 0;   // of the size of both; 0 where there are none
  U32 first_ = 0;  // the number of the first that waits
  U32 count_ = 0;
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
