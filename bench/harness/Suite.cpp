#include "bench/harness/Suite.h"

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <stdexcept>
#include <vector>

namespace bench {

namespace {

using nlohmann::ordered_json;

// Writes one group's results, and stops it when a benchmark failed.
class Reporter final : public benchmark::JSONReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.error_occurred) {
        throw std::runtime_error(run.benchmark_name() + ": " + run.error_message);
      }
    }
    JSONReporter::ReportRuns(runs);
  }
};

}  // namespace

Suite::Suite(const Options& options) : options_(options), filter_(options.filter) {}

bool Suite::wanted(const std::string& name) const {
  return std::regex_search(name, filter_);
}

void Suite::addBatch(const std::string& name, std::int64_t operations, int repetitions,
                     Function function) {
  if (!wanted(name)) return;
  ++added_;
  benchmark::RegisterBenchmark(name.c_str(), std::move(function))
      ->Iterations(operations)
      ->Repetitions(repetitions)
      ->UseManualTime();
}

void Suite::addLoop(const std::string& name, Function function) {
  if (!wanted(name)) return;
  ++added_;
  benchmark::RegisterBenchmark(name.c_str(), std::move(function))
      ->MinTime(quick() ? 0.01 : 0.05)
      ->Repetitions(repetitions());
}

void Suite::group(const std::function<void()>& add) {
  const std::string part = options_.results + ".part";
  std::filesystem::remove(part);
  const pid_t child = ::fork();
  if (child == 0) {
    try {
      add();
      if (added_ != 0) runAdded(part);
      std::_Exit(0);  // without destroying the data object by object
    } catch (const std::exception& error) {
      std::cerr << "openstacksm_bench: " << error.what() << '\n';
      std::_Exit(1);
    }
  }
  int status = 0;
  if (child < 0 || ::waitpid(child, &status, 0) != child || status != 0) {
    throw std::runtime_error("a group of benchmarks failed");
  }
  take(part);
}

// In the group's own process.
void Suite::runAdded(const std::string& part) const {
  const auto start = std::chrono::steady_clock::now();
  std::ofstream file(part);
  Reporter reporter;
  reporter.SetOutputStream(&file);
  reporter.SetErrorStream(&std::cerr);
  benchmark::RunSpecifiedBenchmarks(&reporter, nullptr, ".");
  file.close();
  if (!file) throw std::runtime_error("cannot write " + part);
  const auto took = std::chrono::steady_clock::now() - start;
  std::cerr << added_ << " benchmarks in "
            << std::chrono::duration_cast<std::chrono::seconds>(took).count() << " s\n";
}

void Suite::take(const std::string& part) {
  std::ifstream file(part);
  if (!file) return;  // nothing of the group was wanted
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  // Google Benchmark writes NaN where it divides by a mean of nothing; JSON has no such number.
  ordered_json results =
      ordered_json::parse(std::regex_replace(text, std::regex(": -?(NaN|Infinity)"), ": null"));
  std::filesystem::remove(part);
  if (results_.is_null()) {
    results_ = std::move(results);
  } else {
    for (auto& run : results["benchmarks"]) results_["benchmarks"].push_back(std::move(run));
  }
}

void Suite::finish() const {
  if (results_.is_null()) throw std::runtime_error("no benchmark has such a name");
  std::ofstream file(options_.results);
  file << results_.dump(2) << '\n';
  if (!file.flush()) throw std::runtime_error("cannot write " + options_.results);
}

}  // namespace bench
