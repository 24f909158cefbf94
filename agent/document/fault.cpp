#include "agent/document/fault.h"

#include <algorithm>
#include <utility>

namespace vnagent {

Faults::Faults(const JsonValue& root, std::vector<Fault> found)
    : root_(root), found_(std::move(found)) {
  for (const Fault& fault : found_) seen_.insert(fault.message());
}

void Faults::add(const JsonValue& at, std::string text) {
  add(at, Fault{pointerTo(at, root_), std::move(text), at.position});
}

void Faults::add(std::string place, std::string text) {
  const JsonValue& at = nearest(root_, place);
  add(at, Fault{std::move(place), std::move(text), at.position});
}

void Faults::add(const JsonValue& at, Fault fault) {
  if (at.isFlawed || !seen_.insert(fault.message()).second) return;
  found_.push_back(std::move(fault));
}

std::vector<Fault> Faults::take() {
  std::ranges::stable_sort(found_, {}, &Fault::position);
  return std::move(found_);
}

}  // namespace vnagent
