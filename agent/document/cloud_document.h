// The cloud document: takes patches, refuses what breaks a rule, and says what the others mean.
//
//   CloudDocument document({.toggle = true, .regionSyncTimeout = 60});
//   JsonTree tree = JsonTree::parse(text);
//   Outcome outcome = document.apply(tree.root());
//   if (!outcome.faults.empty()) ... refused: the document is what it was
//   else for each step of outcome.plan: run its operations, then the activity loop
//
// A patch costs what it touches, not what the document holds. One thread.
#pragma once

#include <vector>

#include "agent/document/change.h"
#include "agent/document/cloud_state.h"
#include "agent/document/fault.h"
#include "agent/document/operations.h"
#include "agent/document/plan.h"
#include "agent/json/json_tree.h"

namespace vnagent {

struct Outcome {
  std::vector<Fault> faults;  // all that is wrong with the patch; none: it was taken
  Plan plan;                  // empty when refused
};

class CloudDocument {
 public:
  explicit CloudDocument(const PlanSettings& settings) : settings_(settings) {}
  CloudDocument(const CloudDocument&) = delete;
  CloudDocument& operator=(const CloudDocument&) = delete;

  // Takes or refuses a merge patch. A whole document is a patch on the empty one. With faults found
  // before, `found`, it is refused in any case, but still looked at for more. The texts in the plan
  // are good until the next call; nothing in the outcome refers to `patch`.
  Outcome apply(const JsonValue& patch, std::vector<Fault> found = {});

  // What the document holds now.
  const CloudState& state() const { return state_; }

 private:
  PlanSettings settings_;
  CloudState state_;
  Change last_;  // keeps alive what the last plan speaks of
};

}  // namespace vnagent
