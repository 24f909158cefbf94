#include <variant>

#include "agent/cli/cloud_file.h"
#include "agent/cli/commands.h"
#include "agent/cli/input_file.h"
#include "agent/document/input.h"

namespace vnagent {
namespace {

// The faults of one event. A patch without a fault is kept in the document, for those after it;
// with no right document to start from, only its form can be checked.
std::vector<Fault> check(std::string_view line, CloudDocument& document, bool started) {
  const JsonTree tree = JsonTree::parse(line);
  EventReading reading = readEvent(tree);
  const auto* patch = reading.event ? std::get_if<PatchEvent>(&*reading.event) : nullptr;
  if (patch == nullptr || !started) return std::move(reading.faults);
  return document.apply(*patch->patch, std::move(reading.faults)).faults;
}

}  // namespace

ExitStatus check(const CheckOptions& options) {
  CloudDocument document;
  std::unique_ptr<LineReader> events;
  if (!options.events.empty()) events = std::make_unique<LineReader>(options.events);
  const CloudFile cloud = applyCloudFile(options.cloud, document);
  for (const auto& [line, fault] : cloud.faults) reportFault(options.cloud, line, fault);
  const bool started = cloud.faults.empty();
  ExitStatus status = started ? ExitStatus::kOk : ExitStatus::kRefused;
  while (events) {
    const auto line = events->next();
    if (!line) break;
    if (isSkipped(*line)) continue;
    for (const Fault& fault : check(*line, document, started)) {
      reportFault(events->name(), events->line(), fault);
      status = ExitStatus::kRefused;
    }
  }
  return status;
}

}  // namespace vnagent
