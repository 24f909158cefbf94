// The model: what the agent must answer, as a sequential specification.
//
// It is fed with the requests in the order in which the service takes them, with the time, and
// with what happened to the disk, and says what each answer must be. It has plain JSON documents,
// one for each revision, and none of the agent's code.
#pragma once

#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "tests/sim/live/model_document.h"
#include "tests/sim/live/virtual_system.h"

namespace sim {

struct RequestText {
  std::string method;
  std::string target;
  std::map<std::string, std::string> headers;  // names in lower case
  std::string body;
};

// What a request must be answered with.
struct Prediction {
  unsigned status = 200;
  std::optional<uint64_t> revision = {};  // in the body of a change; of the document that is read
  std::optional<Json> body = {};          // the whole of it
  std::optional<Json> members = {};       // some of its members
  std::optional<uint64_t> etag = {};
  bool isRead = false;
  bool isWrite = false;
  std::set<unsigned> others = {};  // a status that is right too
  bool waits = false;              // nothing is known yet
  uint64_t readFrom = 0;           // of a read that waits: the first revision that it may show
  uint64_t at = 0;                 // the model's revision after the request
};

// The sync protocol's side of a region.
struct RegionSync {
  std::string status = "syncUnknown";
  std::string before = "syncUnknown";
  std::string owner, requestId;
  Nanoseconds due = kNever;

  bool isHeld() const { return !owner.empty() || !requestId.empty(); }
  Json published() const { return {status, before, owner, requestId}; }
};

struct State {
  Json cloud = Json::object();
  std::map<std::string, RegionSync> sync;
  // The revision of the last change of regions, collections and members, as "R/port/p".
  std::map<std::string, uint64_t> changed;
};

struct Role {
  std::string name;
  bool writes = false;
  bool isAdmin = false;
  std::set<std::string> regions;  // empty: all
  bool sees(const std::string& region) const { return regions.empty() || regions.contains(region); }
};

class Model {
 public:
  Model(Nanoseconds timeout, bool requireLock) : timeout_(timeout), requireLock_(requireLock) {
    states_.push_back(std::make_shared<State>());
  }

  bool requiresLock() const { return requireLock_; }
  uint64_t revision() const { return states_.size() - 1; }
  const State& at(uint64_t revision) const { return *states_.at(revision); }
  const State& present() const { return *states_.back(); }
  // The document as somebody sees it.
  static Json viewOf(const Json& cloud, const Role& role);

  // What happens. `number` names the request; `hasWritten`: the agent made a record for it, which
  // decides where a condition names a place whose ETag is not certain.
  Prediction take(uint64_t number, const RequestText& request, const Role& role, bool hasWritten);
  void abandon(uint64_t number);
  // A request in line was refused: its time was over. Returns why it should not have been.
  std::string lineTimedOut(const std::string& region, const std::string& requester,
                           const std::string& requestId);
  // A timer fired; returns why it should not have.
  std::string expire();
  // The earliest time at which a timer is due.
  Nanoseconds nextTimer() const;

  // What was predicted for requests that waited, since the last call.
  std::map<uint64_t, Prediction> takeGranted() { return std::exchange(granted_, {}); }

  // The disk failed: everything after this revision is taken back. `acknowledged`: the requests
  // that were answered.
  void goBackTo(uint64_t revision, const std::set<uint64_t>& acknowledged);
  void blockedIs(bool isBlocked);
  // The agent was restarted, and went on after this revision.
  void restartedAt(uint64_t revision, const std::set<uint64_t>& acknowledged);

  size_t lineOf(const std::string& region) const;

 private:
  struct Waiter {
    uint64_t number;
    std::string requester, requestId;
    Nanoseconds deadline;
  };
  struct Remembered {
    std::string fingerprint;
    Prediction prediction;
    uint64_t number;
    uint64_t revision;  // of the last change that was remembered with it; 0: none
    bool mayBeLost;
  };

  Prediction change(const RequestText& request, const Role& role, bool hasWritten);
  Prediction replace(const std::string& region, const Json& body);
  Prediction batch(const RequestText& request, const Json& body, const Role& role);
  Prediction sync(uint64_t number, const RequestText& request, const Role& role,
                  const std::vector<std::string>& path);
  Prediction read(const RequestText& request, const Role& role,
                  const std::vector<std::string>& path) const;
  std::optional<Prediction> checkLock(const RequestText& request, const Role& role,
                                      const std::set<std::string>& regions) const;
  bool apply(const Json& patch);
  void write(State& state, const std::string& region, const Json& scalars) const;
  void settle();
  Json statusOf(const std::string& region) const;
  void restartTimers();

  const Nanoseconds timeout_;
  const bool requireLock_;
  bool isBlocked_ = false;
  std::vector<std::shared_ptr<State>> states_;
  std::map<std::string, std::deque<Waiter>> lines_;
  std::map<uint64_t, Prediction> granted_;
  std::map<std::pair<std::string, std::string>, Remembered> remembered_;
  std::set<std::string> uncertain_;  // places whose ETag may be one of two
};

// The parts of a path, without a query.
std::vector<std::string> pathOf(const std::string& target);
// A parameter of the query; nothing where there is none.
std::optional<std::string> parameterOf(const std::string& target, const std::string& name);

}  // namespace sim
