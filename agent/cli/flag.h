// A flag of a command: it is given or not, and takes no value.
#pragma once

#include <CLI/CLI.hpp>

namespace vnagent {

inline CLI::Option* addFlag(CLI::App& command, const char* name, bool& flag, const char* about) {
  return command.add_flag(name, flag, about)->disable_flag_override();
}

}  // namespace vnagent
