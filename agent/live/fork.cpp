#include "agent/live/fork.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string_view>
#include <thread>
#include <utility>

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vnagent {
namespace {

// Says that the text in front of it is all of it.
constexpr char kEnd = '\x04';

bool writeAll(int descriptor, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(descriptor, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    text.remove_prefix(static_cast<size_t>(written));
  }
  return true;
}

// What another thread had locked stays locked in the copy, in a library that does not see to that;
// a copy that waits for it is ended.
constexpr unsigned kLongestRunSeconds = 60;

// The descriptor to which the copy writes.
constexpr int kResult = 3;

// Closes what belongs to the parent: while a copy holds a connection its client does not see that
// it was closed, and while it holds a socket or the lock of the state no other process can take
// them over. For the same reason the copy does not outlive the parent.
void leaveToParent(int result) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (result != kResult) ::dup2(result, kResult);
  ::close_range(kResult + 1, ~0U, 0);
}

[[noreturn]] void runAsCopy(int descriptor, const std::function<std::string()>& run) {
  ::alarm(kLongestRunSeconds);
  bool written = false;
  try {
    std::string text = run();
    text += kEnd;
    written = writeAll(descriptor, text);
  } catch (...) {
    written = false;
  }
  ::_exit(written ? EXIT_SUCCESS : EXIT_FAILURE);
}

std::string readAll(int descriptor, pid_t child) {
  std::string text;
  std::array<char, size_t{1} << 16> buffer;
  while (true) {
    const ssize_t count = ::read(descriptor, buffer.data(), buffer.size());
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) break;
    text.append(buffer.data(), static_cast<size_t>(count));
  }
  ::close(descriptor);
  while (::waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
  }
  if (text.empty() || text.back() != kEnd) return {};
  text.pop_back();
  return text;
}

}  // namespace

void runInCopy(const std::function<std::string()>& run, ReadCopy read, const Post& post) {
  std::array<int, 2> ends{};
  if (::pipe(ends.data()) != 0) {
    read({})();
    return;
  }
  const pid_t child = ::fork();
  if (child == 0) {
    leaveToParent(ends[1]);
    runAsCopy(kResult, run);
  }
  ::close(ends[1]);
  if (child < 0) {
    ::close(ends[0]);
    read({})();
  } else if (!post) {
    read(readAll(ends[0], child))();
  } else {
    std::thread([from = ends[0], child, post, read = std::move(read)] {
      post(read(readAll(from, child)));
    }).detach();
  }
}

}  // namespace vnagent
