// The thread on which the service lives: requests, timers and the disk's reports are posted to it.
//
//   ActivityThread activity;
//   activity.start();
//   boost::asio::post(activity.context(), [&] { ... });
//   activity.finish();  // does what was posted, then ends
//
// An exception that reaches the end of a task ends the process: what the machines hold is unknown
// then, and what was acknowledged is on the disk.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <thread>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

namespace vnagent {

class ActivityThread {
 public:
  ActivityThread();
  ~ActivityThread();
  ActivityThread(const ActivityThread&) = delete;
  ActivityThread& operator=(const ActivityThread&) = delete;

  // Called on the thread once a second, while it turns. Set it before start().
  void onBeatIs(std::function<void()> onBeat) { onBeat_ = std::move(onBeat); }

  void start();
  boost::asio::io_context& context() { return *context_; }
  // For who may post when the thread has ended: that is dropped.
  std::shared_ptr<boost::asio::io_context> sharedContext() { return context_; }

  // Runs a task on the thread and waits for its end. Not from the thread itself.
  void run(const std::function<void()>& task);

  // How long ago the thread last began a turn; any thread.
  std::chrono::nanoseconds sinceTurn() const;

  // Waits until everything that was posted is done, and ends the thread. Any timer that is armed
  // still keeps it alive.
  void finish();

 private:
  void beat();

  const std::shared_ptr<boost::asio::io_context> context_ =
      std::make_shared<boost::asio::io_context>(1);
  boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work_;
  boost::asio::steady_timer timer_;
  std::function<void()> onBeat_;
  std::atomic<int64_t> turned_{0};  // nanoseconds of the steady clock
  std::thread thread_;
};

}  // namespace vnagent
