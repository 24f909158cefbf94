#include "framework/Clock.h"

#include "framework/Activity.h"

namespace [[gnu::visibility("default")]] Kiv {

Clock::NotifieeConst::~NotifieeConst() {
  if (place_ != kNotArmed) notifier()->disarm(*this);
}

void Clock::NotifieeConst::timeMinIs(Seconds time) {
  if (place_ != kNotArmed) notifier()->disarm(*this);
  timeMin_ = time;
  if (time < kNever && notifier() != nullptr) notifier()->arm(*this);
}

void Clock::NotifieeConst::notifierIs(const Ptr<const PtrInterface>& entity) {
  const Ptr<const Clock> old(notifier());
  Notifiee::notifierIs(entity);  // throws for what is no clock; nothing has changed then
  if (place_ == kNotArmed) return;
  old->disarm(*this);
  if (notifier() != nullptr) notifier()->arm(*this);
}

bool Clock::before(const NotifieeConst& a, const NotifieeConst& b) {
  return a.timeMin_ < b.timeMin_ || (a.timeMin_ == b.timeMin_ && a.sequence_ < b.sequence_);
}

void Clock::put(std::size_t place, NotifieeConst* timer) const {
  armed_[place] = timer;
  timer->place_ = place;
}

void Clock::arm(NotifieeConst& timer) const {
  armed_.push_back(&timer);
  timer.sequence_ = ++sequence_;
  timer.place_ = armed_.size() - 1;
  rise(timer.place_);
}

void Clock::disarm(NotifieeConst& timer) const {
  const std::size_t place = timer.place_;
  timer.place_ = NotifieeConst::kNotArmed;
  NotifieeConst* last = armed_.back();
  armed_.pop_back();
  if (last == &timer) return;
  put(place, last);
  rise(place);
  sink(last->place_);
}

void Clock::rise(std::size_t place) const {
  NotifieeConst* timer = armed_[place];
  while (place > 0) {
    const std::size_t parent = (place - 1) / 2;
    if (!before(*timer, *armed_[parent])) break;
    put(place, armed_[parent]);
    place = parent;
  }
  put(place, timer);
}

void Clock::sink(std::size_t place) const {
  NotifieeConst* timer = armed_[place];
  for (std::size_t child = 2 * place + 1; child < armed_.size(); child = 2 * place + 1) {
    if (child + 1 < armed_.size() && before(*armed_[child + 1], *armed_[child])) ++child;
    if (!before(*armed_[child], *timer)) break;
    put(place, armed_[child]);
    place = child;
  }
  put(place, timer);
}

bool Clock::fireNext(Seconds now) const {
  if (armed_.empty() || armed_.front()->timeMin_ > now) return false;
  NotifieeConst& timer = *armed_.front();
  disarm(timer);
  ActivityManager::instance().queue(timer, &NotifieeConst::onTime);
  return true;
}

}  // namespace Kiv
