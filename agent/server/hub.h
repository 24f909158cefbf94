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

class Hub {
 public:
  Hub(const NetworkLimits& limits, boost::asio::io_context& activity, Probes probes,
      NetworkObserver& observer)
      : limits_(limits), activity_(activity), probes_(std::move(probes)), observer_(observer) {}
  Hub(const Hub&) = delete;
  Hub& operator=(const Hub&) = delete;

  const NetworkLimits& limits() const { return limits_; }
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
