#include "agent/server/network.h"

#include <algorithm>

#include <boost/asio/post.hpp>

namespace vnagent {
namespace {

// Closing takes a turn of each connection; no client is waited for.
constexpr std::chrono::seconds kLongest{10};

// A deadline is noticed soon after it has passed, and never before.
std::chrono::milliseconds sweepIntervalOf(const NetworkLimits& limits) {
  using std::chrono::milliseconds;
  const auto shortest = std::min({limits.request, limits.idle, limits.stalled, limits.lingering});
  return std::clamp(shortest / 4, milliseconds(5), milliseconds(500));
}

}  // namespace

Network::Network(const NetworkLimits& limits, ActivityThread& activity, Probes probes,
                 NetworkObserver& observer, unsigned threads)
    : context_(static_cast<int>(threads)),
      work_(context_.get_executor()),
      hub_(std::make_shared<Hub>(limits, activity.context(), std::move(probes), observer)),
      threadCount_(threads),
      sweepInterval_(sweepIntervalOf(limits)),
      sweep_(context_) {}

Network::~Network() {
  finish();
}

void Network::listenOnUnixSocket(const std::string& path, const Principal& role) {
  listeners_.push_back(vnagent::listenOnUnixSocket(context_, hub_, path, role));
}

void Network::listenOnTcp(const std::string& address) {
  listeners_.push_back(vnagent::listenOnTcp(context_, hub_, address, [this] {
    const std::lock_guard lock(mutex_);
    return tls_;
  }));
}

std::vector<std::string> Network::addresses() const {
  std::vector<std::string> addresses;
  for (const auto& listener : listeners_) addresses.push_back(listener->address());
  return addresses;
}

void Network::tlsIs(std::shared_ptr<boost::asio::ssl::context> tls) {
  const std::lock_guard lock(mutex_);
  tls_ = std::move(tls);
}

void Network::tokensAre(TokenTable tokens) {
  hub_->tokensAre(std::make_shared<const TokenTable>(std::move(tokens)));
}

void Network::start() {
  for (const auto& listener : listeners_) listener->start();
  boost::asio::post(context_, [this] { sweepLater(); });
  for (unsigned i = 0; i < threadCount_; ++i) {
    threads_.emplace_back([this] { context_.run(); });
  }
}

void Network::sweepLater() {
  sweep_.expires_after(sweepInterval_);
  sweep_.async_wait([this](const boost::system::error_code& error) {
    if (error) return;
    hub_->sweep();
    sweepLater();
  });
}

void Network::stopAccepting() {
  for (const auto& listener : listeners_) listener->close();
}

void Network::finish() {
  if (threads_.empty()) return;
  stopAccepting();
  hub_->stop();
  hub_->closeAll();
  hub_->waitUntilEmpty(kLongest);
  context_.stop();
  for (std::thread& thread : threads_) thread.join();
  threads_.clear();
}

}  // namespace vnagent
