#include "agent/cli/serve.h"

#include <CLI/CLI.hpp>
#include <set>

#include "agent/cli/input_file.h"
#include "agent/journal/journal.h"
#include "agent/server/credentials.h"
#include "agent/server/listener.h"
#include "agent/server/options.h"
#include "agent/server/server.h"

namespace vnagent {
namespace {

constexpr const char* kServeAbout =
    "Keep a cloud up to date for as long as it runs: drivers change it over HTTP, and what the\n"
    "switch must provide can be read and watched.";

constexpr const char* kFooter =
    "The configuration file is TOML with the names of the options as keys, such as\n"
    "  listen = \"127.0.0.1:8080\"\n"
    "  require-lock = true\n"
    "The command line counts where both have an option.\n"
    "\n"
    "SIGTERM and SIGINT finish what is accepted, and end it; SIGHUP reads certificates and tokens\n"
    "anew.\n"
    "\n"
    "Examples:\n"
    "  vnagent serve --socket vnagent.sock --cloud cloud.json\n"
    "  curl --unix-socket vnagent.sock http://localhost/v1/output";

void addOption(CLI::App& command, const ServeOption& option, ServeArguments& arguments) {
  const std::string name(option.name);
  const auto keep = [&arguments, name](const std::string& text) { arguments.given[name] = text; };
  if (option.value.empty()) {
    command
        .add_flag_callback(
            "--" + name, [keep] { keep("true"); }, std::string(option.about))
        ->disable_flag_override();
    return;
  }
  const auto faultOfText = [set = option.set](const std::string& text) {
    ServeOptions ignored;
    return set(ignored, text);
  };
  command.add_option_function<std::string>("--" + name, keep, std::string(option.about))
      ->type_name(std::string(option.value))
      ->check(faultOfText);
}

ServeSettings settingsOf(const ServeArguments& arguments) {
  ServeSettings settings;
  std::set<std::string, std::less<>> given;
  for (const ServeOption& option : serveOptions()) {
    const auto found = arguments.given.find(option.name);
    if (found == arguments.given.end()) continue;
    option.set(settings.options, found->second);
    given.emplace(option.name);
  }
  if (!arguments.config.empty()) readConfiguration(arguments.config, given, settings.options);
  if (!settings.options.cloud.empty()) settings.cloud = readFile(settings.options.cloud);
  settings.version = VNAGENT_VERSION;
  settings.announce = [](const std::string& line) { printOut(line + "\n"); };
  return settings;
}

}  // namespace

void addServe(CLI::App& app, ServeArguments& arguments) {
  CLI::App* command = app.add_subcommand("serve", kServeAbout);
  command->footer(kFooter);
  command
      ->add_option("--config", arguments.config,
                   "a file with options; the command line counts where both have one")
      ->type_name("FILE");
  for (const ServeOption& option : serveOptions()) addOption(*command, option, arguments);
}

ExitStatus serve(const ServeArguments& arguments) {
  try {
    serve(settingsOf(arguments));
    return ExitStatus::kOk;
  } catch (const BadConfiguration& fault) {
    reportError(fault.what());
    return ExitStatus::kUsage;
  } catch (const RefusedCloud& fault) {
    reportError(std::string("the cloud document is refused: ") + fault.what());
    return ExitStatus::kRefused;
  } catch (const CannotListen& fault) {
    reportError(fault.what());
  } catch (const BadCredentials& fault) {
    reportError(fault.what());
  } catch (const JournalError& fault) {
    reportError(fault.what());
  }
  return ExitStatus::kUnreadable;
}

}  // namespace vnagent
