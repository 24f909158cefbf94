#include <memory>
#include <utility>

#include "agent/cli/cloud_file.h"
#include "agent/cli/commands.h"
#include "agent/cli/input_file.h"
#include "agent/session/session.h"

namespace vnagent {

ExitStatus check(const CheckOptions& options) {
  VirtualClock clock;
  Session session({.live = false}, clock);
  // Opened first: a wrong file name is reported before a long document is read.
  std::unique_ptr<LineReader> events;
  if (!options.events.empty()) {
    events = std::make_unique<LineReader>(options.events, options.maxInputBytes);
  }
  FaultReport report;
  const StepOutcome cloud = session.take(readCloudFile(options.cloud, options.maxInputBytes));
  for (const Fault& fault : cloud.faults) {
    report.add(inputName(options.cloud), fault.position.line, fault);
  }
  const bool isRefused = !cloud.applied();
  while (events) {
    const auto line = events->next();
    if (!line) break;
    if (isSkipped(*line)) continue;
    // A document that was refused gives patches nothing to be checked against but their form.
    SourceEvent event = SourceEvent::ofLine(*line);
    const std::vector<Fault> faults =
        isRefused ? event.reading.faults : session.take(std::move(event)).faults;
    for (const Fault& fault : faults) {
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
