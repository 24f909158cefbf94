#include "agent/export/problems.h"

namespace vnagent {

std::string_view nameOf(ProblemKind kind) {
  constexpr std::array<std::string_view, kProblemKinds> kNames{"two-vnis",
                                                               "two-natives",
                                                               "native-without-vlan",
                                                               "unknown-switch",
                                                               "host-without-place",
                                                               "missing-switch",
                                                               "missing-port",
                                                               "foreign-row",
                                                               "foreign-binding",
                                                               "no-tunnel-address",
                                                               "unreachable",
                                                               "locked",
                                                               "refused"};
  return kNames[static_cast<size_t>(kind)];
}

void Problems::set(ProblemKind kind, const std::string& place, const std::string& text) {
  const auto [found, isNew] = texts_.try_emplace({kind, place}, text);
  if (isNew) {
    ++counts_[static_cast<size_t>(kind)];
  } else {
    if (found->second == text) return;
    found->second = text;
  }
  if (changed_) changed_(kind, place, text, true);
}

void Problems::clear(ProblemKind kind, const std::string& place) {
  if (!any(kind)) return;
  const auto found = texts_.find({kind, place});
  if (found == texts_.end()) return;
  const std::string text = std::move(found->second);
  texts_.erase(found);
  --counts_[static_cast<size_t>(kind)];
  if (changed_) changed_(kind, place, text, false);
}

}  // namespace vnagent
