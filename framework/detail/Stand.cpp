#include "framework/detail/Stand.h"

namespace [[gnu::visibility("default")]] Kiv {
namespace detail {

thread_local constinit Stand* Stand::innermost = nullptr;

Stand& Stand::operator=(const Stand& other) {
  if (this == &other) return *this;
  if (member_ != nullptr) goOn(nullptr);
  begin(other.member_);
  owns_ = other.owns_;
  if (owns_) member_->referencesInc();
  return *this;
}

void Stand::holdOn(const Member& member) {
  for (Stand* stand = innermost; stand != nullptr; stand = stand->outer_) {
    if (stand->member_ != &member || stand->owns_) continue;
    member.referencesInc();
    stand->owns_ = true;
  }
}

void Stand::giveUp(const Member& member) {
  owns_ = false;
  member.referencesDec();
}

void Stand::takeOut() {
  Stand* within = innermost;
  while (within->outer_ != this) within = within->outer_;
  within->outer_ = outer_;
}

}  // namespace detail
}  // namespace Kiv
