#include "framework/Attribute.h"

namespace [[gnu::visibility("default")]] Kiv {

ChangeUnderWay*& ChangeUnderWay::innermost() {
  static constinit ChangeUnderWay* innermost = nullptr;
  return innermost;
}

}  // namespace Kiv
