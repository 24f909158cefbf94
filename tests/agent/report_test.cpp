// Messages, colour and progress: what depends on the terminal.
#include "agent/cli/report.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>

namespace vnagent {
namespace {

// A terminal, as a program that writes to it sees it.
class Terminal {
 public:
  Terminal() : controller_(posix_openpt(O_RDWR | O_NOCTTY)) {
    EXPECT_EQ(grantpt(controller_), 0);
    EXPECT_EQ(unlockpt(controller_), 0);
    descriptor_ = open(ptsname(controller_), O_RDWR | O_NOCTTY);
    EXPECT_GE(descriptor_, 0);
    fcntl(controller_, F_SETFL, O_NONBLOCK);
  }
  ~Terminal() {
    close(descriptor_);
    close(controller_);
  }
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  int descriptor() const { return descriptor_; }

  // What was written since the last call.
  std::string written() const {
    char buffer[256];
    const auto got = read(controller_, buffer, sizeof buffer);
    return got > 0 ? std::string(buffer, static_cast<size_t>(got)) : std::string();
  }

 private:
  int controller_;
  int descriptor_ = -1;
};

// Sets an environment variable, or unsets it, for as long as this lives.
class Environment {
 public:
  Environment(const char* name, const char* value) : name_(name) {
    if (const char* before = std::getenv(name)) before_ = before;
    set(value);
  }
  ~Environment() { set(before_ ? before_->c_str() : nullptr); }
  Environment(const Environment&) = delete;
  Environment& operator=(const Environment&) = delete;

 private:
  void set(const char* value) const {
    if (value == nullptr) {
      unsetenv(name_);
    } else {
      setenv(name_, value, 1);
    }
  }

  const char* name_;
  std::optional<std::string> before_;
};

TEST(Colour, IsForATerminalThatHasIt) {
  const Terminal terminal;
  const auto mayHave = [&](const char* term, const char* noColor) {
    const Environment termVariable("TERM", term);
    const Environment noColorVariable("NO_COLOR", noColor);
    return mayColour(terminal.descriptor());
  };
  EXPECT_TRUE(mayHave("xterm", nullptr));
  EXPECT_TRUE(mayHave("xterm", ""));
  EXPECT_FALSE(mayHave("xterm", "1"));
  EXPECT_FALSE(mayHave("dumb", nullptr));
  EXPECT_FALSE(mayHave(nullptr, nullptr));
}

TEST(Colour, IsNotForAFile) {
  const Environment term("TERM", "xterm");
  const Environment noColor("NO_COLOR", nullptr);
  const int file = open("/dev/null", O_WRONLY);
  EXPECT_FALSE(mayColour(file));
  close(file);
}

double seconds = 0;
double clockOfTheTest() {
  return seconds;
}

// Sends standard error to a descriptor for as long as this lives.
class StandardError {
 public:
  explicit StandardError(int descriptor) : saved_(dup(STDERR_FILENO)) {
    dup2(descriptor, STDERR_FILENO);
  }
  ~StandardError() {
    dup2(saved_, STDERR_FILENO);
    close(saved_);
  }
  StandardError(const StandardError&) = delete;
  StandardError& operator=(const StandardError&) = delete;

 private:
  int saved_;
};

TEST(ProgressTest, IsShownOnATerminalAfterASecondAndFiveTimesASecond) {
  const Terminal terminal;
  const StandardError redirection(terminal.descriptor());
  seconds = 100;
  {
    Progress progress(clockOfTheTest);
    seconds = 100.9;
    progress.doneIs(5, 1.5);
    EXPECT_EQ(terminal.written(), "");
    progress.clear();
    EXPECT_EQ(terminal.written(), "");
    seconds = 101;
    progress.doneIs(6, 2.5);
    EXPECT_EQ(terminal.written(), "\r6 events, 2.5 s of the clock\033[K");
    seconds = 101.1;
    progress.doneIs(7, 3);
    EXPECT_EQ(terminal.written(), "");
    seconds = 101.25;
    progress.doneIs(8, 4);
    EXPECT_EQ(terminal.written(), "\r8 events, 4 s of the clock\033[K");
    progress.clear();
    EXPECT_EQ(terminal.written(), "\r\033[K");
    progress.clear();
    EXPECT_EQ(terminal.written(), "");
    seconds = 200;
    progress.doneIs(9, 5);
    EXPECT_NE(terminal.written(), "");
  }
  // What is shown at the end is erased.
  EXPECT_EQ(terminal.written(), "\r\033[K");
}

TEST(ProgressTest, IsNotShownElsewhere) {
  testing::internal::CaptureStderr();
  seconds = 0;
  {
    Progress progress(clockOfTheTest);
    seconds = 100;
    progress.doneIs(5, 1);
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(Messages, AreOneLineOfOneForm) {
  testing::internal::CaptureStderr();
  reportError("a\nb");
  reportNote("c\x1b {}");
  reportFault("f", 3, {"/p", "t", {}});
  reportFault("f", 0, {"", "t", {}});
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "vnagent: error: a\\u000ab\nvnagent: warning: c\\u001b {}\n"
            "vnagent: error: f:3: /p: t\nvnagent: error: f: : t\n");
}

}  // namespace
}  // namespace vnagent
