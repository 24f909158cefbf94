#include "tests/sim/library/child.h"

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <system_error>

namespace sim {
namespace {

constexpr std::size_t kMostText = 16384;

void fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

// What a child writes for its parent to read.
class Note {
 public:
  Note() : file_(std::tmpfile()) {
    if (file_ == nullptr) fail("a temporary file");
  }
  ~Note() { std::fclose(file_); }
  Note(const Note&) = delete;
  Note& operator=(const Note&) = delete;

  int descriptor() const { return fileno(file_); }
  void write(const std::string& text) {
    std::fwrite(text.data(), 1, text.size(), file_);
    std::fflush(file_);
  }
  // The last of it.
  std::string read() {
    std::fseek(file_, 0, SEEK_END);
    const long size = std::ftell(file_);
    const long from = size > static_cast<long>(kMostText) ? size - static_cast<long>(kMostText) : 0;
    std::fseek(file_, from, SEEK_SET);
    std::string text(static_cast<std::size_t>(size - from), '\0');
    text.resize(std::fread(text.data(), 1, text.size(), file_));
    return text;
  }

 private:
  std::FILE* file_;
};

[[noreturn]] void work(const std::function<std::optional<Failure>()>& task, Note& result,
                       Note& errors) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);  // whoever ends the parent means this process, too
  dup2(errors.descriptor(), STDERR_FILENO);
  const std::optional<Failure> failure = task();
  if (failure) result.write(std::to_string(failure->events) + "\n" + failure->text);
  std::fflush(stdout);
  std::exit(failure ? 1 : 0);
}

}  // namespace

Progress& sharedProgress() {
  static Progress* progress = [] {
    void* memory =
        mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) fail("shared memory");
    return new (memory) Progress();
  }();
  return *progress;
}

std::optional<Failure> inChild(Progress& progress,
                               const std::function<std::optional<Failure>()>& task) {
  Note result;
  Note errors;
  std::fflush(stdout);
  const pid_t child = fork();
  if (child < 0) fail("a child process");
  if (child == 0) work(task, result, errors);
  int status = 0;
  if (waitpid(child, &status, 0) != child) fail("waiting for a child process");
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return std::nullopt;
  if (const std::string text = result.read(); !text.empty()) {
    const std::size_t end = text.find('\n');
    return Failure{std::stoul(text), text.substr(end + 1)};
  }
  const std::string how = WIFSIGNALED(status)
                              ? "stopped by signal " + std::to_string(WTERMSIG(status))
                              : "exit status " + std::to_string(WEXITSTATUS(status));
  return Failure{progress.done + 1, how + "\n" + errors.read()};
}

}  // namespace sim
