#include "framework/Clock.h"

#include "framework/Activity.h"

namespace [[gnu::visibility("default")]] Kiv {

Clock::NotifieeConst::~NotifieeConst() {
  if (armed()) notifier()->disarm(*this);
}

void Clock::NotifieeConst::timeMinIs(Seconds time) {
  const bool arms = time < kNever && notifier() != nullptr;
  if (arms && !armed()) notifier()->reserveOne();
  if (armed()) notifier()->disarm(*this);
  index_ = kIdle;
  timeMin_ = time;
  if (arms) notifier()->arm(*this);
}

void Clock::NotifieeConst::deliverExpiry() {
  if (index_ != kExpired) return;
  index_ = kIdle;
  onTime();
}

void Clock::NotifieeConst::notifierIs(const Ptr<const PtrInterface>& entity) {
  const Ptr<const Clock> old(notifier());
  Notifiee::notifierIs(entity);  // throws for what is no clock; nothing has changed then
  if (!armed()) return;
  old->disarm(*this);
  if (notifier() != nullptr) notifier()->arm(*this);
}

bool Clock::before(const NotifieeConst& a, const NotifieeConst& b) {
  return a.timeMin_ < b.timeMin_ || (a.timeMin_ == b.timeMin_ && a.sequence_ < b.sequence_);
}

void Clock::put(std::size_t index, NotifieeConst* timer) const {
  armed_[index] = timer;
  timer->index_ = index;
}

void Clock::reserveOne() const {
  if (armed_.size() == armed_.capacity()) armed_.reserve(2 * armed_.size() + 1);
}

void Clock::arm(NotifieeConst& timer) const {
  armed_.push_back(&timer);
  timer.sequence_ = ++sequence_;
  timer.index_ = armed_.size() - 1;
  siftUp(timer.index_);
}

void Clock::disarm(NotifieeConst& timer) const {
  const std::size_t index = timer.index_;
  timer.index_ = NotifieeConst::kIdle;
  NotifieeConst* last = armed_.back();
  armed_.pop_back();
  if (last == &timer) return;
  put(index, last);
  siftUp(index);
  siftDown(last->index_);
}

void Clock::siftUp(std::size_t index) const {
  NotifieeConst* timer = armed_[index];
  while (index > 0) {
    const std::size_t parent = (index - 1) / 2;
    if (!before(*timer, *armed_[parent])) break;
    put(index, armed_[parent]);
    index = parent;
  }
  put(index, timer);
}

void Clock::siftDown(std::size_t index) const {
  NotifieeConst* timer = armed_[index];
  for (std::size_t child = 2 * index + 1; child < armed_.size(); child = 2 * index + 1) {
    if (child + 1 < armed_.size() && before(*armed_[child + 1], *armed_[child])) ++child;
    if (!before(*armed_[child], *timer)) break;
    put(index, armed_[child]);
    index = child;
  }
  put(index, timer);
}

bool Clock::fireNext(Seconds now) const {
  if (armed_.empty() || armed_.front()->timeMin_ > now) return false;
  NotifieeConst& timer = *armed_.front();
  ActivityManager::instance().queue(timer, &NotifieeConst::deliverExpiry);
  disarm(timer);
  timer.index_ = NotifieeConst::kExpired;
  return true;
}

}  // namespace Kiv
