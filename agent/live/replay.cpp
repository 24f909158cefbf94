#include "agent/live/replay.h"

#include <algorithm>
#include <utility>

#include "OpenStackSm/Uuid.h"
#include "agent/document/write_cloud.h"
#include "agent/json/json_tree.h"
#include "agent/json/json_writer.h"
#include "agent/output/output_json.h"

namespace vnagent {
namespace {

std::string nameOf(const Record& record) {
  return "record " + std::to_string(record.sequence) + " (revision " +
         std::to_string(record.revision) + ")";
}

// The part of a snapshot's state that is the session's.
std::string sessionState(const Snapshot& snapshot) {
  const JsonTree tree = JsonTree::parse(snapshot.state);
  const JsonValue* session = tree.error() ? nullptr : tree.root().find("session");
  if (session == nullptr) throw ReplayError("the state of the snapshot cannot be read");
  return std::string(session->text);
}

}  // namespace

Replay::Replay(const SessionSettings& settings, VirtualClock& clock, OnSession onSession)
    : settings_(settings), clock_(clock), onSession_(std::move(onSession)) {
  settings_.changes = true;
  OpenStack::uuidSourceIs([this] { return nextUuid(); });
  makeSession();
}

Replay::~Replay() {
  OpenStack::uuidSourceIs(nullptr);
}

void Replay::makeSession() {
  session_.reset();
  session_ = std::make_unique<Session>(settings_, clock_);
  if (onSession_) onSession_(*session_);
}

void Replay::begin(const Snapshot& snapshot) {
  if (snapshot.sequence == 0) return;
  session_->restore(snapshot.cloud, snapshot.output, sessionState(snapshot));
}

void Replay::play(const Record& record) {
  clock_.nowIs(clock_.now() + std::max(record.advance, 0.0));
  uuids_.assign(record.drawn.begin(), record.drawn.end());
  switch (record.kind) {
    case Record::Kind::kPatch:
      playPatch(record);
      break;
    case Record::Kind::kExpiry:
      playExpiry(record);
      break;
    case Record::Kind::kRestart:
      playRestart();
      break;
    case Record::Kind::kReply:
      break;
  }
  if (!uuids_.empty()) throw ReplayError(nameOf(record) + " drew more UUIDs than it does again");
}

void Replay::playPatch(const Record& record) {
  const StepOutcome outcome = session_->take(SourceEvent::ofDocument(record.event));
  if (!outcome.applied()) {
    throw ReplayError(nameOf(record) + " is refused: " + outcome.faults.front().message());
  }
  compare(record, outcome);
}

void Replay::playExpiry(const Record& record) {
  // The sum of the times between records may fall short by a rounding.
  clock_.nowIs(std::max(clock_.now(), session_->nextTimer()));
  const auto outcome = session_->expire();
  if (!outcome) throw ReplayError(nameOf(record) + " is an expiry, and no timer is armed");
  compare(record, *outcome);
}

void Replay::playRestart() {
  const std::string cloud =
      jsonText([&](JsonWriter& json) { writeCloud(session_->document(), json); });
  const std::string output =
      jsonText([&](JsonWriter& json) { writeOutput(session_->output(), json); });
  const std::string state = session_->state();
  makeSession();
  session_->restore(cloud, output, state);
  session_->restartTimers();
}

void Replay::compare(const Record& record, const StepOutcome& outcome) const {
  const std::string change = jsonText([&](JsonWriter& json) { writeOutput(outcome.output, json); });
  if (change == record.output || (change == "{}" && record.output.empty())) return;
  throw ReplayError(nameOf(record) +
                    " changes the output otherwise than it did; the toggle and the region sync "
                    "timeout must be those of the agent");
}

std::string Replay::nextUuid() {
  if (uuids_.empty()) throw ReplayError("a record draws more UUIDs than it did");
  std::string uuid = std::move(uuids_.front());
  uuids_.pop_front();
  return uuid;
}

}  // namespace vnagent
