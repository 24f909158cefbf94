// The log of the live agent: one line for each change, lock decision, sync transition, and for what
// happens to the process. Lines are `key=value` after a word for what happened; values that need it
// are quoted. Never a token or a body.
//
// Lines are written by a thread of their own (log_writer.h): who logs never waits.
#pragma once

#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "agent/live/service_observer.h"

namespace spdlog {
class logger;
}

namespace vnagent {

class Log {
 public:
  enum class Level { kInfo, kWarning, kError };
  using Fields = std::initializer_list<std::pair<std::string_view, std::string_view>>;

  // To standard error; in the form of journald where that is its stream.
  Log();
  // Writes what waits.
  ~Log();
  Log(const Log&) = delete;
  Log& operator=(const Log&) = delete;

  // Any thread.
  void write(Level level, std::string_view what, Fields fields = {});
  void info(std::string_view what, Fields fields = {}) { write(Level::kInfo, what, fields); }
  void warning(std::string_view what, Fields fields = {}) { write(Level::kWarning, what, fields); }
  void error(std::string_view what, Fields fields = {}) { write(Level::kError, what, fields); }

 private:
  std::unique_ptr<spdlog::logger> logger_;
};

// The line of an entry, without time and level.
std::string logLine(std::string_view what, Log::Fields fields);

// Writes what a service does to a log.
class ServiceLog final : public ServiceObserver {
 public:
  explicit ServiceLog(Log& log) : log_(log) {}

  void onApplied(uint64_t revision, std::string_view principal, std::string_view what,
                 double seconds) override;
  void onRefused(std::string_view principal, std::string_view what, std::string_view name) override;
  void onLock(std::string_view region, std::string_view principal, std::string_view requester,
              std::string_view requestId, std::string_view decision) override;
  void onSyncStatus(std::string_view region, std::string_view before,
                    std::string_view now) override;

 private:
  Log& log_;
};

}  // namespace vnagent
