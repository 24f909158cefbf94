// Keeps the database of one switch as is desired: connects, holds the lock, and sends one
// transaction at a time. What it waits for delays no other switch.
//
// A transaction that fails is planned anew; one that fails again is halved, until what the database
// refuses is alone, and the rest is done. One thread, that of the context.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include <boost/asio/steady_timer.hpp>

#include "agent/export/desired.h"
#include "agent/export/planner.h"
#include "agent/export/problems.h"
#include "agent/export/replica.h"
#include "agent/ovsdb/client.h"

namespace vnagent {

// The lock of a database, held by whoever exports to it.
constexpr const char* kExportLock = "vnagent_hardware_vtep";

struct SwitchFigures {
  uint64_t transactions = 0;
  uint64_t failures = 0;  // transactions that the database did not apply
  double waited = 0;      // for replies, in seconds, all together
  double planned = 0;     // the planner's time, in seconds, all together
  uint64_t bytesSent = 0;
  uint64_t bytesReceived = 0;
};

class SwitchExporter final : private ovsdb::Client::Observer {
 public:
  struct Hooks {
    std::function<void(const std::string& text)> log;
    std::function<void()> desiredChanged;  // other switches may have work
    std::function<void()> settled;         // its state may be another
  };

  // What is passed by reference is kept by the caller. `index` is that of the switch.
  SwitchExporter(boost::asio::io_context& context, const ExportMap& map, Desired& desired,
                 size_t index, ExportMode mode, Problems& problems, Hooks hooks);
  ~SwitchExporter() override;

  void start();
  void stop();

  // Looks whether there is work. Nothing is sent before the first call.
  void kick();

  // Lookup.

  const std::string& name() const { return desired_.at(index_).name; }
  bool isConnected() const { return client_.isReady(); }
  bool hasLock() const { return hasLock_; }
  // The database is as is desired, as far as it can be. For a report: it was compared.
  bool isSynced() const;
  size_t logicalSwitches() const { return replica_.owned(); }
  const std::vector<std::string>& differences() const { return differences_; }
  SwitchFigures figures() const;

 private:
  struct Batch {
    SwitchChanges changes;
    unsigned failures = 0;
  };

  // ovsdb::Client::Observer.
  void onReset() override;
  void onRow(const ovsdb::RowChange& change) override;
  void onReady() override;
  void onUpdated() override;
  void onLock(bool isHeld) override;
  void onLost(const std::string& reason) override;

  void settle();
  bool mayWrite() const;
  void report();
  bool sendNext();
  bool send(Batch batch);
  void taken(const std::string& fault);
  void failed(Batch batch, const std::string& fault);
  void retryLater();
  std::string problemPlace() const { return name(); }

  Desired& desired_;
  const size_t index_;
  const ExportMode mode_;
  const std::string database_;
  const bool isAddressGiven_;
  Problems& problems_;
  const Hooks hooks_;
  Replica replica_;
  Planner planner_;
  ovsdb::Client client_;

  static constexpr size_t kMostMarked = size_t{1} << 16;
  size_t mostMarked_ = kMostMarked;
  bool isKicked_ = false;
  bool hasLock_ = false;
  bool isReported_ = false;
  bool isInFlight_ = false;
  bool hasReplicationMode_ = false;
  Batch inFlight_;
  SwitchPlan inFlightPlan_;
  std::deque<Batch> queue_;    // to be sent at once
  std::deque<Batch> waiting_;  // for the timer
  boost::asio::steady_timer retry_;
  unsigned retries_ = 0;
  std::vector<std::string> differences_;
  SwitchFigures figures_;
  std::chrono::steady_clock::time_point sentAt_;
};

}  // namespace vnagent
