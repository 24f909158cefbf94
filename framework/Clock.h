// The clock, and the timers that observe it.
//
// A reactor that derives from Clock::NotifieeConst is armed with timeMinIs(), the absolute time of
// its next wake-up, and gets onTime() from the activity loop once that time is reached: once for
// each arming, and not when it was disarmed or armed anew before the call. +infinity disarms.
//
// A timer is idle, armed (in the clock's heap of timers), or expired (its call is pending in the
// activity loop). Arming, disarming and expiring cost logarithmic time in the number of armed
// timers. Activity thread only.
#pragma once

#include <limits>
#include <vector>

#include "framework/Entity.h"
#include "framework/Time.h"

namespace [[gnu::visibility("default")]] Kiv {

// The clock of the activity manager; see above.
class Clock final : public Entity<Clock> {
 public:
  static constexpr std::string_view kTypeName = "Kiv::Clock";
  // The time of a timer that is not armed.
  static constexpr Seconds kNever = std::numeric_limits<Seconds>::infinity();

  class NotifieeConst : public Notifiee<Clock> {
   public:
    // The time of timeMin() is reached.
    virtual void onTime() {}

    // Arms the timer for this time, in place of any earlier time, also of one that has expired
    // and whose call is pending. Without a clock it only stores the time. Throws std::bad_alloc;
    // the timer is as it was then.
    void timeMinIs(Seconds time);
    // The time that was last set; it stays after the timer has fired.
    Seconds timeMin() const { return timeMin_; }
    // Whether the timer waits for that time: it is set, and neither reached nor infinite.
    bool armed() const { return index_ < kExpired; }

    void notifierIs(const Ptr<const PtrInterface>& entity) override;

   protected:
    ~NotifieeConst() override;

   private:
    friend class Clock;
    static constexpr std::size_t kIdle = ~std::size_t{0};
    static constexpr std::size_t kExpired = kIdle - 1;

    // Calls onTime(), unless the timer was armed or disarmed since it expired. This is what is
    // queued in the activity loop.
    virtual void deliverExpiry() final;

    Seconds timeMin_ = kNever;
    U64 sequence_ = 0;           // equal times fire in the order of their arming
    std::size_t index_ = kIdle;  // in the clock's heap; or one of the constants above
  };

  // The time of the earliest armed timer; kNever when there is none.
  Seconds nextTime() const { return armed_.empty() ? kNever : armed_.front()->timeMin_; }

  // Queues onTime() of the earliest timer and disarms it, when its time is not after `now`; returns
  // false when there is no such timer. Throws std::bad_alloc; the timer is still armed then.
  bool fireNext(Seconds now) const;

 private:
  static bool before(const NotifieeConst& a, const NotifieeConst& b);
  // Reserves memory for one more armed timer.
  void reserveOne() const;
  void arm(NotifieeConst& timer) const;
  void disarm(NotifieeConst& timer) const;
  void siftUp(std::size_t index) const;
  void siftDown(std::size_t index) const;
  void put(std::size_t index, NotifieeConst* timer) const;

  // A binary heap of the armed timers. Observing does not change the clock, hence mutable.
  mutable std::vector<NotifieeConst*> armed_;
  mutable U64 sequence_ = 0;
};

}  // namespace Kiv
