#include "framework/detail/PendingQueue.h"

#include <bit>
#include <utility>

namespace [[gnu::visibility("default")]] Kiv {
namespace detail {

PendingQueue::~PendingQueue() {
  NotifieeBase* held = nullptr;
  for (; !empty(); ++first_) {
    const Pending& first = at(first_);
    if (first.callee.kind().drop != nullptr) first.callee.kind().drop(first.key);
    if (held != nullptr && held != first.notifiee) held->referencesDec();
    held = first.notifiee;
  }
  if (held != nullptr) held->referencesDec();
}

bool PendingQueue::add(NotifieeBase& notifiee, Callee callee, U64 key, U32 keyHash) {
  if (end_ == limit_) [[unlikely]]
    return addAtLimit(notifiee, callee, key, keyHash);
  U32& newest = youngest(notifiee, callee, keyHash);
  if (static_cast<std::int32_t>(newest - first_) >= 0) [[unlikely]] {
    return addUnlessWaiting(notifiee, callee, key, keyHash);
  }
  // There is no older one, which is what older() says already: the number there was left behind.
  return append(newest, notifiee, callee, key);
}

bool PendingQueue::addUnlessWaiting(NotifieeBase& notifiee, Callee callee, U64 key, U32 keyHash) {
  U32& newest = youngest(notifiee, callee, keyHash);
  // Each step goes to an older one, whatever a number that was left behind says.
  U32 younger = end_ - first_;
  for (U32 number = newest; number - first_ < younger;) {
    const Pending& p = at(number);
    if (p.notifiee == &notifiee && p.callee == callee) {
      const auto same = callee.kind().same;
      if (p.key == key || (same != nullptr && same(p.key, key))) return false;
    }
    younger = number - first_;
    number = older(number);
  }
  older(end_) = newest;
  return append(newest, notifiee, callee, key);
}

bool PendingQueue::addAtLimit(NotifieeBase& notifiee, Callee callee, U64 key, U32 keyHash) {
  if (ring_ == nullptr || size() > mask_) grow();
  limit_ = first_ + mask_ + 1;
  return add(notifiee, callee, key, keyHash);
}

inline bool PendingQueue::append(U32& newest, NotifieeBase& notifiee, Callee callee, U64 key) {
  const U32 number = end_++;
  newest = number;
  Pending& p = at(number);
  p.notifiee = &notifiee;
  p.key = key;
  if (last_ != &notifiee) [[unlikely]] {
    last_ = &notifiee;
    notifiee.referencesInc();
  }
  p.callee = callee;
  return true;
}

// Doubles the ring.
void PendingQueue::grow() {
  const U32 size = ring_ == nullptr ? kSizeAtFirst : 2 * (mask_ + 1);
  auto ring = std::make_unique<Pending[]>(size);
  auto older = std::make_unique<U32[]>(size);
  youngest_ = std::make_unique<U32[]>(std::size_t{2} * size);
  shift_ = 64 - static_cast<U32>(std::bit_width(size));
  for (U32 number = first_; number != end_; ++number) {
    const Pending& p = at(number);
    const auto hash = p.callee.kind().hash;
    const U32 keyHash = hash == nullptr ? static_cast<U32>(p.key) : hash(p.key);
    older[number & (size - 1)] = std::exchange(youngest(*p.notifiee, p.callee, keyHash), number);
    ring[number & (size - 1)] = p;
  }
  ring_ = std::move(ring);
  older_ = std::move(older);
  mask_ = size - 1;
}

void PendingQueue::freeRing() {
  ring_ = nullptr;
  older_ = nullptr;
  youngest_ = nullptr;
  mask_ = 0;
  limit_ = end_;
}

}  // namespace detail
}  // namespace Kiv
