// What the parts of a load share. One thread.
#pragma once

#include <exception>
#include <functional>
#include <memory>
#include <random>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

#include "agent/load/http_channel.h"
#include "agent/load/load.h"
#include "agent/load/load_cloud.h"
#include "agent/load/revision_times.h"

namespace vnagent::detail {

class LoadContext {
 public:
  explicit LoadContext(const LoadSettings& of);

  // A new connection, whose answers must come within the deadline. Throws nothing; what fails to
  // open fails the load.
  void open(const std::function<void(std::shared_ptr<HttpChannel>)>& opened);
  // Notes what did not do; the load ends with it.
  void fail(std::exception_ptr error);
  void failAsRefused(const ChannelReply& reply);
  // Counts a refusal that the load survives. Fails where there was no answer.
  void refused(const ChannelReply& reply);
  // Fails where an answer is overdue.
  void checkDeadlines();
  // Runs until `isDone`. Throws what fail() was given.
  void runUntil(const std::function<bool()>& isDone);

  const LoadSettings& settings;
  boost::asio::io_context io{1};
  RequestHead head;
  LoadCloud cloud;
  LoadReport report;
  RevisionTimes times;
  // The ETag of each port's binding.
  std::vector<uint64_t> etags;
  bool isMeasuring = false;
  bool isStopping = false;
  // Called by runUntil() a few times a second.
  std::function<void()> onTick;

 private:
  void tickLater();

  std::vector<std::weak_ptr<HttpChannel>> channels_;
  boost::asio::steady_timer tick_;
  std::exception_ptr failure_;
};

// When the next request of one of several that share a rate is due.
class Pace {
 public:
  // `rate` for all `count` of them, a second; 0: at once.
  Pace(double rate, size_t count, size_t index);

  // Due times begin now.
  void begin();
  // The time, in steady nanoseconds, from which the next request counts: when it is due, also where
  // that has passed.
  int64_t next();

 private:
  int64_t interval_;
  int64_t offset_;
  int64_t due_ = 0;
};

// The requests of one connection, one after another, each when it is due.
class Lane {
 public:
  // `send` sends a request that was due at a time, and calls the function that it is given when
  // that has been answered.
  using Answered = std::function<void()>;
  using Send = std::function<void(int64_t due, Answered answered)>;

  Lane(LoadContext& context, Pace pace, Send send);

  void begin();
  // Sends no further request; idle() is true once the last is answered.
  void stop() { isStopped_ = true; }
  bool isIdle() const { return isIdle_; }

 private:
  void next();
  void sendNow();

  LoadContext& context_;
  Pace pace_;
  Send send_;
  boost::asio::steady_timer timer_;
  int64_t due_ = 0;
  bool isStopped_ = true;
  bool isIdle_ = true;
};

}  // namespace vnagent::detail
