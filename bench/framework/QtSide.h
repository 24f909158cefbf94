// What Qt does for the same; built where Qt is there.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>

namespace bench {

// A signal to so many slots, called at once.
void dispatchQt(benchmark::State& state, int observers);
// So many calls of a slot through a queued connection, then delivered.
void deliverQt(benchmark::State& state, std::uint32_t waiting);

}  // namespace bench
