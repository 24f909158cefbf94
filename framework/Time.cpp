#include "framework/Time.h"

#include <chrono>

namespace [[gnu::visibility("default")]] Kiv {
namespace {

const SteadyTime steadyTime;
constinit const TimeSource* installed = nullptr;
constinit bool isFrozen = false;
constinit Seconds frozenAt = 0;

Seconds sourceTime() {
  return installed == nullptr ? steadyTime.now() : installed->now();
}

}  // namespace

Seconds SteadyTime::now() const {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

Seconds System::currentTime() {
  return isFrozen ? frozenAt : sourceTime();
}

void System::timeSourceIs(const TimeSource* source) {
  installed = source;
}

void System::frozenIs(bool frozen) {
  if (frozen) frozenAt = sourceTime();
  isFrozen = frozen;
}

}  // namespace Kiv
