#include "framework/Trace.h"

#include <new>

namespace [[gnu::visibility("default")]] Kiv {

constinit TraceHandle detail::defaultTraceHandle;

TraceHelper* TraceHelper::create(const TraceHandle& handle, int level, Storage& storage) {
  static_assert(sizeof(TraceHelper) <= sizeof(Storage) && alignof(TraceHelper) <= alignof(Storage));
  return new (storage.bytes) TraceHelper(handle, level);
}

void TraceHelper::trace(std::string_view file, int line, std::string_view function) {
  handle_.write({level_, file, line, function, stream_.view()});
}

}  // namespace Kiv
