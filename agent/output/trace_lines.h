// Trace lines of the machines, written as JSON or as text.
//
// Lines are buffered and written by flush(), which the run calls after each step; a process
// that an assertion stops in the middle of a step writes what it has, too.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include "framework/Trace.h"

namespace vnagent {

class TraceLines {
 public:
  enum class Style : uint8_t { kJson, kText };

  // Takes lines up to `level` from the library. `file` is borrowed. One at a time in a process.
  TraceLines(int level, Style style, std::FILE* file);
  // Switches tracing off.
  ~TraceLines();
  TraceLines(const TraceLines&) = delete;
  TraceLines& operator=(const TraceLines&) = delete;

  // The step that lines belong to from now on.
  void stepIs(uint64_t step) { step_ = step; }

  // Writes the buffered lines. Returns false if that failed, now or before.
  bool flush();

 private:
  void add(const Kiv::TraceLine& line);

  Style style_;
  std::FILE* file_;
  uint64_t step_ = 0;
  std::string buffer_;
};

// One line, with its line break.
void appendTraceJson(std::string& out, uint64_t step, const Kiv::TraceLine& line);
void appendTraceText(std::string& out, const Kiv::TraceLine& line);

}  // namespace vnagent
