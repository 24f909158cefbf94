#include "agent/document/write_change.h"

#include <algorithm>
#include <span>
#include <string>
#include <vector>

#include "agent/document/write_cloud.h"

namespace vnagent {
namespace {

// Writes the members of a patch. An object is opened with the first member in it, so that none is
// left empty.
class PatchWriter {
 public:
  PatchWriter(JsonWriter& json, const OnWritten& onWritten) : json_(json), onWritten_(onWritten) {}

  // What `write` writes is inside the object of this name, which is good as long.
  template <class Write>
  void inside(std::string_view name, Write write) {
    place_.push_back(name);
    write();
    place_.pop_back();
    if (opened_ <= place_.size()) return;
    json_.close('}');
    --opened_;
  }

  // The value of a member is to be written.
  JsonWriter& member(std::string_view name) {
    for (; opened_ < place_.size(); ++opened_) json_.key(place_[opened_]).open('{');
    if (onWritten_) {
      place_.push_back(name);
      onWritten_(place_);
      place_.pop_back();
    }
    return json_.key(name);
  }

 private:
  JsonWriter& json_;
  const OnWritten& onWritten_;
  std::vector<std::string_view> place_;  // the objects that are written
  size_t opened_ = 0;                    // how many of them have a member
};

// Writes what of a document a change changed. A patch leads from one document to another: forward,
// from the one before the change to the present one; back, the other way.
class ChangeWriter {
 public:
  ChangeWriter(JsonWriter& json, Direction direction, const OnWritten& onWritten)
      : patch_(json, onWritten), back_(direction == Direction::kBack) {}

  void write(const CloudState& state, const Change& change) {
    const auto& [config, region] = kDocumentMembers;
    const auto isPrinted = [&](bool before) {
      return before ? wasPrinted(state.config, change) : !isEmpty(state.config);
    };
    if (isPrinted(back_)) {
      patch_.inside(config.name, [&] { writeConfig(state.config, change); });
    } else if (isPrinted(!back_)) {
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
  // How many members a collection had before, of which this is what changed, and how many it has
  // now.
  template <class Dirties>
  static size_t sizeBefore(const Dirties& dirties, size_t now) {
    size_t size = now;
    for (const auto& dirty : dirties) {
      if (dirty.added()) --size;
      if (dirty.removed()) ++size;
    }
    return size;
  }

  // Whether something of the configuration was printed before.
  static bool wasPrinted(const Config& config, const Change& change) {
    if (sizeBefore(change.vlanAssignments, config.vlanAssignment.size()) > 0) return true;
    for (size_t i = 0; i < config.things.size(); ++i) {
      if (sizeBefore(change.configThings[i], config.things[i].size()) > 0) return true;
    }
    const auto& dirties = change.configScalars;
    for (size_t i = 0; i < config.values.size(); ++i) {
      const auto dirty = std::ranges::find(dirties, i, &DirtyScalar::row);
      const Scalar& before = dirty == dirties.end() ? config.values[i] : dirty->before;
      if (isPrinted(before, kConfigScalars[i])) return true;
    }
    return false;
  }

  // A member of a collection: whole where it is new, null where it is removed, else what differs
  // inside.
  template <class Dirty, class Whole, class Inside>
  void writeMember(std::string_view name, const Dirty& dirty, Whole whole, Inside inside) {
    if (dirty.changed()) {
      patch_.inside(name, inside);
    } else if (dirty.removed() != back_) {
      patch_.member(name).null();
    } else {
      whole(patch_.member(name));
    }
  }

  // A collection, which is printed only where it has members.
  template <class Dirties, class Map, class Inside>
  void writeCollection(std::string_view name, const Dirties& dirties, const Map& now,
                       Inside inside) {
    if (dirties.empty()) return;
    if (back_ ? sizeBefore(dirties, now.size()) > 0 : !now.empty()) {
      patch_.inside(name, inside);
    } else {
      patch_.member(name).null();
    }
  }

  void writeScalar(const ScalarRow& row, const Scalar& before, const Scalar& now) {
    const Scalar& from = back_ ? now : before;
    const Scalar& to = back_ ? before : now;
    if (isPrinted(to, row)) {
      if (from != to) vnagent::write(to, row.form, patch_.member(row.name));
    } else if (isPrinted(from, row)) {
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
          if (thing.values == dirty.before) continue;
          writeThing(back_ ? Thing{dirty.before, {}} : thing, row, patch_.member(dirty.key()));
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
    writeCollection(name, dirty.vlans, dirty.value(), [&] {
      for (const auto& [vlan, before, after] : dirty.vlans) {
        JsonWriter& json = patch_.member(std::to_string(vlan));
        if (const auto& to = back_ ? before : after) {
          json.boolean(*to);
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
      const auto last = std::find_if(first, now.end(), [&](const AttachmentEntry& other) {
        return other.first.first != name;
      });
      const auto size = static_cast<size_t>(std::distance(first, last));
      if ((back_ ? sizeBefore(std::span(at, end), size) : size) == 0) {
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
          if (back_) {
            writeLevels(now.levels, dirty.before.levels);
          } else {
            writeLevels(dirty.before.levels, now.levels);
          }
        });
  }

  void writeLevels(const Levels& from, const Levels& to) {
    const std::string_view name = kLevels.front().name;
    if (to.empty()) {
      if (!from.empty()) patch_.member(name).null();
      return;
    }
    patch_.inside(name, [&] {
      auto was = from.begin();
      auto is = to.begin();
      while (was != from.end() || is != to.end()) {
        if (is == to.end() || (was != from.end() && was->level < is->level)) {
          patch_.member(std::to_string((was++)->level)).null();
        } else if (was == from.end() || is->level < was->level) {
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
  bool back_;
};

}  // namespace

void writeChange(const CloudState& state, const Change& change, JsonWriter& json,
                 Direction direction) {
  const OnWritten nobody;
  json.open('{');
  ChangeWriter(json, direction, nobody).write(state, change);
  json.close('}');
}

void writeChange(const CloudState& state, const Change& change, JsonWriter& json,
                 const OnWritten& onWritten) {
  json.open('{');
  ChangeWriter(json, Direction::kForward, onWritten).write(state, change);
  json.close('}');
}

}  // namespace vnagent
