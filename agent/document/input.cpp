#include "agent/document/input.h"

#include <fmt/format.h>

#include "agent/document/vocabulary.h"

namespace vnagent {
namespace {

// Where the places of flaws take more than this, the rest is counted: a short text can have many
// flaws below a long key.
constexpr size_t kMaxPlaceBytes = size_t{1} << 20;

bool isBelow(const JsonValue& value, const JsonValue& root) {
  const JsonValue* at = &value;
  while (at != nullptr && at != &root) at = at->parent;
  return at != nullptr;
}

std::optional<Event> readMember(const JsonValue& member, Faults& faults) {
  if (member.key == "patch") {
    if (!readObject(member, "a patch", faults)) return std::nullopt;
    return PatchEvent{&member};
  }
  if (member.key == "advance") {
    const bool number =
        member.kind == JsonValue::Kind::kInteger || member.kind == JsonValue::Kind::kReal;
    if (number && member.real >= 0 && member.real <= kMaxSeconds) return AdvanceEvent{member.real};
    faults.add(member, shown(member) + " is not a number of seconds (0 to 1000000000)");
    return std::nullopt;
  }
  if (member.key == "regionSyncTimeout") {
    const auto seconds = readPositiveSeconds(member, faults);
    if (!seconds) return std::nullopt;
    return RegionSyncTimeoutEvent{*seconds};
  }
  // With null too, which removes nothing here.
  faults.add(member, fmt::format("an event has no member {}", shown(member.key)));
  return std::nullopt;
}

}  // namespace

std::vector<Fault> faultsOfText(const JsonTree& tree, const JsonValue* root) {
  if (const auto& error = tree.error()) {
    return {{"", "not JSON: " + error->text, error->position}};
  }
  std::vector<Fault> faults;
  size_t bytes = 0;
  for (const JsonFlaw& flaw : tree.flaws()) {
    if (bytes > kMaxPlaceBytes) {
      faults.push_back({faults.back().place,
                        fmt::format("and {} more like this", tree.flaws().size() - faults.size()),
                        faults.back().position});
      break;
    }
    const JsonValue& from = root != nullptr && isBelow(*flaw.value, *root) ? *root : tree.root();
    faults.push_back({pointerTo(*flaw.value, from), flaw.message(), flaw.value->position});
    bytes += faults.back().place.size();
  }
  return faults;
}

EventReading readEvent(const JsonTree& line) {
  if (line.error()) return {std::nullopt, faultsOfText(line, nullptr)};
  const JsonValue& root = line.root();
  const bool hasOne = root.isObject() && root.size == 1;
  const bool isPatch = hasOne && root.members[0]->key == "patch";
  const JsonValue& about = isPatch ? *root.members[0] : root;
  Faults faults(about, faultsOfText(line, &about));
  if (hasOne) {
    auto event = readMember(*root.members[0], faults);
    return {event, faults.take()};
  }
  faults.add(root, fmt::format("{} is no event: an object with exactly one member of patch, "
                               "advance, regionSyncTimeout",
                               root.isObject() ? "this object" : shown(root)));
  return {std::nullopt, faults.take()};
}

bool isSkipped(std::string_view line) {
  return line.starts_with('#') || line.find_first_not_of(" \t\r\n") == line.npos;
}

}  // namespace vnagent
