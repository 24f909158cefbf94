#include "agent/session/session.h"

#include <algorithm>
#include <limits>
#include <utility>
#include <variant>

#include "agent/cloud/cloud.h"
#include "agent/plan/plan.h"

namespace vnagent {

Session::Session(const SessionSettings& settings, VirtualClock& clock)
    : Session(settings, clock, &clock) {}

Session::Session(const SessionSettings& settings, const Kiv::TimeSource& clock)
    : Session(settings, clock, nullptr) {}

Session::Session(const SessionSettings& settings, const Kiv::TimeSource& clock, VirtualClock* moved)
    : settings_(settings), clock_(clock), virtualClock_(moved) {
  if (!settings.live) return;
  const CloudSettings cloud{settings.toggle, settings.regionSyncTimeout, settings.changes};
  cloud_ = std::make_unique<Cloud>(cloud, clock);
}

Session::~Session() = default;

// Steps.

StepOutcome Session::begin() {
  StepOutcome outcome;
  outcome.step = steps_++;
  for (SessionObserver* observer : observers_) observer->onStepBegin(outcome.step);
  return outcome;
}

void Session::end(StepOutcome& outcome) {
  outcome.time = time();
  if (outcome.applied() && cloud_ && settings_.changes) {
    OutputDocument* before = settings_.changesBack ? &outcome.outputBefore : nullptr;
    outcome.output = cloud_->outputChange(before);
  }
  for (SessionObserver* observer : observers_) observer->onStepEnd(outcome);
}

StepOutcome Session::take(SourceEvent event) {
  StepOutcome outcome = begin();
  outcome.faults = std::move(event.reading.faults);
  const auto& read = event.reading.event;
  if (const auto* patch = read ? std::get_if<PatchEvent>(&*read) : nullptr) {
    apply(event, *patch->patch, outcome);
  } else if (const auto* advanced = read ? std::get_if<AdvanceEvent>(&*read) : nullptr) {
    if (outcome.applied()) advance(advanced->seconds, outcome);
  } else if (const auto* timeout = read ? std::get_if<RegionSyncTimeoutEvent>(&*read) : nullptr) {
    if (outcome.applied() && cloud_) cloud_->regionSyncTimeoutIs(timeout->seconds);
  }
  end(outcome);
  return outcome;
}

// A patch with a fault of its text is looked at for more.
void Session::apply(SourceEvent& event, const JsonValue& patch, StepOutcome& outcome) {
  Outcome merged = document_.apply(patch, std::move(outcome.faults));
  outcome.faults = std::move(merged.faults);
  outcome.cloud = merged.change;
  if (!outcome.applied()) return;
  event.tree.reset();
  if (!cloud_) return;
  const PlanSettings settings{settings_.toggle, settings_.regionSyncTimeout};
  cloud_->apply(makePlan(document_.state(), *merged.change, settings));
}

void Session::advance(double seconds, StepOutcome& outcome) {
  if (virtualClock_ == nullptr) {
    outcome.faults.push_back({"/advance", "the clock of this session moves by itself", {}});
    return;
  }
  const double end = time() + seconds;
  while (nextTimer() <= end) {
    virtualClock_->nowIs(std::max(time(), nextTimer()));
    cloud_->fireNextTimer();
  }
  virtualClock_->nowIs(end);
}

std::optional<StepOutcome> Session::expire() {
  if (nextTimer() > time()) return std::nullopt;
  StepOutcome outcome = begin();
  cloud_->fireNextTimer();
  end(outcome);
  return outcome;
}

// Reading.

double Session::nextTimer() const {
  return cloud_ ? cloud_->nextTimer() : std::numeric_limits<double>::infinity();
}

OutputDocument Session::output() const {
  return cloud_->output();
}

OutputPart Session::outputAt(std::span<const std::string> place) const {
  return cloud_->outputAt(place);
}

const Kiv::PtrInterface& Session::root() const {
  return cloud_->root();
}

}  // namespace vnagent
