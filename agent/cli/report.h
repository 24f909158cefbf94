// How the agent reports: messages on standard error, results on standard output, the exit status.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "agent/document/fault.h"

namespace vnagent {

enum class ExitStatus : int {
  kOk = 0,
  kInternal = 1,    // the agent or a machine failed
  kUsage = 2,       // the command line is wrong
  kRefused = 3,     // some input broke a rule
  kUnreadable = 4,  // a file could not be read or is not JSON; the live agent was not reached
  kNotYet = 5,      // the live agent is not in the state that was asked for
};

// A line of a file as messages name it: "cloud.json:12". Line 0 is an unknown one, and left out.
std::string placeInFile(std::string_view file, uint64_t line);

// Writes one line to standard error: "vnagent: error: ..." or "vnagent: warning: ...". Control
// characters are escaped.
void reportError(std::string_view text);
void reportNote(std::string_view text);
void reportFault(std::string_view file, uint64_t line, const Fault& fault);

// Of many faults so many are reported one by one.
inline constexpr uint64_t kMaxReportedFaults = 100;

// Reports many faults: the first ones one by one, and then how many there are.
class FaultReport {
 public:
  void add(std::string_view file, uint64_t line, const Fault& fault);
  // Says how many there are, where not all were reported. Call it once, after the last.
  void finish() const;

  uint64_t count() const { return count_; }

 private:
  uint64_t count_ = 0;
};

// Writes to standard output at once. Throws std::runtime_error when it cannot, as on a full disk.
void printOut(std::string_view text);

// True where colour may be written to this file descriptor: a terminal that is not dumb, and whose
// user has not set NO_COLOR.
bool mayColour(int descriptor);

// Shows on a terminal how far a long run is; elsewhere nothing.
class Progress {
 public:
  // `clock` gives seconds that only grow; the steady clock unless a test moves its own.
  using Clock = double (*)();
  explicit Progress(Clock clock = steadySeconds);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // Shows that so many events are done, at this time of the virtual clock.
  void doneIs(uint64_t events, double time);
  // Erases the line, before something else is written to the terminal.
  void clear();

 private:
  static double steadySeconds();

  Clock clock_;
  bool isTerminal_;
  bool isShown_ = false;
  double next_;  // when to show again, in seconds of the clock
};

}  // namespace vnagent
