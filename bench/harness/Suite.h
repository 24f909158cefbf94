// The benchmarks of a run, in groups. What is to be compared is added to one group: the repetitions
// of a group's members are interleaved at random, so that a machine that is slower for a while is
// slower for all of them. Each group is a child process, so that no group works in memory that
// another one has fragmented.
#pragma once

#include <benchmark/benchmark.h>
#include <time.h>

#include <functional>
#include <nlohmann/json.hpp>
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
  Suite(const Suite&) = delete;
  Suite& operator=(const Suite&) = delete;

  const Options& options() const { return options_; }
  bool quick() const { return options_.quick; }
  // How often what a target is made of is repeated.
  int repetitions() const { return quick() ? 10 : 15; }

  // Whether a benchmark of this name was asked for; only then is its data to be made.
  bool wanted(const std::string& name) const;

  // Adds a benchmark that measures its own time: a repetition is one call, which goes through all
  // operations in one batch of the state, and sets the time that they took.
  void addBatch(const std::string& name, std::int64_t operations, int repetitions,
                Function function);
  // Adds a benchmark of the usual kind, with a loop over the state.
  void addLoop(const std::string& name, Function function);

  // Runs a group: what `add` adds, with the data that it makes, in a process of its own.
  void group(const std::function<void()>& add);

  // Writes the results of all groups.
  void finish() const;

 private:
  void runAdded(const std::string& part) const;
  void take(const std::string& part);

  Options options_;
  std::regex filter_;
  nlohmann::ordered_json results_;
  int added_ = 0;
};

// Seconds of this thread's processor time since it was made. On a quiet machine that is the time
// that passed; on a busy one it leaves out what other processes took.
class Stopwatch {
 public:
  double seconds() const { return now() - start_; }

 private:
  static double now() {
    timespec time{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
  }

  double start_ = now();
};

}  // namespace bench
