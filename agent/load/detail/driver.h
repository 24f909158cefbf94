// A driver of a load: it syncs its regions, and moves their ports over some connections. One
// thread.
#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "agent/load/detail/load_context.h"

namespace vnagent::detail {

class Driver {
 public:
  // The driver of that number. Its regions are that one and each settings.drivers further.
  Driver(LoadContext& context, uint32_t number);

  // Each begins, and is done when the function says so.
  void open();
  bool isOpen() const { return channels_.size() == connections_; }
  void sync();
  bool isSynced() const { return calls_.empty() && !isCalling_; }
  void beginMoves();
  void stop();
  bool isIdle() const;

 private:
  struct Call {
    std::string method;
    std::string target;
    std::string body;
    std::string headers;
    uint32_t region;
  };

  void addCalls(uint32_t region);
  void nextCall();
  void noteRevision(uint32_t region, const ChannelReply& reply);
  void move(size_t lane, int64_t due, const Lane::Answered& answered);
  void syncLater();
  void syncOnceIdle();
  void moveOnceSynced();
  void after(std::chrono::nanoseconds time, const std::function<void()>& then);

  LoadContext& context_;
  const uint32_t number_;
  const uint32_t connections_;
  uint64_t syncs_ = 0;
  std::vector<uint32_t> regions_;
  std::vector<std::shared_ptr<HttpChannel>> channels_;
  std::deque<Call> calls_;
  bool isCalling_ = false;
  std::vector<std::vector<uint32_t>> ports_;  // of each lane, in random order
  std::vector<size_t> nextPort_;              // of each lane
  std::vector<std::unique_ptr<Lane>> lanes_;
  boost::asio::steady_timer timer_;
};

}  // namespace vnagent::detail
