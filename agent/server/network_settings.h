// What the network side of the live agent is given: limits, who takes the requests, and who hears
// of them. No sockets here.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "agent/live/exchange.h"

namespace vnagent {

struct NetworkLimits {
  size_t headerBytes = 16 * 1024;
  uint64_t bodyBytes = uint64_t{64} << 20;
  uint64_t bodiesBytes = uint64_t{256} << 20;  // of all requests that are not answered yet
  size_t connections = 1024;
  std::chrono::milliseconds request{30'000};   // from its first byte to its last
  std::chrono::milliseconds idle{600'000};     // between the requests of a known principal
  std::chrono::milliseconds stalled{60'000};   // while the client takes nothing
  std::chrono::milliseconds lingering{2'000};  // for the client to read a last reply

  // How many connections one principal may hold: all but a 64th, so that others still get in.
  size_t share() const { return connections - connections / 64; }
};

// Takes the requests. Activity thread only.
class RequestHandler {
 public:
  using Answer = std::function<void(Reply)>;

  virtual ~RequestHandler() = default;
  // As Service::handle() and Service::abandon().
  virtual uint64_t handle(Request request, Answer answer) = 0;
  virtual void abandon(uint64_t ticket) = 0;
};

// Hears what happens on the network. Any thread, several at a time.
class NetworkObserver {
 public:
  virtual ~NetworkObserver() = default;
  virtual void onConnected() {}
  virtual void onDisconnected() {}
  // A reply begins.
  virtual void onReply(std::string_view /*method*/, std::string_view /*target*/,
                       unsigned /*status*/) {}
  // A client took nothing for too long, and was disconnected.
  virtual void onCut() {}
};

// Why the agent is not healthy, or not ready; nothing where it is. Any thread.
struct Probes {
  std::function<std::optional<std::string>()> unhealthy;
  std::function<std::optional<std::string>()> unready;
};

}  // namespace vnagent
