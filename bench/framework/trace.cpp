// A trace line that is off.
//
//   trace/off    counter `evaluated`: how often its message was asked for
#include "framework/Trace.h"
#include "bench/groups.h"

namespace bench {

void addTrace(Suite& suite) {
  suite.addLoop("trace/off", [](benchmark::State& state) {
    static constexpr Kiv::TraceSource here{"bench", "traced", "void traced()"};
    std::uint64_t evaluated = 0;
    for (auto _ : state) {
      Kiv::traceLine(9, here, &state, 1, [&](std::ostream& text) {
        ++evaluated;
        text << "what happened";
      });
      benchmark::ClobberMemory();
    }
    state.counters["evaluated"] = static_cast<double>(evaluated);
  });
}

}  // namespace bench
