#include "agent/cli/command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <climits>
#include <exception>
#include <functional>
#include <sstream>

#include <fmt/format.h>

#include "agent/cli/client_commands.h"
#include "agent/cli/commands.h"
#include "agent/cli/flag.h"
#include "agent/cli/input_file.h"
#include "agent/cli/nearest_word.h"
#include "agent/cli/serve.h"
#include "agent/document/vocabulary.h"
#include "agent/journal/journal_error.h"

namespace vnagent {
namespace {

constexpr const char* kVersion = "vnagent " VNAGENT_VERSION;

constexpr const char* kAbout =
    "vnagent turns what an OpenStack cloud asks for into what a network switch must provide.\n"
    "It mirrors a cloud document into live entities, lets the state machines work on them, and\n"
    "shows the result: the VLANs and VNIs of each host and switch interface with the ports that\n"
    "need them, and the sync status of each region.";

constexpr const char* kExit =
    "Exit status: 0 all applied; 1 internal error; 2 wrong command line; 3 some input was "
    "refused;\n"
    "4 a file could not be read or is not JSON, or the live agent was not reached; 5 the live "
    "agent is\n"
    "not in the state that was asked for.";

constexpr const char* kRunAbout =
    "Load a cloud document, apply a stream of events, and print what the switch is asked to do.\n"
    "The clock is virtual: it starts at 0 and moves only by \"advance\" events.";

constexpr const char* kRunFooter =
    "CLOUD or the events, not both, may be -, standard input.\n"
    "\n"
    "Events, one JSON object a line; empty lines and lines that start with # are skipped:\n"
    "  {\"patch\": {...}}             apply a JSON Merge Patch to the cloud document\n"
    "  {\"advance\": 12.5}            move the clock forward by so many seconds\n"
    "  {\"regionSyncTimeout\": 30}    give the root machine this timeout, in seconds\n"
    "\n"
    "Examples:\n"
    "  vnagent run cloud.json\n"
    "  vnagent run cloud.json --events day.jsonl --each --keep-going\n"
    "  vnagent run cloud.json --format json --trace 3 --trace-text\n"
    "  vnagent run --journal /var/lib/vnagent --until 1200";

constexpr const char* kCheckFooter =
    "CLOUD or the events, not both, may be -, standard input. The faults of the document come in\n"
    "the order of its lines; the first 100 faults are printed, and then how many there are. A\n"
    "refused event is skipped, and those after it are checked without it. On a refused document\n"
    "only the form of events can be checked.";

constexpr const char* kImportFooter =
    "DIR holds networks.json, segments.json and ports.json, the answers of GET /v2.0/networks,\n"
    "/v2.0/segments and /v2.0/ports, and may hold db_binding_levels.json, the rows of the binding\n"
    "levels table (port_id, host, level, segment_id). What cannot be mapped is left out,\n"
    "with one line on standard error each.\n"
    "\n"
    "Example:\n"
    "  vnagent import-neutron --region RegionOne dump/ > cloud.json && vnagent run cloud.json";

constexpr const char* kJournalAbout =
    "Look into the journal that vnagent serve keeps in its state directory, check it, repair it.";

constexpr const char* kJournalFooter =
    "Examples:\n"
    "  vnagent journal check /var/lib/vnagent\n"
    "  vnagent journal show /var/lib/vnagent --from 1200 --json";

// A number in decimal notation; nothing for other text. CLI11 would take 0x10, and 010 for 8.
template <class Number>
std::optional<Number> decimal(const std::string& text) {
  Number number{};
  const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
  const bool whole = result.ptr == text.data() + text.size();
  return whole && result.ec == std::errc() ? std::optional(number) : std::nullopt;
}

// The numbers that an option takes, and how a message says so.
template <class Number>
struct Range {
  Number low;
  bool hasLow;
  Number high;
  const char* what;

  bool contains(Number number) const {
    return (hasLow ? number >= low : number > low) && number <= high;
  }
};
constexpr Range<double> kTimeouts{0, false, kMaxSeconds,
                                  "a number of seconds, more than 0 and at most 1000000000"};
constexpr Range<int> kTraceLevels{0, true, INT_MAX, "a trace level, 0 or more"};
constexpr Range<uint64_t> kRevisions{0, true, UINT64_MAX, "a number of revisions, 0 or more"};
constexpr Range<double> kDays{0, true, 1e6, "a number of days, from 0 to 1000000"};
constexpr Range<uint64_t> kByteCounts{1, true, UINT64_MAX, "a number of bytes, 1 or more"};

template <class Number, class Target>
CLI::Option* addNumber(CLI::App& command, const char* name, Target& target,
                       const Range<Number>& range, const char* about) {
  const auto store = [&target](const std::string& text) { target = *decimal<Number>(text); };
  const auto faultOf = [range](const std::string& text) {
    const auto number = decimal<Number>(text);
    return number && range.contains(*number) ? std::string()
                                             : fmt::format("'{}' is not {}", text, range.what);
  };
  return command.add_option_function<std::string>(name, store, about)->check(faultOf);
}

// Checks that a value is one of two words.
auto oneOf(const char* first, const char* second) {
  return [first, second](const std::string& text) {
    if (text == first || text == second) return std::string();
    return fmt::format("'{}' is neither {} nor {}", text, first, second);
  };
}

CLI::Option* addEvents(CLI::App& command, std::string& events, const char* about) {
  return command.add_option("--events", events, about)->type_name("FILE");
}

void addMaxInput(CLI::App& command, uint64_t& maxInputBytes) {
  addNumber(command, "--max-input", maxInputBytes, kByteCounts,
            "read no file, and no line of events, of more than so many bytes")
      ->type_name("BYTES")
      ->default_str(std::to_string(maxInputBytes));
}

void addRun(CLI::App& app, RunOptions& options) {
  CLI::App* run = app.add_subcommand("run", kRunAbout);
  run->footer(kRunFooter);
  CLI::Option* cloud =
      run->add_option("CLOUD", options.cloud,
                      "cloud document to start from, - is standard input; none is an empty cloud")
          ->type_name("FILE");
  CLI::Option* events =
      addEvents(*run, options.events, "events to apply, one a line; - is standard input");
  CLI::Option* journal = run->add_option("--journal", options.journal,
                                         "play back the journal of a live agent instead, from "
                                         "the oldest revision that it has")
                             ->type_name("DIR")
                             ->excludes(cloud)
                             ->excludes(events);
  addNumber(*run, "--until", options.until, kRevisions, "with --journal: up to this revision")
      ->type_name("REVISION")
      ->needs(journal);
  addNumber(*run, "--region-sync-timeout", options.regionSyncTimeout, kTimeouts,
            "region sync timeout to start with, where the document has none")
      ->type_name("SECONDS")
      ->default_str("60");
  run->add_option_function<std::string>(
         "--toggle", [&options](const std::string& word) { options.toggle = word == "on"; },
         "the answer for the toggle VirtualNetworkAgentToggle: on publishes switch ports, off "
         "network elements [on]")
      ->type_name("on|off")
      ->check(oneOf("on", "off"));
  run->add_option_function<std::string>(
         "--format", [&options](const std::string& word) { options.tree = word == "tree"; },
         "form of the final document [tree on a terminal, else json]")
      ->type_name("tree|json")
      ->check(oneOf("tree", "json"));
  run->add_option("--inspect", options.inspect,
                  "print the part of the machines at this path instead of the final document, "
                  "for example /openStackSm/regionConfigSm/RegionOne/portBindingSm")
      ->type_name("PATH");
  CLI::Option* each =
      addFlag(*run, "--each", options.each,
              "print one line of JSON for the loaded document and for each event, instead of the "
              "final document");
  addFlag(*run, "--changes", options.changes,
          "with --each: print what has changed of the output, as a JSON Merge Patch")
      ->needs(each);
  addFlag(*run, "--keep-going", options.keepGoing, "report a refused event, skip it and go on");
  CLI::Option* trace = addNumber(*run, "--trace", options.traceLevel, kTraceLevels,
                                 "print the machines' trace lines up to LEVEL; 9 has all")
                           ->type_name("LEVEL");
  run->add_option("--trace-file", options.traceFile, "where they go, instead of standard error")
      ->type_name("FILE")
      ->needs(trace);
  run->add_flag("--trace-text", options.traceText, "as plain text, instead of JSON")
      ->disable_flag_override()
      ->needs(trace);
  addMaxInput(*run, options.maxInputBytes);
}

void addCheck(CLI::App& app, CheckOptions& options) {
  CLI::App* check = app.add_subcommand("check",
                                       "Check a cloud document, and events on it, and report every "
                                       "fault. Nothing is run.");
  check->footer(kCheckFooter);
  check->add_option("CLOUD", options.cloud, "cloud document to check; - is standard input")
      ->type_name("FILE")
      ->required();
  addEvents(*check, options.events, "events to check, one a line; - is standard input");
  addMaxInput(*check, options.maxInputBytes);
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
  addMaxInput(*command, options.maxInputBytes);
}

void addSchema(CLI::App& app, SchemaOptions& options) {
  CLI::App* command = app.add_subcommand(
      "schema", "Print the JSON Schema (draft 2020-12) of a document, on standard output.");
  command
      ->add_option_function<std::string>(
          "DOCUMENT", [&options](const std::string& word) { options.output = word == "output"; },
          "cloud: what run and check read; output: what run prints")
      ->type_name("cloud|output")
      ->check(oneOf("cloud", "output"))
      ->required();
}

CLI::App* addJournalAction(CLI::App& group, JournalOptions& options, const char* name,
                           JournalOptions::Action action, const char* about) {
  CLI::App* command = group.add_subcommand(name, about);
  command->add_option("DIR", options.directory, "the agent's state directory")
      ->type_name("DIR")
      ->required();
  command->callback([&options, action] { options.action = action; });
  return command;
}

void addJournal(CLI::App& app, JournalOptions& options) {
  using Action = JournalOptions::Action;
  CLI::App* group = app.add_subcommand("journal", kJournalAbout);
  group->require_subcommand(1);
  group->footer(kJournalFooter);
  addJournalAction(*group, options, "check", Action::kCheck,
                   "Check all of a journal, and report every fault by record and revision. May run "
                   "beside the agent.");
  CLI::App* show = addJournalAction(*group, options, "show", Action::kShow,
                                    "Print the records, one a line. May run beside the agent.");
  addNumber(*show, "--from", options.from, kRevisions, "the first revision to print")
      ->type_name("REVISION");
  addNumber(*show, "--until", options.until, kRevisions, "the last revision to print")
      ->type_name("REVISION");
  addFlag(*show, "--json", options.json, "as JSON, with what each record changed");
  CLI::App* compact = addJournalAction(
      *group, options, "compact", Action::kCompact,
      "Remove old records, and give free space back to the file system. The agent must not run.");
  addNumber(*compact, "--keep-days", options.keepDays, kDays,
            "keep records that are not older than so many days")
      ->type_name("DAYS")
      ->default_str("7");
  addNumber(*compact, "--keep-revisions", options.keepRevisions, kRevisions,
            "keep the records of at least so many revisions")
      ->type_name("N")
      ->default_str("10000");
  addJournalAction(*group, options, "repair", Action::kRepair,
                   "Keep the longest good history of a damaged journal, say which revisions are "
                   "gone, and keep the damaged files beside it. The agent must not run.");
}

// Two inputs cannot both be standard input. Throws CLI::ParseError.
void checkInputs(const std::string& cloud, const std::string& events) {
  if (cloud != "-" || events != "-") return;
  throw CLI::ValidationError("--events", "CLOUD is standard input already");
}

// What is wrong with the command line.

std::vector<std::string> commandNames(const CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::App* command : app.get_subcommands({})) {
    // Commands without a group are for scripts of ours, not for people.
    if (!command->get_group().empty()) names.push_back(command->get_name());
  }
  return names;
}

std::vector<std::string> optionNames(const CLI::App& command) {
  std::vector<std::string> names;
  for (const CLI::Option* option : command.get_options()) {
    for (const auto& name : option->get_lnames()) names.push_back("--" + name);
  }
  return names;
}

std::string faultOfCommand(const CLI::App& app, const std::string& word) {
  const auto names = commandNames(app);
  const auto near = nearestWord(word, names);
  const std::string help = near.empty() ? fmt::format("the commands are {}", fmt::join(names, ", "))
                                        : fmt::format("did you mean '{}'", near);
  return fmt::format("there is no command '{}'; {}", word, help);
}

std::string faultOfOption(const CLI::App& command, const std::string& argument) {
  const std::string option = argument.substr(0, argument.find('='));
  const auto near = nearestWord(option, optionNames(command));
  return fmt::format("there is no option '{}'{}", option,
                     near.empty() ? "" : fmt::format("; did you mean '{}'", near));
}

// The words that are no known option or argument. CLI11 reports them last, but a missing option or
// command is often a mistyped one.
std::string faultOfExtras(const CLI::App& app, const CLI::App* command) {
  const auto isOption = [](const std::string& word) { return word.size() > 1 && word[0] == '-'; };
  const auto before = app.remaining();
  if (!before.empty()) {
    const std::string& word = before.front();
    if (!isOption(word)) return faultOfCommand(app, word);
    const bool isMisplaced =
        command != nullptr && std::ranges::count(optionNames(*command), word) > 0;
    return isMisplaced ? fmt::format("option '{}' must follow the command", word)
                       : faultOfOption(app, word);
  }
  if (command == nullptr) return {};
  const auto after = command->remaining();
  if (after.empty()) return {};
  const std::string& word = after.front();
  return isOption(word) ? faultOfOption(*command, word)
                        : fmt::format("there is one argument too many: '{}'", word);
}

// An option that has no value and needs one, or the reverse. Every value here is a single one.
std::string faultOfMismatch(const CLI::ArgumentMismatch& error) {
  const std::string_view text = error.what();
  const auto option = text.substr(0, text.find_first_of(": "));
  if (text.find("flag override") != text.npos) return fmt::format("--{} takes no value", option);
  if (text.find("At Most") != text.npos) return fmt::format("{} is given more than once", option);
  return fmt::format("{} needs a value", option);
}

// `path` is what leads to the commands of `app`.
int reportUsage(const CLI::App& app, const std::string& path, const CLI::ParseError& error) {
  const auto commands = app.get_subcommands();
  const CLI::App* command = commands.empty() ? nullptr : commands.front();
  if (command != nullptr && !command->get_subcommands({}).empty()) {
    // A group of commands: what is wrong is below it.
    return reportUsage(*command, path + command->get_name() + ' ', error);
  }
  std::string fault = faultOfExtras(app, command);
  if (fault.empty() && command == nullptr) {
    fault = fmt::format("a command is needed: {}", fmt::join(commandNames(app), ", "));
  } else if (const auto* mismatch = dynamic_cast<const CLI::ArgumentMismatch*>(&error)) {
    if (fault.empty()) fault = faultOfMismatch(*mismatch);
  } else if (fault.empty()) {
    fault = error.what();
  }
  const std::string name = path + (command == nullptr ? "" : command->get_name() + ' ');
  reportError(fmt::format("{}; see {}--help", fault, name));
  return static_cast<int>(ExitStatus::kUsage);
}

ExitStatus guarded(const std::function<ExitStatus()>& command) {
  try {
    return command();
  } catch (const UnreadableFile& error) {
    reportError(error.what());
    return ExitStatus::kUnreadable;
  } catch (const JournalError& error) {
    reportError(error.what());
    const bool isDamaged = error.kind() == JournalError::Kind::kDamaged;
    return isDamaged ? ExitStatus::kRefused : ExitStatus::kUnreadable;
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
  SchemaOptions schemaOptions;
  JournalOptions journalOptions;
  addRun(app, runOptions);
  addCheck(app, checkOptions);
  addImport(app, importOptions);
  addSchema(app, schemaOptions);
  addJournal(app, journalOptions);
  const ClientCommands client(app);
  ServeArguments serveArguments;
  addServe(app, serveArguments);
  try {
    app.parse(argc, argv);
    checkInputs(runOptions.cloud, runOptions.events);
    checkInputs(checkOptions.cloud, checkOptions.events);
  } catch (const CLI::Success& asked) {
    // Help or the version.
    std::ostringstream text;
    app.exit(asked, text, text);
    return static_cast<int>(guarded([&] {
      printOut(text.str());
      return ExitStatus::kOk;
    }));
  } catch (const CLI::ParseError& error) {
    return reportUsage(app, "vnagent ", error);
  }
  const ExitStatus status = guarded([&] {
    if (app.got_subcommand("run")) return run(runOptions, finished);
    if (app.got_subcommand("check")) return check(checkOptions);
    if (app.got_subcommand("serve")) return serve(serveArguments);
    if (app.got_subcommand("schema")) return printSchema(schemaOptions);
    if (app.got_subcommand("journal")) return journal(journalOptions);
    if (const auto clientStatus = client.run()) return *clientStatus;
    return importNeutron(importOptions);
  });
  return static_cast<int>(status);
}

}  // namespace vnagent
