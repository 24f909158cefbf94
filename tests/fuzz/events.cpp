// Fuzz target: a cloud document on the first line, and a stream of events on the others, through
// the document and the machines, as `vnagent run` does it. Whatever comes, the machines bear what
// the document lets through, a refused event changes nothing, and in the end nothing is left.
//
// The machines ask for the feature toggle once in a process; EVENTS_TOGGLE is the answer.
#include <algorithm>

#include "agent/cloud/cloud.h"
#include "agent/document/cloud_document.h"
#include "agent/document/input.h"
#include "agent/output/inspection.h"
#include "agent/output/output_json.h"
#include "agent/output/trace_lines.h"
#include "agent/output/tree.h"
#include "agent/plan/plan.h"
#include "framework/Trace.h"
#include "tests/fuzz/fuzz.h"

namespace {

using Fuzz::require;
using vnagent::CloudDocument;
using vnagent::JsonTree;
using vnagent::JsonWriter;

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
  void load(std::string_view line) {
    const JsonTree tree = JsonTree::parse(line);
    if (tree.error()) return;
    const auto outcome = document_.apply(tree.root(), faultsOfText(tree, nullptr));
    if (outcome.faults.empty()) apply(*outcome.change);
  }

  void event(std::string_view line) {
    if (vnagent::isSkipped(line)) return;
    const std::string before = output();
    if (!apply(line)) require(output() == before, "a refused event changes nothing");
  }

  void show() {
    std::string text;
    writeTree(cloud_.output(), false, text);
    text.clear();
    JsonWriter json(text, JsonWriter::Style::kIndented);
    const auto fault = writeInspection(cloud_.root(), "openStackSm", "/openStackSm", json);
    require(!fault, "the root machine can be looked into");
    require(!JsonTree::parse(text).error(), "what is shown of a machine is JSON");
    require(!JsonTree::parse(output()).error(), "the output is JSON");
  }

 private:
  // Returns whether it was taken.
  bool apply(std::string_view line) {
    const JsonTree tree = JsonTree::parse(line);
    auto reading = readEvent(tree);
    require(reading.event || !reading.faults.empty(), "what is no event has a fault");
    if (!reading.event) return false;
    if (const auto* patch = std::get_if<vnagent::PatchEvent>(&*reading.event)) {
      const auto outcome = document_.apply(*patch->patch, std::move(reading.faults));
      if (outcome.faults.empty()) apply(*outcome.change);
      return outcome.faults.empty();
    }
    if (!reading.faults.empty()) return false;
    if (const auto* advance = std::get_if<vnagent::AdvanceEvent>(&*reading.event)) {
      cloud_.advance(advance->seconds);
    } else {
      cloud_.regionSyncTimeoutIs(std::get<vnagent::RegionSyncTimeoutEvent>(*reading.event).seconds);
    }
    return true;
  }

  void apply(const vnagent::Change& change) {
    cloud_.apply(makePlan(document_.state(), change, {kToggle, kTimeout}));
  }

  std::string output() const {
    std::string text;
    JsonWriter json(text, JsonWriter::Style::kOneLine);
    writeOutput(cloud_.output(), json);
    return text;
  }

  CloudDocument document_;
  vnagent::Cloud cloud_{{.toggle = kToggle, .regionSyncTimeout = kTimeout}};
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
