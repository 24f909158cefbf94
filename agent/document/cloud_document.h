// The cloud document: takes patches, refuses what breaks a rule, and says what the others changed.
//
//   CloudDocument document;
//   JsonTree tree = JsonTree::parse(text);
//   Outcome outcome = document.apply(tree.root());
//   if (!outcome.faults.empty()) ... refused: the document is what it was
//   else makePlan(document.state(), *outcome.change, settings) says what the entities go through
//
// A patch costs what it touches, not what the document holds. One thread.
#pragma once

#include <vector>

#include "agent/document/change.h"
#include "agent/document/cloud_state.h"
#include "agent/document/fault.h"
#include "agent/json/json_tree.h"

namespace vnagent {

struct Outcome {
  std::vector<Fault> faults;       // all that is wrong with the patch; none: it was taken
  const Change* change = nullptr;  // what it changed; null when refused
};

class CloudDocument {
 public:
  CloudDocument() = default;
  CloudDocument(const CloudDocument&) = delete;
  CloudDocument& operator=(const CloudDocument&) = delete;

  // Takes or refuses a merge patch. A whole document is a patch on the empty one. With faults found
  // before, `found`, it is refused in any case, but still looked at for more. The change is good
  // until the next call; nothing in the outcome refers to `patch`.
  Outcome apply(const JsonValue& patch, std::vector<Fault> found = {});

  // What the document holds now.
  const CloudState& state() const { return state_; }

 private:
  CloudState state_;
  Change last_;
};

}  // namespace vnagent
