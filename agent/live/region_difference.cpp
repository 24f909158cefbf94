#include "agent/live/region_difference.h"

#include <algorithm>

#include <nlohmann/json.hpp>

#include "agent/document/write_cloud.h"
#include "agent/json/json_writer.h"
#include "agent/live/delta.h"

namespace vnagent {
namespace {

// Writes the members of one collection that differ.
class MemberWriter {
 public:
  MemberWriter(std::string& out, std::string_view collection, bool& isFirst)
      : out_(out), collection_(collection), isFirst_(isFirst) {}
  ~MemberWriter() {
    if (count_ > 0) out_ += '}';
  }
  MemberWriter(const MemberWriter&) = delete;
  MemberWriter& operator=(const MemberWriter&) = delete;

  void add(std::string_view key, std::string_view value) {
    if (count_++ == 0) {
      if (!isFirst_) out_ += ", ";
      isFirst_ = false;
      appendJsonString(out_, collection_);
      out_ += ": {";
    } else {
      out_ += ", ";
    }
    appendJsonString(out_, key);
    out_ += ": ";
    out_ += value;
  }
  size_t count() const { return count_; }

 private:
  std::string& out_;
  std::string_view collection_;
  bool& isFirst_;
  size_t count_ = 0;
};

// Both maps are sorted by key.
template <class Map, class WriteValue>
void compare(const Map* now, const Map& wanted, WriteValue writeValue, MemberWriter& members) {
  static const Map kNone;
  const Map& before = now == nullptr ? kNone : *now;
  auto was = before.begin();
  auto is = wanted.begin();
  const auto text = [&](const auto& value) {
    return jsonText([&](JsonWriter& json) { writeValue(value, json); });
  };
  while (was != before.end() || is != wanted.end()) {
    if (is == wanted.end() || (was != before.end() && was->first < is->first)) {
      members.add((was++)->first, "null");
    } else if (was == before.end() || is->first < was->first) {
      members.add(is->first, text(is->second));
      ++is;
    } else {
      const std::string beforeText = text((was++)->second);
      const std::string afterText = text(is->second);
      if (beforeText != afterText) {
        members.add(is->first, mergePatch(Json::parse(beforeText), Json::parse(afterText)).dump());
      }
      ++is;
    }
  }
}

// What it wants that the region has not, of what it names.
void compareScalars(const Region* now, const Region& wanted, std::string& out, bool& isFirst) {
  for (size_t i = 0; i < wanted.values.size(); ++i) {
    if (wanted.values[i].index() == 0) continue;
    if (now != nullptr && valueOf(now->values, kRegion, i) == wanted.values[i]) continue;
    if (now == nullptr && !isPrinted(wanted.values[i], kRegionScalars[i])) continue;
    if (!isFirst) out += ", ";
    isFirst = false;
    appendJsonString(out, kRegionScalars[i].name);
    out += ": ";
    out +=
        jsonText([&](JsonWriter& json) { write(wanted.values[i], kRegionScalars[i].form, json); });
  }
}

}  // namespace

RegionDifference regionDifference(const Region* now, const Region& wanted) {
  RegionDifference difference;
  std::string& out = difference.patch;
  bool isFirst = true;
  out += '{';
  compareScalars(now, wanted, out, isFirst);
  for (size_t i = 0; i < kRegionCollections.size(); ++i) {
    const CollectionRow& row = kRegionCollections[i];
    MemberWriter members(out, row.name, isFirst);
    if (i == kPortBindingRow) {
      compare(now == nullptr ? nullptr : &now->portBinding, wanted.portBinding, writePortBinding,
              members);
    } else {
      compare(
          now == nullptr ? nullptr : &now->things[i], wanted.things[i],
          [&](const Thing& thing, JsonWriter& json) { writeThing(thing, row, json); }, members);
    }
    difference.members += members.count();
  }
  out += '}';
  return difference;
}

}  // namespace vnagent
