#include "tests/sim/library/compare.h"

#include <algorithm>
#include <iterator>

namespace sim {
namespace {

constexpr std::size_t kMostLines = 12;

void tell(std::string& lines, std::string_view what, const std::vector<Fact>& facts) {
  for (std::size_t i = 0; i < facts.size() && i < kMostLines; ++i) {
    lines.append(what).append(text(facts[i])).append("\n");
  }
  if (facts.size() > kMostLines) lines.append(what).append("...\n");
}

// A random UUID: 8-4-4-4-12 lowercase hexadecimal digits, version 4, variant 10.
bool isUuid(std::string_view text) {
  if (text.size() != 36) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    if (dash ? text[i] != '-' : std::string_view("0123456789abcdef").find(text[i]) == text.npos) {
      return false;
    }
  }
  return text[14] == '4' && std::string_view("89ab").find(text[19]) != std::string_view::npos;
}

}  // namespace

std::string difference(const std::vector<Fact>& expected, const std::vector<Fact>& actual) {
  if (expected == actual) return {};
  std::vector<Fact> missing;
  std::vector<Fact> excess;
  std::ranges::set_difference(expected, actual, std::back_inserter(missing));
  std::ranges::set_difference(actual, expected, std::back_inserter(excess));
  std::string lines;
  tell(lines, "missing: ", missing);
  tell(lines, "too much: ", excess);
  return lines;
}

std::string nativeDifference(Model& model, const Picture& picture) {
  for (const auto& [place, vlan] : picture.natives) {
    const auto possible = model.natives().find(place);
    if (possible == model.natives().end()) continue;  // an entry too much, which the facts tell
    if (!possible->second.contains(vlan)) {
      std::string line = "native VLAN " + std::to_string(vlan) + " on " +
                         text(Fact::interface, place) + ", it should be";
      for (const unsigned each : possible->second) line += " " + std::to_string(each);
      return line + "\n";
    }
    if (possible->second.size() > 1) model.nativeIs(place, vlan);
  }
  return {};
}

std::string Uuids::check(const Model& model, const Picture& picture) {
  for (const auto& [region, uuid] : picture.assignmentUuids) {
    const auto last = last_.find(region);
    const std::string before = last == last_.end() ? "" : last->second;
    const std::string where = text(Fact::region, {region}) + ": the UUID ";
    if (model.hasUuid(region) ? !isUuid(uuid) : !uuid.empty()) return where + "is " + uuid + "\n";
    if (model.stamped().contains(region) == (uuid == before)) {
      return where + (uuid == before ? "is not a new one\n" : "has changed\n");
    }
  }
  last_ = picture.assignmentUuids;
  return {};
}

}  // namespace sim
