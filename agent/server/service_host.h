// Keeps a service on the activity thread: hands it the requests, and wakes it when it is due.
//
// Activity thread only, unless noted.
#pragma once

#include <atomic>
#include <limits>
#include <memory>
#include <string>

#include <boost/asio/steady_timer.hpp>

#include "agent/live/service.h"
#include "agent/server/activity_thread.h"
#include "agent/server/network_settings.h"
#include "framework/Time.h"

namespace vnagent {

class ServiceHost final : public RequestHandler {
 public:
  // `storage` null: everything is in memory only.
  ServiceHost(ActivityThread& activity, ServiceSettings settings, Storage* storage,
              Recovered recovered);
  ~ServiceHost() override;

  uint64_t handle(Request request, Answer answer) override;
  void abandon(uint64_t ticket) override;

  void durableIs(uint64_t sequence);
  void storageFailed(uint64_t sequence, const std::string& reason);
  void storageIsWritable();
  void stop();

  // To be called about once a second: at rest, gives the system back what much work has left free.
  void beat();

  ServiceFigures figures() const { return service_.figures(); }
  // Everything is answered after stop(). Any thread.
  bool isIdle() const { return isIdle_.load(std::memory_order_acquire); }

 private:
  class HostedStream;

  // Runs a task later on the activity thread, unless this has ended then.
  Post poster(ActivityThread& activity);
  // After each call of the service: what it waits for may be due at another time now.
  void update();
  void wake();

  // What a task that was posted finds of this; gone when this is.
  const std::shared_ptr<ServiceHost*> self_ = std::make_shared<ServiceHost*>(this);
  Kiv::SteadyTime clock_;
  Service service_;
  boost::asio::steady_timer timer_;
  double armed_ = std::numeric_limits<double>::infinity();
  size_t work_ = 0;        // since memory was given back, in bytes of requests
  size_t workAtBeat_ = 0;  // when beat() was called last
  bool isStopping_ = false;
  std::atomic<bool> isIdle_{false};
};

}  // namespace vnagent
