#include "framework/detail/PendingQueue.h"

#include <bit>
#include <utility>

namespace [[gnu::visibility("default")]] Kiv {
namespace detail {

PendingQueue::~PendingQueue() {
  NotifieeBase* held = nullptr;
  for (; !empty(); ++first_) {
    const Pending& first = at(first_);
    drop(first.handler, first.key);
    if (held != nullptr && held != first.notifiee) held->referencesDec();
    held = first.notifiee;
  }
  if (held != nullptr) held->referencesDec();
}

U32& PendingQueue::newest(const Pending& entry) const {
  const auto hash = entry.handler.kind().hash;
  const U32 keyHash = hash == nullptr ? static_cast<U32>(entry.key) : hash(entry.key);
  return newest(*entry.notifiee, entry.handler, keyHash);
}

bool PendingQueue::add(NotifieeBase& notifiee, PackedHandler handler, U64 key, U32 keyHash) {
  if (end_ == limit_) [[unlikely]]
    return addAtLimit(notifiee, handler, key, keyHash);
  U32& bucket = newest(notifiee, handler, keyHash);
  if (static_cast<std::int32_t>(bucket - first_) >= 0) [[unlikely]] {
    return addUnlessPending(notifiee, handler, key, keyHash);
  }
  // The chain is empty. The number that previous() has for the new entry is dangling.
  return append(bucket, notifiee, handler, key);
}

bool PendingQueue::addUnlessPending(NotifieeBase& notifiee, PackedHandler handler, U64 key,
                                    U32 keyHash) {
  U32& bucket = newest(notifiee, handler, keyHash);
  // Each step goes to a smaller number, whatever a dangling one says.
  U32 bound = end_ - first_;
  for (U32 number = bucket; number - first_ < bound;) {
    const Pending& p = at(number);
    if (p.notifiee == &notifiee && p.handler == handler) {
      const auto same = handler.kind().same;
      if (p.key == key || (same != nullptr && same(p.key, key))) {
        ++coalesced_;
        return false;
      }
    }
    bound = number - first_;
    number = previous(number);
  }
  previous(end_) = bucket;
  return append(bucket, notifiee, handler, key);
}

bool PendingQueue::addAtLimit(NotifieeBase& notifiee, PackedHandler handler, U64 key, U32 keyHash) {
  if (ring_ == nullptr || size() > mask_) grow();
  limit_ = first_ + mask_ + 1;
  return add(notifiee, handler, key, keyHash);
}

inline bool PendingQueue::append(U32& newest, NotifieeBase& notifiee, PackedHandler handler,
                                 U64 key) {
  const U32 number = end_++;
  newest = number;
  Pending& p = at(number);
  p.notifiee = &notifiee;
  p.key = key;
  if (last_ != &notifiee) [[unlikely]] {
    last_ = &notifiee;
    notifiee.referencesInc();
  }
  p.handler = handler;
  return true;
}

void PendingQueue::removeSince(U32 end) noexcept {
  while (end_ != end && !empty()) {
    const Pending& p = at(--end_);
    newest(p) = std::exchange(previous(end_), first_ - 1);
    drop(p.handler, p.key);
    last_ = empty() ? nullptr : at(end_ - 1).notifiee;
    if (last_ != p.notifiee) p.notifiee->referencesDec();
  }
}

// Doubles the ring. Throws std::bad_alloc; nothing has changed then.
void PendingQueue::grow() {
  const U32 size = ring_ == nullptr ? kInitialSize : 2 * (mask_ + 1);
  auto ring = std::make_unique<Pending[]>(size);
  auto previous = std::make_unique<U32[]>(size);
  newest_ = std::make_unique<U32[]>(std::size_t{2} * size);
  shift_ = 64 - static_cast<U32>(std::bit_width(size));
  for (U32 number = first_; number != end_; ++number) {
    const Pending& p = at(number);
    previous[number & (size - 1)] = std::exchange(newest(p), number);
    ring[number & (size - 1)] = p;
  }
  ring_ = std::move(ring);
  previous_ = std::move(previous);
  mask_ = size - 1;
}

void PendingQueue::freeRing() {
  ring_ = nullptr;
  previous_ = nullptr;
  newest_ = nullptr;
  mask_ = 0;
  limit_ = end_;
}

}  // namespace detail
}  // namespace Kiv
