// The groups of benchmarks, in the order in which they run.
#pragma once

#include "bench/harness/Suite.h"

namespace bench {

// Throws when the limit does not make the writes that the machines make.
void checkLimit();

// Binding and unbinding of ports, through the machines and in straight-line code.
void benchBinding(Suite& suite);
// What the same data takes in memory.
void benchMemory(Suite& suite);
// The figures of one process for benchMemory(): prints the bytes that `what` takes.
int measureMemory(const std::string& what);

// Whole regions, switch interfaces, segments, VLAN assignments, heartbeats, hosts.
void benchRegions(Suite& suite);

// The framework, beside what else could be used.
void benchDispatch(Suite& suite);
void benchDelivery(Suite& suite);
void benchPointers(Suite& suite);
void benchMaps(Suite& suite);
void benchNames(Suite& suite);
void benchTrace(Suite& suite);

// The program, on a document of 100,000 ports.
void benchAgent(Suite& suite);
// What benchAgent() compares with: reads a file and parses it, and nothing else.
int parseFile(const std::string& path);

}  // namespace bench
