// One agent: the cloud document, the live cloud and the clock behind one interface. It takes an
// event and returns its outcome.
//
//   VirtualClock clock;
//   Session session({.toggle = true, .regionSyncTimeout = 60}, clock);
//   session.observerIs(observer);
//   StepOutcome outcome =
//       session.take(SourceEvent::ofLine(R"({"patch": {"region": {"R": {}}}})"));
//   if (!outcome.applied()) ... refused: outcome.faults are the reasons, nothing has changed
//
// With the steady clock, the source waits for events until nextTimer(), then fires what is due:
//
//   while (auto outcome = session.expire()) use(*outcome);
//
// Sources (a file, a stream, a server) pass events in, observers are called for each step; none of
// them depends on an entity. One session at a time in a process, on one thread. What a machine
// throws passes through; after that the session can only be destroyed.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "agent/cloud/output_document.h"
#include "agent/document/cloud_document.h"
#include "agent/session/clock.h"
#include "agent/session/source_event.h"
#include "framework/PtrInterface.h"

namespace vnagent {

class Cloud;
struct PlanSettings;

struct SessionSettings {
  bool toggle = true;             // the answer for "VirtualNetworkAgentToggle"
  double regionSyncTimeout = 60;  // where the document has none, in seconds
  bool live = true;               // false: events are only checked against the document
  bool changes = false;           // whether outcomes contain the change of the output
  bool changesBack = false;       // whether they contain the change back, too
};

// The outcome of an event, or of a timer that was due. Texts in it, and what it points to, are
// valid until the next step.
struct StepOutcome {
  uint64_t step = 0;              // the steps of a session count from 0
  double time = 0;                // of the clock, when the step was done
  std::vector<Fault> faults;      // why the event was refused; none: it was applied
  const Change* cloud = nullptr;  // of a patch: the change of the cloud document (write_change.h)
  OutputDocument output;          // what has changed of the output, if the settings ask for it
  OutputDocument outputBefore;    // the merge patch back to the output before, likewise

  bool applied() const { return faults.empty(); }
};

// Sees each step. Makes no event from inside.
class SessionObserver {
 public:
  virtual ~SessionObserver() = default;
  virtual void onStepBegin(uint64_t /*step*/) {}
  virtual void onStepEnd(const StepOutcome& /*outcome*/) {}
};

class Session {
 public:
  // Starts with the empty document. REQUIRES: the clock outlives the session; the virtual one is
  // not moved from within a step.
  Session(const SessionSettings& settings, VirtualClock& clock);
  Session(const SessionSettings& settings, const Kiv::TimeSource& clock);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // Adds an observer. Observers are called in the order in which they were added. REQUIRES: it
  // outlives the last step.
  void observerIs(SessionObserver& observer) { observers_.push_back(&observer); }

  // Steps.

  // Applies or refuses an event. Its tree is freed before the entities change: that of a large
  // document takes more memory than they do.
  //   patch              changes the cloud document, and the entities with it;
  //   advance            moves the virtual clock, and fires each timer at its own time; with the
  //                      steady clock it is refused;
  //   regionSyncTimeout  gives the root machine another one.
  StepOutcome take(SourceEvent event);

  // Fires the earliest timer that is due, as a step of its own; nothing if none is due.
  std::optional<StepOutcome> expire();

  // Restart: a new session goes on where another one ended. None of this is a step.

  // What a restart needs beside the two documents: one line of JSON. REQUIRES: the session is live.
  std::string state() const;

  // Takes over the cloud document, the output document, and the state of another session, all as
  // they were after one of its steps. From there on it publishes the same, and goes on in the same
  // way: a timer is due as far from now as it was then. Nothing of this counts as a change, and it
  // draws no UUID. Throws std::runtime_error where a text is not what it should be; the session can
  // only be destroyed then. REQUIRES: the session is live, and has made no step.
  void restore(std::string_view cloud, std::string_view output, std::string_view state);

  // Gives each timer that is armed one whole timeout from now. REQUIRES: the session is live.
  void restartTimers();

  // Reading.

  // When the next timer is due, a time of the clock; +infinity when none is armed.
  double nextTimer() const;

  // When the sync timer of a region is due, likewise; nothing where it is not armed. REQUIRES: the
  // session is live.
  std::optional<double> timerOf(std::string_view region) const;

  // The clock's time, in seconds.
  double time() const { return clock_.now(); }

  // The cloud document.
  const CloudState& document() const { return document_.state(); }

  // The whole output document; good until the next step. REQUIRES: the session is live.
  OutputDocument output() const;

  // The part of the output document that a place leads to, a name for each step; its cost is that
  // of the part. Good until the next step. REQUIRES: the session is live.
  OutputPart outputAt(std::span<const std::string> place) const;

  // The root machine, for reflection. REQUIRES: the session is live.
  const Kiv::PtrInterface& root() const;

 private:
  Session(const SessionSettings& settings, const Kiv::TimeSource& clock, VirtualClock* moved);

  PlanSettings planSettings() const;
  StepOutcome begin();
  void end(StepOutcome& outcome);

  void apply(SourceEvent& event, const JsonValue& patch, StepOutcome& outcome);
  void advance(double seconds, StepOutcome& outcome);

  SessionSettings settings_;
  const Kiv::TimeSource& clock_;
  VirtualClock* virtualClock_;  // null with the steady one
  CloudDocument document_;
  std::unique_ptr<Cloud> cloud_;  // null when not live
  std::vector<SessionObserver*> observers_;
  uint64_t steps_ = 0;  // begun so far
};

}  // namespace vnagent
