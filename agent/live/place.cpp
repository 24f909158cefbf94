#include "agent/live/place.h"

#include <algorithm>
#include <utility>

#include <nlohmann/json.hpp>

#include "agent/document/write_cloud.h"
#include "agent/json/json_writer.h"
#include "agent/output/output_json.h"

namespace vnagent {
namespace {

// Keeps the order of the members, which is not that of bytes where keys are numbers.
using OrderedJson = nlohmann::ordered_json;

// What `place` names from `depth` on below a value, both as texts.
std::optional<std::string> below(std::string text, const Place& place, size_t depth) {
  if (depth == place.size()) return text;
  const OrderedJson whole = OrderedJson::parse(text);
  const OrderedJson* at = &whole;
  for (; depth < place.size(); ++depth) {
    if (!at->is_object()) return std::nullopt;
    const auto member = at->find(place[depth]);
    if (member == at->end()) return std::nullopt;
    at = &*member;
  }
  return at->dump();
}

// A member of a region: a collection or one of its scalars.

template <class Map, class WriteValue>
std::optional<std::string> readMembers(const Map& map, const Place& place, WriteValue writeValue) {
  if (place.size() > 3) {
    const auto member = map.find(place[3]);
    if (member == map.end()) return std::nullopt;
    return below(jsonText([&](JsonWriter& json) { writeValue(member->second, json); }), place, 4);
  }
  if (map.empty()) return std::nullopt;
  return jsonText([&](JsonWriter& json) {
    json.open('{');
    for (const auto& [key, value] : map) {
      json.key(key);
      writeValue(value, json);
    }
    json.close('}');
  });
}

std::optional<std::string> readScalar(const Region& region, const Place& place) {
  const auto row = std::ranges::find(kRegionScalars, place[2], &ScalarRow::name);
  if (row == kRegionScalars.end() || place.size() > 3 || region.values.empty()) return std::nullopt;
  const Scalar& value = region.values[static_cast<size_t>(row - kRegionScalars.begin())];
  if (!isPrinted(value, *row)) return std::nullopt;
  return jsonText([&](JsonWriter& json) { write(value, row->form, json); });
}

std::optional<std::string> readInRegion(const Region& region, const Place& place) {
  const auto row = std::ranges::find(kRegionCollections, place[2], &CollectionRow::name);
  if (row == kRegionCollections.end()) return readScalar(region, place);
  const auto index = static_cast<size_t>(row - kRegionCollections.begin());
  if (index == kPortBindingRow) return readMembers(region.portBinding, place, writePortBinding);
  return readMembers(region.things[index], place,
                     [&](const Thing& thing, JsonWriter& json) { writeThing(thing, *row, json); });
}

// The brackets and keys around the value at `place`, as a document that has nothing else is
// written.
std::string openingOf(const Place& place) {
  std::string text;
  for (const std::string& name : place) {
    text += '{';
    appendJsonString(text, name);
    text += ": ";
  }
  return text;
}

}  // namespace

std::optional<Place> placeOfPointer(std::string_view pointer) {
  Place place;
  if (!pointer.empty() && pointer.front() != '/') return std::nullopt;
  for (size_t i = 0; i < pointer.size(); ++i) {
    const char c = pointer[i];
    if (c == '/') {
      place.emplace_back();
    } else if (c != '~') {
      place.back() += c;
    } else if (i + 1 < pointer.size() && (pointer[i + 1] == '0' || pointer[i + 1] == '1')) {
      place.back() += pointer[++i] == '0' ? '~' : '/';
    } else {
      return std::nullopt;
    }
  }
  return place;
}

std::string pointerOf(const Place& place) {
  std::string pointer;
  for (const std::string& name : place) appendToken(pointer, name);
  return pointer;
}

bool isWithin(const Place& place, const Place& outer) {
  return place.size() >= outer.size() && std::equal(outer.begin(), outer.end(), place.begin());
}

std::string patchAt(const Place& place, std::string_view value) {
  std::string text = openingOf(place);
  text += value;
  text.append(place.size(), '}');
  return text;
}

std::optional<std::string> readCloud(const CloudState& state, const Place& place) {
  if (place.empty()) return jsonText([&](JsonWriter& json) { writeCloud(state, json); });
  if (place[0] == kDocumentMembers[0].name) {
    if (isEmpty(state.config)) return std::nullopt;
    return below(jsonText([&](JsonWriter& json) { writeConfig(state.config, json); }), place, 1);
  }
  if (place[0] != kDocumentMembers[1].name || state.region.empty()) return std::nullopt;
  if (place.size() == 1) {
    return jsonText([&](JsonWriter& json) {
      json.open('{');
      for (const auto& [name, region] : state.region) {
        json.key(name);
        writeRegion(region, json);
      }
      json.close('}');
    });
  }
  const auto region = state.region.find(place[1]);
  if (region == state.region.end()) return std::nullopt;
  if (place.size() > 2) return readInRegion(region->second, place);
  return jsonText([&](JsonWriter& json) { writeRegion(region->second, json); });
}

bool hasPlace(const CloudState& state, const Place& place) {
  if (place.empty()) return true;
  const bool inRegions = place[0] == kDocumentMembers[1].name;
  if (inRegions && place.size() == 1) return !state.region.empty();
  if (inRegions && place.size() == 2) return state.region.contains(place[1]);
  if (inRegions && place.size() == 3) {
    const auto region = state.region.find(place[1]);
    if (region == state.region.end()) return false;
    const auto row = std::ranges::find(kRegionCollections, place[2], &CollectionRow::name);
    if (row != kRegionCollections.end()) {
      const auto index = static_cast<size_t>(row - kRegionCollections.begin());
      return index == kPortBindingRow ? !region->second.portBinding.empty()
                                      : !region->second.things[index].empty();
    }
  }
  return readCloud(state, place).has_value();
}

std::optional<std::string> readOutput(const Session& session, const Place& place) {
  if (place.empty()) {
    return jsonText([&](JsonWriter& json) { writeOutput(session.output(), json); });
  }
  const OutputPart part = session.outputAt(place);
  if (part.depth == 0) return std::nullopt;
  std::string text = jsonText([&](JsonWriter& json) { writeOutput(part.document, json); });
  // Unwraps what is above the part: a large one is not read again.
  const Place above(place.begin(), place.begin() + static_cast<std::ptrdiff_t>(part.depth));
  const std::string opening = openingOf(above);
  text.erase(text.size() - above.size());
  text.erase(0, opening.size());
  return below(std::move(text), place, part.depth);
}

}  // namespace vnagent
