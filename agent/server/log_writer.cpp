#include "agent/server/log_writer.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <string_view>
#include <utility>

#include <fmt/format.h>
#include <unistd.h>

namespace vnagent {
namespace {

// How long the lines are gathered that follow one that was written.
constexpr std::chrono::milliseconds kGathered{5};
// What waits for a slow reader, at most.
constexpr size_t kMostBytes = size_t{1} << 20;

// Returns when all is written, or the reader is gone.
void writeAll(int descriptor, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(descriptor, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    text.remove_prefix(static_cast<size_t>(written));
  }
}

}  // namespace

LogWriter::LogWriter(int descriptor) : descriptor_(descriptor), thread_([this] { run(); }) {}

LogWriter::~LogWriter() {
  {
    const std::scoped_lock lock(waitingMutex_);
    isStopping_ = true;
  }
  wake_.notify_one();
  thread_.join();
}

void LogWriter::sink_it_(const spdlog::details::log_msg& message) {
  spdlog::memory_buf_t line;
  formatter_->format(message, line);
  const std::scoped_lock lock(waitingMutex_);
  if (waiting_.size() == 0) wake_.notify_one();
  waiting_.append(line.data(), line.data() + line.size());
  if (waiting_.size() > kMostBytes) dropOldest();
}

// Half of them, so that it is not done for each line.
void LogWriter::dropOldest() {
  const std::string_view text(waiting_.data(), waiting_.size());
  const size_t end = text.find('\n', text.size() / 2) + 1;
  dropped_ += static_cast<size_t>(std::ranges::count(text.substr(0, end), '\n'));
  spdlog::memory_buf_t rest;
  rest.append(text.data() + end, text.data() + text.size());
  waiting_ = std::move(rest);
}

void LogWriter::run() {
  std::unique_lock lock(waitingMutex_);
  for (;;) {
    wake_.wait(lock, [this] { return isStopping_ || waiting_.size() > 0; });
    spdlog::memory_buf_t lines;
    std::swap(lines, waiting_);
    const size_t dropped = std::exchange(dropped_, 0);
    lock.unlock();
    if (dropped > 0) {
      writeAll(descriptor_, fmt::format("{} lines of the log were dropped\n", dropped));
    }
    writeAll(descriptor_, {lines.data(), lines.size()});
    lock.lock();
    wake_.wait_for(lock, kGathered, [this] { return isStopping_; });
    if (isStopping_ && waiting_.size() == 0) return;
  }
}

}  // namespace vnagent
