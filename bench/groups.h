// The benchmarks, in the order in which they run.
#pragma once

#include "bench/harness/Suite.h"

namespace bench {

// Throws when the limit does not make the writes that the machines make.
void checkLimit();

// Binding and unbinding of ports, through the machines and in straight-line code; several groups.
void benchBinding(Suite& suite);

// What memory the same data takes; adding it by one change.
void addMemory(Suite& suite);
void addLoads(Suite& suite);
// The figures of one process for these two: prints those of `what`.
int measureAlone(const std::string& what);

// Switch interfaces, segments, VLAN assignments, heartbeats, hosts.
void addRegions(Suite& suite);

// The framework, beside what else could be used.
void addDispatch(Suite& suite);
void addDelivery(Suite& suite);
void addPointers(Suite& suite);
void addMaps(Suite& suite);
void addNames(Suite& suite);
void addTrace(Suite& suite);

// The program, on a document of 100,000 ports; and the cost of one change to it, in a small cloud
// and in a large one.
void addAgent(Suite& suite);
void addAgentChanges(Suite& suite);
// What addAgent() compares with: reads a file and parses it, and nothing else.
int parseFile(const std::string& path);

}  // namespace bench
