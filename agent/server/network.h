// The network side of the live agent: its listeners, its connections, and the threads that serve
// them. These never touch the service: requests go to the activity thread, replies come back.
//
//   Network network(limits, activity, probes, observer);
//   network.listenOnUnixSocket("/run/vnagent/vnagent.sock", role);
//   network.start();
//   activity.run([&] { network.handlerIs(&handler); });
//   ...
//   network.stopAccepting();
//   network.stop();    // no further requests
//   network.finish();  // closes what is left, ends the threads
#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

#include "agent/server/activity_thread.h"
#include "agent/server/hub.h"
#include "agent/server/listener.h"

namespace vnagent {

class Network {
 public:
  Network(const NetworkLimits& limits, ActivityThread& activity, Probes probes,
          NetworkObserver& observer, unsigned threads = 2);
  ~Network();
  Network(const Network&) = delete;
  Network& operator=(const Network&) = delete;

  // Binds; all before start(). Throws CannotListen.
  void listenOnUnixSocket(const std::string& path, const Principal& role);
  // Over TLS where tlsIs() was called.
  void listenOnTcp(const std::string& address);
  std::vector<std::string> addresses() const;

  // For the connections from now on. Any thread.
  void tlsIs(std::shared_ptr<boost::asio::ssl::context> tls);
  void tokensAre(TokenTable tokens);

  void start();

  // Who takes the requests; null: nobody, they are refused. Activity thread.
  void handlerIs(RequestHandler* handler) { hub_->handlerIs(handler); }

  void stopAccepting();
  void stop() { hub_->stop(); }
  // Waits until each client has read its reply; returns false where some took too long.
  bool waitUntilIdle(std::chrono::milliseconds atMost) { return hub_->waitUntilEmpty(atMost); }
  size_t connectionCount() const { return hub_->connectionCount(); }
  // REQUIRES: the activity thread runs still, for what the connections leave to it.
  void finish();

 private:
  void sweepLater();

  boost::asio::io_context context_;
  boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work_;
  const std::shared_ptr<Hub> hub_;
  const unsigned threadCount_;
  const std::chrono::milliseconds sweepInterval_;
  boost::asio::steady_timer sweep_;
  std::vector<std::unique_ptr<Listener>> listeners_;
  std::vector<std::thread> threads_;

  mutable std::mutex mutex_;
  std::shared_ptr<boost::asio::ssl::context> tls_;
};

}  // namespace vnagent
