#include "framework/Activity.h"

#include <cstdlib>
#include <utility>

#include "framework/Assert.h"

namespace [[gnu::visibility("default")]] Kiv {
namespace {

constinit ActivityManager* theInstance = nullptr;

}  // namespace

namespace detail {

PendingQueue::~PendingQueue() {
  while (!empty()) release(take());
  while (first_ != nullptr) delete std::exchange(first_, first_->next);
  delete spare_;
  freeBuckets();
}

Pending& PendingQueue::take() {
  if (firstAt_ == kBlockSize) {
    delete std::exchange(spare_, std::exchange(first_, first_->next));
    firstAt_ = 0;
  }
  Pending& taken = first_->pending[firstAt_++];
  --count_;
  if (log2_ != 0) {
    Pending** at = &buckets_[bucket(taken.hash_)];
    while (*at != &taken) at = &(*at)->nextInBucket_;
    *at = taken.nextInBucket_;
  }
  return taken;
}

void PendingQueue::addBlock() {
  Block* block = spare_ != nullptr ? std::exchange(spare_, nullptr) : new Block;
  block->next = nullptr;
  (last_ == nullptr ? first_ : last_->next) = block;
  last_ = block;
  lastAt_ = 0;
}

// Doubles the buckets, and hangs all that wait anew. Where they cannot be had, chains are longer;
// without any, nothing waits for sure, and a notification may come twice, which handlers bear.
void PendingQueue::grow() {
  const U32 log2 = log2_ == 0 ? 6 : log2_ + 1;
  auto** buckets = static_cast<Pending**>(std::calloc(std::size_t{1} << log2, sizeof(Pending*)));
  if (buckets == nullptr) {
    if (log2_ != 0) hang(last_->pending[lastAt_ - 1]);
    return;
  }
  freeBuckets();
  buckets_ = buckets;
  log2_ = log2;
  U32 at = firstAt_;
  for (Block* block = first_; block != nullptr; block = block->next, at = 0) {
    const U32 end = block == last_ ? lastAt_ : kBlockSize;
    for (; at < end; ++at) hang(block->pending[at]);
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
}

void ActivityManager::runTimers() {
  while (fireNextTimer()) run();
}

}  // namespace Kiv
