// Compares what the library publishes with the model.
#pragma once

#include <map>
#include <string>

#include "tests/sim/library/model.h"

namespace sim {

// The differences, a line each; empty when there are none.
std::string difference(const std::vector<Fact>& expected, const std::vector<Fact>& actual);

// The native VLANs; where several are allowed, the model takes over the one that is published.
std::string nativeDifference(Model& model, const Picture& picture);

// The UUIDs of the VLAN assignments: new, the same, or none.
class Uuids {
 public:
  // What is wrong with those of a step. Steps are given in order.
  std::string check(const Model& model, const Picture& picture);

 private:
  std::map<int, std::string> last_;
};

}  // namespace sim
