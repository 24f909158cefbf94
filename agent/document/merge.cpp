#include "agent/document/merge.h"

namespace vnagent {

void mergeNameSet(const JsonValue& patch, NameSet& set, SetTouch* touch, Faults& faults) {
  if (patch.isNull()) {
    if (touch != nullptr) {
      while (!set.empty()) touch->removed.push_back(set.extract(set.begin()));
    }
    set.clear();
    return;
  }
  if (!readObject(patch, "a collection by name", faults)) return;
  for (const JsonValue* member : patch.all()) {
    if (member->isNull()) {
      const auto at = set.find(member->key);
      if (at == set.end()) continue;
      auto node = set.extract(at);
      if (touch != nullptr) touch->removed.push_back(std::move(node));
      continue;
    }
    if (!readName(*member, faults)) continue;
    if (!readObject(*member, "a member without attributes", faults)) continue;
    for (const JsonValue* inner : member->all()) refuseMember(*inner, "this member", faults);
    const auto at = set.lower_bound(member->key);
    if (at != set.end() && *at == member->key) continue;
    const auto added = set.emplace_hint(at, member->key);
    if (touch != nullptr) touch->added.push_back(*added);
  }
}

void merge(const JsonValue& patch, CloudState& state, Change& change, Faults& faults) {
  if (!readObject(patch, "a cloud document", faults)) return;
  for (const JsonValue* member : patch.all()) {
    if (member->key == "config") {
      mergeConfig(*member, state.config, change, faults);
    } else if (member->key == "region") {
      mergeRegions(*member, state, change, faults);
    } else {
      refuseMember(*member, "a cloud document", faults);
    }
  }
}

}  // namespace vnagent
