#include <algorithm>

#include "agent/document/merge.h"

namespace vnagent {
namespace {

// Merges into one port binding. Its attachments are indexed whole, once they are merged, and
// unindexed whole before.
class BindingMerger {
 public:
  BindingMerger(CloudState& state, DirtyPortBinding& dirty, std::vector<DirtyThing>* segments,
                Faults& faults)
      : state_(state),
        dirty_(dirty),
        binding_(dirty.value()),
        segments_(segments),
        faults_(faults) {}

  void merge(const JsonValue& patch) {
    for (const auto kind : kAttachmentKinds) {
      const CollectionRow& row = rowOf(kind);
      const JsonValue* member = patch.find(row.name);
      if (member == nullptr) continue;
      if (member->isNull()) {
        removeAll(kind, std::nullopt);
      } else if (readObject(*member, row.what, faults_)) {
        mergeAttachments(*member, kind);
      }
    }
    refuseUnknown(patch, kPortBinding, faults_);
  }

 private:
  void mergeAttachments(const JsonValue& patch, AttachmentKind kind) {
    const CollectionRow& row = rowOf(kind);
    for (const JsonValue* member : patch.all()) {
      if (!member->isNull() && !readKey(*member, row.key, faults_)) continue;
      if (row.shape == CollectionRow::Shape::kByKey) {
        mergeAttachment(*member, kind, {member->key, {}});
      } else if (member->isNull()) {
        removeAll(kind, member->key);
      } else if (readObject(*member, row.what, faults_)) {
        for (const JsonValue* inner : member->all()) {
          if (!inner->isNull() && !readKey(*inner, row.key, faults_)) continue;
          mergeAttachment(*inner, kind, {member->key, inner->key});
        }
      }
    }
  }

  // All of a kind, or those of which this is the first part of the key.
  void removeAll(AttachmentKind kind, std::optional<std::string_view> first) {
    AttachmentMap& map = binding_.of(kind);
    auto at = first ? map.lower_bound(AttachmentKeyView{*first, {}}) : map.begin();
    while (at != map.end() && (!first || at->first.first == *first)) remove(kind, at++);
  }

  void remove(AttachmentKind kind, AttachmentMap::iterator at) {
    state_.unindex(kind, binding_, *at);
    DirtyAttachment dirty{{&*at, true}};
    dirty.gone = binding_.of(kind).extract(at);
    note(kind, std::move(dirty));
  }

  // Changes within a new binding are not recorded.
  void note(AttachmentKind kind, DirtyAttachment dirty) {
    if (dirty_.existed) dirty_.of(kind).push_back(std::move(dirty));
  }

  void mergeAttachment(const JsonValue& patch, AttachmentKind kind, const AttachmentKeyView& key) {
    AttachmentMap& map = binding_.of(kind);
    auto at = placeFor(map, key);
    const bool existed = at != map.end() && AttachmentKeyLess::view(at->first) == key;
    if (patch.isNull()) {
      if (existed) remove(kind, at);
      return;
    }
    const Kind& of = *rowOf(kind).of;
    if (!readObject(patch, of.name, faults_)) return;
    if (existed) {
      state_.unindex(kind, binding_, *at);
    } else {
      AttachmentKey owned{std::string(key.first), std::string(key.second)};
      at = map.emplace_hint(at, std::move(owned), Attachment{});
    }
    Attachment& attachment = at->second;
    Attachment before = attachment;
    attachment.values = mergeReplaced(patch, of, existed ? &before.values : nullptr, faults_);
    const CollectionRow& levels = of.collections.front();
    if (const JsonValue* member = patch.find(levels.name)) {
      mergeLevels(*member, levels, attachment.levels);
    }
    refuseUnknown(patch, of, faults_);
    state_.index(kind, binding_, *at);
    if (!existed || attachment.levels != before.levels ||
        !areSame(attachment.values, before.values, of)) {
      note(kind, {{&*at, existed}, std::move(before)});
    }
  }

  void mergeLevels(const JsonValue& patch, const CollectionRow& row, Levels& levels) {
    if (patch.isNull()) {
      levels.clear();
      return;
    }
    if (!readObject(patch, row.what, faults_)) return;
    levels.reserve(levels.size() + patch.size);
    for (const JsonValue* member : patch.all()) {
      const auto number = readNumberKey(*member, row.key, faults_);
      if (!number) continue;
      const auto level = static_cast<uint8_t>(*number);
      const auto at = std::ranges::lower_bound(levels, level, {}, &Level::level);
      const bool existed = at != levels.end() && at->level == level;
      if (member->isNull()) {
        if (existed) levels.erase(at);
        continue;
      }
      const auto id = readText(*member, *row.value, faults_);
      if (!id) continue;
      ThingEntry* segment = segmentNamed(*id);
      if (existed) {
        at->segment = segment;
      } else {
        levels.insert(at, {level, segment});
      }
    }
  }

  // The entry of the segment that a level names, which may not be there (yet).
  ThingEntry* segmentNamed(std::string_view id) {
    Things& segments = binding_.region->segments();
    auto at = segments.lower_bound(id);
    if (at == segments.end() || at->first != id) {
      at = segments.emplace_hint(at, std::string(id), Thing{});
      at->second.present = false;
      if (segments_ != nullptr) segments_->push_back({{&*at, false}});
    }
    return &*at;
  }

  CloudState& state_;
  DirtyPortBinding& dirty_;
  PortBinding& binding_;
  std::vector<DirtyThing>* segments_;
  Faults& faults_;
};

}  // namespace

void mergePortBinding(const JsonValue& patch, CloudState& state, DirtyPortBinding& dirty,
                      std::vector<DirtyThing>* segments, Faults& faults) {
  BindingMerger(state, dirty, segments, faults).merge(patch);
}

}  // namespace vnagent
