#include <algorithm>
#include <chrono>

#include "agent/client/live_agent.h"
#include "agent/load/detail/load_context.h"

namespace vnagent::detail {
namespace {

constexpr std::chrono::milliseconds kTick{250};

}  // namespace

LoadContext::LoadContext(const LoadSettings& of)
    : settings(of),
      head(of.endpoint),
      cloud(of.cloud),
      times(of.watched == LoadSettings::Watched::kHosts ? 0 : of.watchers),
      etags(of.cloud.ports),
      tick_(io) {
  tickLater();
}

void LoadContext::tickLater() {
  tick_.expires_after(kTick);
  tick_.async_wait([this](const boost::system::error_code& error) {
    if (error) return;
    checkDeadlines();
    if (onTick) onTick();
    tickLater();
  });
}

void LoadContext::open(const std::function<void(std::shared_ptr<HttpChannel>)>& opened) {
  const auto channel = HttpChannel::make(io, settings.endpoint);
  channels_.push_back(channel);
  channel->open([this, channel, opened](const std::string& error) {
    if (!error.empty()) return fail(std::make_exception_ptr(Unreachable(error)));
    opened(channel);
  });
}

void LoadContext::fail(std::exception_ptr error) {
  if (!failure_) failure_ = std::move(error);
}

void LoadContext::failAsRefused(const ChannelReply& reply) {
  if (!reply.error.empty()) return fail(std::make_exception_ptr(Unreachable(reply.error)));
  fail(std::make_exception_ptr(RequestRefused({reply.status, {}, reply.body})));
}

void LoadContext::refused(const ChannelReply& reply) {
  if (!reply.error.empty()) return failAsRefused(reply);
  const std::string name = RequestRefused({reply.status, {}, reply.body}).name();
  ++report.refused[name.empty() ? std::to_string(reply.status) : name];
}

void LoadContext::checkDeadlines() {
  const int64_t now = steadyNanoseconds();
  for (const auto& weak : channels_) {
    const auto channel = weak.lock();
    if (!channel || channel->waitingSince() == 0) continue;
    if (static_cast<double>(now - channel->waitingSince()) < settings.deadline * 1e9) continue;
    fail(std::make_exception_ptr(
        Unreachable(settings.endpoint.name() + ": no answer within the deadline")));
  }
  std::erase_if(channels_, [](const auto& weak) { return weak.expired(); });
}

void LoadContext::runUntil(const std::function<bool()>& isDone) {
  while (!failure_ && !isDone()) io.run_one();
  if (failure_) std::rethrow_exception(failure_);
}

Pace::Pace(double rate, size_t count, size_t index)
    : interval_(rate <= 0 ? 0 : static_cast<int64_t>(1e9 * static_cast<double>(count) / rate)),
      offset_(count == 0 ? 0
                         : interval_ * static_cast<int64_t>(index) / static_cast<int64_t>(count)) {}

void Pace::begin() {
  due_ = steadyNanoseconds() + offset_ - interval_;
}

int64_t Pace::next() {
  if (interval_ == 0) return steadyNanoseconds();
  due_ += interval_;
  return due_;
}

Lane::Lane(LoadContext& context, Pace pace, Send send)
    : context_(context), pace_(pace), send_(std::move(send)), timer_(context.io) {}

void Lane::begin() {
  isStopped_ = false;
  isIdle_ = false;
  pace_.begin();
  next();
}

void Lane::next() {
  if (isStopped_ || context_.isStopping) {
    isIdle_ = true;
    return;
  }
  due_ = pace_.next();
  const int64_t wait = due_ - steadyNanoseconds();
  if (wait <= 0) return sendNow();
  timer_.expires_after(std::chrono::nanoseconds(wait));
  timer_.async_wait([this](const boost::system::error_code&) {
    if (isStopped_ || context_.isStopping) {
      isIdle_ = true;
    } else {
      sendNow();
    }
  });
}

void Lane::sendNow() {
  send_(due_, [this] { next(); });
}

}  // namespace vnagent::detail
