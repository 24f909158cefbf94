#include "framework/Time.h"

#include <chrono>

namespace [[gnu::visibility("default")]] Kiv {
namespace {

const SteadyTime steadyTime;
constinit const TimeSource* installed = nullptr;
constinit bool still = false;
constinit Seconds stillAt = 0;

Seconds sourceTime() {
  return installed == nullptr ? steadyTime.now() : installed->now();
}

}  // namespace

Seconds SteadyTime::now() const {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

Seconds System::currentTime() {
  return still ? stillAt : sourceTime();
}

void System::timeSourceIs(const TimeSource* source) {
  installed = source;
}

void System::standsStillIs(bool standsStill) {
  if (standsStill) stillAt = sourceTime();
  still = standsStill;
}

}  // namespace Kiv
