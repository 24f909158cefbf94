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
    explicit Turn(bool& running) : running_(running) {
      running_ = true;
      System::frozenIs(true);
    }
    ~Turn() {
      System::frozenIs(false);
      running_ = false;
    }
    bool& running_;
  };
  const Turn turn(running_);
  queue_.deliverAll();
  queue_.shrink();
}

void ActivityManager::runTimers() {
  while (fireNextTimer()) run();
}

}  // namespace Kiv
