// Plays the history of a live agent back on a session: offline, in virtual time.
//
//   Replay replay({.toggle = true, .regionSyncTimeout = 60}, clock, [&](Session& session) {
//     session.observerIs(observer);
//   });
//   replay.begin(snapshot);
//   for (const Record& record : records) replay.play(record);
//   use(replay.session());
//
// Activity thread only.
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

#include "agent/live/record.h"
#include "agent/session/session.h"

namespace vnagent {

// The history cannot be played back, or leads to something else than it did.
class ReplayError final : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// While one exists, the machines draw the UUIDs of its records.
class Replay {
 public:
  // Called with each session that the replay makes, before its first step: one for each restart of
  // the agent, one at a time.
  using OnSession = std::function<void(Session&)>;

  // REQUIRES: the clock outlives it. The settings are those of the agent.
  Replay(const SessionSettings& settings, VirtualClock& clock, OnSession onSession);
  ~Replay();
  Replay(const Replay&) = delete;
  Replay& operator=(const Replay&) = delete;

  // Starts from a snapshot. Without it, the history begins with the empty cloud. Throws a
  // std::runtime_error where it cannot be read.
  void begin(const Snapshot& snapshot);

  // Does what the record says, at its time. Throws ReplayError when the output changes otherwise
  // than it did.
  void play(const Record& record);

  Session& session() { return *session_; }
  const Session& session() const { return *session_; }

 private:
  void makeSession();
  void playPatch(const Record& record);
  void playExpiry(const Record& record);
  void playRestart();
  void compare(const Record& record, const StepOutcome& outcome) const;
  std::string nextUuid();

  SessionSettings settings_;
  VirtualClock& clock_;
  OnSession onSession_;
  std::unique_ptr<Session> session_;
  std::deque<std::string> uuids_;  // that the record's machines drew, and were not drawn again yet
};

}  // namespace vnagent
