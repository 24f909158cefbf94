// The service's parts and what they share; for the files of the service alone.
#pragma once

#include <deque>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "agent/live/changes.h"
#include "agent/live/conditions.h"
#include "agent/live/live_cloud.h"
#include "agent/live/problem.h"
#include "agent/live/remembered.h"
#include "agent/live/route.h"
#include "agent/live/service.h"
#include "agent/live/sync_calls.h"
#include "agent/live/trace_tail.h"
#include "agent/live/watch.h"

namespace vnagent {

// A request while it is worked on.
struct Exchange {
  Service::Ticket ticket = 0;
  Request request;
  Route route = {};
  Parameters parameters = {};
  Conditions conditions = {};
  std::optional<JsonTree> body = {};

  const Principal& principal() const { return *request.principal; }
  bool reads() const { return request.method == "GET" || request.method == "HEAD"; }
  bool isChange() const {
    return !reads() && (route.subject == Subject::kCloud || route.subject == Subject::kBatch);
  }
  bool isSyncCall() const {
    return route.subject == Subject::kSyncLock || route.subject == Subject::kSyncStart ||
           route.subject == Subject::kSyncHeartbeat || route.subject == Subject::kSyncComplete;
  }
  bool writes() const { return isChange() || isSyncCall(); }
  std::string what() const { return request.method + ' ' + route.name; }
};

Reply jsonReply(std::string body, unsigned status = 200);

class Service::Impl {
 public:
  Impl(const ServiceSettings& settings, const Kiv::TimeSource& clock, Storage* storage,
       Recovered recovered);

  void handle(Ticket ticket, Request request, Answer answer);
  void abandon(Ticket ticket);
  double nextTimer() const;
  void turn();
  void durableIs(uint64_t sequence);
  void storageFailed(uint64_t sequence, const std::string& reason);
  void storageIsWritable();
  void stop();
  ServiceFigures figures() const;
  bool isIdle() const { return isStopping_ && answers_.empty(); }

 private:
  // A reply that shows what is not durable yet.
  struct HeldReply {
    uint64_t sequence;
    Ticket ticket;
    bool writes;
    Reply reply;
  };
  // A read that waits for a revision.
  struct WaitingRead {
    Exchange exchange;
    double deadline;
  };

  std::optional<Refusal> check(Exchange& exchange);
  std::optional<Refusal> checkHeaders(const Request& request) const;
  static std::optional<Refusal> checkRoute(const Exchange& exchange);
  std::optional<Refusal> checkRole(const Exchange& exchange) const;
  std::optional<Refusal> readBody(Exchange& exchange);

  void dispatch(Exchange exchange);
  void answerAgent(const Exchange& exchange);
  void answerRead(Exchange exchange);
  void answerInspection(const Exchange& exchange);
  void answerTrace(const Exchange& exchange);
  void answerWatch(const Exchange& exchange);
  std::optional<Refusal> readSince(const Exchange& exchange, std::optional<uint64_t>& since) const;

  void change(Exchange exchange);
  Reply makeChange(const Exchange& exchange);
  void dryRun(Exchange exchange);
  Reply runDry(const Exchange& exchange);
  void callSync(const Exchange& exchange);

  // The reply that is remembered for the request's key, or why the key is refused.
  std::optional<Reply> recall(const Exchange& exchange) const;
  // Remembers the reply for the request's key; null where it has none. May outlive the request.
  Changes::Remember rememberer(const Exchange& exchange);
  void rememberAlone(const Exchange& exchange, unsigned status, const std::string& body);

  // Reports the changes since the last report to the observer; they took this time together.
  void reportApplied(std::string_view principal, std::string_view what, double seconds);
  void reportRefused(const Exchange& exchange, std::string_view name);

  void refuse(const Exchange& exchange, const Refusal& refusal);
  void answer(const Exchange& exchange, Reply reply);
  void answer(Ticket ticket, bool writes, Reply reply);
  void deliver(Ticket ticket, Reply reply);

  // After a step: locks go to who waits, and all that follows from that.
  void settle(const std::vector<std::string>& regions);
  void answerWaited(const std::vector<SyncCalls::Waited>& waited);
  void afterStep();
  void showDurable(uint64_t revision);
  void noteStatus(const std::string& region);
  // Runs something in a copy of the process.
  void runCopy(const std::function<std::string()>& run, ReadCopy read);
  void takeSnapshot();
  void keepSnapshot();

  ServiceSettings settings_;
  Storage* storage_;
  std::string instance_;
  LiveCloud cloud_;
  Changes changes_;
  SyncCalls sync_;
  Watches watches_;
  TraceTails tails_;
  RememberedReplies remembered_;
  double started_;

  uint64_t reported_ = 0;  // the last revision that the observer knows of

  std::unordered_map<Ticket, Answer> answers_;
  std::deque<HeldReply> held_;
  std::list<WaitingRead> reads_;
  std::map<std::string, std::string, std::less<>> statuses_;  // the regions' sync status, for logs
  uint64_t durable_ = 0;                                      // the last durable sequence
  bool isBlocked_ = false;                                    // nothing can be stored
  std::string blockedFor_;                                    // why, for clients
  bool isStopping_ = false;
  bool isTakingSnapshot_ = false;
  uint64_t timesGoneBack_ = 0;        // a snapshot from before that is of a state that never was
  uint64_t snapshotBytes_ = 0;        // of the last snapshot
  std::optional<Snapshot> snapshot_;  // waits until its record is durable
  // Runs out with the service: what comes later from another thread is dropped.
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace vnagent
