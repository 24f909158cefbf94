#include "agent/document/input.h"

#include <fmt/format.h>

#include "agent/document/vocabulary.h"

namespace vnagent {
namespace {

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
    const bool json = error->kind == JsonError::Kind::kUnusable;
    return {{error->place, json ? error->text : "not JSON: " + error->text}};
  }
  std::vector<Fault> faults;
  for (const JsonValue* member : tree.repeated()) {
    const JsonValue& from = root != nullptr && isBelow(*member, *root) ? *root : tree.root();
    faults.push_back({pointerTo(*member, from),
                      fmt::format("the key {} is repeated in its object", shown(member->key))});
  }
  return faults;
}

EventReading readEvent(const JsonTree& line) {
  if (line.error()) {
    // The place of something in a patch counts from the patch.
    auto faults = faultsOfText(line, nullptr);
    constexpr std::string_view kPatch = "/patch/";
    std::string& place = faults.front().place;
    if (place.starts_with(kPatch)) place.erase(0, kPatch.size() - 1);
    return {std::nullopt, std::move(faults)};
  }
  const JsonValue& root = line.root();
  if (!root.isObject() || root.size != 1) {
    auto faults = faultsOfText(line, nullptr);
    faults.push_back({"", fmt::format("{} is no event: an object with exactly one member of "
                                      "patch, advance, regionSyncTimeout",
                                      root.isObject() ? "this object" : shown(root))});
    return {std::nullopt, std::move(faults)};
  }
  const JsonValue& member = *root.members[0];
  Faults faults(member.key == "patch" ? member : root);
  EventReading reading{readMember(member, faults), {}};
  reading.faults = faultsOfText(line, member.key == "patch" ? &member : nullptr);
  for (Fault& fault : faults.take()) reading.faults.push_back(std::move(fault));
  return reading;
}

bool isSkipped(std::string_view line) {
  return line.starts_with('#') || line.find_first_not_of(" \t\r\n") == line.npos;
}

}  // namespace vnagent
