// Fuzz target: a cloud document on the first line, and a stream of events on the others, through
// the document and the machines, as `vnagent run` does it. Whatever comes, the machines bear what
// the document lets through, a refused event changes nothing, and in the end nothing is left.
//
// The machines ask for the feature toggle once in a process; EVENTS_TOGGLE is the answer.
#include <algorithm>

#include "agent/output/inspection.h"
#include "agent/output/output_json.h"
#include "agent/output/trace_lines.h"
#include "agent/output/tree.h"
#include "agent/session/session.h"
#include "framework/Trace.h"
#include "tests/fuzz/fuzz.h"

namespace {

using Fuzz::require;
using vnagent::JsonTree;
using vnagent::JsonWriter;
using vnagent::SourceEvent;

constexpr bool kToggle = EVENTS_TOGGLE;
constexpr double kTimeout = 60;

// Takes all trace lines of the machines, and formats them.
class Traces {
 public:
  Traces() {
    Kiv::_defaultTraceHandle().levelIs(9);
    Kiv::_defaultTraceHandle().sinkIs([](const Kiv::TraceLine& line) {
      std::string text;
      vnagent::appendTraceText(text, line);
      text.clear();
      vnagent::appendTraceJson(text, 1, line);
      require(text.find('\n') == text.size() - 1, "a trace line is one line");
    });
  }
  ~Traces() {
    Kiv::_defaultTraceHandle().levelIs(-1);
    Kiv::_defaultTraceHandle().sinkIs({});
  }
  Traces(const Traces&) = delete;
  Traces& operator=(const Traces&) = delete;
};

class Run {
 public:
  // The document: `line` alone, without an event around it. A refused one leaves an empty cloud.
  void load(std::string_view line) { take(SourceEvent::ofDocument(line)); }

  void event(std::string_view line) {
    if (!vnagent::isSkipped(line)) take(SourceEvent::ofLine(line));
  }

  void show() {
    std::string text;
    writeTree(session_.output(), false, text);
    text.clear();
    JsonWriter json(text, JsonWriter::Style::kIndented);
    const auto fault = writeInspection(session_.root(), "openStackSm", "/openStackSm", json);
    require(!fault, "the root machine can be looked into");
    require(!JsonTree::parse(text).error(), "what is shown of a machine is JSON");
    require(!JsonTree::parse(output()).error(), "the output is JSON");
  }

 private:
  void take(SourceEvent event) {
    require(event.reading.event || !event.reading.faults.empty(), "what is no event has a fault");
    const std::string before = output();
    const auto outcome = session_.take(std::move(event));
    if (!outcome.applied()) require(output() == before, "a refused event changes nothing");
    require(outcome.output.empty() == (output() == before), "a change says whether there is one");
  }

  std::string output() const {
    std::string text;
    JsonWriter json(text, JsonWriter::Style::kOneLine);
    writeOutput(session_.output(), json);
    return text;
  }

  vnagent::VirtualClock clock_;
  vnagent::Session session_{{.toggle = kToggle, .regionSyncTimeout = kTimeout, .changes = true},
                            clock_};
};

// Cuts the first line off.
std::string_view cutLine(std::string_view& text) {
  const auto line = text.substr(0, text.find('\n'));
  text.remove_prefix(std::min(text.size(), line.size() + 1));
  return line;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  auto text = Fuzz::textOf(data, size);
  const Fuzz::NothingIsLeft nothingIsLeft;
  const Traces traces;
  Run run;
  run.load(cutLine(text));
  while (!text.empty()) run.event(cutLine(text));
  run.show();
  return 0;
}
