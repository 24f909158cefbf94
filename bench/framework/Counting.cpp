#include "bench/framework/Counting.h"

namespace bench {
namespace {

class CountingNotifiee final : public Subject::NotifieeConst {
 public:
  void onKey(Kiv::U32 key) override { sum_ += key; }
  void onKeykivImmediate() override { ++sum_; }
  std::uint64_t sum() const override { return sum_; }

 private:
  std::uint64_t sum_ = 0;
};

class CountingObserver final : public Observer {
 public:
  void onKey(std::uint32_t key) override { sum_ += key; }
  void onChange() override { ++sum_; }

 private:
  std::uint64_t sum_ = 0;
};

}  // namespace

Kiv::Ptr<Subject::NotifieeConst> observe(const Kiv::Ptr<Subject>& subject) {
  auto notifiee = Kiv::make<CountingNotifiee>();
  notifiee->notifierIs(subject);
  notifiee->isRegisteredNotifieeIs(true);
  notifiee->hasNotificationActiveIs(true);
  return notifiee;
}

std::unique_ptr<Observer> makeObserver() {
  return std::make_unique<CountingObserver>();
}

}  // namespace bench
