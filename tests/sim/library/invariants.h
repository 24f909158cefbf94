// What must hold of any output, whatever the model says: a second, independent look.
#pragma once

#include <map>
#include <set>
#include <string>

#include "tests/sim/library/facts.h"

namespace sim {

class Invariants {
 public:
  explicit Invariants(bool toggleOn) : toggleOn_(toggleOn) {}

  // What is wrong with the picture of a step, given the cloud that is in force after it; empty when
  // nothing is. Steps are given in order.
  std::string check(const Cloud& cloud, const Picture& picture);

 private:
  // Who holds a region's lock, and for which request.
  struct Lock {
    int owner = 0, request = 0;
    bool operator==(const Lock&) const = default;
  };

  std::string checkReferrers(const Cloud& cloud, const Picture& picture) const;
  std::string checkHosts(const Picture& picture) const;
  std::string checkPools(const Cloud& cloud, const Picture& picture);
  std::string checkLocks(const Cloud& cloud, const Picture& picture);

  bool toggleOn_;
  std::set<int> sharedVlans_;  // regions where two segments ever had one VLAN at the same time
  std::map<int, Lock> locks_;
};

}  // namespace sim
