#include "agent/document/cloud_state.h"

#include <algorithm>

namespace vnagent {

SegmentEntry* segmentAt(const Levels& levels, uint8_t level) {
  const auto at = std::ranges::lower_bound(levels, level, {}, &Level::level);
  return at != levels.end() && at->level == level ? at->segment : nullptr;
}

void Occupancy::add(std::string_view what, const Region& region) {
  auto found = shares_.find(what);
  if (found == shares_.end()) found = shares_.try_emplace(std::string(what)).first;
  Shares& shares = found->second;
  if (shares.first.count == 0) shares.first.region = &region;
  if (shares.first.region == &region) {
    ++shares.first.count;
    return;
  }
  const auto other = std::ranges::find(shares.others, &region, &Share::region);
  if (other == shares.others.end()) {
    if (shares.others.empty()) ++shared_;
    shares.others.push_back({&region, 1});
  } else {
    ++other->count;
  }
}

void Occupancy::remove(std::string_view what, const Region& region) {
  const auto found = shares_.find(what);
  if (found == shares_.end()) return;
  Shares& shares = found->second;
  if (shares.first.region == &region) {
    if (--shares.first.count > 0) return;
    if (shares.others.empty()) {
      shares_.erase(found);
      return;
    }
    shares.first = shares.others.back();
    shares.others.pop_back();
  } else {
    const auto other = std::ranges::find(shares.others, &region, &Share::region);
    if (other == shares.others.end() || --other->count > 0) return;
    shares.others.erase(other);
  }
  if (shares.others.empty()) --shared_;
}

const Region* Occupancy::elsewhere(std::string_view what, const Region& region) const {
  if (shared_ == 0) return nullptr;
  const auto found = shares_.find(what);
  if (found == shares_.end()) return nullptr;
  const Shares& shares = found->second;
  if (shares.first.region != &region) return shares.first.region;
  return shares.others.empty() ? nullptr : shares.others.front().region;
}

void PortRegions::add(std::string_view id, const Region& region) {
  if (!first_.try_emplace(id, &region).second) others_.emplace(id, &region);
}

void PortRegions::remove(std::string_view id, const Region& region) {
  const auto first = first_.find(id);
  if (first == first_.end()) return;
  auto [other, end] = others_.equal_range(id);
  if (first->second != &region) {
    while (other != end && other->second != &region) ++other;
    if (other != end) others_.erase(other);
    return;
  }
  first_.erase(first);
  if (other == end) return;
  first_.emplace(*other);
  others_.erase(other);
}

const Region* PortRegions::elsewhere(std::string_view id, const Region& region) const {
  if (others_.empty()) return nullptr;
  const auto other = others_.find(id);
  if (other == others_.end()) return nullptr;
  const Region* first = first_.find(id)->second;
  return first != &region ? first : other->second;
}

void PortRegions::expect(size_t many) {
  // Room for a few is not worth a look at all entries.
  if (many > first_.size()) first_.reserve(first_.size() + many);
}

std::string_view CloudState::hostOf(AttachmentKind kind, const AttachmentEntry& attachment) {
  return kind == AttachmentKind::kHost ? attachment.first.first : attachment.second.host;
}

void CloudState::enter(AttachmentKind kind, PortBinding& binding, AttachmentEntry& attachment) {
  hosts_[static_cast<size_t>(kind)].add(hostOf(kind, attachment), *binding.region);
  for (Level& level : attachment.second.levels) {
    auto& users = level.segment->second.users;
    level.position = users.size();
    users.push_back({&binding, &attachment, level.level});
  }
}

void CloudState::withdraw(AttachmentKind kind, PortBinding& binding,
                          const AttachmentEntry& attachment) {
  hosts_[static_cast<size_t>(kind)].remove(hostOf(kind, attachment), *binding.region);
  for (const Level& level : attachment.second.levels) {
    // The last use takes the place of this one, and its level learns of it.
    auto& users = level.segment->second.users;
    const SegmentUse last = users.back();
    const auto moved =
        std::ranges::lower_bound(last.attachment->second.levels, last.level, {}, &Level::level);
    moved->position = level.position;
    users[level.position] = last;
    users.pop_back();
  }
}

void CloudState::enter(PortBinding& binding) {
  for (const auto kind : kAttachmentKinds) {
    for (auto& attachment : binding.of(kind)) enter(kind, binding, attachment);
  }
}

void CloudState::withdraw(PortBinding& binding) {
  for (const auto kind : kAttachmentKinds) {
    for (const auto& attachment : binding.of(kind)) withdraw(kind, binding, attachment);
  }
}

void CloudState::enter(Region& whole) {
  for (const auto& [id, port] : whole.port) enterPort(whole, id);
  for (auto& [id, binding] : whole.portBinding) enter(binding);
}

void CloudState::withdraw(Region& whole) {
  for (const auto& [id, port] : whole.port) withdrawPort(whole, id);
  for (auto& [id, binding] : whole.portBinding) withdraw(binding);
}

}  // namespace vnagent
