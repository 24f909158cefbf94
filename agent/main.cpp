#include "agent/cli/command_line.h"

int main(int argc, char** argv) {
  return vnagent::runCommandLine(argc, argv);
}
