// Fuzz target: the queue of the activity loop under a stream of operations, compared with a plain
// list. Handlers read operations from the stream too: they queue, deactivate and destroy.
#include <algorithm>
#include <array>
#include <deque>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>

#include "framework/Activity.h"
#include "framework/Entity.h"
#include "framework/Notifiee.h"
#include "framework/Text.h"
#include "tests/fuzz/fuzz.h"

namespace {

using Fuzz::Bytes;
using Fuzz::require;

// A key that does not fit into the place of a notification.
struct WideKey {
  std::array<Kiv::U64, 6> numbers;
  Kiv::U32 hash() const { return static_cast<Kiv::U32>(numbers[5] % 3); }
  friend bool operator==(const WideKey&, const WideKey&) = default;
};

class Board final : public Kiv::Entity<Board> {
 public:
  static constexpr std::string_view kTypeName = "Fuzz::Board";
  class NotifieeConst : public Kiv::Notifiee<Board> {};
};

// One call: of which watcher, which handler, with which key.
struct Call {
  size_t watcher;
  int handler;
  int key;
  friend bool operator==(const Call&, const Call&) = default;
};

class Watcher final : public Board::NotifieeConst {
 public:
  explicit Watcher(std::function<void(int handler, int key)> told) : told_(std::move(told)) {}

  virtual void onPlain() { told_(0, 0); }
  virtual void onNumber(Kiv::U16 number) { told_(1, number); }
  virtual void onText(const Kiv::String& text) { told_(2, std::stoi(text.str())); }
  void onWide(const WideKey& key) { told_(3, static_cast<int>(key.numbers[5])); }

 private:
  const std::function<void(int, int)> told_;
};

struct Thrown : std::runtime_error {
  using std::runtime_error::runtime_error;
};

class Run {
 public:
  explicit Run(Bytes& bytes) : bytes_(bytes) {
    for (size_t i = 0; i < watchers_.size(); ++i) {
      watchers_[i] = Kiv::make<Watcher>([this, i](int handler, int key) {
        told({i, handler, key});
      });
      watchers_[i]->notifierIs(board_);
      watchers_[i]->isRegisteredNotifieeIs(true);
      watchers_[i]->hasNotificationActiveIs(true);
    }
  }

  void run() {
    while (!bytes_.empty()) step();
    // Where nothing waits that listens, the loop has nothing to do.
    deliver();
    require(loop_.idle(), "the loop is idle");
  }

 private:
  void step() {
    const uint8_t what = bytes_.next();
    const size_t i = bytes_.next() % watchers_.size();
    Watcher& watcher = *watchers_[i];
    switch (what % 16) {
      case 0:
        deliver();
        break;
      case 1:
        watcher.hasNotificationActiveIs(!watcher.hasNotificationActive());
        break;
      case 2:
        watcher.isRegisteredNotifieeIs(!watcher.isRegisteredNotifiee());
        break;
      case 3:
        watcher.kivMarkedForDeletionIs(!watcher.markedForDeletion());
        break;
      case 4:
        if (delivering_) throw Thrown("a handler throws");
        break;
      case 5:  // many, so that the queue grows by blocks and buckets
        for (int key = 0; key < 200; ++key) queue({i, 1, key});
        break;
      default:
        queue({i, what % 4, what % 4 == 0 ? 0 : bytes_.next()});
        break;
    }
    require(loop_.waiting() == waiting_.size(), "the loop knows how many wait");
    require(loop_.idle() == waiting_.empty(), "the loop knows whether any waits");
  }

  void queue(const Call& call) {
    Watcher& watcher = *watchers_[call.watcher];
    const auto key = static_cast<Kiv::U16>(call.key);
    if (call.handler == 0) loop_.queue(watcher, &Watcher::onPlain);
    if (call.handler == 1) loop_.queue<Watcher, Kiv::U16>(watcher, &Watcher::onNumber, key);
    if (call.handler == 2) {
      loop_.queue<Watcher, Kiv::String>(watcher, &Watcher::onText,
                                        Kiv::String(std::to_string(key)));
    }
    if (call.handler == 3) {
      loop_.queue<Watcher, WideKey>(watcher, &Watcher::onWide, WideKey{{1, 2, 3, 4, 5, key}});
    }
    if (std::ranges::find(waiting_, call) == waiting_.end()) waiting_.push_back(call);
  }

  // Within a handler, run() does nothing.
  void deliver() {
    if (delivering_) return loop_.run();
    delivering_ = true;
    for (;;) {
      try {
        loop_.run();
        break;
      } catch (const Thrown&) {
        // What it was called for is spent; the rest waits.
        require(loop_.waiting() == waiting_.size(), "the rest waits");
      }
    }
    delivering_ = false;
    skipSilent();
    require(waiting_.empty(), "all that waited was delivered");
  }

  // What is at the front and does not listen is passed over.
  void skipSilent() {
    while (!waiting_.empty() && !watchers_[waiting_.front().watcher]->listens()) {
      waiting_.pop_front();
    }
  }

  void told(const Call& call) {
    skipSilent();
    require(!waiting_.empty() && waiting_.front() == call, "calls come in the order of queueing");
    waiting_.pop_front();
    for (int steps = bytes_.next() % 4; steps > 0 && !bytes_.empty(); --steps) step();
  }

  Bytes& bytes_;
  Kiv::ActivityManager loop_;
  Kiv::Ptr<Board> board_ = Kiv::make<Board>();
  std::array<Kiv::Ptr<Watcher>, 5> watchers_;
  std::deque<Call> waiting_;
  bool delivering_ = false;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const Fuzz::NothingIsLeft nothingIsLeft;
  Bytes bytes(data, size);
  Run(bytes).run();
  return 0;
}
