#include "agent/document/write_change.h"

#include <algorithm>
#include <string>
#include <vector>

#include "agent/document/write_cloud.h"

namespace vnagent {
namespace {

// Writes the members of a patch. An object is opened with the first member in it, so that none is
// left empty.
class PatchWriter {
 public:
  explicit PatchWriter(JsonWriter& json) : json_(json) {}

  // What `write` writes is inside the object of this name.
  template <class Write>
  void inside(std::string_view name, Write write) {
    unopened_.emplace_back(name);
    write();
    if (unopened_.empty()) {
      json_.close('}');
    } else {
      unopened_.pop_back();
    }
  }

  // The value of a member is to be written.
  JsonWriter& member(std::string_view name) {
    for (const std::string& object : unopened_) json_.key(object).open('{');
    unopened_.clear();
    return json_.key(name);
  }

 private:
  JsonWriter& json_;
  std::vector<std::string> unopened_;
};

// Writes what of a document a change changed.
class ChangeWriter {
 public:
  explicit ChangeWriter(JsonWriter& json) : patch_(json) {}

  void write(const CloudState& state, const Change& change) {
    const auto& [config, region] = kDocumentMembers;
    if (!isEmpty(state.config)) {
      patch_.inside(config.name, [&] { writeConfig(state.config, change); });
    } else if (wasPrinted(change)) {
      patch_.member(config.name).null();
    }
    writeCollection(region.name, change.regions, state.region, [&] {
      for (const DirtyRegion& dirty : change.regions) {
        writeMember(
            dirty.key(), dirty, [&](JsonWriter& json) { writeRegion(dirty.value(), json); },
            [&] { writeRegionInside(dirty); });
      }
    });
  }

 private:
  // Whether one of these was printed before.
  template <class Dirties>
  static bool hadOne(const Dirties& dirties) {
    return std::ranges::any_of(dirties, [](const auto& dirty) { return dirty.existed; });
  }
  // Whether something of the configuration was.
  static bool wasPrinted(const Change& change) {
    return hadOne(change.vlanAssignments) ||
           std::ranges::any_of(change.configThings, hadOne<std::vector<DirtyThing>>) ||
           std::ranges::any_of(change.configScalars, [](const DirtyScalar& dirty) {
             return isPrinted(dirty.before, kConfig.scalars[dirty.row]);
           });
  }

  // A member of a collection: whole where it was added, null where it was removed, else what
  // differs inside.
  template <class Dirty, class Whole, class Inside>
  void writeMember(std::string_view name, const Dirty& dirty, Whole whole, Inside inside) {
    if (dirty.removed()) {
      patch_.member(name).null();
    } else if (dirty.added()) {
      whole(patch_.member(name));
    } else {
      patch_.inside(name, inside);
    }
  }

  // A collection, which is printed only where it has members.
  template <class Dirties, class Map, class Inside>
  void writeCollection(std::string_view name, const Dirties& dirties, const Map& now,
                       Inside inside) {
    if (dirties.empty()) return;
    if (!now.empty()) {
      patch_.inside(name, inside);
    } else if (hadOne(dirties)) {
      patch_.member(name).null();
    }
  }

  void writeScalar(const ScalarRow& row, const Scalar& before, const Scalar& now) {
    if (isPrinted(now, row)) {
      if (before != now) vnagent::write(now, row.form, patch_.member(row.name));
    } else if (isPrinted(before, row)) {
      patch_.member(row.name).null();
    }
  }
  void writeScalars(const Kind& kind, const Values& before, const Values& now) {
    static const Scalar kNone;
    for (size_t i = 0; i < kind.scalars.size(); ++i) {
      writeScalar(kind.scalars[i], before.empty() ? kNone : before[i],
                  now.empty() ? kNone : now[i]);
    }
  }
  void writeScalars(const Kind& kind, const std::vector<DirtyScalar>& dirties, const Values& now) {
    static const Scalar kNone;
    for (const DirtyScalar& dirty : dirties) {
      writeScalar(kind.scalars[dirty.row], dirty.before, now.empty() ? kNone : now[dirty.row]);
    }
  }

  void writeThings(const CollectionRow& row, const std::vector<DirtyThing>& dirties,
                   const Things& now) {
    writeCollection(row.name, dirties, now, [&] {
      for (const DirtyThing& dirty : dirties) {
        const Thing& thing = dirty.value();
        if (dirty.changed() && row.of == nullptr) {
          if (thing.values != dirty.before) writeThing(thing, row, patch_.member(dirty.key()));
          continue;
        }
        writeMember(
            dirty.key(), dirty, [&](JsonWriter& json) { writeThing(thing, row, json); },
            [&] { writeScalars(*row.of, dirty.before, thing.values); });
      }
    });
  }

  void writeConfig(const Config& config, const Change& change) {
    writeScalars(kConfig, change.configScalars, config.values);
    for (size_t i = 0; i < kConfigCollections.size(); ++i) {
      const CollectionRow& row = kConfigCollections[i];
      if (row.of == &kVlanAssignment) {
        writeAssignments(row, change.vlanAssignments, config.vlanAssignment);
      } else {
        writeThings(row, change.configThings[i], config.things[i]);
      }
    }
  }

  void writeAssignments(const CollectionRow& row, const std::vector<DirtyVlanAssignment>& dirties,
                        const VlanAssignmentMap& now) {
    writeCollection(row.name, dirties, now, [&] {
      for (const DirtyVlanAssignment& dirty : dirties) {
        writeMember(
            dirty.key(), dirty, [&](JsonWriter& json) { writeVlanAssignment(dirty.value(), json); },
            [&] { writeVlans(dirty); });
      }
    });
  }
  void writeVlans(const DirtyVlanAssignment& dirty) {
    const std::string_view name = kVlanAssignmentCollections.front().name;
    if (dirty.vlans.empty()) return;
    if (dirty.value().empty()) {
      patch_.member(name).null();
      return;
    }
    patch_.inside(name, [&] {
      for (const auto& [vlan, before, after] : dirty.vlans) {
        JsonWriter& json = patch_.member(std::to_string(vlan));
        if (after) {
          json.boolean(*after);
        } else {
          json.null();
        }
      }
    });
  }

  void writeRegionInside(const DirtyRegion& dirty) {
    const Region& region = dirty.value();
    writeScalars(kRegion, dirty.scalars, region.values);
    for (size_t i = 0; i < kPortBindingRow; ++i) {
      writeThings(kRegionCollections[i], dirty.things[i], region.things[i]);
    }
    writeCollection(kRegionCollections[kPortBindingRow].name, dirty.portBindings,
                    region.portBinding, [&] {
                      for (const DirtyPortBinding& binding : dirty.portBindings) {
                        writeMember(
                            binding.key(), binding,
                            [&](JsonWriter& json) { writePortBinding(binding.value(), json); },
                            [&] { writeBindingInside(binding); });
                      }
                    });
  }

  void writeBindingInside(const DirtyPortBinding& dirty) {
    for (const auto kind : kAttachmentKinds) {
      const CollectionRow& row = rowOf(kind);
      const std::vector<DirtyAttachment>& dirties = dirty.of(kind);
      const AttachmentMap& now = dirty.value().of(kind);
      writeCollection(row.name, dirties, now, [&] {
        if (row.shape == CollectionRow::Shape::kByKey) {
          for (const auto& each : dirties) writeAttachmentMember(each.key().first, each, *row.of);
        } else {
          writeBySwitch(dirties, now, *row.of);
        }
      });
    }
  }

  // A switch is printed as long as it has an interface.
  void writeBySwitch(const std::vector<DirtyAttachment>& dirties, const AttachmentMap& now,
                     const Kind& kind) {
    for (auto at = dirties.begin(); at != dirties.end();) {
      const std::string& name = at->key().first;
      const auto end = std::find_if(at, dirties.end(), [&](const DirtyAttachment& other) {
        return other.key().first != name;
      });
      const auto first = now.lower_bound(AttachmentKeyView(name, ""));
      if (first == now.end() || first->first.first != name) {
        patch_.member(name).null();
        at = end;
        continue;
      }
      patch_.inside(name, [&] {
        for (; at != end; ++at) writeAttachmentMember(at->key().second, *at, kind);
      });
    }
  }

  void writeAttachmentMember(const std::string& name, const DirtyAttachment& dirty,
                             const Kind& kind) {
    const Attachment& now = dirty.value();
    writeMember(
        name, dirty, [&](JsonWriter& json) { writeAttachment(now, kind, json); },
        [&] {
          writeScalars(kind, dirty.before.values, now.values);
          writeLevels(dirty.before.levels, now.levels);
        });
  }

  void writeLevels(const Levels& before, const Levels& now) {
    const std::string_view name = kLevels.front().name;
    if (now.empty()) {
      if (!before.empty()) patch_.member(name).null();
      return;
    }
    patch_.inside(name, [&] {
      auto was = before.begin();
      auto is = now.begin();
      while (was != before.end() || is != now.end()) {
        if (is == now.end() || (was != before.end() && was->level < is->level)) {
          patch_.member(std::to_string((was++)->level)).null();
        } else if (was == before.end() || is->level < was->level) {
          writeLevel(*is++);
        } else {
          if (!(*was++ == *is)) writeLevel(*is);
          ++is;
        }
      }
    });
  }
  void writeLevel(const Level& level) {
    patch_.member(std::to_string(level.level)).text(level.segment->first);
  }

  PatchWriter patch_;
};

}  // namespace

void writeChange(const CloudState& state, const Change& change, JsonWriter& json) {
  json.open('{');
  ChangeWriter(json).write(state, change);
  json.close('}');
}

}  // namespace vnagent
