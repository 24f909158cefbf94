#include <memory>
#include <variant>

#include "agent/cli/cloud_file.h"
#include "agent/cli/commands.h"
#include "agent/cli/input_file.h"
#include "agent/document/input.h"

namespace vnagent {
namespace {

// The faults of one event. A patch without a fault is kept in the document, for those after it; a
// document that was refused gives patches nothing to be checked against but their form.
std::vector<Fault> checkEvent(std::string_view line, CloudDocument& document, bool isRefused) {
  const JsonTree tree = JsonTree::parse(line);
  EventReading reading = readEvent(tree);
  const auto* patch = reading.event ? std::get_if<PatchEvent>(&*reading.event) : nullptr;
  if (patch == nullptr || isRefused) return std::move(reading.faults);
  return document.apply(*patch->patch, std::move(reading.faults)).faults;
}

}  // namespace

ExitStatus check(const CheckOptions& options) {
  CloudDocument document;
  // Opened first: a name that leads nowhere is said before a long document is read.
  std::unique_ptr<LineReader> events;
  if (!options.events.empty()) {
    events = std::make_unique<LineReader>(options.events, options.maxInputBytes);
  }
  FaultReport report;
  const Outcome cloud = applyCloudFile(options.cloud, document, options.maxInputBytes);
  for (const Fault& fault : cloud.faults) {
    report.add(inputName(options.cloud), fault.position.line, fault);
  }
  const bool isRefused = !cloud.faults.empty();
  while (events) {
    const auto line = events->next();
    if (!line) break;
    if (isSkipped(*line)) continue;
    for (const Fault& fault : checkEvent(*line, document, isRefused)) {
      report.add(events->name(), events->line(), fault);
    }
  }
  report.finish();
  if (isRefused && events) {
    reportNote(inputName(options.cloud) + ": refused, so that only the form of the events in " +
               events->name() + " was checked");
  }
  return report.count() == 0 ? ExitStatus::kOk : ExitStatus::kRefused;
}

}  // namespace vnagent
