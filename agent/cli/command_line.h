// The command line of vnagent.
#pragma once

namespace vnagent {

// Reads the command line, runs the command that it names, and returns the exit status. Whatever
// goes wrong is said on standard error; nothing is thrown.
int runCommandLine(int argc, char** argv);

}  // namespace vnagent
