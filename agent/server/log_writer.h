// Writes the lines of the log to standard error, many at a time: a thread of its own gathers for a
// moment those that follow each other. Who logs never waits for the reader; where that is too slow,
// the oldest lines are dropped, and a line says how many.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <thread>

#include <spdlog/common.h>
#include <spdlog/sinks/base_sink.h>

namespace vnagent {

// Any thread; base_sink's lock is held while a line is formatted.
class LogWriter final : public spdlog::sinks::base_sink<std::mutex> {
 public:
  // `descriptor` stays open as long as the writer.
  explicit LogWriter(int descriptor);
  // Writes what waits.
  ~LogWriter() override;

 protected:
  void sink_it_(const spdlog::details::log_msg& message) override;
  // Nothing: lines are written within moments anyway.
  void flush_() override {}

 private:
  void run();
  void dropOldest();

  const int descriptor_;
  std::mutex waitingMutex_;
  std::condition_variable wake_;
  spdlog::memory_buf_t waiting_;  // whole lines
  size_t dropped_ = 0;            // lines, since the last that was written
  bool isStopping_ = false;
  std::thread thread_;
};

}  // namespace vnagent
