#include "framework/detail/Cursor.h"

#include <utility>

namespace [[gnu::visibility("default")]] Kiv {
namespace detail {

thread_local constinit Cursor* Cursor::innermost_ = nullptr;

Cursor& Cursor::operator=(const Cursor& other) {
  if (this == &other) return *this;
  if (object_ != nullptr) advance(nullptr);
  begin(other.sequence_, other.object_);
  stale_ = other.stale_;
  if (other.pinned_) pin();
  return *this;
}

void Cursor::unlink() {
  Cursor* inner = innermost_;
  while (inner->outer_ != this) inner = inner->outer_;
  inner->outer_ = outer_;
}

void Cursor::invalidateAll(const void* sequence) {
  forEachIn(sequence, [](Cursor& cursor) { cursor.stale_ = true; });
}

void Cursor::removeFromAll(const void* sequence, const PtrInterface& object) {
  forEachIn(sequence, [&](Cursor& cursor) {
    cursor.stale_ = true;
    if (cursor.object_ == &object) cursor.pin();
  });
}

void Cursor::pinAll(const PtrInterface& object) {
  for (Cursor* cursor = innermost_; cursor != nullptr; cursor = cursor->outer_) {
    if (cursor->object_ != &object) continue;
    cursor->stale_ = true;
    cursor->pin();
  }
}

void Cursor::pin() {
  if (pinned_) return;
  object_->referencesInc();
  pinned_ = true;
}

void Cursor::release(const PtrInterface& before) {
  stale_ = false;
  if (std::exchange(pinned_, false)) before.referencesDec();
}

}  // namespace detail
}  // namespace Kiv
