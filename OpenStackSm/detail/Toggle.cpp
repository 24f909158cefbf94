#include "OpenStackSm/detail/Toggle.h"

#include "framework/FeatureToggle.h"

namespace OpenStack::detail {
namespace {

constexpr std::string_view kToggle = "VirtualNetworkAgentToggle";

Kiv::U32 toggleWord = Kiv::getToggleState(kToggle, false);

}  // namespace

bool virtualNetworkAgentToggle() {
  if ((toggleWord & Kiv::kToggleKnown) == 0) toggleWord = Kiv::getToggleState(kToggle, true);
  return (toggleWord & Kiv::kToggleOn) != 0;
}

void virtualNetworkAgentToggleForget() {
  toggleWord = Kiv::getToggleState(kToggle, false);
}

}  // namespace OpenStack::detail
