#include "framework/Activity.h"

#include <cstdlib>
#include <memory>
#include <utility>

#include "framework/Assert.h"

namespace [[gnu::visibility("default")]] Kiv {
namespace {

constinit ActivityManager* theInstance = nullptr;

}  // namespace

namespace detail {

PendingQueue::~PendingQueue() {
  while (!empty()) release(take());
}

// Doubles the ring. What was taken and is being delivered stays where it is until it is released.
void PendingQueue::grow() {
  const U32 log2 = log2_ == 0 ? kLog2AtFirst : log2_ + 1;
  const U32 mask = (U32{1} << log2) - 1;
  auto youngest = std::make_unique<U32[]>(mask + 1);
  auto ring = std::make_unique<Pending[]>(mask + 1);
  auto outgrown = std::make_unique<Outgrown>();
  for (U32 number = first_; number != first_ + count_; ++number) {
    Pending& moved = ring[number & mask];
    at(number).moveTo(moved);
    moved.older_ = std::exchange(youngest[moved.hash_ >> (32 - log2)], number);
  }
  outgrown->ring = std::exchange(ring_, std::move(ring));
  outgrown->before = std::move(outgrown_);
  outgrown_ = std::move(outgrown);
  youngest_ = std::move(youngest);
  log2_ = log2;
}

void PendingQueue::freeRing() {
  ring_ = nullptr;
  youngest_ = nullptr;
  log2_ = 0;
}

}  // namespace detail

ActivityManager::ActivityManager() : clock_(make<Clock>()) {
  KIV_ASSERT(theInstance == nullptr, "Activity", "ActivityManager");
  theInstance = this;
}

ActivityManager::~ActivityManager() {
  theInstance = nullptr;
}

ActivityManager& ActivityManager::instance() {
  KIV_ASSERT(theInstance != nullptr, "Activity", "instance");
  return *theInstance;
}

void ActivityManager::run() {
  if (running_) return;
  struct Turn {
    explicit Turn(bool& running) : running_(running) {
      running_ = true;
      System::standsStillIs(true);
    }
    ~Turn() {
      System::standsStillIs(false);
      running_ = false;
    }
    bool& running_;
  };
  struct Taken {
    explicit Taken(detail::PendingQueue& from) : queue(from), pending(from.take()) {}
    ~Taken() { queue.release(pending); }
    detail::PendingQueue& queue;
    detail::Pending& pending;
  };
  const Turn turn(running_);
  while (!queue_.empty()) {
    const Taken taken(queue_);
    if (taken.pending.notifiee().listens()) taken.pending.deliver();
  }
  queue_.shrink();
}

void ActivityManager::runTimers() {
  while (fireNextTimer()) run();
}

}  // namespace Kiv
