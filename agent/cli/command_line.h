// The command line of vnagent.
#pragma once

#include "agent/cli/commands.h"

namespace vnagent {

// Reads the command line, runs the command that it names, and returns the exit status. Errors are
// reported on standard error; nothing is thrown. `finished`, if any, is called at the end of a run,
// as commands.h says.
int runCommandLine(int argc, char** argv, const Finished& finished = {});

}  // namespace vnagent
