#include "agent/server/log.h"

#include <algorithm>
#include <cstdlib>

#include <fmt/format.h>
#include <spdlog/logger.h>
#include <spdlog/pattern_formatter.h>
#include <sys/stat.h>
#include <unistd.h>

#include "agent/server/log_writer.h"

namespace vnagent {
namespace {

// The priority of journald, which a line begins with: <6> for what is normal.
class Priority final : public spdlog::custom_flag_formatter {
 public:
  void format(const spdlog::details::log_msg& message, const std::tm&,
              spdlog::memory_buf_t& out) override {
    const char digit = message.level >= spdlog::level::err    ? '3'
                       : message.level == spdlog::level::warn ? '4'
                                                              : '6';
    for (const char c : {'<', digit, '>'}) out.push_back(c);
  }
  std::unique_ptr<custom_flag_formatter> clone() const override {
    return std::make_unique<Priority>();
  }
};

// JOURNAL_STREAM names the stream of journald as DEVICE:INODE; a child may inherit the variable and
// have another standard error.
bool isJournalStream() {
  const char* stream = std::getenv("JOURNAL_STREAM");
  struct stat status {};
  if (stream == nullptr || fstat(STDERR_FILENO, &status) != 0) return false;
  return fmt::format("{}:{}", status.st_dev, status.st_ino) == stream;
}

std::unique_ptr<spdlog::formatter> formatter() {
  auto formatter = std::make_unique<spdlog::pattern_formatter>();
  if (isJournalStream()) {
    formatter->add_flag<Priority>('*').set_pattern("%*%v");
  } else {
    formatter->set_pattern("%Y-%m-%dT%H:%M:%S.%e%z %l %v");
  }
  return formatter;
}

spdlog::level::level_enum levelOf(Log::Level level) {
  switch (level) {
    case Log::Level::kWarning:
      return spdlog::level::warn;
    case Log::Level::kError:
      return spdlog::level::err;
    case Log::Level::kInfo:
      break;
  }
  return spdlog::level::info;
}

bool isPlain(char c) {
  return c > ' ' && c < 0x7f && c != '"' && c != '\\' && c != '=';
}

// A value that a line cannot be forged with: no line break or quote passes.
void appendValue(std::string& line, std::string_view value) {
  if (!value.empty() && std::ranges::all_of(value, isPlain)) {
    line += value;
    return;
  }
  line += '"';
  for (const char c : value) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      line += '\\';
      line += c;
    } else if (byte < ' ' || byte == 0x7f) {
      fmt::format_to(std::back_inserter(line), "\\x{:02x}", byte);
    } else {
      line += c;
    }
  }
  line += '"';
}

}  // namespace

std::string logLine(std::string_view what, Log::Fields fields) {
  std::string line(what);
  for (const auto& [name, value] : fields) {
    line += ' ';
    line += name;
    line += '=';
    appendValue(line, value);
  }
  return line;
}

Log::Log()
    : logger_(
          std::make_unique<spdlog::logger>("vnagent", std::make_shared<LogWriter>(STDERR_FILENO))) {
  logger_->set_formatter(formatter());
}

Log::~Log() = default;

void Log::write(Level level, std::string_view what, Fields fields) {
  logger_->log(levelOf(level), logLine(what, fields));
}

void ServiceLog::onApplied(uint64_t revision, std::string_view principal, std::string_view what,
                           double seconds) {
  log_.info("applied", {{"revision", std::to_string(revision)},
                        {"principal", principal},
                        {"what", what},
                        {"seconds", fmt::format("{:.6f}", seconds)}});
}

void ServiceLog::onRefused(std::string_view principal, std::string_view what,
                           std::string_view name) {
  log_.info("refused", {{"principal", principal}, {"what", what}, {"problem", name}});
}

void ServiceLog::onLock(std::string_view region, std::string_view principal,
                        std::string_view requester, std::string_view requestId,
                        std::string_view decision) {
  log_.info("lock", {{"decision", decision},
                     {"region", region},
                     {"principal", principal},
                     {"requester", requester},
                     {"requestId", requestId}});
}

void ServiceLog::onSyncStatus(std::string_view region, std::string_view before,
                              std::string_view now) {
  log_.info("sync", {{"region", region}, {"before", before}, {"now", now}});
}

}  // namespace vnagent
