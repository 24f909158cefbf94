// Records the trace lines of the library, for tests that compare them exactly.
//
//   TraceRecorder traces;
//   ... let machines work ...
//   EXPECT_THAT(traces.take(), ElementsAre(said(9, machine, "RegionConfigSm::...()", "text")));
//
// One at a time in a process; it is the sink of the library's trace handle while it lives.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "framework/Trace.h"

class TraceRecorder {
 public:
  TraceRecorder();
  ~TraceRecorder();
  TraceRecorder(const TraceRecorder&) = delete;
  TraceRecorder& operator=(const TraceRecorder&) = delete;

  // The lines since the last call, as said() renders them.
  std::vector<std::string> take();
  // The messages alone of the lines up to a level, since the last call of either.
  std::vector<std::string> takeMessages(int upTo);

  // While paused nothing is recorded.
  void pausedIs(bool paused) { paused_ = paused; }
  // Prints every line to standard error instead, for tests of what a process says before it stops.
  void toStandardErrorIs(bool to) { toStandardError_ = to; }

 private:
  struct Line {
    int level;
    std::string text;      // as given to the sink: address, signature, message
    std::string function;  // the handler's short name
    std::string file;
  };

  std::vector<Line> lines_;
  bool paused_ = false;
  bool toStandardError_ = false;
};

// One line as it must be: its level, the machine or reactor that says it, the handler's signature
// without "void OpenStack::", and the message. The handler's short name and the source unit are
// part of it.
std::string said(int level, const void* subject, std::string_view signature,
                 std::string_view message);
