// Deferred notification: calls with a 32-bit key that are queued, then delivered.
//
//   delivery/WAITING/SIDE
//
// So many wait at once, each with another key. Sides: kiv, the activity loop, which keeps its
// notifiees alive and delivers what is queued twice once; ring, a ring buffer of observers and
// keys, with a virtual call; function, a deque of std::function; asio; qt. Time is that of queueing
// and delivering one.
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <deque>
#include <functional>
#include <vector>

#include "bench/framework/Counting.h"
#include "bench/framework/QtSide.h"
#include "bench/groups.h"
#include "bench/machines/World.h"

namespace bench {
namespace {

void deliverKiv(benchmark::State& state, std::uint32_t waiting) {
  const auto notifiee = observe(Kiv::make<Subject>());
  Kiv::ActivityManager& activities = loop();
  while (state.KeepRunningBatch(waiting)) {
    for (std::uint32_t key = 0; key < waiting; ++key) {
      activities.queue(*notifiee, &Subject::NotifieeConst::onKey, key);
    }
    activities.run();
  }
  if (waiting > 1 && notifiee->sum() == 0) state.SkipWithError("nothing was delivered");
}

// Without any check: a call that is queued when it is full overwrites another one.
class Ring {
 public:
  explicit Ring(std::size_t size) : calls_(size) {}
  void push(Observer& observer, std::uint32_t key) {
    calls_[end_++ & (calls_.size() - 1)] = {&observer, key};
  }
  void run() {
    while (begin_ != end_) {
      const Call call = calls_[begin_++ & (calls_.size() - 1)];
      call.observer->onKey(call.key);
    }
  }

 private:
  struct Call {
    Observer* observer;
    std::uint32_t key;
  };
  std::vector<Call> calls_;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
};

void deliverRing(benchmark::State& state, std::uint32_t waiting) {
  const auto observer = makeObserver();
  Ring ring(1024);
  while (state.KeepRunningBatch(waiting)) {
    for (std::uint32_t key = 0; key < waiting; ++key) ring.push(*observer, key);
    benchmark::ClobberMemory();
    ring.run();
  }
}

void deliverFunction(benchmark::State& state, std::uint32_t waiting) {
  const auto observer = makeObserver();
  Observer* to = observer.get();
  std::deque<std::function<void()>> calls;
  while (state.KeepRunningBatch(waiting)) {
    for (std::uint32_t key = 0; key < waiting; ++key) {
      calls.emplace_back([to, key] { to->onKey(key); });
    }
    for (; !calls.empty(); calls.pop_front()) calls.front()();
  }
}

void deliverAsio(benchmark::State& state, std::uint32_t waiting) {
  const auto observer = makeObserver();
  Observer* to = observer.get();
  boost::asio::io_context context(1);
  while (state.KeepRunningBatch(waiting)) {
    for (std::uint32_t key = 0; key < waiting; ++key) {
      boost::asio::post(context, [to, key] { to->onKey(key); });
    }
    context.restart();
    context.poll();
  }
}

}  // namespace

void addDelivery(Suite& suite) {
  for (const std::uint32_t waiting : {1U, 1000U}) {
    const auto add = [&](const char* side, void (*function)(benchmark::State&, std::uint32_t)) {
      suite.addLoop("delivery/" + std::to_string(waiting) + "/" + side,
                    [=](benchmark::State& state) { function(state, waiting); });
    };
    add("kiv", deliverKiv);
    add("ring", deliverRing);
    add("function", deliverFunction);
    add("asio", deliverAsio);
#ifdef BENCH_QT
    add("qt", deliverQt);
#endif
  }
}

}  // namespace bench
