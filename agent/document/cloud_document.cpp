#include "agent/document/cloud_document.h"

#include <utility>

#include "agent/document/merge.h"
#include "agent/document/rules.h"

namespace vnagent {

Outcome CloudDocument::apply(const JsonValue& patch, std::vector<Fault> found) {
  last_ = {};
  Faults faults(patch, std::move(found));
  merge(patch, state_, last_, faults);
  checkRules(state_, last_, faults);
  if (faults.none()) return {{}, &last_};
  last_.rollBack(state_);
  return {faults.take(), nullptr};
}

}  // namespace vnagent
