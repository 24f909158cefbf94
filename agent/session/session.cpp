#include "agent/session/session.h"

#include <algorithm>
#include <limits>
#include <stdexcept>
#include <utility>
#include <variant>

#include "agent/cloud/cloud.h"
#include "agent/json/json_writer.h"
#include "agent/plan/plan.h"

namespace vnagent {
namespace {

// The members of a state.
constexpr std::string_view kTime = "time";
constexpr std::string_view kRegionSyncTimeout = "regionSyncTimeout";
constexpr std::string_view kTimers = "timers";

// Reading what a session wrote.

JsonTree parsed(std::string_view text, const std::string& what) {
  JsonTree tree = JsonTree::parse(text);
  if (tree.error()) throw std::runtime_error(what + ": " + tree.error()->text);
  if (!tree.flaws().empty()) throw std::runtime_error(what + ": " + tree.flaws().front().message());
  return tree;
}

const JsonValue& member(const JsonValue& object, std::string_view name) {
  const JsonValue* found = object.isObject() ? object.find(name) : nullptr;
  if (found == nullptr) throw std::runtime_error("state: no " + std::string(name));
  return *found;
}

double number(const JsonValue& value) {
  using Kind = JsonValue::Kind;
  if (value.kind != Kind::kInteger && value.kind != Kind::kReal) {
    throw std::runtime_error("state: " + shown(value) + " is no number");
  }
  return value.real;
}

}  // namespace

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
  cloud_->apply(makePlan(document_.state(), *merged.change, planSettings()));
}

PlanSettings Session::planSettings() const {
  return {settings_.toggle, settings_.regionSyncTimeout};
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

// Restart.

std::string Session::state() const {
  std::string text;
  JsonWriter json(text, JsonWriter::Style::kOneLine);
  json.open('{');
  json.key(kTime).number(time());
  json.key(kRegionSyncTimeout).number(cloud_->regionSyncTimeout());
  json.key(kTimers).open('{');
  for (const auto& [region, due] : cloud_->timers()) json.key(region).number(due);
  json.close('}');
  json.close('}');
  return text;
}

void Session::restore(std::string_view cloud, std::string_view output, std::string_view state) {
  {
    const JsonTree tree = parsed(cloud, "cloud document");
    Outcome merged = document_.apply(tree.root(), {});
    if (!merged.faults.empty()) {
      throw std::runtime_error("cloud document: " + merged.faults.front().message());
    }
    const Plan plan = makePlan(document_.state(), *merged.change, planSettings());
    cloud_->applyFirst(plan);
  }
  cloud_->outputIs(parsed(output, "output document").root());
  const JsonTree tree = parsed(state, "state");
  const JsonValue& root = tree.root();
  cloud_->regionSyncTimeoutIs(number(member(root, kRegionSyncTimeout)));
  const double moved = time() - number(member(root, kTime));
  Timers timers;
  for (const JsonValue* due : member(root, kTimers).all()) {
    timers.emplace(due->key, number(*due) + moved);
  }
  cloud_->timersIs(timers);
}

void Session::restartTimers() {
  cloud_->restartTimers();
}

// Reading.

double Session::nextTimer() const {
  return cloud_ ? cloud_->nextTimer() : std::numeric_limits<double>::infinity();
}

std::optional<double> Session::timerOf(std::string_view region) const {
  return cloud_->timerOf(region);
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
