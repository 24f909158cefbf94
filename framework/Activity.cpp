#include "framework/Activity.h"

#include <cstdlib>
#include <memory>
#include <new>

#include "framework/Assert.h"

namespace [[gnu::visibility("default")]] Kiv {
namespace {

constinit ActivityManager* theInstance = nullptr;

}  // namespace

namespace detail {

PendingQueue::~PendingQueue() {
  while (!empty()) delete pop();
  freeBuckets();
}

void PendingQueue::push(Pending* pending) {
  if (count_ >= (log2_ == 0 ? 0 : std::size_t{1} << log2_)) grow();
  if (log2_ != 0) {
    Pending*& bucketHead = buckets_[bucket(pending->hash_)];
    pending->nextInBucket_ = bucketHead;
    bucketHead = pending;
  }
  (first_ == nullptr ? first_ : last_->nextInQueue_) = pending;
  last_ = pending;
  ++count_;
}

Pending* PendingQueue::pop() {
  Pending* popped = first_;
  first_ = popped->nextInQueue_;
  if (first_ == nullptr) last_ = nullptr;
  --count_;
  if (log2_ != 0) {
    Pending** at = &buckets_[bucket(popped->hash_)];
    while (*at != popped) at = &(*at)->nextInBucket_;
    *at = popped->nextInBucket_;
  }
  return popped;
}

// Doubles the buckets. Where they cannot be had, chains are longer; without any, nothing waits for
// sure, and a notification may come twice, which handlers bear.
void PendingQueue::grow() {
  const U32 log2 = log2_ == 0 ? 6 : log2_ + 1;
  auto** buckets = static_cast<Pending**>(std::calloc(std::size_t{1} << log2, sizeof(Pending*)));
  if (buckets == nullptr) return;
  freeBuckets();
  buckets_ = buckets;
  log2_ = log2;
  for (Pending* p = first_; p != nullptr; p = p->nextInQueue_) {
    Pending*& bucketHead = buckets_[bucket(p->hash_)];
    p->nextInBucket_ = bucketHead;
    bucketHead = p;
  }
}

void PendingQueue::freeBuckets() {
  std::free(buckets_);
  buckets_ = nullptr;
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
  const Turn turn(running_);
  while (!queue_.empty()) {
    const std::unique_ptr<detail::Pending> pending(queue_.pop());
    if (pending->notifiee().listens()) pending->deliver();
  }
}

void ActivityManager::runTimers() {
  while (fireNextTimer()) run();
}

}  // namespace Kiv
