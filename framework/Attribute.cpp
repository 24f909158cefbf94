#include "framework/Attribute.h"

namespace Kiv {

ChangeUnderWay*& ChangeUnderWay::innermost() {
  static constinit ChangeUnderWay* innermost = nullptr;
  return innermost;
}

}  // namespace Kiv
