#include "framework/FeatureToggle.h"

namespace [[gnu::visibility("default")]] Kiv {
namespace {

ToggleProvider& provider() {
  static ToggleProvider installed;
  return installed;
}

}  // namespace

void toggleProviderIs(ToggleProvider newProvider) {
  provider() = std::move(newProvider);
}

U32 getToggleState(std::string_view name, bool byDefault) {
  if (const ToggleProvider& answer = provider()) return answer(name, byDefault);
  return byDefault ? kToggleOn : 0;
}

}  // namespace Kiv
