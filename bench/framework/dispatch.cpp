// Immediate notification of observers.
//
//   dispatch/OBSERVERS/SIDE
//
// Sides: kiv, the loop over an entity's notifiees that a mutator makes; virtual, a loop of virtual
// calls; signals2, sigc, qt. Time is that of notifying all observers once.
#include <sigc++/sigc++.h>

#include <boost/signals2/signal.hpp>
#include <vector>

#include "bench/framework/Counting.h"
#include "bench/framework/QtSide.h"
#include "bench/groups.h"

namespace bench {
namespace {

std::vector<std::unique_ptr<Observer>> makeObservers(int count) {
  std::vector<std::unique_ptr<Observer>> all;
  for (int i = 0; i < count; ++i) all.push_back(makeObserver());
  return all;
}

void dispatchKiv(benchmark::State& state, int observers) {
  const auto subject = Kiv::make<Subject>();
  std::vector<Kiv::Ptr<Subject::NotifieeConst>> notifiees;
  for (int i = 0; i < observers; ++i) notifiees.push_back(observe(subject));
  Kiv::NotifieeList& list = *subject->notifieeList();
  for (auto _ : state) {
    list.forEach([](Kiv::NotifieeBase& notifiee) {
      static_cast<Subject::NotifieeConst&>(notifiee).onKeykivImmediate();
    });
    benchmark::ClobberMemory();
  }
  if (notifiees.back()->sum() == 0) state.SkipWithError("nobody was notified");
}

void dispatchVirtual(benchmark::State& state, int observers) {
  const auto all = makeObservers(observers);
  for (auto _ : state) {
    for (const auto& observer : all) observer->onChange();
    benchmark::ClobberMemory();
  }
}

void dispatchSignals2(benchmark::State& state, int observers) {
  boost::signals2::signal<void()> signal;
  const auto all = makeObservers(observers);
  for (const auto& observer : all) signal.connect([to = observer.get()] { to->onChange(); });
  for (auto _ : state) {
    signal();
    benchmark::ClobberMemory();
  }
}

void dispatchSigc(benchmark::State& state, int observers) {
  sigc::signal<void> signal;
  const auto all = makeObservers(observers);
  for (const auto& observer : all) signal.connect([to = observer.get()] { to->onChange(); });
  for (auto _ : state) {
    signal.emit();
    benchmark::ClobberMemory();
  }
}

}  // namespace

void addDispatch(Suite& suite) {
  for (const int observers : {1, 8}) {
    const auto add = [&](const char* side, void (*function)(benchmark::State&, int)) {
      suite.addLoop("dispatch/" + std::to_string(observers) + "/" + side,
                    [=](benchmark::State& state) { function(state, observers); });
    };
    add("kiv", dispatchKiv);
    add("virtual", dispatchVirtual);
    add("signals2", dispatchSignals2);
    add("sigc", dispatchSigc);
#ifdef BENCH_QT
    add("qt", dispatchQt);
#endif
  }
}

}  // namespace bench
