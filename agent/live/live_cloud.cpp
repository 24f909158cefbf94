#include "agent/live/live_cloud.h"

#include <algorithm>
#include <chrono>
#include <set>
#include <span>
#include <stdexcept>
#include <utility>

#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>

#include "OpenStackSm/Uuid.h"
#include "agent/document/write_change.h"
#include "agent/document/write_cloud.h"
#include "agent/json/json_writer.h"
#include "agent/output/output_json.h"
#include "agent/plan/plan.h"

namespace vnagent {
namespace {

int64_t wallTime() {
  using std::chrono::duration_cast;
  using std::chrono::milliseconds;
  return duration_cast<milliseconds>(std::chrono::system_clock::now().time_since_epoch()).count();
}

// Texts are written into `scratch`, which grows to the size of most of them.
constexpr size_t kScratchBytes = size_t{64} << 10;

template <class Write>
std::string written(std::string& scratch, Write write) {
  scratch.clear();
  JsonWriter json(scratch, JsonWriter::Style::kOneLine);
  write(json);
  if (scratch.size() > kScratchBytes) return std::exchange(scratch, {});
  return scratch;
}

// A merge patch; empty where it has nothing in it.
template <class Write>
std::string patchText(std::string& scratch, Write write) {
  std::string text = written(scratch, write);
  return text == "{}" ? std::string() : text;
}

SourceEvent eventOf(const JsonValue& patch) {
  SourceEvent event;
  event.reading.event = PatchEvent{&patch};
  return event;
}

}  // namespace

// Where the machines' UUIDs come from: random ones, which are recorded, or those of a record.
class LiveCloud::Uuids {
 public:
  Uuids() {
    OpenStack::uuidSourceIs([this] { return next(); });
  }
  ~Uuids() { OpenStack::uuidSourceIs({}); }
  Uuids(const Uuids&) = delete;
  Uuids& operator=(const Uuids&) = delete;

  // Those that were drawn since the last call.
  std::vector<std::string> take() { return std::exchange(drawn_, {}); }
  // Gives these first.
  void replay(const std::vector<std::string>& uuids) { given_.assign(uuids.begin(), uuids.end()); }

 private:
  std::string next() {
    std::string uuid;
    if (given_.empty()) {
      uuid = boost::uuids::to_string(random_());
    } else {
      uuid = std::move(given_.front());
      given_.pop_front();
    }
    drawn_.push_back(uuid);
    return uuid;
  }

  boost::uuids::random_generator random_;
  std::vector<std::string> drawn_;
  std::deque<std::string> given_;
};

LiveCloud::LiveCloud(const ServiceSettings& settings, const Kiv::TimeSource& clock,
                     Storage* storage, const Recovered& recovered)
    : settings_(settings),
      clock_(clock),
      storage_(storage),
      uuids_(std::make_unique<Uuids>()),
      history_(storage) {
  clock_.stop();
  clock_.nowIs(0);
  session_ = newSession();
  start(recovered);
  clock_.resume();
  lastTime_ = durableTime_ = clock_.now();
}

LiveCloud::~LiveCloud() = default;

std::unique_ptr<Session> LiveCloud::newSession() {
  SessionSettings settings;
  settings.toggle = settings_.toggle;
  settings.regionSyncTimeout = settings_.regionSyncTimeout;
  settings.changes = true;
  settings.changesBack = true;
  return std::make_unique<Session>(settings, clock_);
}

// Starting.

void LiveCloud::start(const Recovered& recovered) {
  const Snapshot& snapshot = recovered.snapshot;
  uint64_t from = snapshot.revision;
  std::string fromCheck = snapshot.check;
  for (const Record& record : recovered.history) {
    if (record.kind == Record::Kind::kReply) continue;
    // The revision before the first that is known has no check value that is known.
    if (history_.last() == 0 && record.revision > 0 && record.revision <= from) {
      history_.startIs(record.revision - 1, record.revision == 1 ? std::string(kFirstCheck) : "");
    }
    if (record.revision > history_.last()) history_.add(std::make_shared<const Record>(record));
  }
  if (history_.last() != from) history_.startIs(from, fromCheck);
  if (snapshot.sequence > 0) {
    const JsonTree tree = JsonTree::parse(snapshot.state);
    if (tree.error()) throw std::runtime_error("the state of a snapshot cannot be read");
    const JsonValue* etags = tree.root().find("etags");
    const JsonValue* session = tree.root().find("session");
    if (etags == nullptr || session == nullptr) {
      throw std::runtime_error("the state of a snapshot lacks a member");
    }
    etags_ = Etags::read(*etags);
    session_->restore(snapshot.cloud, snapshot.output, session->text);
    revision_ = snapshot.revision;
    sequence_ = snapshot.sequence;
    check_ = snapshot.check;
  }
  for (const Record& record : recovered.records) replay(record);
  uuids_->take();
  if (sequence_ == 0) return;
  durableRevision_ = revision_;
  durableCheck_ = check_;
  // Also where the record of the restart cannot be written.
  session_->restartTimers();
  for (const auto& [name, region] : document().region) keepTimers(timersOf({name}));
  // The record of the restart follows the last one that was played back at once.
  lastTime_ = durableTime_ = clock_.now();
  history_.durableIs(durableRevision_);
  resume();
}

// Plays a record back, and refuses one whose outcome is another than it was.
void LiveCloud::replay(const Record& record) {
  Record again;
  again.kind = record.kind;
  again.event = record.event;
  again.advance = record.advance;
  clock_.nowIs(clock_.now() + record.advance);
  uuids_->take();
  uuids_->replay(record.drawn);
  LiveStep step;
  switch (record.kind) {
    case Record::Kind::kPatch: {
      const StepOutcome outcome = session_->take(SourceEvent::ofDocument(record.event));
      if (!outcome.applied()) {
        throw std::runtime_error("revision " + std::to_string(record.revision) +
                                 " is refused when it is played back");
      }
      describe(outcome, again, step);
      break;
    }
    case Record::Kind::kExpiry: {
      clock_.nowIs(std::max(clock_.now(), session_->nextTimer()));
      const auto outcome = session_->expire();
      if (!outcome) {
        throw std::runtime_error("no timer is armed where one expired, after revision " +
                                 std::to_string(record.revision));
      }
      describe(*outcome, again, step);
      break;
    }
    case Record::Kind::kRestart:
      session_->restartTimers();
      break;
    case Record::Kind::kReply:
      break;
  }
  if (record.revision > revision_) {
    if (again.output != record.output || again.cloud != record.cloud) {
      throw std::runtime_error("revision " + std::to_string(record.revision) +
                               " has another outcome when it is played back");
    }
    etags_.revisionIs(record.revision);
    history_.add(std::make_shared<const Record>(record));
  }
  revision_ = record.revision;
  sequence_ = record.sequence;
  check_ = record.check;
  ++recordsSinceSnapshot_;
  bytesSinceSnapshot_ += record.event.size();
}

// Steps.

void LiveCloud::describe(const StepOutcome& outcome, Record& record, LiveStep& step) {
  record.output = patchText(scratch_, [&](JsonWriter& json) { writeOutput(outcome.output, json); });
  if (!record.output.empty()) {
    record.outputBefore = written(scratch_, [&](JsonWriter& json) {
      writeOutputBack(outcome.outputBefore, outcome.output, json);
    });
  }
  if (outcome.cloud != nullptr) {
    const CloudState& document = session_->document();
    record.cloud = patchText(scratch_, [&](JsonWriter& json) {
      writeChange(document, *outcome.cloud, json, [&](std::span<const std::string_view> place) {
        etags_.changed(place, document, revision_ + 1);
      });
    });
  }
  if (!record.cloud.empty()) {
    record.cloudBefore = written(scratch_, [&](JsonWriter& json) {
      writeChange(session_->document(), *outcome.cloud, json, Direction::kBack);
    });
  }
  if (!outcome.output.regionStatus) return;
  for (const RegionOutput& region : *outcome.output.regionStatus) {
    step.regions.emplace_back(region.name);
  }
}

LiveStep LiveCloud::apply(std::string patch, const JsonValue* tree, const Complete& complete) {
  LiveStep step;
  Record record;
  record.kind = Record::Kind::kPatch;
  uuids_->take();
  StepOutcome outcome =
      session_->take(tree == nullptr ? SourceEvent::ofDocument(patch) : eventOf(*tree));
  if (!outcome.applied()) {
    step.faults = std::move(outcome.faults);
    step.revision = revision_;
    return step;
  }
  describe(outcome, record, step);
  record.event = std::move(patch);
  record.revision = revision_ + 1;
  append(std::move(record), step, complete, outcome.cloud);
  return step;
}

std::optional<LiveStep> LiveCloud::expire() {
  uuids_->take();
  if (session_->nextTimer() > session_->time()) return std::nullopt;
  expired_ = regionsAtTimer();
  const auto outcome = session_->expire();
  if (!outcome) return std::nullopt;
  LiveStep step;
  Record record;
  record.kind = Record::Kind::kExpiry;
  describe(*outcome, record, step);
  record.revision = revision_ + (record.output.empty() ? 0 : 1);
  append(std::move(record), step, {});
  return step;
}

LiveStep LiveCloud::remember(const Complete& complete) {
  LiveStep step;
  Record record;
  record.kind = Record::Kind::kReply;
  record.revision = revision_;
  append(std::move(record), step, complete);
  return step;
}

void LiveCloud::append(Record record, LiveStep& step, const Complete& complete,
                       const Change* changed) {
  record.sequence = ++sequence_;
  if (record.kind == Record::Kind::kRestart) record.revision = revision_;
  const double now = clock_.now();
  record.advance = now - lastTime_;
  lastTime_ = now;
  record.wallTime = wallTime();
  record.drawn = uuids_->take();
  record.check = nextCheck(check_, record);
  check_ = record.check;
  step.revision = record.revision;
  step.sequence = record.sequence;
  const bool isRevision = record.revision > revision_;
  if (isRevision) {
    revision_ = record.revision;
    etags_.revisionIs(revision_);
  }
  if (complete) complete(record);
  ++recordsSinceSnapshot_;
  bytesSinceSnapshot_ += record.event.size();
  // Only the storage reads it.
  if (storage_ == nullptr) record.event = {};
  const auto shared = std::make_shared<const Record>(std::move(record));
  if (isRevision) history_.add(shared);
  if (storage_ == nullptr) return;
  pending_.push_back({shared, lastTime_, timersAfter(*shared, changed)});
  held_.push_back(shared);
  if (!holdsRecords_) appendHeld();
}

void LiveCloud::appendHeld() {
  holdsRecords_ = false;
  if (!held_.empty()) storage_->append(std::exchange(held_, {}));
}

// Timers.

LiveCloud::Timers LiveCloud::timersOf(const std::vector<std::string>& regions) const {
  Timers timers;
  for (const std::string& region : regions) {
    const bool isThere = document().region.contains(region);
    timers.emplace_back(region, isThere ? session_->timerOf(region) : std::nullopt);
  }
  return timers;
}

std::vector<std::string> LiveCloud::regionsAtTimer() const {
  std::vector<std::string> regions;
  for (const auto& [name, region] : document().region) {
    const auto due = session_->timerOf(name);
    if (due && *due <= session_->nextTimer()) regions.push_back(name);
  }
  return regions;
}

std::vector<std::string> LiveCloud::regionsWithTimers() const {
  std::set<std::string> regions;
  for (const auto& [name, region] : document().region) regions.insert(name);
  for (const auto& [name, due] : durableTimers_) regions.insert(name);
  for (const Pending& pending : pending_) {
    for (const auto& [name, due] : pending.timers) regions.insert(name);
  }
  return {regions.begin(), regions.end()};
}

LiveCloud::Timers LiveCloud::timersAfter(const Record& record, const Change* changed) const {
  if (record.kind == Record::Kind::kExpiry) return timersOf(expired_);
  if (record.kind == Record::Kind::kReply) return {};
  if (record.kind == Record::Kind::kRestart) return timersOf(regionsWithTimers());
  std::vector<std::string> regions;
  for (const DirtyRegion& region : changed->regions) regions.push_back(region.key());
  return timersOf(regions);
}

void LiveCloud::keepTimers(const Timers& timers) {
  for (const auto& [region, due] : timers) {
    if (due) {
      durableTimers_.insert_or_assign(region, *due);
    } else {
      durableTimers_.erase(region);
    }
  }
}

// What is durable.

uint64_t LiveCloud::durableIs(uint64_t sequence) {
  while (!pending_.empty() && pending_.front().record->sequence <= sequence) {
    const Pending& first = pending_.front();
    durableRevision_ = first.record->revision;
    durableCheck_ = first.record->check;
    durableTime_ = first.time;
    keepTimers(first.timers);
    pending_.pop_front();
  }
  history_.durableIs(durableRevision_);
  return durableRevision_;
}

void LiveCloud::goBackTo(uint64_t sequence) {
  durableIs(sequence);
  if (pending_.empty()) return;
  Snapshot state = snapshot();
  Json cloud = Json::parse(state.cloud);
  Json output = Json::parse(state.output);
  revision_ = durableRevision_;
  sequence_ = sequence;
  check_ = durableCheck_;
  lastTime_ = durableTime_;
  history_.truncate(revision_);
  etags_.goBackTo(revision_);
  for (auto pending = pending_.rbegin(); pending != pending_.rend(); ++pending) {
    const Record& record = *pending->record;
    Delta::of(record.output, record.outputBefore).undoIn(output);
    Delta::of(record.cloud, record.cloudBefore).undoIn(cloud);
  }
  Json session = Json::parse(session_->state());
  session["timers"] = durableTimers_;
  session_.reset();
  session_ = newSession();
  session_->restore(cloud.dump(), output.dump(), session.dump());
  for (auto pending = pending_.rbegin(); pending != pending_.rend(); ++pending) {
    const Record& record = *pending->record;
    if (record.cloud.empty()) continue;
    etags_.takenBack(JsonTree::parse(record.cloudBefore).root(), document(), revision_);
  }
  pending_.clear();
}

void LiveCloud::resume() {
  session_->restartTimers();
  Record restart;
  restart.kind = Record::Kind::kRestart;
  LiveStep step;
  append(std::move(restart), step, {});
}

void LiveCloud::detachFromStorage() {
  storage_ = nullptr;
  history_.detachFromStorage();
}

double LiveCloud::regionSyncTimeout() const {
  return regionSyncTimeoutOf(document().config, settings_.regionSyncTimeout);
}

Snapshot LiveCloud::snapshot() const {
  Snapshot snapshot;
  std::string scratch;
  snapshot.sequence = sequence_;
  snapshot.revision = revision_;
  snapshot.check = check_;
  snapshot.cloud = written(scratch, [&](JsonWriter& json) { writeCloud(document(), json); });
  snapshot.output =
      written(scratch, [&](JsonWriter& json) { writeOutput(session_->output(), json); });
  snapshot.state = written(scratch, [&](JsonWriter& json) {
    json.open('{').key("session").text(session_->state()).key("etags");
    etags_.write(json);
    json.close('}');
  });
  return snapshot;
}

}  // namespace vnagent
