// The clock, and the timers that observe it.
//
// A reactor that derives from Clock::NotifieeConst is armed with timeMinIs(), the absolute time of
// its next wake-up, and gets onTime() from the activity loop once that time is reached; once for
// each arming. +infinity disarms. Activity thread only.
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

    // Arms the timer for this time, instead of any before. Logarithmic in the number of timers.
    void timeMinIs(Seconds time);
    // The time that was last set; it stays as it was set after the timer has fired.
    Seconds timeMin() const { return timeMin_; }

    void notifierIs(const Ptr<const PtrInterface>& entity) override;

   protected:
    ~NotifieeConst() override;

   private:
    friend class Clock;
    static constexpr std::size_t kNotArmed = ~std::size_t{0};
    Seconds timeMin_ = kNever;
    U64 sequence_ = 0;               // equal times fire in the order of their arming
    std::size_t place_ = kNotArmed;  // in the clock's heap
  };

  // The time of the earliest armed timer; kNever when there is none.
  Seconds nextTime() const { return armed_.empty() ? kNever : armed_.front()->timeMin_; }

  // Queues onTime() of the earliest timer and disarms it, when its time is not after `now`; returns
  // false when there is no such timer.
  bool fireNext(Seconds now) const;

 private:
  static bool before(const NotifieeConst& a, const NotifieeConst& b);
  void arm(NotifieeConst& timer) const;
  void disarm(NotifieeConst& timer) const;
  void rise(std::size_t place) const;
  void sink(std::size_t place) const;
  void put(std::size_t place, NotifieeConst* timer) const;

  // A binary heap of the armed timers. Observing does not change the clock, hence mutable.
  mutable std::vector<NotifieeConst*> armed_;
  mutable U64 sequence_ = 0;
};

}  // namespace Kiv
