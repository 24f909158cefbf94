// A simulated connection between a client and the agent. Bytes arrive later, in parts, in order;
// the agent's end takes no more than the client's window lets it; both ends may break it off.
//
// The agent's end is a Connection like that over a socket: it has all of its code but the socket.
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "agent/server/connection.h"
#include "tests/sim/live/world.h"

namespace sim {

class Wire : public std::enable_shared_from_this<Wire> {
 public:
  // What a client hears. Called in virtual time, not from inside its own calls.
  struct Hearer {
    std::function<void(std::string)> received;
    std::function<void()> ended;  // nothing more will come
  };

  Wire(World& world, Hearer hearer, size_t window, Nanoseconds latency)
      : world_(world), hearer_(std::move(hearer)), window_(window), latency_(latency) {}

  // The client's end.
  void hearerIs(Hearer hearer) { hearer_ = std::move(hearer); }
  void send(const std::string& bytes);
  void finishSending();  // closes the sending half
  void reset();          // breaks it off; nothing is heard any more
  bool isOpen() const { return !isReset_ && !hasEnded_; }

  // The agent's end, which registers with the hub.
  static std::shared_ptr<vnagent::Connection> connect(const std::shared_ptr<Wire>& wire,
                                                      std::shared_ptr<vnagent::Hub> hub,
                                                      vnagent::NetworkExecutor executor);

 private:
  class AgentEnd;

  // When what is sent now arrives: never before what was sent before.
  Nanoseconds arrival(Nanoseconds& last);
  void arrive(std::string bytes);

  World& world_;
  Hearer hearer_;
  const size_t window_;  // how many bytes the agent may send ahead of the client's reading
  const Nanoseconds latency_;
  Nanoseconds lastUp_ = 0;
  Nanoseconds lastDown_ = 0;
  std::string input_;  // arrived at the agent, and not read
  bool hasInputEnded_ = false;
  bool isReset_ = false;
  bool hasEnded_ = false;  // the agent closed
  size_t inFlight_ = 0;    // bytes that the client has not read
  std::weak_ptr<AgentEnd> agentEnd_;
};

}  // namespace sim
