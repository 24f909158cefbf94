#include "bench/harness/Suite.h"

#include <chrono>
#include <fstream>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <vector>

namespace bench {

// Writes what all groups report into one document, and what has ended to standard error.
class Suite::Reporter final : public benchmark::JSONReporter {
 public:
  explicit Reporter(const std::string& path) : file_(path) {
    if (!file_) throw std::runtime_error("cannot write " + path);
    SetOutputStream(&file_);
    SetErrorStream(&std::cerr);
  }
  ~Reporter() override {
    if (begun_) JSONReporter::Finalize();
  }

  bool ReportContext(const Context& context) override {
    if (!begun_) begun_ = JSONReporter::ReportContext(context);
    return begun_;
  }
  void ReportRuns(const std::vector<Run>& runs) override {
    JSONReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.error_occurred)
        throw std::runtime_error(run.benchmark_name() + ": " + run.error_message);
    }
  }
  void Finalize() override { file_.flush(); }

 private:
  std::ofstream file_;
  bool begun_ = false;
};

Suite::Suite(const Options& options)
    : options_(options),
      filter_(options.filter),
      reporter_(std::make_unique<Reporter>(options.results)) {}

Suite::~Suite() = default;

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

void Suite::run() {
  if (added_ == 0) return;
  const auto start = std::chrono::steady_clock::now();
  benchmark::RunSpecifiedBenchmarks(reporter_.get(), nullptr, ".");
  benchmark::ClearRegisteredBenchmarks();
  const auto took = std::chrono::steady_clock::now() - start;
  std::cerr << added_ << " benchmarks in "
            << std::chrono::duration_cast<std::chrono::seconds>(took).count() << " s\n";
  added_ = 0;
}

}  // namespace bench
