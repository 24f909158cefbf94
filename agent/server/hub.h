// What the connections of the live agent share: limits, the way to the service, who is connected.
//
// Any thread, unless noted.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <boost/asio/io_context.hpp>

#include "agent/server/credentials.h"
#include "agent/server/network_settings.h"

namespace vnagent {

class Connection;

// The memory for the bodies of all requests that are not answered yet. Any thread.
class BodyMemory {
 public:
  explicit BodyMemory(uint64_t limit) : limit_(limit) {}

  // Takes so many bytes, all or none of them.
  bool take(uint64_t bytes) {
    if (taken_.fetch_add(bytes, std::memory_order_relaxed) + bytes <= limit_) return true;
    giveBack(bytes);
    return false;
  }
  void giveBack(uint64_t bytes) { taken_.fetch_sub(bytes, std::memory_order_relaxed); }

 private:
  const uint64_t limit_;
  std::atomic<uint64_t> taken_{0};
};

// What one request has of it, until its end. One thread at a time.
class BodyShare {
 public:
  // So much is always free: what is this small is bounded by the number of connections.
  static constexpr uint64_t kFreeBytes = uint64_t{64} << 10;

  explicit BodyShare(BodyMemory& memory) : memory_(memory) {}
  ~BodyShare() { memory_.giveBack(taken_); }
  BodyShare(const BodyShare&) = delete;
  BodyShare& operator=(const BodyShare&) = delete;

  // The body has grown to so many bytes; returns whether there is memory for it.
  bool grow(uint64_t bytes) {
    if (bytes <= kFreeBytes + taken_) return true;
    const uint64_t more = bytes - kFreeBytes - taken_;
    if (!memory_.take(more)) return false;
    taken_ += more;
    return true;
  }

 private:
  BodyMemory& memory_;
  uint64_t taken_ = 0;
};

class Hub {
 public:
  Hub(const NetworkLimits& limits, boost::asio::io_context& activity, Probes probes,
      NetworkObserver& observer)
      : limits_(limits),
        bodies_(limits.bodiesBytes),
        activity_(activity),
        probes_(std::move(probes)),
        observer_(observer) {}
  Hub(const Hub&) = delete;
  Hub& operator=(const Hub&) = delete;

  const NetworkLimits& limits() const { return limits_; }
  BodyMemory& bodies() { return bodies_; }
  boost::asio::io_context& activity() { return activity_; }
  const Probes& probes() const { return probes_; }
  NetworkObserver& observer() { return observer_; }

  // Who takes the requests; null while there is nobody. Activity thread.
  RequestHandler* handler() const { return handler_; }
  void handlerIs(RequestHandler* handler) { handler_ = handler; }

  // The tokens, which may be replaced at any time.
  std::shared_ptr<const TokenTable> tokens() const;
  void tokensAre(std::shared_ptr<const TokenTable> tokens);

  // Registers a connection; returns whether there is room for it. One for which there is none is
  // registered too, until it has read its refusal.
  bool enter(const std::shared_ptr<Connection>& connection);
  // True where so many wait to read a refusal that one more should just be closed.
  bool isFlooded() const;
  void leave(Connection* connection);
  size_t connectionCount() const;
  // Waits until there is no connection; returns whether there is none.
  bool waitUntilEmpty(std::chrono::milliseconds atMost);

  // Counts a connection to a principal's share, and no longer to that of `before`, which may be
  // empty; returns whether there is room.
  bool moveShare(const std::string& before, const std::string& now);
  void leaveShare(const std::string& name);

  // No connection takes another request.
  bool isStopping() const { return isStopping_.load(std::memory_order_relaxed); }
  void stop();
  // Asks each connection whose deadline has passed to act on it.
  void sweep();
  // Closes all of them at once.
  void closeAll();

 private:
  // In the order in which they came.
  std::vector<std::shared_ptr<Connection>> all() const;

  const NetworkLimits limits_;
  BodyMemory bodies_;
  boost::asio::io_context& activity_;
  const Probes probes_;
  NetworkObserver& observer_;
  RequestHandler* handler_ = nullptr;

  mutable std::mutex mutex_;
  std::condition_variable isEmpty_;
  std::shared_ptr<const TokenTable> tokens_ = std::make_shared<TokenTable>();
  struct Entry {
    uint64_t number;
    std::weak_ptr<Connection> connection;
  };
  std::map<Connection*, Entry> connections_;
  uint64_t lastNumber_ = 0;
  std::map<std::string, size_t> shares_;
  std::atomic<bool> isStopping_{false};
};

}  // namespace vnagent
