#include "agent/cli/client_commands.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <cmath>

#include <fmt/format.h>

#include "agent/cli/client_support.h"
#include "agent/cli/flag.h"
#include "agent/cli/input_file.h"

namespace vnagent {
namespace {

constexpr const char* kPlaces =
    "A place is cloud or output, and a JSON Pointer in it: cloud/region/RegionOne/port, with ~1 "
    "for\n"
    "a slash in a name. Without the document it is one of the cloud: /region/RegionOne.";

constexpr const char* kLockFooter =
    "Without COMMAND the lock is shown. The command finds the request id in $VNAGENT_REQUEST_ID, "
    "for\n"
    "the header Sync-Request-Id and the option --request-id; its exit status is that of lock.\n"
    "\n"
    "Example:\n"
    "  vnagent lock RegionOne --sync -- sh -c \\\n"
    "    'vnagent replace RegionOne region.json --request-id $VNAGENT_REQUEST_ID'";

constexpr const char* kLoadFooter =
    "It puts regions of its own into the agent, syncs them, moves their ports from host to host, "
    "and\n"
    "removes them at the end. Times are from when a request was due, and of an event from when "
    "its\n"
    "change was due. Meanwhile the watchers' documents are compared with what the agent says; "
    "exit\n"
    "status 5 where one differs.\n"
    "\n"
    "Example:\n"
    "  vnagent load --ports 10000 --connections 16 --rate 0 --watchers 100 --seconds 30";

std::string faultOfSeconds(const std::string& text) {
  double number = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
  const bool whole = result.ptr == text.data() + text.size() && result.ec == std::errc();
  return whole && number >= 0 && number <= 1e9
             ? std::string()
             : fmt::format("'{}' is not a number of seconds", text);
}

std::string faultOfCount(const std::string& text) {
  uint64_t number = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
  const bool whole = result.ptr == text.data() + text.size() && result.ec == std::errc();
  return whole ? std::string() : fmt::format("'{}' is not a number", text);
}

std::string faultOfUrl(const std::string& text) {
  try {
    Endpoint::ofUrl(text);
    return {};
  } catch (const std::invalid_argument& error) {
    return fmt::format("'{}': {}", text, error.what());
  }
}

void addSeconds(CLI::App& command, const char* name, double& target, const char* about) {
  command.add_option(name, target, about)
      ->type_name("SECONDS")
      ->check(faultOfSeconds)
      ->default_str(fmt::format("{}", target));
}

void addRequestId(CLI::App& command, std::string& requestId) {
  command
      .add_option("--request-id", requestId,
                  "refuse the change unless this request holds the lock of each region it touches")
      ->type_name("ID");
}

void addConnection(CLI::App& command, ClientOptions& options) {
  CLI::Option* socket = command.add_option("--socket", options.socket,
                                           "Unix socket of the agent [$VNAGENT_SOCKET, else "
                                           "/run/vnagent/vnagent.sock]");
  socket->type_name("PATH");
  command.add_option("--url", options.url, "agent on TCP: http://HOST:PORT or https://HOST:PORT")
      ->type_name("URL")
      ->check(faultOfUrl)
      ->excludes(socket);
  command.add_option("--token-file", options.tokenFile, "file with the token to show")
      ->type_name("FILE");
  command
      .add_option("--ca", options.authorities,
                  "file with the certificates to trust, instead of the system's")
      ->type_name("FILE");
  addSeconds(command, "--deadline", options.deadline, "longest time for an answer");
  addFlag(command, "--json", options.json, "print one line of JSON");
}

void addShow(CLI::App& app, ShowOptions& options) {
  CLI::App* command = app.add_subcommand(
      "show", "Show what a live agent has, as a table: an overview, or one kind of thing.");
  command
      ->add_option("WHAT", options.what, "regions, hosts, ports, switchports, vlans, locks, pools")
      ->type_name("")
      ->check(
          CLI::IsMember({"regions", "hosts", "ports", "switchports", "vlans", "locks", "pools"}));
  addConnection(*command, options);
}

void addGet(CLI::App& app, GetOptions& options) {
  CLI::App* command = app.add_subcommand("get", "Print a place of a live agent's documents.");
  command->footer(kPlaces);
  command->add_option("PLACE", options.place, "what to print")->type_name("")->required();
  addFlag(*command, "--keys", options.keys, "print only the keys, one a line");
  addConnection(*command, options);
}

void addPatch(CLI::App& app, PatchOptions& options) {
  CLI::App* command =
      app.add_subcommand("patch", "Apply a JSON Merge Patch to the cloud of a live agent.");
  command->footer(kPlaces);
  command->add_option("FILE", options.file, "the patch; - is standard input")
      ->type_name("")
      ->default_str("-");
  command->add_option("--at", options.at, "the place to merge it at, instead of the whole cloud")
      ->type_name("PLACE");
  command->add_option("--if-match", options.ifMatch, "refuse it unless the place's ETag is this")
      ->type_name("REVISION");
  addRequestId(*command, options.requestId);
  command->add_option("--key", options.key, "idempotency key: apply it once, however often sent")
      ->type_name("KEY");
  addFlag(*command, "--dry-run", options.dryRun, "only print what would change of the output");
  addConnection(*command, options);
}

void addReplace(CLI::App& app, ReplaceOptions& options) {
  CLI::App* command =
      app.add_subcommand("replace", "Make a region of a live agent exactly what a file says.");
  command->add_option("REGION", options.region, "its name")->type_name("")->required();
  command->add_option("FILE", options.file, "the region as JSON; - is standard input")
      ->type_name("")
      ->required();
  addRequestId(*command, options.requestId);
  addFlag(*command, "--dry-run", options.dryRun, "only print what would change of the output");
  addConnection(*command, options);
}

void addDiff(CLI::App& app, ApplyOptions& options) {
  CLI::App* command = app.add_subcommand(
      "diff",
      "Show what apply would change of a live agent's cloud. Exit status 5 where there is "
      "a difference.");
  command->add_option("FILE", options.file, "cloud document; - is standard input")
      ->type_name("")
      ->required();
  addConnection(*command, options);
}

void addApply(CLI::App& app, ApplyOptions& options) {
  CLI::App* command = app.add_subcommand(
      "apply",
      "Make the regions of a live agent those of a cloud document, as one change. Other "
      "regions stay.");
  command->add_option("FILE", options.file, "cloud document; - is standard input")
      ->type_name("")
      ->required();
  addRequestId(*command, options.requestId);
  addFlag(*command, "--dry-run", options.dryRun, "only print what would change");
  addConnection(*command, options);
}

void addWatch(CLI::App& app, WatchOptions& options) {
  CLI::App* command =
      app.add_subcommand("watch", "Follow a document of a live agent, also over restarts.");
  command->add_option("--of", options.of, "the document: output or cloud")
      ->type_name("DOCUMENT")
      ->default_str("output")
      ->check(CLI::IsMember({"output", "cloud"}));
  command->add_option("--at", options.at, "only this place, a JSON Pointer; may be given again")
      ->type_name("POINTER")
      ->take_all()
      ->allow_extra_args(false);
  command->add_option("--since", options.since, "the event to go on after, its id or revision")
      ->type_name("ID");
  command->add_option("--count", options.count, "end after so many events")
      ->type_name("N")
      ->check(faultOfCount);
  addConnection(*command, options);
}

void addWait(CLI::App& app, WaitOptions& options) {
  CLI::App* command = app.add_subcommand(
      "wait",
      "Wait until the output of a live agent is that of a revision. Exit status 5 where it "
      "is not in time.");
  command->add_option("REVISION", options.revision, "the revision")
      ->type_name("")
      ->check(faultOfCount)
      ->required();
  addSeconds(*command, "--timeout", options.seconds, "how long to wait");
  addConnection(*command, options);
}

void addLock(CLI::App& app, LockOptions& options) {
  CLI::App* command = app.add_subcommand(
      "lock", "Hold a region's lock while a command runs, or show who holds it.");
  command->footer(kLockFooter);
  command->add_option("REGION", options.region, "its name")->type_name("")->required();
  command->add_option("COMMAND", options.command, "what to run, after --")->type_name("");
  command->add_option("--requester", options.requester, "who asks [the host's name]")
      ->type_name("NAME");
  command->add_option("--request-id", options.requestId, "id of the request [a new one]")
      ->type_name("ID");
  addSeconds(*command, "--wait", options.wait, "how long to wait for the lock, at most 300");
  addFlag(*command, "--sync", options.sync,
          "sync around the command: start, heartbeats, and completion if it succeeds");
  addFlag(*command, "--force", options.force, "free the lock, whoever holds it");
  addConnection(*command, options);
}

void addTrace(CLI::App& app, TraceOptions& options) {
  CLI::App* command =
      app.add_subcommand("trace",
                         "Show or set the trace level of a live agent, or follow its trace "
                         "lines.");
  command->add_option("--level", options.level, "set the level, 0 to 9")
      ->type_name("LEVEL")
      ->check(CLI::Range(0, 9));
  addFlag(*command, "--tail", options.tail, "print trace lines as they come");
  addConnection(*command, options);
}

template <class Number>
void addCount(CLI::App& command, const char* name, Number& target, Number least, Number most,
              const char* about) {
  command.add_option(name, target, about)
      ->type_name("N")
      ->check(faultOfCount)
      ->check([least, most](const std::string& text) {
        uint64_t number = 0;
        std::from_chars(text.data(), text.data() + text.size(), number);
        return number >= least && number <= most
                   ? std::string()
                   : fmt::format("'{}' is not a number from {} to {}", text, least, most);
      })
      ->default_str(fmt::format("{}", target));
}

void addRate(CLI::App& command, const char* name, double& target, const char* about) {
  command.add_option(name, target, about)
      ->type_name("N")
      ->check([](const std::string& text) {
        return faultOfSeconds(text).empty() ? std::string()
                                            : fmt::format("'{}' is not a rate", text);
      })
      ->default_str(fmt::format("{}", target));
}

void addLoad(CLI::App& app, LoadOptions& options) {
  CLI::App* command = app.add_subcommand(
      "load", "Drive a live agent with a cloud of the asked size, and measure it.");
  command->footer(kLoadFooter);
  addCount(*command, "--ports", options.ports, 1U, 10'000'000U, "ports of the cloud");
  addCount(*command, "--regions", options.regions, 1U, 4000U, "regions of the cloud");
  command
      ->add_option("--hosts", options.hosts,
                   "hosts of the cloud [one for each 40 ports, two for each region]")
      ->type_name("N")
      ->check(faultOfCount);
  command->add_option("--prefix", options.prefix, "what the names of its regions begin with")
      ->type_name("TEXT")
      ->default_str(options.prefix);
  addCount(*command, "--seed", options.seed, uint64_t{0}, UINT64_MAX, "seed of all that is random");
  addCount(*command, "--drivers", options.drivers, 1U, 4000U,
           "drivers, which share the regions among them");
  addCount(*command, "--connections", options.connections, 1U, 100'000U,
           "connections of all drivers");
  addRate(*command, "--rate", options.rate,
          "changes a second of all drivers; 0 is as fast as they are answered");
  addSeconds(*command, "--sync-interval", options.syncInterval,
             "a driver syncs again after so long; 0 is only at the beginning");
  addCount(*command, "--watchers", options.watchers, 0U, 100'000U, "watchers");
  command
      ->add_option("--watch", options.watch,
                   "what they follow: hosts is a host each, but for two, which follow the whole "
                   "documents; output or cloud is the whole document each")
      ->type_name("hosts|output|cloud")
      ->check(CLI::IsMember({"hosts", "output", "cloud"}))
      ->default_str(options.watch);
  addCount(*command, "--readers", options.readers, 0U, 100'000U, "readers");
  addRate(*command, "--read-rate", options.readRate,
          "reads a second of all readers; 0 is as fast as they are answered");
  addSeconds(*command, "--seconds", options.seconds, "how long to measure");
  addFlag(*command, "--overwrite", options.overwrite,
          "remove regions that have the names already; else they are an error");
  addFlag(*command, "--keep", options.keep, "leave the regions as they are at the end");
  addConnection(*command, options);
}

constexpr const char* kExportFooter =
    "The map is JSON:\n"
    "  {\"switches\": {\"leaf-1\": {\"database\": \"unix:/run/leaf-1/db.sock\"}},\n"
    "   \"hosts\": {\"compute-1\": [{\"switch\": \"leaf-1\", \"port\": \"swp1\"}]}}\n"
    "\n"
    "Examples:\n"
    "  vnagent export hardware-vtep --map map.json\n"
    "  vnagent run cloud.json --format json |\n"
    "    vnagent export hardware-vtep --map map.json --outputs - --report";

void addExport(CLI::App& app, ExportOptions& options) {
  CLI::App* command = app.add_subcommand(
      "export",
      "Keep the databases of switches as the output document of a live agent asks. KIND is "
      "hardware-vtep,\nthe open schema of these databases.");
  command->add_option("KIND", options.kind, "hardware-vtep")
      ->type_name("")
      ->check(CLI::IsMember({"hardware-vtep"}))
      ->required();
  command->footer(kExportFooter);
  command
      ->add_option("--map", options.map, "which switch has which database, and where the hosts are")
      ->type_name("FILE");
  command
      ->add_option("--outputs", options.outputs,
                   "follow a file of output documents instead of a live agent; - is standard input")
      ->type_name("FILE");
  const auto addMode = [&](const char* name, ExportMode mode, const char* about) {
    return command
        ->add_flag_callback(
            name, [&options, mode] { options.mode = mode; }, about)
        ->disable_flag_override();
  };
  CLI::Option* repair =
      addMode("--repair", ExportMode::kRepair, "add, change and remove what differs; the default");
  CLI::Option* addOnly = addMode("--add-only", ExportMode::kAddOnly, "never remove anything");
  CLI::Option* report =
      addMode("--report", ExportMode::kReport,
              "write nothing; print what differs, and end. Exit status 5 where something does");
  addOnly->excludes(repair);
  report->excludes(repair)->excludes(addOnly);
  addFlag(*command, "--once", options.once,
          "end as soon as every switch is as the output says. Exit status 5 where that is not "
          "within the deadline");
  command
      ->add_option("--control", options.control,
                   "Unix socket that serves /status and /metrics, but for a report "
                   "[/run/vnagent/export.sock]")
      ->type_name("PATH");
  command->add_option("--metrics", options.metrics, "serve both on TCP too")
      ->type_name("ADDRESS:PORT");
  addFlag(*command, "--status", options.status,
          "print the state of the exporter that runs, and end. Exit status 5 where a switch is not "
          "as the output says")
      ->excludes(report);
  addConnection(*command, options);
}

// For the shells' completions; not in the help.
void addComplete(CLI::App& app, CompleteOptions& options) {
  CLI::App* command = app.add_subcommand("complete", "Print words for a shell's completion.");
  command->group("");
  command->add_option("WHAT", options.what)->required();
  command->add_option("TEXT", options.text);
  addConnection(*command, options);
}

ExitStatus statusOf(const RequestRefused& refused) {
  switch (refused.status()) {
    case 409:
    case 412:
    case 503:
    case 504:
      return ExitStatus::kNotYet;
    default:
      return ExitStatus::kRefused;
  }
}

std::string holderOf(const RequestRefused& refused) {
  const Json& holder = memberOf(refused.problem(), "holder");
  if (!holder.is_object()) return {};
  return fmt::format("; held by {} (request {})", textOf(memberOf(holder, "owner")),
                     textOf(memberOf(holder, "requestId")));
}

ExitStatus reported(const std::function<ExitStatus()>& command) {
  try {
    return command();
  } catch (const RequestRefused& refused) {
    reportError(refused.what() + holderOf(refused));
    return statusOf(refused);
  } catch (const Unreachable& error) {
    reportError(error.what());
    return ExitStatus::kUnreadable;
  } catch (const RejectedArgument& error) {
    reportError(error.what());
    return ExitStatus::kUsage;
  }
}

}  // namespace

struct ClientCommands::Options {
  ShowOptions show;
  GetOptions get;
  PatchOptions patch;
  ReplaceOptions replace;
  ApplyOptions diff;
  ApplyOptions apply;
  WatchOptions watch;
  WaitOptions wait;
  LockOptions lock;
  TraceOptions trace;
  LoadOptions load;
  ExportOptions exporting;
  CompleteOptions complete;
};

ClientCommands::ClientCommands(CLI::App& app) : app_(app), options_(std::make_unique<Options>()) {
  addShow(app, options_->show);
  addGet(app, options_->get);
  addPatch(app, options_->patch);
  addReplace(app, options_->replace);
  addDiff(app, options_->diff);
  addApply(app, options_->apply);
  addWatch(app, options_->watch);
  addWait(app, options_->wait);
  addLock(app, options_->lock);
  addTrace(app, options_->trace);
  addLoad(app, options_->load);
  addExport(app, options_->exporting);
  addComplete(app, options_->complete);
}

ClientCommands::~ClientCommands() = default;

std::optional<ExitStatus> ClientCommands::run() const {
  const Options& of = *options_;
  const std::pair<const char*, std::function<ExitStatus()>> commands[] = {
      {"show", [&] { return show(of.show); }},
      {"get", [&] { return get(of.get); }},
      {"patch", [&] { return patch(of.patch); }},
      {"replace", [&] { return replace(of.replace); }},
      {"diff", [&] { return diff(of.diff); }},
      {"apply", [&] { return apply(of.apply); }},
      {"watch", [&] { return watch(of.watch); }},
      {"wait", [&] { return wait(of.wait); }},
      {"lock", [&] { return lock(of.lock); }},
      {"trace", [&] { return trace(of.trace); }},
      {"load", [&] { return load(of.load); }},
      {"export", [&] { return exportHardwareVtep(of.exporting); }},
      {"complete", [&] { return complete(of.complete); }},
  };
  for (const auto& [name, command] : commands) {
    if (app_.got_subcommand(name)) return reported(command);
  }
  return std::nullopt;
}

}  // namespace vnagent
