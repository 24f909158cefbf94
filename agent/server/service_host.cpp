#include "agent/server/service_host.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <utility>

#include <malloc.h>
#include <boost/asio/post.hpp>

namespace vnagent {
namespace {

// Longer times of sleep than this are slept in parts: the clock's unit has a largest value.
constexpr double kLongestSleep = 86'400;

// What a request counts beside its body, and after how much memory is worth giving back.
constexpr size_t kRequestBytes = 4096;
constexpr size_t kMuchWork = size_t{8} << 20;

}  // namespace

// A stream of the service. What it gives out moves the time of its next bookmark.
class ServiceHost::HostedStream final : public EventStream {
 public:
  HostedStream(std::weak_ptr<ServiceHost*> host, std::unique_ptr<EventStream> stream)
      : host_(std::move(host)), stream_(std::move(stream)) {
    stream_->readyIs([this] { notify(); });
  }

  std::shared_ptr<const std::string> next() override {
    auto bytes = stream_->next();
    if (const auto host = host_.lock()) (*host)->update();
    return bytes;
  }
  bool ended() const override { return stream_->ended(); }

 private:
  const std::weak_ptr<ServiceHost*> host_;
  const std::unique_ptr<EventStream> stream_;
};

ServiceHost::ServiceHost(ActivityThread& activity, ServiceSettings settings, Storage* storage,
                         Recovered recovered)
    : service_((settings.post = poster(activity), settings), clock_, storage, std::move(recovered)),
      timer_(activity.context()) {
  update();
}

ServiceHost::~ServiceHost() = default;

Post ServiceHost::poster(ActivityThread& activity) {
  return [context = activity.sharedContext(),
          weak = std::weak_ptr(self_)](std::function<void()> task) {
    boost::asio::post(*context, [weak, task = std::move(task)] {
      const auto self = weak.lock();
      if (!self) return;
      task();
      (*self)->update();
    });
  };
}

uint64_t ServiceHost::handle(Request request, Answer answer) {
  work_ += kRequestBytes + request.body.size();
  const uint64_t ticket = service_.handle(
      std::move(request), [weak = std::weak_ptr(self_), answer = std::move(answer)](Reply reply) {
        if (reply.stream) {
          reply.stream = std::make_unique<HostedStream>(weak, std::move(reply.stream));
        }
        answer(std::move(reply));
      });
  update();
  return ticket;
}

void ServiceHost::abandon(uint64_t ticket) {
  service_.abandon(ticket);
  update();
}

void ServiceHost::durableIs(uint64_t sequence) {
  service_.durableIs(sequence);
  update();
}

void ServiceHost::storageFailed(uint64_t sequence, const std::string& reason) {
  service_.storageFailed(sequence, reason);
  update();
}

void ServiceHost::storageIsWritable() {
  service_.storageIsWritable();
  update();
}

void ServiceHost::stop() {
  isStopping_ = true;
  service_.stop();
  update();
}

// It takes some milliseconds when there is much, so not while there is work.
void ServiceHost::beat() {
  if (work_ != workAtBeat_) {
    workAtBeat_ = work_;
  } else if (work_ >= kMuchWork) {
    ::malloc_trim(0);
    work_ = workAtBeat_ = 0;
  }
}

void ServiceHost::update() {
  if (isStopping_ && service_.isIdle()) isIdle_.store(true, std::memory_order_release);
  const double next = service_.nextTimer();
  // A timer that is armed too early finds nothing to do and is armed again: cheaper than arming it
  // anew each time that a heartbeat moves what is due.
  if (next >= armed_) return;
  armed_ = next;
  const double seconds = std::clamp(next - clock_.now(), 0.0, kLongestSleep);
  timer_.expires_after(std::chrono::nanoseconds(static_cast<int64_t>(std::ceil(seconds * 1e9))));
  timer_.async_wait([this](const boost::system::error_code& error) {
    if (!error) wake();
  });
}

void ServiceHost::wake() {
  armed_ = std::numeric_limits<double>::infinity();
  service_.turn();
  update();
}

}  // namespace vnagent
