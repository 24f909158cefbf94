#include "agent/server/hub.h"

#include "agent/server/connection.h"

namespace vnagent {
namespace {

// Connections beyond the limit that may read why they are refused.
constexpr size_t kRefusedAtOnce = 64;

}  // namespace

std::shared_ptr<const TokenTable> Hub::tokens() const {
  const std::lock_guard lock(mutex_);
  return tokens_;
}

void Hub::tokensAre(std::shared_ptr<const TokenTable> tokens) {
  const std::lock_guard lock(mutex_);
  tokens_ = std::move(tokens);
}

bool Hub::enter(const std::shared_ptr<Connection>& connection) {
  const std::lock_guard lock(mutex_);
  connections_.emplace(connection.get(), Entry{++lastNumber_, connection});
  return connections_.size() <= limits_.connections;
}

bool Hub::isFlooded() const {
  const std::lock_guard lock(mutex_);
  return connections_.size() >= limits_.connections + kRefusedAtOnce;
}

void Hub::leave(Connection* connection) {
  const std::lock_guard lock(mutex_);
  connections_.erase(connection);
  if (connections_.empty()) isEmpty_.notify_all();
}

bool Hub::waitUntilEmpty(std::chrono::milliseconds atMost) {
  std::unique_lock lock(mutex_);
  return isEmpty_.wait_for(lock, atMost, [this] { return connections_.empty(); });
}

size_t Hub::connectionCount() const {
  const std::lock_guard lock(mutex_);
  return connections_.size();
}

bool Hub::moveShare(const std::string& before, const std::string& now) {
  const std::lock_guard lock(mutex_);
  if (shares_[now] >= limits_.share()) return false;
  ++shares_[now];
  if (const auto old = shares_.find(before); old != shares_.end() && --old->second == 0) {
    shares_.erase(old);
  }
  return true;
}

void Hub::leaveShare(const std::string& name) {
  const std::lock_guard lock(mutex_);
  const auto found = shares_.find(name);
  if (found != shares_.end() && --found->second == 0) shares_.erase(found);
}

std::vector<std::shared_ptr<Connection>> Hub::all() const {
  std::map<uint64_t, std::shared_ptr<Connection>> ordered;
  {
    const std::lock_guard lock(mutex_);
    for (const auto& [key, entry] : connections_) {
      if (auto connection = entry.connection.lock()) {
        ordered.emplace(entry.number, std::move(connection));
      }
    }
  }
  std::vector<std::shared_ptr<Connection>> all;
  all.reserve(ordered.size());
  for (auto& [number, connection] : ordered) all.push_back(std::move(connection));
  return all;
}

void Hub::stop() {
  isStopping_.store(true, std::memory_order_relaxed);
  for (const auto& connection : all()) connection->stop();
}

void Hub::sweep() {
  for (const auto& connection : all()) {
    if (connection->isOverdue()) connection->deadlinePassed();
  }
}

void Hub::closeAll() {
  for (const auto& connection : all()) connection->abort();
}

}  // namespace vnagent
