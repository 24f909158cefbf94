// Hears what the live agent does: for logs and metrics.
#pragma once

#include <cstdint>
#include <string_view>

namespace vnagent {

// Activity thread only; must not call back into the service.
class ServiceObserver {
 public:
  virtual ~ServiceObserver() = default;

  // A change was applied, with this revision; `seconds` is what it took. `principal` is empty for
  // what no request asked for: an expiry, a lock that goes to the next in line.
  virtual void onApplied(uint64_t /*revision*/, std::string_view /*principal*/,
                         std::string_view /*what*/, double /*seconds*/) {}
  // A request was refused, for the reason of the problem type `name`.
  virtual void onRefused(std::string_view /*principal*/, std::string_view /*what*/,
                         std::string_view /*name*/) {}
  // A lock decision: "granted", "waiting", "refused", "released", "forced", "given up".
  virtual void onLock(std::string_view /*region*/, std::string_view /*principal*/,
                      std::string_view /*requester*/, std::string_view /*requestId*/,
                      std::string_view /*decision*/) {}
  // A region's sync status has changed.
  virtual void onSyncStatus(std::string_view /*region*/, std::string_view /*before*/,
                            std::string_view /*now*/) {}
};

}  // namespace vnagent
