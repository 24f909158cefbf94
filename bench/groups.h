// The groups of benchmarks, in the order in which they run.
#pragma once

#include "bench/harness/Suite.h"

namespace bench {

// Binding and unbinding of ports, through the machines and in straight-line code.
void benchBinding(Suite& suite);
// What the same data takes in memory.
void benchMemory(Suite& suite);
// The figures of one process for benchMemory(): prints the bytes that `what` takes.
int measureMemory(const std::string& what);

}  // namespace bench
