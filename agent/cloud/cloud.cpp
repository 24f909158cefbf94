#include "agent/cloud/cloud.h"

#include <utility>
#include <variant>

#include "OpenStackSm/OpenStackSm.h"
#include "agent/cloud/applier.h"
#include "agent/cloud/output_reading.h"
#include "framework/FeatureToggle.h"

namespace vnagent {
namespace {

constexpr std::string_view kToggle = "VirtualNetworkAgentToggle";

// Makes this program the provider of the toggle. To be called before the first machine is made.
void installToggle(bool on) {
  Kiv::toggleProviderIs([on](std::string_view name, bool byDefault) {
    const bool answer = name == kToggle ? on : byDefault;
    return Kiv::kToggleKnown | (answer ? Kiv::kToggleOn : 0U);
  });
}

}  // namespace

Cloud::Cloud(const CloudSettings& settings, const Kiv::TimeSource& clock)
    : config_(Kiv::make<OpenStack::Config>()),
      openstackConfig_(Kiv::make<OpenStack::OpenStackConfig>()),
      status_(Kiv::make<OpenStack::OpenStackStatus>()),
      nameResolutionConfig_(Kiv::make<OpenStack::NameResolution::Config>()),
      nameResolutionStatus_(Kiv::make<OpenStack::NameResolution::Status>()),
      resources_(Kiv::make<VirtualNetwork::RequestedResourcesCollection>()),
      elements_(Kiv::make<VirtualNetwork::NetworkElementCollection>()) {
  Kiv::System::timeSourceIs(&clock);
  installToggle(settings.toggle);
  root_ = OpenStack::openStackSmFactory(openstackConfig_, status_, nameResolutionConfig_,
                                        nameResolutionStatus_, resources_,
                                        settings.regionSyncTimeout, config_, elements_);
  if (settings.watched) watch_.emplace(status_, resources_, elements_);
}

Cloud::~Cloud() {
  watch_.reset();
  root_ = nullptr;
  // Elements refer to each other, a switch that is its own host to itself; that would keep them.
  for (const auto& element : elements_->networkElement()) element->physicalInterfaceDelAll();
  Kiv::toggleProviderIs({});
  Kiv::System::timeSourceIs(nullptr);
}

void Cloud::apply(const Plan& plan) {
  Applier applier(*config_, *openstackConfig_, *root_);
  for (const auto& step : plan.steps) {
    for (const Operation& operation : step) std::visit(applier, operation);
    applier.forget();
    loop_.run();
  }
}

bool Cloud::fireNextTimer() {
  if (!loop_.fireNextTimer()) return false;
  loop_.run();
  return true;
}

void Cloud::regionSyncTimeoutIs(double seconds) {
  root_->regionSyncTimeoutIs(seconds);
  loop_.run();
}

OutputDocument Cloud::output() const {
  return readOutput(*status_, *resources_, *elements_);
}

OutputPart Cloud::outputAt(std::span<const std::string> place) const {
  return readOutputAt(*status_, *resources_, *elements_, place);
}

const Kiv::PtrInterface& Cloud::root() const {
  return *root_;
}

}  // namespace vnagent
