// The figures that the live agent shows at /metrics, in the text format of Prometheus.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "agent/journal/journal.h"
#include "agent/live/service.h"
#include "agent/live/service_observer.h"
#include "agent/server/network_settings.h"

namespace vnagent {

class Metrics final : public ServiceObserver, public NetworkObserver {
 public:
  Metrics();
  ~Metrics() override;

  // ServiceObserver.
  void onApplied(uint64_t revision, std::string_view principal, std::string_view what,
                 double seconds) override;
  void onRefused(std::string_view principal, std::string_view what, std::string_view name) override;
  void onLock(std::string_view region, std::string_view principal, std::string_view requester,
              std::string_view requestId, std::string_view decision) override;
  void onSyncStatus(std::string_view region, std::string_view before,
                    std::string_view now) override;

  // NetworkObserver.
  void onConnected() override;
  void onDisconnected() override;
  void onReply(std::string_view method, std::string_view target, unsigned status) override;
  void onCut() override;

  // A commit of the journal, and what it took. Any thread.
  void committed(double seconds);

  // The page. `journal` is null where everything is in memory only.
  std::string page(const ServiceFigures& service, const JournalFigures* journal);

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

// The route of a request as a label: one of a few words, whatever the target is.
std::string_view routeOf(std::string_view target);

}  // namespace vnagent
