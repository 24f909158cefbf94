#include "tests/support/TraceRecorder.h"

#include <cstdio>
#include <sstream>
#include <utility>

namespace {

std::string rendered(int level, std::string_view file, std::string_view function,
                     std::string_view text) {
  std::ostringstream line;
  line << level << ' ' << file << ' ' << function << ": " << text;
  return std::move(line).str();
}

}  // namespace

TraceRecorder::TraceRecorder() {
  Kiv::TraceHandle& handle = Kiv::_defaultTraceHandle();
  handle.levelIs(9);
  handle.sinkIs([this](const Kiv::TraceLine& line) {
    if (paused_) return;
    if (toStandardError_) {
      std::fprintf(stderr, "%d %.*s\n", line.level, static_cast<int>(line.text.size()),
                   line.text.data());
      return;
    }
    std::string function(line.function);
    if (line.line <= 0) function += " at no line";
    lines_.push_back(
        {line.level, std::string(line.text), std::move(function), std::string(line.file)});
  });
}

TraceRecorder::~TraceRecorder() {
  Kiv::_defaultTraceHandle().sinkIs(nullptr);
  Kiv::_defaultTraceHandle().levelIs(-1);
}

std::vector<std::string> TraceRecorder::take() {
  std::vector<std::string> taken;
  for (const Line& line : lines_) {
    taken.push_back(rendered(line.level, line.file, line.function, line.text));
  }
  lines_.clear();
  return taken;
}

std::vector<std::string> TraceRecorder::takeMessages(int upTo) {
  std::vector<std::string> taken;
  for (const Line& line : lines_) {
    if (line.level > upTo) continue;
    taken.push_back(line.text.substr(line.text.find(" ] ") + 3));
  }
  lines_.clear();
  return taken;
}

std::string said(int level, const void* subject, std::string_view signature,
                 std::string_view message) {
  const std::string_view path = signature.substr(0, signature.find('('));
  const std::string_view function = path.substr(path.rfind(':') + 1);
  std::ostringstream text;
  text << subject << " [ void OpenStack::" << signature << " ] " << message;
  return rendered(level, "OpenStackSm", function, std::move(text).str());
}
