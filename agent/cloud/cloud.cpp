#include "agent/cloud/cloud.h"

#include <stdexcept>
#include <utility>
#include <variant>

#include "OpenStackSm/OpenStackSm.h"
#include "OpenStackSm/Uuid.h"
#include "agent/cloud/applier.h"
#include "agent/cloud/output_reading.h"
#include "agent/cloud/output_restore.h"
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

// While there is one of these, no UUID is drawn from a source.
class NoUuids {
 public:
  NoUuids() : source_(OpenStack::uuidSource()) {
    OpenStack::uuidSourceIs([] { return std::string(); });
  }
  ~NoUuids() { OpenStack::uuidSourceIs(std::move(source_)); }
  NoUuids(const NoUuids&) = delete;
  NoUuids& operator=(const NoUuids&) = delete;

 private:
  OpenStack::UuidSource source_;
};

}  // namespace

Cloud::Cloud(const CloudSettings& settings, const Kiv::TimeSource& clock)
    : watched_(settings.watched),
      config_(Kiv::make<OpenStack::Config>()),
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
  startWatch();
}

void Cloud::startWatch() {
  if (watched_) watch_.emplace(status_, resources_, elements_);
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

// Restoring.

void Cloud::applyFirst(const Plan& plan) {
  watch_.reset();
  const NoUuids none;
  apply(plan);
}

void Cloud::outputIs(const JsonValue& document) {
  restoreOutput(document, *status_, *resources_, *elements_);
  loop_.run();
  startWatch();
}

Timers Cloud::timers() const {
  Timers timers;
  for (const auto& region : root_->regionConfigSm()) {
    const auto* timer = region->syncHeartbeatClock();
    if (timer != nullptr && timer->armed()) {
      timers.emplace(region->regionName().str(), timer->timeMin());
    }
  }
  return timers;
}

std::optional<double> Cloud::timerOf(std::string_view region) const {
  const auto* machine = root_->regionConfigSm()[Kiv::Name(region)];
  const auto* timer = machine == nullptr ? nullptr : machine->syncHeartbeatClock();
  if (timer == nullptr || !timer->armed()) return std::nullopt;
  return timer->timeMin();
}

void Cloud::timersIs(const Timers& timers) {
  for (const auto& region : root_->regionConfigSm()) {
    if (auto* timer = region->syncHeartbeatClock()) timer->timeMinIs(Kiv::Clock::kNever);
  }
  for (const auto& [name, time] : timers) {
    const auto* region = root_->regionConfigSm()[Kiv::Name(name)];
    auto* timer = region == nullptr ? nullptr : region->syncHeartbeatClock();
    if (timer == nullptr) throw std::runtime_error("no timer of a region \"" + name + "\"");
    timer->timeMinIs(time);
  }
}

void Cloud::restartTimers() {
  Timers restarted = timers();
  const double due = Kiv::System::currentTime() + regionSyncTimeout();
  for (auto& [name, time] : restarted) time = due;
  timersIs(restarted);
}

double Cloud::regionSyncTimeout() const {
  return root_->regionSyncTimeout();
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
