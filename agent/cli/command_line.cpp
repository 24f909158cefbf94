#include "agent/cli/command_line.h"

#include <CLI/CLI.hpp>
#include <cmath>
#include <exception>
#include <functional>

#include "agent/cli/commands.h"
#include "agent/cli/input_file.h"
#include "agent/document/vocabulary.h"

namespace vnagent {
namespace {

constexpr const char* kVersion = "vnagent " VNAGENT_VERSION;

constexpr const char* kAbout =
    "vnagent turns what an OpenStack cloud asks for into what a network switch must provide.\n"
    "It mirrors a cloud document into live entities, lets the state machines work on them, and\n"
    "shows the result: the VLANs and VNIs of each host and switch interface and who needs them,\n"
    "and how each region's synchronisation stands.";

constexpr const char* kExit =
    "Exit status: 0 all applied; 1 internal error; 2 wrong command line; 3 some input was "
    "refused;\n"
    "4 a file could not be read or is not JSON.";

constexpr const char* kRunAbout =
    "Load a cloud document, apply a stream of events, and print what the switch is asked to do.\n"
    "The clock is virtual: it starts at 0 and moves only by \"advance\" events.";

constexpr const char* kRunFooter =
    "Events, one JSON object a line; empty lines and lines that start with # are skipped:\n"
    "  {\"patch\": {...}}             apply a JSON Merge Patch to the cloud document\n"
    "  {\"advance\": 12.5}            move the clock forward by so many seconds\n"
    "  {\"regionSyncTimeout\": 30}    give the root machine this timeout, in seconds\n"
    "\n"
    "Examples:\n"
    "  vnagent run cloud.json\n"
    "  vnagent run cloud.json --events day.jsonl --each --keep-going\n"
    "  vnagent run cloud.json --format json --trace 3 --trace-text";

constexpr const char* kImportFooter =
    "DIR holds networks.json, segments.json and ports.json, the answers of GET /v2.0/networks,\n"
    "/v2.0/segments and /v2.0/ports, and may hold db_binding_levels.json, the rows of the binding\n"
    "levels table (port_id, host, level, segment_id). What has no place in a cloud document is "
    "left\n"
    "out, with one line on standard error each.\n"
    "\n"
    "Example:\n"
    "  vnagent import-neutron --region RegionOne dump/ > cloud.json && vnagent run cloud.json";

// Seconds that a timeout may have.
std::string faultOfTimeout(const std::string& text) {
  try {
    size_t used = 0;
    const double seconds = std::stod(text, &used);
    if (used == text.size() && seconds > 0 && seconds <= kMaxSeconds) return {};
  } catch (const std::exception&) {
    // Said below.
  }
  return "'" + text + "' is not a number of seconds (more than 0, at most 1000000000)";
}

void addRun(CLI::App& app, RunOptions& options) {
  CLI::App* run = app.add_subcommand("run", kRunAbout);
  run->footer(kRunFooter);
  run->add_option("CLOUD", options.cloud, "cloud document to start from; none is an empty cloud")
      ->type_name("FILE");
  run->add_option("--events", options.events, "events to apply, one a line; - is standard input")
      ->type_name("FILE");
  run->add_option("--region-sync-timeout", options.regionSyncTimeout,
                  "region sync timeout to start with, where the document has none")
      ->type_name("SECONDS")
      ->check(faultOfTimeout)
      ->capture_default_str();
  run->add_option_function<std::string>(
         "--toggle", [&options](const std::string& word) { options.toggle = word == "on"; },
         "the answer for the toggle VirtualNetworkAgentToggle: on publishes switch ports, off "
         "network elements [on]")
      ->type_name("on|off")
      ->check(CLI::IsMember({"on", "off"}).description(""));
  run->add_option_function<std::string>(
         "--format", [&options](const std::string& word) { options.tree = word == "tree"; },
         "form of the final document [tree on a terminal, else json]")
      ->type_name("tree|json")
      ->check(CLI::IsMember({"tree", "json"}).description(""));
  run->add_option("--inspect", options.inspect,
                  "print what stands at this place of the machines instead of the final document, "
                  "for example /openStackSm/regionConfigSm/RegionOne/portBindingSm")
      ->type_name("PATH");
  run->add_flag("--each", options.each,
                "print one line of JSON for the loaded document and for each event, instead of the "
                "final document");
  run->add_flag("--keep-going", options.keepGoing, "report a refused event, skip it and go on");
  CLI::Option* trace =
      run->add_option("--trace", options.traceLevel, "print the machines' trace lines up to LEVEL")
          ->type_name("LEVEL")
          ->check(CLI::NonNegativeNumber.description(""));
  run->add_option("--trace-file", options.traceFile, "where they go, instead of standard error")
      ->type_name("FILE")
      ->needs(trace);
  run->add_flag("--trace-text", options.traceText, "as plain text, instead of JSON")->needs(trace);
}

void addCheck(CLI::App& app, CheckOptions& options) {
  CLI::App* check =
      app.add_subcommand("check",
                         "Check a cloud document, and events on it, and say all that is "
                         "wrong. Nothing is run.");
  check->footer(
      "A refused event is skipped, and those after it are checked without it. On a refused "
      "document\n"
      "only the form of events can be checked.");
  check->add_option("CLOUD", options.cloud, "cloud document to check")
      ->type_name("FILE")
      ->required();
  check->add_option("--events", options.events, "events to check, one a line; - is standard input")
      ->type_name("FILE");
}

void addImport(CLI::App& app, ImportOptions& options) {
  CLI::App* command =
      app.add_subcommand("import-neutron",
                         "Turn the state of a Neutron server into a cloud document, on standard "
                         "output.");
  command->footer(kImportFooter);
  command->add_option("--region", options.region, "name of the region in the cloud document")
      ->type_name("NAME")
      ->required()
      ->check([](const std::string& name) { return faultOfName(name); });
  command->add_option("DIR", options.directory, "folder with the server's answers")
      ->type_name("DIR")
      ->required();
}

ExitStatus guarded(const std::function<ExitStatus()>& command) {
  try {
    return command();
  } catch (const UnreadableFile& error) {
    reportError(error.what());
    return ExitStatus::kUnreadable;
  } catch (const std::exception& error) {
    reportError(std::string("internal error: ") + error.what());
  } catch (...) {
    reportError("internal error");
  }
  return ExitStatus::kInternal;
}

}  // namespace

int runCommandLine(int argc, char** argv, const Finished& finished) {
  CLI::App app(kAbout, "vnagent");
  app.footer(kExit);
  app.set_version_flag("--version", kVersion);
  app.require_subcommand(1);
  app.get_formatter()->column_width(34);
  RunOptions runOptions;
  CheckOptions checkOptions;
  ImportOptions importOptions;
  addRun(app, runOptions);
  addCheck(app, checkOptions);
  addImport(app, importOptions);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    const int code = app.exit(error);
    return code == 0 ? 0 : static_cast<int>(ExitStatus::kUsage);
  }
  const ExitStatus status = guarded([&] {
    if (app.got_subcommand("run")) return run(runOptions, finished);
    if (app.got_subcommand("check")) return check(checkOptions);
    return importNeutron(importOptions);
  });
  return static_cast<int>(status);
}

}  // namespace vnagent
