// One life of the live agent, from its start to its crash: the service, the journal, the HTTP
// server without its sockets, all on one thread in virtual time; and beside it the model, which
// sees each request when the service does, and each answer before the client.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>

#include "agent/journal/journal.h"
#include "agent/server/activity_thread.h"
#include "agent/server/hub.h"
#include "agent/server/service_host.h"
#include "tests/sim/live/model.h"
#include "tests/sim/live/simulated_disk.h"
#include "tests/sim/live/wire.h"
#include "tests/sim/live/world.h"

namespace sim {

// What is known of the agent over all its lives.
struct Knowledge {
  Knowledge(Nanoseconds timeout, bool requireLock) : model(timeout, requireLock) {}

  Model model;
  std::vector<Json> outputs{
      Json{{"regionStatus", Json::object()},
           {"requestedResources",
            {{"resourcesForHostname", Json::object()}, {"resourcesForSwitchport", Json::object()}}},
           {"networkElement", Json::object()}}};  // by revision
  std::map<uint64_t, std::string> checks;         // the check values that were shown, by revision
  uint64_t shown = 0;                             // the last revision that any client can know of
  std::set<uint64_t> answered;                    // requests
  std::map<uint64_t, std::pair<unsigned, std::string>> answers;  // status and body, by request
  // Counts, for the summary.
  uint64_t requests = 0, changes = 0, refused = 0, failures = 0, restarts = 0, events = 0;
};

struct AgentSettings {
  std::string folder;
  double timeout = 5;
  bool requireLock = false;
  uint64_t recordsBetweenSnapshots = 20;
  std::string tokens;
  std::map<std::string, Role> roles;  // by name
};

class AgentProcess {
 public:
  // Starts it. Where the disk fails meanwhile, it does not run; see isRunning().
  AgentProcess(World& world, SimulatedDisk& disk, Knowledge& knowledge,
               const AgentSettings& settings);
  // Ends at once, as by a kill. REQUIRES: the disk is dead, so that nothing is written any more.
  ~AgentProcess();
  AgentProcess(const AgentProcess&) = delete;
  AgentProcess& operator=(const AgentProcess&) = delete;

  bool isRunning() const { return host_ != nullptr; }
  void connect(const std::shared_ptr<Wire>& wire);

  // Does what is due at this time. Returns whether there was something.
  bool turn();
  // When it has something to do that nothing else begins.
  Nanoseconds nextTurn() const;

  // The last revision that is durable.
  uint64_t durable() const { return durableRevision_; }
  bool isBlocked() const { return isBlocked_; }

 private:
  class Recorder;  // between the service and the journal
  class Handler;   // between the connections and the service
  class Observer;

  bool start();
  void startService(vnagent::Recovered recovered);
  vnagent::JournalCallbacks callbacks();
  void answered(uint64_t number, const vnagent::Reply& reply);
  void compare(uint64_t number, const Prediction& predicted, const vnagent::Reply& reply);
  void compareRead(const std::string& what, const Prediction& predicted,
                   const vnagent::Reply& reply, const Json& body, const std::string& principal);
  void compareRevisions();
  void timerFired(uint64_t revision);
  void takeGranted();

  World& world_;
  SimulatedDisk& disk_;
  Knowledge& knowledge_;
  const AgentSettings& settings_;

  vnagent::NetworkObserver networkObserver_;
  vnagent::ActivityThread activity_;
  boost::asio::io_context network_{1};
  std::shared_ptr<vnagent::Hub> hub_;
  std::unique_ptr<Observer> observer_;
  std::unique_ptr<vnagent::Journal> journal_;
  std::unique_ptr<Recorder> recorder_;
  std::unique_ptr<vnagent::ServiceHost> host_;
  std::unique_ptr<Handler> handler_;
  bool isJournalBusy_ = false;
  bool isEnding_ = false;
  bool isBlocked_ = false;
  Nanoseconds journalWakes_ = kNever;
  Nanoseconds nextSweep_ = 0;
  uint64_t durableSequence_ = 0;
  uint64_t durableRevision_ = 0;

  // Requests that the service has.
  struct Open {
    RequestText text;
    std::string principal;
    std::optional<Prediction> prediction;
    bool mayFail = false;
  };
  std::map<uint64_t, Open> open_;
  std::map<uint64_t, vnagent::Reply> early_;  // answered before the model knew of them
};

}  // namespace sim
