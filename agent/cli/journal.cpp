#include <ctime>
#include <string>

#include <fmt/chrono.h>
#include <fmt/format.h>

#include "agent/cli/commands.h"
#include "agent/cli/report.h"
#include "agent/journal/journal_tools.h"
#include "agent/json/json_writer.h"

namespace vnagent {
namespace {

// How much of an event a line shows.
constexpr size_t kShownBytes = 100;

std::string_view nameOf(Record::Kind kind) {
  switch (kind) {
    case Record::Kind::kPatch:
      return "patch";
    case Record::Kind::kExpiry:
      return "expiry";
    case Record::Kind::kRestart:
      return "restart";
    case Record::Kind::kReply:
      return "reply";
  }
  return "unknown";
}

// "2026-03-01T12:00:00.250Z".
std::string timeText(int64_t milliseconds) {
  const auto seconds = static_cast<std::time_t>(milliseconds / 1000);
  return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:03}Z", fmt::gmtime(seconds), milliseconds % 1000);
}

std::string lineOf(const Record& record) {
  std::string line =
      fmt::format("revision {} record {} {} {} +{}s {}", record.revision, record.sequence,
                  timeText(record.wallTime), nameOf(record.kind), record.advance, record.check);
  if (!record.key.empty()) line += fmt::format(" by {} key {}", record.principal, record.key);
  line += ' ' + record.event.substr(0, kShownBytes);
  if (record.event.size() > kShownBytes) line += "...";
  return line + '\n';
}

// Adds a member whose value is JSON text already.
void addRaw(std::string& object, std::string_view key, const std::string& json) {
  object.pop_back();
  object += fmt::format(", \"{}\": {}}}", key, json.empty() ? "null" : json);
}

std::string jsonOf(const Record& record) {
  std::string line;
  JsonWriter json(line, JsonWriter::Style::kOneLine);
  json.open('{').key("sequence").number(record.sequence);
  json.key("revision").number(record.revision).key("kind").text(nameOf(record.kind));
  json.key("time").text(timeText(record.wallTime)).key("advance").number(record.advance);
  json.key("check").text(record.check).key("drawn").open('[');
  for (const std::string& uuid : record.drawn) json.text(uuid);
  json.close(']');
  if (!record.key.empty()) {
    json.key("principal").text(record.principal).key("key").text(record.key);
    json.key("status").number(uint64_t{record.status});
  }
  json.close('}');
  addRaw(line, "event", record.event);
  addRaw(line, "cloud", record.cloud);
  addRaw(line, "output", record.output);
  return line + '\n';
}

std::string counted(uint64_t count, const char* what) {
  return fmt::format("{} {}{}", count, what, count == 1 ? "" : "s");
}

ExitStatus checkAll(const std::string& directory) {
  uint64_t count = 0;
  checkJournal(directory, [&](const JournalFault& fault) {
    if (++count <= kMaxReportedFaults) reportError(fault.text);
    return true;
  });
  if (count > 0) {
    printOut(counted(count, "fault") + '\n');
    return ExitStatus::kRefused;
  }
  const JournalContents contents = readContents(directory);
  printOut(fmt::format("{}, revisions {} to {}, {}, {} bytes: no fault\n",
                       counted(contents.records, "record"), contents.firstRevision,
                       contents.lastRevision, counted(contents.snapshots.size(), "snapshot"),
                       contents.bytes));
  return ExitStatus::kOk;
}

ExitStatus show(const JournalOptions& options) {
  readJournal(options.directory, options.from, options.until, [&](const Record& record) {
    printOut(options.json ? jsonOf(record) : lineOf(record));
    return true;
  });
  return ExitStatus::kOk;
}

ExitStatus compact(const JournalOptions& options) {
  JournalSettings settings;
  settings.keepSeconds = options.keepDays * 24 * 3600;
  settings.keepRevisions = options.keepRevisions;
  const CompactReport report = compactJournal(options.directory, settings);
  printOut(fmt::format("{} removed; {} bytes before, {} after\n",
                       counted(report.recordsRemoved, "record"), report.bytesBefore,
                       report.bytesAfter));
  return ExitStatus::kOk;
}

ExitStatus repair(const std::string& directory) {
  const RepairReport report = repairJournal(directory);
  if (!report.isDamaged) {
    printOut("no fault; nothing was changed\n");
    return ExitStatus::kOk;
  }
  printOut(fmt::format("repaired: the state is that of revision {}\n", report.lastRevision));
  for (const std::string& gone : report.gone) printOut(gone + '\n');
  for (const std::string& copy : report.copies) printOut("the damaged file is " + copy + '\n');
  return ExitStatus::kOk;
}

}  // namespace

ExitStatus journal(const JournalOptions& options) {
  switch (options.action) {
    case JournalOptions::Action::kCheck:
      return checkAll(options.directory);
    case JournalOptions::Action::kShow:
      return show(options);
    case JournalOptions::Action::kCompact:
      return compact(options);
    case JournalOptions::Action::kRepair:
      return repair(options.directory);
  }
  return ExitStatus::kInternal;
}

}  // namespace vnagent
