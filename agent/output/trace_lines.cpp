#include "agent/output/trace_lines.h"

#include <csignal>
#include <iterator>

#include <fmt/format.h>

#include "agent/json/json_writer.h"

namespace vnagent {
namespace {

constexpr size_t kBufferBytes = size_t{1} << 16;

// What is flushed when the process aborts.
TraceLines* current = nullptr;

// An assertion raises the signal from the thread that traces, between two lines, so that writing
// here meets no half-made state.
extern "C" void flushOnAbort(int) {
  if (current != nullptr) current->flush();
}

}  // namespace

void appendTraceJson(std::string& out, uint64_t step, const Kiv::TraceLine& line) {
  fmt::format_to(std::back_inserter(out), "{{\"step\": {}, \"level\": {}, \"file\": ", step,
                 line.level);
  appendJsonBytes(out, line.file);
  fmt::format_to(std::back_inserter(out), ", \"line\": {}, \"function\": ", line.line);
  appendJsonBytes(out, line.function);
  out += ", \"text\": ";
  appendJsonBytes(out, line.text);
  out += "}\n";
}

void appendTraceText(std::string& out, const Kiv::TraceLine& line) {
  fmt::format_to(std::back_inserter(out), "{} {}:{} {} {}\n", line.level, line.file, line.line,
                 line.function, line.text);
}

TraceLines::TraceLines(int level, Style style, std::FILE* file) : style_(style), file_(file) {
  Kiv::TraceHandle& handle = Kiv::_defaultTraceHandle();
  handle.levelIs(level);
  handle.sinkIs([this](const Kiv::TraceLine& line) { add(line); });
  current = this;
  std::signal(SIGABRT, flushOnAbort);
}

TraceLines::~TraceLines() {
  Kiv::TraceHandle& handle = Kiv::_defaultTraceHandle();
  handle.levelIs(-1);
  handle.sinkIs({});
  std::signal(SIGABRT, SIG_DFL);
  current = nullptr;
  flush();
}

void TraceLines::add(const Kiv::TraceLine& line) {
  if (style_ == Style::kJson) {
    appendTraceJson(buffer_, step_, line);
  } else {
    appendTraceText(buffer_, line);
  }
  if (buffer_.size() > kBufferBytes) flush();
}

bool TraceLines::flush() {
  std::fwrite(buffer_.data(), 1, buffer_.size(), file_);
  buffer_.clear();
  return std::fflush(file_) == 0 && std::ferror(file_) == 0;
}

}  // namespace vnagent
