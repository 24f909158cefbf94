#include "framework/detail/PackedHandler.h"

#include "framework/Assert.h"

#if !KIV_PORTABLE_HANDLERS

namespace [[gnu::visibility("default")]] Kiv {
namespace detail {

void PackedHandler::failAddress() {
  assertionFailed("address <= kAddress", "PackedHandler", "PackedHandler");
}

}  // namespace detail
}  // namespace Kiv

#endif
