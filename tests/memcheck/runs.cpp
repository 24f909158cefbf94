// Runs the command line of vnagent many times in one process, and takes each cloud apart at the end
// of its run, which the program itself leaves to the system.
//
//   runs <LIST
//
// Each line of the list is one run: a folder, and the arguments of vnagent, with tabs between them.
// The folder gets what the run wrote, as "stdout" and "stderr", and its exit status, as "status".
// Valgrind's log gets the folder before what it finds in that run.
//
//   runs misuse | leak
//
// does what memcheck must find, with an object of the library.
#include <fcntl.h>
#include <unistd.h>
#include <valgrind/valgrind.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "agent/cli/command_line.h"
#include "framework/Allocation.h"
#include "framework/Ptr.h"

namespace {

// Sends a descriptor to a file from here on.
void redirect(int descriptor, const std::string& path) {
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
  if (file < 0 || dup2(file, descriptor) < 0) {
    std::perror(path.c_str());
    std::exit(2);
  }
  close(file);
}

std::vector<std::string> split(const std::string& line) {
  std::vector<std::string> parts(1);
  for (const char c : line) {
    if (c == '\t') {
      parts.emplace_back();
    } else {
      parts.back() += c;
    }
  }
  return parts;
}

void runOne(std::vector<std::string> parts) {
  const std::string folder = parts.front();
  parts.front() = "vnagent";
  std::vector<char*> arguments;
  for (std::string& part : parts) arguments.push_back(part.data());
  arguments.push_back(nullptr);
  VALGRIND_PRINTF("run %s\n", folder.c_str());
  redirect(STDOUT_FILENO, folder + "/stdout");
  redirect(STDERR_FILENO, folder + "/stderr");
  const int status =
      vnagent::runCommandLine(static_cast<int>(arguments.size()) - 1, arguments.data());
  std::fflush(stdout);
  std::ofstream(folder + "/status") << status << '\n';
}

class Thing final : public Kiv::PtrInterface {
 public:
  static constexpr std::string_view kTypeName = "Test::Thing";
  const Kiv::Type& fwkType() const override { return Kiv::typeRecord<Thing>; }
  int content = 7;
};

// Reads an object after its end.
int misuse() {
  auto thing = Kiv::make<Thing>();
  volatile const int* content = &thing->content;
  thing = nullptr;
  return *content == 7 ? 0 : 1;
}

// Forgets an object that it holds.
int leak() {
  new Kiv::Ptr<Thing>(Kiv::make<Thing>());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string word = argc > 1 ? argv[1] : "";
  if (word == "misuse") return misuse();
  if (word == "leak") return leak();
  for (std::string line; std::getline(std::cin, line);) runOne(split(line));
}
