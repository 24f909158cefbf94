#include "framework/PtrInterface.h"

#include "framework/detail/Cursor.h"

namespace [[gnu::visibility("default")]] Kiv {

void PtrInterface::free() const noexcept {
  if (registered()) {
    detail::Cursor::pinAll(*this);
    if (references() != 0) return;
    // What its destructor changes is not to be queued for it.
    word_.fetch_and(~kNotificationActive, std::memory_order_relaxed);
  }
  // A destructor may take and drop a Ptr to its own object; the bias keeps that from freeing twice.
  constexpr U32 kDying = (kCountMask + 1) / 2;
  word_.fetch_add(kDying, std::memory_order_relaxed);
  const Type& type = fwkType();
  delete this;
  AllocTrackTypeInfo::trackDeallocation(type.allocations(), type.size());
}

}  // namespace Kiv
