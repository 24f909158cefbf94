// The benchmarks of a run, in groups. What is to be compared is added to one group: the repetitions
// of a group's members are interleaved at random, so that a machine that is slower for a while is
// slower for all of them. Each group's data is let go before the next group's is made.
#pragma once

#include <benchmark/benchmark.h>

#include <chrono>
#include <functional>
#include <regex>
#include <string>

namespace bench {

// What the command line asks for.
struct Options {
  bool quick = false;   // fewer sizes and repetitions, for a figure within minutes
  std::string filter;   // only benchmarks in whose name this regular expression is found
  std::string results;  // where the results go, as JSON
  std::string vnagent;  // the program
};

class Suite {
 public:
  using Function = std::function<void(benchmark::State&)>;

  explicit Suite(const Options& options);
  ~Suite();
  Suite(const Suite&) = delete;
  Suite& operator=(const Suite&) = delete;

  const Options& options() const { return options_; }
  bool quick() const { return options_.quick; }
  // How often what a target is made of is repeated.
  int repetitions() const { return quick() ? 10 : 15; }

  // Whether a benchmark of this name was asked for; only then is its data to be made.
  bool wanted(const std::string& name) const;

  // Adds a benchmark that takes its own time: a repetition is one call, which says with
  // batchTime() how long its operations took.
  void addBatch(const std::string& name, std::int64_t operations, int repetitions,
                Function function);
  // Adds a benchmark of the usual kind, with a loop over the state.
  void addLoop(const std::string& name, Function function);

  // Runs the group: all that was added since the last call.
  void run();

 private:
  class Reporter;

  Options options_;
  std::regex filter_;
  std::unique_ptr<Reporter> reporter_;
  int added_ = 0;
};

// Seconds since it was made.
class Stopwatch {
 public:
  double seconds() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
  }

 private:
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

}  // namespace bench
