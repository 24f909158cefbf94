#include "agent/document/cloud_state.h"

#include <algorithm>

namespace vnagent {
namespace {

std::optional<int64_t> integerOf(const Values& values, size_t row) {
  const auto* held = values.empty() ? nullptr : std::get_if<int64_t>(&values[row]);
  return held != nullptr ? std::optional(*held) : std::nullopt;
}

}  // namespace

std::optional<int64_t> segmentType(const Values& segment) {
  return integerOf(segment, kSegmentType);
}

std::optional<int64_t> segmentNumber(const Values& segment) {
  return integerOf(segment, kSegmentNumber);
}

ThingEntry* segmentAt(const Levels& levels, uint8_t level) {
  const auto at = std::ranges::lower_bound(levels, level, {}, &Level::level);
  return at != levels.end() && at->level == level ? at->segment : nullptr;
}

std::string_view hostOf(AttachmentKind kind, const AttachmentEntry& attachment) {
  if (kind == AttachmentKind::kHost) return attachment.first.first;
  return std::get<std::string>(
      valueOf(attachment.second.values, kSwitchInterfaceBinding, kHostBehind));
}

void CloudState::index(AttachmentKind kind, PortBinding& binding, AttachmentEntry& attachment) {
  hosts_[static_cast<size_t>(kind)].add(hostOf(kind, attachment), *binding.region);
  for (Level& level : attachment.second.levels) {
    auto& users = level.segment->second.users;
    level.position = users.size();
    users.push_back({&binding, &attachment, level.level});
  }
}

void CloudState::unindex(AttachmentKind kind, PortBinding& binding,
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

void CloudState::index(PortBinding& binding) {
  for (const auto kind : kAttachmentKinds) {
    for (auto& attachment : binding.of(kind)) index(kind, binding, attachment);
  }
}

void CloudState::unindex(PortBinding& binding) {
  for (const auto kind : kAttachmentKinds) {
    for (const auto& attachment : binding.of(kind)) unindex(kind, binding, attachment);
  }
}

void CloudState::index(Region& whole) {
  for (const auto& [id, port] : whole.ports()) indexPort(whole, id);
  for (auto& [id, binding] : whole.portBinding) index(binding);
}

void CloudState::unindex(Region& whole) {
  for (const auto& [id, port] : whole.ports()) unindexPort(whole, id);
  for (auto& [id, binding] : whole.portBinding) unindex(binding);
}

}  // namespace vnagent
