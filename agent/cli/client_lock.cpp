// vnagent lock: shows a region's lock, frees it by force, or holds it while a command runs.
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>

#include <fmt/format.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "agent/cli/client_support.h"

extern char** environ;

namespace vnagent {
namespace {

class RegionSync {
 public:
  RegionSync(const LiveAgent& agent, const std::string& region)
      : agent_(agent), path_("/v1/region/" + percentEncoded(region) + "/sync") {}

  Json status() const { return agent_.read(path_).value; }

  Json lock(const std::string& requester, const std::string& requestId, double wait) const {
    const Json body{{"requester", requester}, {"requestId", requestId}, {"wait", wait}};
    return Json::parse(agent_.request("POST", path_ + "/lock", body.dump(), {}, wait).body, nullptr,
                       false);
  }
  // start, heartbeat, complete.
  void call(const char* what, const std::string& requestId) const {
    agent_.request("POST", path_ + "/" + what, {}, {{"Sync-Request-Id", requestId}});
  }
  void unlock(const std::string& requestId) const {
    agent_.request("DELETE", path_ + "/lock", {}, {{"Sync-Request-Id", requestId}});
  }
  void force() const { agent_.request("DELETE", path_ + "/lock?force=true"); }

 private:
  const LiveAgent& agent_;
  std::string path_;
};

// Sends heartbeats on a thread of its own until it is destroyed or one is refused.
class Heartbeats {
 public:
  Heartbeats(const RegionSync& sync, std::string requestId, double interval)
      : sync_(sync),
        requestId_(std::move(requestId)),
        interval_(interval),
        thread_([this] { run(); }) {}
  ~Heartbeats() {
    {
      const std::lock_guard guard(mutex_);
      isOver_ = true;
    }
    changed_.notify_all();
    thread_.join();
  }
  Heartbeats(const Heartbeats&) = delete;
  Heartbeats& operator=(const Heartbeats&) = delete;

 private:
  void run() {
    std::unique_lock guard(mutex_);
    while (!changed_.wait_for(guard, std::chrono::duration<double>(interval_),
                              [this] { return isOver_; })) {
      guard.unlock();
      try {
        sync_.call("heartbeat", requestId_);
      } catch (const RequestRefused& refused) {
        reportError(std::string("heartbeat: ") + refused.what());
        return;
      } catch (const Unreachable& unreachable) {
        // The next one may arrive in time.
        reportNote(std::string("heartbeat: ") + unreachable.what());
      }
      guard.lock();
    }
  }

  const RegionSync& sync_;
  std::string requestId_;
  double interval_;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool isOver_ = false;
  std::thread thread_;
};

// The command that runs, for the signal handler; 0 for none.
volatile sig_atomic_t runningCommand = 0;
// A signal that came before the command was known; 0 for none.
volatile sig_atomic_t earlySignal = 0;

void passOn(int signal) {
  if (runningCommand != 0) {
    kill(runningCommand, signal);
  } else {
    earlySignal = signal;
  }
}

// While a command runs, signals end the command and not its parent, which has a lock to free: the
// terminal sends its own to both, and a request to terminate is passed on.
class SignalsOfCommand {
 public:
  SignalsOfCommand() {
    interrupt_ = std::signal(SIGINT, SIG_IGN);
    quit_ = std::signal(SIGQUIT, SIG_IGN);
    terminate_ = std::signal(SIGTERM, passOn);
  }
  ~SignalsOfCommand() {
    std::signal(SIGINT, interrupt_);
    std::signal(SIGQUIT, quit_);
    std::signal(SIGTERM, terminate_);
  }
  SignalsOfCommand(const SignalsOfCommand&) = delete;
  SignalsOfCommand& operator=(const SignalsOfCommand&) = delete;

 private:
  using Handler = void (*)(int);
  Handler interrupt_;
  Handler quit_;
  Handler terminate_;
};

// Starts a program with the default handling of signals; returns an error of the system, or 0.
int spawn(const std::vector<std::string>& words, pid_t& child) {
  std::vector<char*> arguments;
  for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t defaults;
  sigemptyset(&defaults);
  for (const int signal : {SIGINT, SIGQUIT, SIGTERM}) sigaddset(&defaults, signal);
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
  const int error =
      posix_spawnp(&child, arguments.front(), nullptr, &attributes, arguments.data(), environ);
  posix_spawnattr_destroy(&attributes);
  return error;
}

// Runs a command that finds the request id in its environment; returns its exit status, as a shell
// gives it.
int runCommand(const std::vector<std::string>& words, const std::string& requestId) {
  setenv("VNAGENT_REQUEST_ID", requestId.c_str(), 1);
  const SignalsOfCommand signals;
  pid_t child = 0;
  if (const int error = spawn(words, child); error != 0) {
    throw RejectedArgument(words.front() + ": " + std::strerror(error));
  }
  runningCommand = child;
  if (earlySignal != 0) kill(child, earlySignal);
  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) throw std::runtime_error("cannot wait for the command");
  }
  runningCommand = 0;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void printStatus(const Json& status, bool json) {
  if (json) {
    printJson(status, true);
    return;
  }
  const std::string request = textOf(memberOf(status, "requestId"));
  std::string line = request.empty() ? "free"
                                     : fmt::format("held by {} (request {})",
                                                   textOf(memberOf(status, "owner")), request);
  if (const Json& held = memberOf(status, "heldFor"); held.is_number()) {
    line += fmt::format(" for {:.1f} s", held.get<double>());
  }
  if (const Json& left = memberOf(status, "expiresIn"); left.is_number()) {
    line += fmt::format(", expires in {:.1f} s", left.get<double>());
  }
  printOut(fmt::format("{}, {} waiting, {}\n", line, textOf(memberOf(status, "waiting")),
                       textOf(memberOf(status, "syncStatus"))));
}

std::string newRequestId() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return fmt::format("lock-{}-{}", getpid(),
                     std::chrono::duration_cast<std::chrono::nanoseconds>(now).count());
}

std::string hostName() {
  char name[256] = {};
  return gethostname(name, sizeof(name) - 1) == 0 ? name : "vnagent";
}

}  // namespace

ExitStatus lock(const LockOptions& options) {
  const LiveAgent agent = connected(options);
  const RegionSync sync(agent, options.region);
  if (options.force) sync.force();
  if (options.command.empty()) {
    printStatus(sync.status(), options.json);
    return ExitStatus::kOk;
  }
  const std::string requestId = options.requestId.empty() ? newRequestId() : options.requestId;
  const std::string requester = options.requester.empty() ? hostName() : options.requester;
  const Json granted = sync.lock(requester, requestId, options.wait);
  int status = 0;
  try {
    if (options.sync) {
      sync.call("start", requestId);
      const Json& timeout = memberOf(granted, "timeout");
      const Heartbeats beats(sync, requestId,
                             (timeout.is_number() ? timeout.get<double>() : 60) / 3);
      status = runCommand(options.command, requestId);
    } else {
      status = runCommand(options.command, requestId);
    }
  } catch (const RejectedArgument&) {
    sync.unlock(requestId);
    throw;
  }
  if (options.sync && status == 0) {
    sync.call("complete", requestId);
  } else {
    sync.unlock(requestId);
  }
  return static_cast<ExitStatus>(status);
}

}  // namespace vnagent
