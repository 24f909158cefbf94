#include "agent/cli/report.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>

#include <fmt/format.h>
#include <spdlog/sinks/stdout_color_sinks.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include "agent/json/utf8.h"

namespace vnagent {
namespace {

// Progress of shorter runs is not shown.
constexpr double kDelaySeconds = 1.0;
constexpr double kIntervalSeconds = 0.2;

spdlog::logger& log() {
  static const auto logger = [] {
    const auto mode =
        mayColour(STDERR_FILENO) ? spdlog::color_mode::automatic : spdlog::color_mode::never;
    auto made = std::make_shared<spdlog::logger>(
        "vnagent", std::make_shared<spdlog::sinks::stderr_color_sink_st>(mode));
    made->set_pattern("%n: %^%l%$: %v");
    return made;
  }();
  return *logger;
}

}  // namespace

std::string placeInFile(std::string_view file, uint64_t line) {
  return line == 0 ? std::string(file) : fmt::format("{}:{}", file, line);
}

void reportError(std::string_view text) {
  log().error("{}", escapeControls(text));
}

void reportNote(std::string_view text) {
  log().warn("{}", escapeControls(text));
}

void reportFault(std::string_view file, uint64_t line, const Fault& fault) {
  reportError(placeInFile(file, line) + ": " + fault.message());
}

void FaultReport::add(std::string_view file, uint64_t line, const Fault& fault) {
  if (++count_ <= kMaxReportedFaults) reportFault(file, line, fault);
}

void FaultReport::finish() const {
  if (count_ <= kMaxReportedFaults) return;
  reportError(fmt::format("{} faults; the first {} are shown", count_, kMaxReportedFaults));
}

void printOut(std::string_view text) {
  const bool written = std::fwrite(text.data(), 1, text.size(), stdout) == text.size();
  if (!written || std::fflush(stdout) != 0) {
    throw std::runtime_error(std::string("cannot write to standard output: ") +
                             std::strerror(errno));
  }
}

bool mayColour(int descriptor) {
  const char* refused = std::getenv("NO_COLOR");
  if (refused != nullptr && *refused != '\0') return false;
  const char* terminal = std::getenv("TERM");
  const bool dumb = terminal == nullptr || std::string_view(terminal) == "dumb";
  return !dumb && isatty(descriptor) == 1;
}

Progress::Progress(Clock clock)
    : clock_(clock), isTerminal_(isatty(STDERR_FILENO) == 1), next_(clock() + kDelaySeconds) {}

Progress::~Progress() {
  clear();
}

double Progress::steadySeconds() {
  const auto time = std::chrono::steady_clock::now().time_since_epoch();
  return std::chrono::duration<double>(time).count();
}

void Progress::doneIs(uint64_t events, double time) {
  if (!isTerminal_) return;
  const double now = clock_();
  if (now < next_) return;
  next_ = now + kIntervalSeconds;
  fmt::print(stderr, "\r{} events, {} s of the clock\033[K", events, time);
  std::fflush(stderr);
  isShown_ = true;
}

void Progress::clear() {
  if (!isShown_) return;
  fmt::print(stderr, "\r\033[K");
  std::fflush(stderr);
  isShown_ = false;
}

}  // namespace vnagent
