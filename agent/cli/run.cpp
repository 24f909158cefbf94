#include <cstdio>
#include <memory>
#include <stdexcept>
#include <utility>

#include <unistd.h>

#include "agent/cli/cloud_file.h"
#include "agent/cli/commands.h"
#include "agent/cli/input_file.h"
#include "agent/journal/journal_tools.h"
#include "agent/live/replay.h"
#include "agent/output/inspection.h"
#include "agent/output/output_json.h"
#include "agent/output/tree.h"
#include "agent/session/session.h"

namespace vnagent {
namespace {

// Hands a part of a long text on to standard output.
void drain(std::string& text) {
  if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size()) {
    throw std::runtime_error("cannot write to standard output");
  }
  text.clear();
}

// Sources.

// The events of a run: the cloud document, then the lines of the stream.
class RunEvents {
 public:
  explicit RunEvents(const RunOptions& options) : options_(options) {
    if (options.events.empty()) return;
    lines_ = std::make_unique<LineReader>(options.events, options.maxInputBytes);
  }

  // The cloud document, which is empty where none was named.
  SourceEvent document() const {
    return options_.cloud.empty() ? SourceEvent::ofDocument("{}")
                                  : readCloudFile(options_.cloud, options_.maxInputBytes);
  }

  // The next event of the stream; nothing at its end.
  std::optional<SourceEvent> next() {
    while (lines_) {
      const auto line = lines_->next();
      if (!line) break;
      if (!isSkipped(*line)) return SourceEvent::ofLine(*line);
    }
    return std::nullopt;
  }

  // Says why the document was refused, or the event that next() gave last.
  void reportDocument(const Fault& fault) const {
    reportFault(inputName(options_.cloud), fault.position.line, fault);
  }
  void reportEvent(const Fault& fault) const { reportFault(lines_->name(), lines_->line(), fault); }

 private:
  const RunOptions& options_;
  std::unique_ptr<LineReader> lines_;  // null where there is no stream
};

// Observers.

// The trace lines of each step, which are written out at its end.
class RunTrace final : public SessionObserver {
 public:
  explicit RunTrace(const RunOptions& options)
      : file_(open(options.traceFile)),
        lines_(*options.traceLevel,
               options.traceText ? TraceLines::Style::kText : TraceLines::Style::kJson,
               file_.get()) {}

  void onStepBegin(uint64_t step) override { lines_.stepIs(step); }
  // A failure is reported by finish().
  void onStepEnd(const StepOutcome&) override { lines_.flush(); }
  void finish() {
    if (!lines_.flush()) throw std::runtime_error("cannot write the trace lines");
  }

 private:
  struct Close {
    void operator()(std::FILE* file) const {
      if (file != stderr) std::fclose(file);
    }
  };
  using File = std::unique_ptr<std::FILE, Close>;

  static File open(const std::string& name) {
    if (name.empty()) return File(stderr);
    File file(std::fopen(name.c_str(), "wb"));
    if (!file) throw std::runtime_error(name + ": cannot be written");
    return file;
  }

  File file_;
  TraceLines lines_;
};

// One line of JSON for each step. Changes are shown from the empty document on, of which the first
// shown step is the whole.
class StepLines final : public SessionObserver {
 public:
  explicit StepLines(bool changes) : changes_(changes) {}

  // The session whose steps come next.
  void sessionIs(const Session& session) { session_ = &session; }

  void onStepEnd(const StepOutcome& outcome) override {
    JsonWriter json(out_, JsonWriter::Style::kOneLine);
    json.drainIs(drain);
    json.open('{').key("step").number(outcome.step).key("ok").boolean(outcome.applied());
    if (outcome.applied()) {
      json.key("time").number(outcome.time).key(changes_ ? "change" : "output");
      writeOutput(changes_ && started_ ? outcome.output : session_->output(), json);
      started_ = true;
    } else {
      json.key("error").text(outcome.faults.front().message());
    }
    json.close('}');
    out_ += '\n';
    printOut(out_);
    out_.clear();
  }

 private:
  const Session* session_ = nullptr;
  bool changes_;
  bool started_ = false;
  std::string out_;
};

class RunProgress final : public SessionObserver {
 public:
  void onStepEnd(const StepOutcome& outcome) override {
    if (outcome.applied()) {
      progress_.doneIs(outcome.step, outcome.time);
    } else {
      progress_.clear();
    }
  }
  void clear() { progress_.clear(); }

 private:
  Progress progress_;
};

// What is printed at the end.

void printFinal(const Session& session, bool tree) {
  std::string out;
  if (tree) {
    writeTree(session.output(), mayColour(STDOUT_FILENO), out);
  } else {
    JsonWriter json(out, JsonWriter::Style::kIndented);
    json.drainIs(drain);
    writeOutput(session.output(), json);
    out += '\n';
  }
  printOut(out);
}

// Returns whether there is something at the path.
bool printInspection(const Session& session, const std::string& path) {
  std::string out;
  JsonWriter json(out, JsonWriter::Style::kIndented);
  if (const auto fault = writeInspection(session.root(), "openStackSm", path, json)) {
    reportError(path + ": " + *fault);
    return false;
  }
  out += '\n';
  printOut(out);
  return true;
}

// One run: a session, its source and its observers.
class Run {
 public:
  explicit Run(const RunOptions& options) : options_(options), events_(options) {
    // Construction is traced; destruction is not, as it belongs to no step.
    if (options.traceLevel) trace_.emplace(options);
    if (options.each) steps_.emplace(options.changes);
    const SessionSettings settings{.toggle = options.toggle,
                                   .regionSyncTimeout = options.regionSyncTimeout,
                                   .changes = options.changes};
    if (options.journal.empty()) {
      watch(session_.emplace(settings, clock_));
    } else {
      replay_.emplace(settings, clock_, [this](Session& session) { watch(session); });
    }
  }

  ExitStatus run() {
    if (replay_ ? replayAll() : takeAll()) {
      if (!options_.inspect.empty()) {
        const bool found = printInspection(session(), options_.inspect);
        if (!found && status_ == ExitStatus::kOk) status_ = ExitStatus::kUsage;
      } else if (!options_.each) {
        printFinal(session(), options_.tree.value_or(isatty(STDOUT_FILENO) == 1));
      }
    }
    if (trace_) trace_->finish();
    return status_;
  }

 private:
  // Returns whether the run was not stopped by what was refused.
  bool takeAll() {
    if (const auto outcome = session_->take(events_.document()); !outcome.applied()) {
      events_.reportDocument(outcome.faults.front());
      status_ = ExitStatus::kRefused;
    }
    while (status_ == ExitStatus::kOk || options_.keepGoing) {
      auto event = events_.next();
      if (!event) break;
      if (const auto outcome = session_->take(std::move(*event)); !outcome.applied()) {
        events_.reportEvent(outcome.faults.front());
        status_ = ExitStatus::kRefused;
      }
    }
    progress_.clear();
    return status_ == ExitStatus::kOk || options_.keepGoing;
  }

  // Returns whether the journal could be played back up to the revision that was asked for.
  bool replayAll() {
    uint64_t reached = 0;
    const auto begin = [&](const Snapshot& snapshot) {
      if (snapshot.revision > options_.until) {
        throw ReplayError("the oldest revision that can be replayed is " +
                          std::to_string(snapshot.revision));
      }
      replay_->begin(snapshot);
      reached = snapshot.revision;
      return true;
    };
    const auto play = [&](const Record& record) {
      if (record.revision > options_.until) return false;
      replay_->play(record);
      reached = record.revision;
      return true;
    };
    try {
      replayJournal(options_.journal, begin, play);
      if (options_.until != UINT64_MAX && reached < options_.until) {
        throw ReplayError("the last revision is " + std::to_string(reached));
      }
      progress_.clear();
      return true;
    } catch (const ReplayError& error) {
      progress_.clear();
      reportError(options_.journal + ": " + error.what());
      status_ = ExitStatus::kRefused;
    }
    return false;
  }

  void watch(Session& session) {
    if (trace_) session.observerIs(*trace_);
    if (steps_) {
      steps_->sessionIs(session);
      session.observerIs(*steps_);
    }
    session.observerIs(progress_);
  }

  const Session& session() const { return replay_ ? replay_->session() : *session_; }

  const RunOptions& options_;
  RunEvents events_;
  VirtualClock clock_;
  // One of the two; observers of the run outlive its last step, not its end.
  std::optional<Session> session_;
  std::optional<Replay> replay_;
  std::optional<RunTrace> trace_;
  std::optional<StepLines> steps_;
  RunProgress progress_;
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
