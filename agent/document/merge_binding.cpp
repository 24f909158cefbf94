#include <algorithm>

#include <fmt/format.h>

#include "agent/document/merge.h"

namespace vnagent {
namespace {

// Merges into one port binding. Its attachments are entered into the indexes whole, once they are
// merged, and withdrawn whole before.
class BindingMerger {
 public:
  BindingMerger(CloudState& state, PortBinding& binding, RegionTouch& region,
                PortBindingTouch* touch, Faults& faults)
      : state_(state), binding_(binding), region_(region), touch_(touch), faults_(faults) {}

  void merge(const JsonValue& patch) {
    for (const JsonValue* member : patch.all()) {
      const auto kind = indexIn(kAttachmentWords, member->key);
      if (!kind) {
        refuseMember(*member, "a port binding", faults_);
      } else if (static_cast<AttachmentKind>(*kind) == AttachmentKind::kHost) {
        mergeHosts(*member);
      } else {
        mergeSwitches(*member);
      }
    }
  }

 private:
  void removeAll(AttachmentKind kind) {
    AttachmentMap& map = binding_.of(kind);
    while (!map.empty()) remove(kind, map.begin());
  }

  void remove(AttachmentKind kind, AttachmentMap::iterator at) {
    state_.withdraw(kind, binding_, *at);
    AttachmentTouch touch{&*at, true, {}, {}, {}};
    touch.gone = binding_.of(kind).extract(at);
    if (touch_ != nullptr) note(kind, std::move(touch));
  }

  void note(AttachmentKind kind, AttachmentTouch touch) {
    touch_->attachments[static_cast<size_t>(kind)].push_back(std::move(touch));
  }

  void mergeHosts(const JsonValue& patch) {
    if (patch.isNull()) {
      removeAll(AttachmentKind::kHost);
      return;
    }
    if (!readObject(patch, "host bindings by host", faults_)) return;
    for (const JsonValue* member : patch.all()) {
      if (!member->isNull() && !readName(*member, faults_)) continue;
      mergeAttachment(*member, AttachmentKind::kHost, {member->key, {}});
    }
  }

  void mergeSwitches(const JsonValue& patch) {
    if (patch.isNull()) {
      removeAll(AttachmentKind::kSwitchInterface);
      return;
    }
    if (!readObject(patch, "switch-interface bindings by switch", faults_)) return;
    for (const JsonValue* member : patch.all()) {
      if (member->isNull()) {
        removeSwitch(member->key);
        continue;
      }
      if (!readName(*member, faults_, true)) continue;
      if (!readObject(*member, "switch-interface bindings by interface", faults_)) continue;
      for (const JsonValue* inner : member->all()) {
        if (!inner->isNull() && !readName(*inner, faults_, true)) continue;
        mergeAttachment(*inner, AttachmentKind::kSwitchInterface, {member->key, inner->key});
      }
    }
  }

  void removeSwitch(std::string_view name) {
    AttachmentMap& map = binding_.of(AttachmentKind::kSwitchInterface);
    auto at = map.lower_bound(AttachmentKeyView{name, {}});
    while (at != map.end() && at->first.first == name) {
      remove(AttachmentKind::kSwitchInterface, at++);
    }
  }

  void mergeAttachment(const JsonValue& patch, AttachmentKind kind, const AttachmentKeyView& key) {
    AttachmentMap& map = binding_.of(kind);
    auto at = placeFor(map, key);
    const bool existed = at != map.end() && AttachmentKeyLess::view(at->first) == key;
    if (patch.isNull()) {
      if (existed) remove(kind, at);
      return;
    }
    if (!readObject(patch, "a binding", faults_)) return;
    if (!existed) {
      AttachmentKey owned{std::string(key.first), std::string(key.second)};
      at = map.emplace_hint(at, std::move(owned), Attachment{});
    } else {
      state_.withdraw(kind, binding_, *at);
    }
    Attachment& attachment = at->second;
    AttachmentTouch touch{&*at, existed, {}, attachment.levels, attachment.host};
    mergeMembers(patch, kind, attachment);
    state_.enter(kind, binding_, *at);
    const bool changed =
        !existed || attachment.levels != touch.levelsBefore || attachment.host != touch.hostBefore;
    if (touch_ != nullptr && changed) note(kind, std::move(touch));
  }

  void mergeMembers(const JsonValue& patch, AttachmentKind kind, Attachment& attachment) {
    const bool behindSwitch = kind == AttachmentKind::kSwitchInterface;
    if (behindSwitch) mergeHost(patch, attachment);
    for (const JsonValue* member : patch.all()) {
      if (member->key == "segment") {
        mergeLevels(*member, attachment.levels);
      } else if (!behindSwitch || member->key != "host") {
        refuseMember(*member, behindSwitch ? "a switch-interface binding" : "a host binding",
                     faults_);
      }
    }
  }

  void mergeHost(const JsonValue& patch, Attachment& attachment) {
    const JsonValue* member = patch.find("host");
    if (member == nullptr ? attachment.host.empty() : member->isNull()) {
      faults_.add(patch, "a switch-interface binding must have a host");
      return;
    }
    if (member == nullptr) return;
    auto fault = member->kind != JsonValue::Kind::kString ? shown(*member) + " is not a string"
                                                          : faultOfName(member->text);
    if (fault.empty()) {
      attachment.host = member->text;
    } else {
      faults_.add(*member, std::move(fault));
    }
  }

  void mergeLevels(const JsonValue& patch, Levels& levels) {
    if (patch.isNull()) {
      levels.clear();
      return;
    }
    if (!readObject(patch, "segment ids by level", faults_)) return;
    levels.reserve(levels.size() + patch.size);
    for (const JsonValue* member : patch.all()) {
      const auto number = plainDecimal(member->key, 0, 255);
      if (!number && member->isNull()) continue;
      if (!number) {
        faults_.add(*member, shown(member->key) + " is not a level (\"0\" to \"255\")");
        continue;
      }
      const auto level = static_cast<uint8_t>(*number);
      const auto at = std::ranges::lower_bound(levels, level, {}, &Level::level);
      const bool existed = at != levels.end() && at->level == level;
      if (member->isNull()) {
        if (existed) levels.erase(at);
        continue;
      }
      SegmentEntry* segment = segmentNamed(*member);
      if (segment == nullptr) continue;
      if (existed) {
        at->segment = segment;
      } else {
        levels.insert(at, {level, segment});
      }
    }
  }

  // The entry of the segment that a level names, which may not exist (yet); null for no name.
  SegmentEntry* segmentNamed(const JsonValue& value) {
    auto fault = value.kind != JsonValue::Kind::kString ? shown(value) + " is not a segment id"
                                                        : faultOfName(value.text);
    if (!fault.empty()) {
      faults_.add(value, std::move(fault));
      return nullptr;
    }
    SegmentMap& segments = binding_.region->segment;
    auto at = segments.lower_bound(value.text);
    if (at == segments.end() || at->first != value.text) {
      at = segments.emplace_hint(at, std::string(value.text), Segment{});
      if (region_.existed) region_.loose.push_back(&*at);
    }
    return &*at;
  }

  CloudState& state_;
  PortBinding& binding_;
  RegionTouch& region_;
  PortBindingTouch* touch_;
  Faults& faults_;
};

}  // namespace

void mergePortBinding(const JsonValue& patch, CloudState& state, PortBinding& binding,
                      RegionTouch& region, PortBindingTouch* touch, Faults& faults) {
  BindingMerger(state, binding, region, touch, faults).merge(patch);
}

}  // namespace vnagent
