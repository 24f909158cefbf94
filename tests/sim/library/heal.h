// What holds after any fault: once the cloud is removed and added again, everything is right.
#pragma once

#include <string>
#include <vector>

#include "tests/sim/library/facts.h"
#include "tests/sim/library/subject.h"

namespace sim {

// Facts without what depends on the past; with or without those of VLAN pools.
std::vector<Fact> present(std::vector<Fact> facts, bool pools);

// Takes everything out and puts the cloud in. With memory and peace.
void bindAnew(Subject& subject, const Cloud& cloud, bool toggleOn);

// The same, and takes everything out for good. Returns what is wrong with what is published in
// between, or left in the end; empty when nothing is.
std::string healDifference(Subject& subject, const Cloud& cloud, bool toggleOn);

// The last part of it.
std::string leftDifference(Subject& subject);

}  // namespace sim
