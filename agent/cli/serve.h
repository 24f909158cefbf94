// The command `vnagent serve`.
#pragma once

#include <functional>
#include <map>
#include <string>

#include "agent/cli/report.h"

namespace CLI {
class App;
}

namespace vnagent {

// What the command line says, as text: the options of agent/server/options.h by their names.
struct ServeArguments {
  std::string config;  // the configuration file; empty for none
  std::map<std::string, std::string, std::less<>> given;
};

// Adds the command with its options.
void addServe(CLI::App& app, ServeArguments& arguments);

// Runs it, until a signal ends it.
ExitStatus serve(const ServeArguments& arguments);

}  // namespace vnagent
