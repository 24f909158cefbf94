// What the tests of the command line share: vnagent run in this process, with files of its own.
#pragma once

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdio_ext.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include "agent/cli/command_line.h"

namespace vnagent {

// Sends a descriptor to a file for as long as this lives.
class Redirection {
 public:
  Redirection(int descriptor, const std::string& path, int flags)
      : descriptor_(descriptor), saved_(dup(descriptor)) {
    const int file = open(path.c_str(), flags);
    EXPECT_GE(file, 0) << path;
    dup2(file, descriptor);
    close(file);
  }
  ~Redirection() {
    dup2(saved_, descriptor_);
    close(saved_);
  }
  Redirection(const Redirection&) = delete;
  Redirection& operator=(const Redirection&) = delete;

 private:
  int descriptor_;
  int saved_;
};

class Commands : public ::testing::Test {
 protected:
  struct Result {
    int status;
    std::string out;
    std::string err;
  };

  Commands() {
    std::string pattern = (std::filesystem::temp_directory_path() / "vnagent-XXXXXX").string();
    folder_ = mkdtemp(pattern.data());
  }
  ~Commands() override { std::filesystem::remove_all(folder_); }

  std::string file(std::string_view name, std::string_view content) const {
    const auto path = folder_ / name;
    std::ofstream(path, std::ios::binary) << content;
    return path.string();
  }

  static Result vnagent(std::vector<std::string> arguments) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int status = call(std::move(arguments));
    return {status, testing::internal::GetCapturedStdout(), testing::internal::GetCapturedStderr()};
  }

  // The same with this on standard input.
  Result vnagentReading(std::string_view input, std::vector<std::string> arguments) const {
    const Redirection redirection(STDIN_FILENO, file("stdin", input), O_RDONLY);
    return vnagent(std::move(arguments));
  }

  // The same with a full device behind standard output.
  static Result vnagentOnFullDevice(std::vector<std::string> arguments) {
    std::fflush(stdout);
    const Redirection redirection(STDOUT_FILENO, "/dev/full", O_WRONLY);
    testing::internal::CaptureStderr();
    const int status = call(std::move(arguments));
    // What could not be written must not go elsewhere later.
    __fpurge(stdout);
    std::clearerr(stdout);
    return {status, "", testing::internal::GetCapturedStderr()};
  }

  std::filesystem::path folder_;

 private:
  static int call(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "vnagent");
    std::vector<char*> argv;
    for (auto& argument : arguments) argv.push_back(argument.data());
    return runCommandLine(static_cast<int>(argv.size()), argv.data());
  }
};

inline constexpr std::string_view kCloud =
    "{\n\"region\": {\n\"R\": {\n\"port\": {\"p\": {}},\n\"portBinding\": {\"p\": {}}}}}";
inline constexpr std::string_view kBadCloud =
    "{\n\"region\": {\n\"R\": {\n\"port\": {\"p\": {}},\n\"portBinding\": {\"q\": {}, \"r\": "
    "{}}}}}";

}  // namespace vnagent
