#include "framework/Activity.h"

#include "framework/Assert.h"

namespace [[gnu::visibility("default")]] Kiv {
namespace {

constinit ActivityManager* theInstance = nullptr;

}  // namespace

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
  if (running_ || idle()) return;
  struct Turn {
    explicit Turn(ActivityManager& loop) : loop_(loop) {
      loop_.running_ = true;
      System::frozenIs(true);
    }
    ~Turn() {
      System::frozenIs(false);
      loop_.running_ = false;
      loop_.taken_ = loop_.taken();
      loop_.counted_ = loop_.queue_.first();
    }
    ActivityManager& loop_;
  };
  const Turn turn(*this);
  queue_.deliverAll();
  queue_.shrink();
}

ActivityFigures ActivityManager::figures() const {
  const U64 delivered = taken() - queue_.skipped();
  return {taken() + queue_.size(), delivered, queue_.skipped(), queue_.coalesced()};
}

void ActivityManager::runTimers() {
  while (fireNextTimer()) run();
}

}  // namespace Kiv
