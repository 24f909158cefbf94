#include <cstdio>
#include <memory>
#include <stdexcept>
#include <variant>

#include <unistd.h>

#include "agent/cli/cloud_file.h"
#include "agent/cli/commands.h"
#include "agent/cli/input_file.h"
#include "agent/cloud/cloud.h"
#include "agent/document/input.h"
#include "agent/output/inspection.h"
#include "agent/output/output_json.h"
#include "agent/output/tree.h"
#include "agent/plan/plan.h"

namespace vnagent {
namespace {

// Hands text on to standard output.
void drain(std::string& text) {
  if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size()) {
    throw std::runtime_error("cannot write to standard output");
  }
  text.clear();
}

void flush(std::string& text) {
  drain(text);
  if (std::fflush(stdout) != 0) throw std::runtime_error("cannot write to standard output");
}

struct CloseFile {
  void operator()(std::FILE* file) const {
    if (file != stderr) std::fclose(file);
  }
};
using TraceFile = std::unique_ptr<std::FILE, CloseFile>;

TraceFile openTraceFile(const RunOptions& options) {
  if (options.traceFile.empty()) return TraceFile(stderr);
  TraceFile file(std::fopen(options.traceFile.c_str(), "wb"));
  if (!file) throw std::runtime_error(options.traceFile + ": cannot be written");
  return file;
}

// One run: the document, the live cloud, and what is said about each step.
class Run {
 public:
  explicit Run(const RunOptions& options)
      : options_(options), traceFile_(openTraceFile(options)), trace_(startTrace()) {
    // Traced from its making on, but not in its end, which is nobody's step.
    cloud_.emplace(CloudSettings{options.toggle, options.regionSyncTimeout});
  }

  ExitStatus run() {
    std::unique_ptr<LineReader> events;
    if (!options_.events.empty()) {
      events = std::make_unique<LineReader>(options_.events, options_.maxInputBytes);
    }
    bool stopped = !loadCloud();
    while (!stopped && events) {
      const auto line = events->next();
      if (!line) break;
      if (isSkipped(*line)) continue;
      beginStep(step_ + 1);
      stopped = !applyLine(*line, *events) && !options_.keepGoing;
      progress_.doneIs(step_, cloud_->time());
    }
    progress_.clear();
    if (!stopped && !options_.inspect.empty()) {
      printInspection();
    } else if (!stopped && !options_.each) {
      printFinal();
    }
    if (trace_ && !trace_->flush()) throw std::runtime_error("cannot write the trace lines");
    return status_;
  }

 private:
  std::unique_ptr<TraceLines> startTrace() {
    if (!options_.traceLevel) return nullptr;
    const auto style = options_.traceText ? TraceLines::Style::kText : TraceLines::Style::kJson;
    return std::make_unique<TraceLines>(*options_.traceLevel, style, traceFile_.get());
  }

  void beginStep(uint64_t step) {
    step_ = step;
    if (trace_) trace_->stepIs(step);
  }

  // Step 0. Returns whether the run can go on.
  bool loadCloud() {
    Outcome file;
    if (!options_.cloud.empty()) {
      file = applyCloudFile(options_.cloud, document_, options_.maxInputBytes);
    }
    if (file.faults.empty()) {
      if (file.change != nullptr) apply(*file.change);
      endStep();
      return true;
    }
    status_ = ExitStatus::kRefused;
    const auto& first = file.faults.front();
    if (trace_) trace_->flush();
    reportFault(inputName(options_.cloud), first.position.line, first);
    endRefusedStep(first);
    return options_.keepGoing;
  }

  // One event. Returns whether it was applied.
  bool applyLine(std::string_view line, const LineReader& events) {
    const JsonTree tree = JsonTree::parse(line);
    EventReading reading = readEvent(tree);
    std::vector<Fault> faults = std::move(reading.faults);
    if (reading.event) {
      if (const auto* patch = std::get_if<PatchEvent>(&*reading.event)) {
        Outcome outcome = document_.apply(*patch->patch, std::move(faults));
        faults = std::move(outcome.faults);
        if (faults.empty()) apply(*outcome.change);
      } else if (faults.empty()) {
        applyToClock(*reading.event);
      }
    }
    if (faults.empty()) {
      endStep();
      return true;
    }
    status_ = ExitStatus::kRefused;
    progress_.clear();
    if (trace_) trace_->flush();
    reportFault(events.name(), events.line(), faults.front());
    endRefusedStep(faults.front());
    return false;
  }

  void apply(const Change& change) {
    const PlanSettings settings{options_.toggle, options_.regionSyncTimeout};
    cloud_->apply(makePlan(document_.state(), change, settings));
  }

  void applyToClock(const Event& event) {
    if (const auto* advance = std::get_if<AdvanceEvent>(&event)) {
      cloud_->advance(advance->seconds);
    } else if (const auto* timeout = std::get_if<RegionSyncTimeoutEvent>(&event)) {
      cloud_->regionSyncTimeoutIs(timeout->seconds);
    }
  }

  void endStep() {
    if (trace_) trace_->flush();
    if (!options_.each) return;
    JsonWriter json(out_, JsonWriter::Style::kOneLine);
    json.drainIs(drain);
    json.open('{').key("step").number(step_).key("ok").boolean(true);
    json.key("time").number(cloud_->time()).key("output");
    writeOutput(cloud_->output(), json);
    json.close('}');
    out_ += '\n';
    flush(out_);
  }

  void endRefusedStep(const Fault& fault) {
    if (!options_.each) return;
    JsonWriter json(out_, JsonWriter::Style::kOneLine);
    json.open('{').key("step").number(step_).key("ok").boolean(false);
    json.key("error").text(fault.message()).close('}');
    out_ += '\n';
    flush(out_);
  }

  void printInspection() {
    JsonWriter json(out_, JsonWriter::Style::kIndented);
    if (const auto fault = writeInspection(cloud_->root(), "openStackSm", options_.inspect, json)) {
      reportError(options_.inspect + ": " + *fault);
      if (status_ == ExitStatus::kOk) status_ = ExitStatus::kUsage;
      return;
    }
    out_ += '\n';
    flush(out_);
  }

  void printFinal() {
    if (options_.tree.value_or(isatty(STDOUT_FILENO) == 1)) {
      writeTree(cloud_->output(), mayColour(STDOUT_FILENO), out_);
    } else {
      JsonWriter json(out_, JsonWriter::Style::kIndented);
      json.drainIs(drain);
      writeOutput(cloud_->output(), json);
      out_ += '\n';
    }
    flush(out_);
  }

  const RunOptions& options_;
  CloudDocument document_;
  std::optional<Cloud> cloud_;
  TraceFile traceFile_;
  std::unique_ptr<TraceLines> trace_;
  Progress progress_;
  std::string out_;
  uint64_t step_ = 0;
  ExitStatus status_ = ExitStatus::kOk;
};

}  // namespace

ExitStatus run(const RunOptions& options, const Finished& finished) {
  Run run(options);
  const ExitStatus status = run.run();
  if (finished) finished(static_cast<int>(status));
  return status;
}

}  // namespace vnagent
