// Keeps a service on the activity thread: hands it the requests, and wakes it when it is due.
//
// Activity thread only, unless noted.
#pragma once

#include <atomic>
#include <limits>
#include <memory>
#include <string>

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

#include "agent/live/service.h"
#include "agent/server/network_settings.h"
#include "framework/Time.h"

namespace vnagent {

class ServiceHost final : public RequestHandler {
 public:
  // `storage` null: everything is in memory only.
  ServiceHost(boost::asio::io_context& activity, const ServiceSettings& settings, Storage* storage,
              Recovered recovered);
  ~ServiceHost() override;

  uint64_t handle(Request request, Answer answer) override;
  void abandon(uint64_t ticket) override;

  void durableIs(uint64_t sequence);
  void storageFailed(uint64_t sequence, const std::string& reason);
  void storageIsWritable();
  void stop();

  ServiceFigures figures() const { return service_.figures(); }
  // Everything is answered after stop(). Any thread.
  bool isIdle() const { return isIdle_.load(std::memory_order_acquire); }

 private:
  // The settings with a way back to the activity thread.
  ServiceSettings posting(boost::asio::io_context& activity, ServiceSettings settings);
  // After each call of the service: what it waits for may be due at another time now.
  void update();
  void wake();

  // Ends with the host: what other threads post later finds nobody.
  std::shared_ptr<ServiceHost*> self_ = std::make_shared<ServiceHost*>(this);
  Kiv::SteadyTime clock_;
  Service service_;
  boost::asio::steady_timer timer_;
  double armed_ = std::numeric_limits<double>::infinity();
  bool isStopping_ = false;
  std::atomic<bool> isIdle_{false};
};

}  // namespace vnagent
