// What has to change in a hardware_vtep database, as one transaction.
//
// Compares what is marked in Changes, and nothing else, so the cost is that of the changes. Each
// operation holds only for what was compared: a row is changed while it is there, a Logical_Switch
// is removed while it is owned, a binding is removed while it leads where it led, and is added
// where there is none. The transaction as a whole fails when the lock is lost, a name is taken, or
// a row that is removed is still referred to.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "agent/export/desired.h"
#include "agent/export/export_mode.h"
#include "agent/export/problems.h"
#include "agent/export/replica.h"

namespace vnagent {

struct SwitchPlan {
  std::string operations;  // JSON, separated by commas; empty where nothing is to be done
  size_t logicalSwitchesAdded = 0;
  size_t logicalSwitchesChanged = 0;
  size_t logicalSwitchesRemoved = 0;
  size_t floodsChanged = 0;  // rows for unknown-dst: added, changed or removed
  size_t bindingsAdded = 0;
  size_t bindingsRemoved = 0;
  // With ExportMode::kReport only: a line for each difference, with a sign in front: '+' is
  // missing, '-' is too much, '~' is another.
  std::vector<std::string> differences;

  bool empty() const { return operations.empty(); }
  // "2 bindings added, 1 logical switch added".
  std::string summary() const;
};

class Planner {
 public:
  // All are kept by the caller. `index` is that of the switch.
  Planner(const Desired& desired, size_t index, const Replica& replica, ExportMode mode,
          Problems& problems);

  // `hasReplicationMode` is whether the database's schema has that column.
  // REQUIRES: changes.normalise() was called, and replica.settle().
  SwitchPlan plan(const SwitchChanges& changes, bool hasReplicationMode);

 private:
  class Run;

  const Desired& desired_;
  const size_t index_;
  const Replica& replica_;
  const ExportMode mode_;
  Problems& problems_;
};

}  // namespace vnagent
