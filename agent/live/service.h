// The live agent without its network: takes requests and gives replies, keeps the cloud up to date
// through a session, and remembers what changed. It holds the revision, conditions, locks and their
// waiting lines, watches, and the keys of changes; the connections and the disk are others'.
//
//   Service service(settings, clock, storage);
//   auto ticket = service.handle(request, [](Reply reply) { ... });
//   ... sleep until service.nextTimer() ...
//   service.turn();
//
// Activity thread only. It reads no other clock than the one it is given, so that all of it runs in
// virtual time too.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "agent/live/exchange.h"
#include "agent/live/fork.h"
#include "agent/live/service_observer.h"
#include "agent/live/storage.h"
#include "framework/Activity.h"
#include "framework/Time.h"

namespace vnagent {

struct ServiceSettings {
  bool toggle = true;                    // the answer for "VirtualNetworkAgentToggle"
  double regionSyncTimeout = 60;         // where the document has none, in seconds
  bool requireLock = false;              // a change of a region needs the id of its lock's holder
  std::string version;                   // of the program
  ServiceObserver* observer = nullptr;   // null: none; outlives the service
  std::function<std::string()> metrics;  // the body of GET /metrics; null: there is none
  // Runs something later on the activity thread, called from any thread; may outlive the service,
  // and then need not run it. Null: dry runs and snapshots are waited for.
  Post post;
  // Takes the place of runInCopy(), which it may use, where results must come at a time that the
  // owner chooses. Null: runInCopy() with `post`.
  std::function<void(const std::function<std::string()>& run, ReadCopy read)> inCopy = {};
  // A snapshot is taken when a restart would have more records than this to play back.
  uint64_t recordsBetweenSnapshots = 5'000;
};

// What a metrics page shows of a service.
struct ServiceFigures {
  uint64_t revision = 0;
  uint64_t durableRevision = 0;
  std::map<std::string, uint64_t> regionsBySyncStatus;
  uint64_t locksHeld = 0;
  uint64_t locksWaitedFor = 0;  // requests that wait
  uint64_t watchers = 0;
  uint64_t watchersLag = 0;  // the most revisions that one of them is behind
  // Of the machines since they were made.
  Kiv::ActivityFigures notifications{};
};

// What a service starts from: the state that a storage holds.
struct Recovered {
  std::string instance;         // the UUID that stays with the state
  Snapshot snapshot;            // the latest
  std::vector<Record> records;  // all after it
  // Records up to the snapshot's, in ascending order of sequence: those of the last revisions, from
  // which a watch can resume, without a gap up to the snapshot's. Before them, with gaps, the older
  // changes whose keys are remembered, each of kind kReply and with nothing but its reply.
  std::vector<Record> history;
};

class Service {
 public:
  using Answer = std::function<void(Reply)>;
  using Ticket = uint64_t;

  // `storage` null: everything is in memory only. REQUIRES: clock and storage outlive the service.
  Service(const ServiceSettings& settings, const Kiv::TimeSource& clock, Storage* storage,
          Recovered recovered);
  ~Service();
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;

  // Takes a request. `answer` is called once, from inside this or a later call of the service,
  // unless the request is abandoned before; it must not call back into the service.
  Ticket handle(Request request, Answer answer);

  // Nobody waits for the answer any more; it will not be given. A ticket that was answered is
  // ignored.
  void abandon(Ticket ticket);

  // The time of the clock at which turn() has something to do; +infinity when never.
  double nextTimer() const;

  // Does what is due: expiries of the machines' timers, time limits of who waits, bookmarks.
  void turn();

  // All records up to this sequence are durable.
  void durableIs(uint64_t sequence);

  // No record after `sequence` became durable, and none of those that were appended will: what they
  // changed is taken back, and their requests are refused. Until storageIsWritable() every change
  // is refused, and no timer fires. `reason` is shown to clients.
  void storageFailed(uint64_t sequence, const std::string& reason);
  void storageIsWritable();

  // Refuses new work and ends what waits: locks, reads, streams. What was accepted is answered when
  // it is durable.
  void stop();

  ServiceFigures figures() const;

  // True once stop() was called and everything is answered.
  bool isIdle() const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
  Ticket lastTicket_ = 0;
};

}  // namespace vnagent
