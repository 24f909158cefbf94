// vnagent on a disk that fails: a test program. It takes vnagent's command line; the environment
// says how the disk below SQLite behaves:
//
//   VNAGENT_DISK_SEED=N   from now and then it fails, for up to a third of a second: it is full,
//                         writes fail or are torn, syncs fail; some writes and syncs are slow.
//                         Without the variable nothing fails.
//
// SIGUSR1 ends the faults for good. Every fault is a line on standard error.
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <random>
#include <thread>

#include "agent/cli/command_line.h"
#include "tests/agent/fault_disk.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::microseconds;
using std::chrono::milliseconds;
using vnagent::FaultDisk;

std::atomic<bool> isHealed{false};

// Decides before each write and sync whether a fault begins or ends. Between two faults there are
// some operations that succeed: what a failed sync left in the log is overwritten by then.
class Faults {
 public:
  Faults(FaultDisk& disk, unsigned seed) : disk_(disk), random_(seed) {
    disk_.onWriteIs([this] { beforeOperation(); });
    disk_.onSyncIs([this] { beforeOperation(); });
  }

 private:
  unsigned pick(unsigned first, unsigned last) {
    return std::uniform_int_distribution<unsigned>(first, last)(random_);
  }

  void beforeOperation() {
    microseconds delay{0};
    {
      const std::lock_guard lock(mutex_);
      if (isFailing_) {
        if (isHealed || Clock::now() >= until_) end();
      } else if (!isHealed && healthy_-- == 0) {
        begin();
      }
      if (!isHealed && pick(0, 19) == 0) delay = microseconds(pick(100, 5'000));
    }
    if (delay.count() > 0) std::this_thread::sleep_for(delay);
  }

  void begin() {
    isFailing_ = true;
    until_ = Clock::now() + milliseconds(pick(5, 330));
    const auto fault = static_cast<FaultDisk::Fault>(pick(1, 5));
    disk_.faultIs(fault, static_cast<int>(pick(0, 3)));
    std::fprintf(stderr, "disk: fault %d\n", static_cast<int>(fault));
  }
  void end() {
    isFailing_ = false;
    healthy_ = pick(30, 200);
    disk_.faultIs(FaultDisk::Fault::kNone);
    std::fprintf(stderr, "disk: works\n");
  }

  FaultDisk& disk_;
  std::mutex mutex_;  // the journal writes on two threads while it is opened
  std::mt19937 random_;
  bool isFailing_ = false;
  unsigned healthy_ = pick(0, 60);
  Clock::time_point until_;
};

}  // namespace

int main(int argc, char** argv) {
  FaultDisk disk("faulty", FaultDisk::Use::kProcess);
  std::signal(SIGUSR1, [](int) { isHealed = true; });
  const char* const seed = std::getenv("VNAGENT_DISK_SEED");
  if (seed == nullptr) isHealed = true;
  Faults faults(disk, seed == nullptr ? 0 : static_cast<unsigned>(std::strtoul(seed, nullptr, 10)));
  return vnagent::runCommandLine(argc, argv, [](int) {});
}
