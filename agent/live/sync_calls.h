// The calls of the sync protocol, and the lines of those who wait for a region's lock.
//
// The lock itself is the machines': a call writes the region's attributes, and what they publish
// says who holds it. Activity thread only.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/json/json_tree.h"
#include "agent/live/changes.h"
#include "agent/live/exchange.h"
#include "agent/live/live_cloud.h"
#include "agent/live/problem.h"
#include "agent/live/route.h"
#include "agent/live/service_observer.h"

namespace vnagent {

class SyncCalls {
 public:
  using Ticket = uint64_t;

  // Somebody in line is answered.
  struct Waited {
    Ticket ticket;
    std::optional<Refusal> refusal;  // nothing: the lock is the request's
    std::string body;                // the status, where it is
  };

  SyncCalls(LiveCloud& cloud, const Changes& changes, ServiceObserver* observer);

  // The body of POST .../lock.
  struct LockRequest {
    std::string requester;
    std::string requestId;
    double wait = 0;
  };
  static std::optional<Refusal> readLockRequest(const JsonValue& body, LockRequest& request);

  // The status of a region that exists, as JSON.
  std::string status(const std::string& region) const;

  // A call's outcome; with neither a refusal nor a body the request waits in line.
  struct Outcome {
    std::optional<Refusal> refusal = {};
    std::string body = {};
    std::vector<std::string> regions = {};  // whose status in the output has changed
    bool isRecorded = false;                // `remember` was called
  };

  // `remember` is kept while the request waits; a later grant calls it with its record.
  Outcome lock(const std::string& region, const LockRequest& request, const Principal& principal,
               Ticket ticket, const Changes::Remember& remember);
  // start, heartbeat, complete, and DELETE .../lock. `id` is the header; null where there is none.
  Outcome call(Subject subject, const std::string& region, const std::string* id, bool force,
               const Principal& principal, const Changes::Remember& remember);

  // The status of these regions has changed, or they are gone: notes who holds what, grants free
  // locks to the first in line, and adds the answers. The grants may change further regions.
  void settle(const std::vector<std::string>& changed, std::vector<Waited>& answers);

  // Time limits, and the end.
  double nextTimer() const;
  void turn(std::vector<Waited>& answers);
  void abandon(Ticket ticket);
  void refuseAll(const Refusal& refusal, std::vector<Waited>& answers);

  size_t waiting() const;
  size_t held() const { return held_.size(); }

 private:
  struct Waiter {
    Ticket ticket;
    LockRequest request;
    double deadline;
    std::string principal;
    Changes::Remember remember;
  };
  struct Held {
    LockHolder holder;
    double since;
  };

  LiveStep write(const std::string& region, const std::string& members,
                 const LiveCloud::Complete& complete);
  bool holds(const std::string& region, const LockRequest& request) const;
  std::optional<Refusal> fence(const std::string& region, const std::string* id) const;
  Refusal heldBy(const std::string& region) const;
  void noteHolder(const std::string& region);
  void tell(std::string_view region, std::string_view principal, std::string_view requester,
            std::string_view requestId, std::string_view decision);

  LiveCloud& cloud_;
  const Changes& changes_;
  ServiceObserver* observer_;
  std::map<std::string, std::deque<Waiter>, std::less<>> lines_;
  std::map<std::string, Held, std::less<>> held_;
};

}  // namespace vnagent
