#include "agent/server/activity_thread.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <future>

#include <boost/asio/post.hpp>

#include "agent/server/steady_time.h"

namespace vnagent {
namespace {

constexpr std::chrono::seconds kBeat{1};

}  // namespace

ActivityThread::ActivityThread()
    : work_(context_->get_executor()), timer_(*context_), turned_(steadyNanoseconds()) {}

ActivityThread::~ActivityThread() {
  finish();
}

void ActivityThread::start() {
  boost::asio::post(*context_, [this] { beat(); });
  thread_ = std::thread([this] {
    try {
      context_->run();
    } catch (const std::exception& error) {
      std::fprintf(stderr, "vnagent: error: internal error: %s\n", error.what());
      std::_Exit(1);
    }
  });
}

void ActivityThread::run(const std::function<void()>& task) {
  std::promise<void> done;
  boost::asio::post(*context_, [&] {
    task();
    done.set_value();
  });
  done.get_future().wait();
}

std::chrono::nanoseconds ActivityThread::sinceTurn() const {
  return std::chrono::nanoseconds(steadyNanoseconds() - turned_.load(std::memory_order_relaxed));
}

void ActivityThread::finish() {
  if (!thread_.joinable()) return;
  boost::asio::post(*context_, [this] {
    timer_.cancel();
    onBeat_ = nullptr;
    work_.reset();
  });
  thread_.join();
}

void ActivityThread::beat() {
  turned_.store(steadyNanoseconds(), std::memory_order_relaxed);
  if (!work_.owns_work()) return;
  if (onBeat_) onBeat_();
  timer_.expires_after(kBeat);
  timer_.async_wait([this](const boost::system::error_code& error) {
    if (!error) beat();
  });
}

}  // namespace vnagent
