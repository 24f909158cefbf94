#include "tests/sim/library/names.h"

#include <array>
#include <span>
#include <unordered_map>

namespace sim {
namespace {

using Texts = std::span<const std::string_view>;

// Plain names, and some that need care in JSON, in a JSON Pointer or in a trace.
constexpr std::string_view kRegionNames[] = {"R1", "R~/2", "Région"};
constexpr std::string_view kSegmentNames[] = {"s0", "s1", "s2", "s3", "s4", "s5", "s6", "s7"};
constexpr std::string_view kPortNames[] = {"p01", "p02", "p03", "p04", "p05", "p06",
                                           "p07", "p08", "p09", "p10", "p11", "p12"};
constexpr std::string_view kElementNames[] = {"",   "both",   "h\"1",   "h2",
                                              "h3", "leaf 2", "leaf-1", "ホスト"};
constexpr std::string_view kInterfaceNames[] = {"", "e/1", "e1"};
constexpr std::string_view kRequesterNames[] = {"", "driver-a", "driver-b"};
constexpr std::string_view kRequestNames[] = {"", "1", "2", "3", "4"};

constexpr std::array<Texts, 7> kPools{kRegionNames,    kSegmentNames,   kPortNames,   kElementNames,
                                      kInterfaceNames, kRequesterNames, kRequestNames};

constexpr bool ascending(Texts texts) {
  for (std::size_t i = 1; i < texts.size(); ++i) {
    if (!(texts[i - 1] < texts[i])) return false;
  }
  return true;
}
static_assert(ascending(kRegionNames) && ascending(kSegmentNames) && ascending(kPortNames) &&
              ascending(kElementNames) && ascending(kInterfaceNames));
static_assert(std::size(kRegionNames) == kRegions && std::size(kPortNames) == kPorts &&
              std::size(kSegmentNames) == kSegments && std::size(kInterfaceNames) == kInterfaces);

using Numbers = std::unordered_map<std::string_view, int>;

const std::array<Numbers, kPools.size()>& numbers() {
  static const auto made = [] {
    std::array<Numbers, kPools.size()> all;
    for (std::size_t kind = 0; kind < kPools.size(); ++kind) {
      for (std::size_t i = 0; i < kPools[kind].size(); ++i) {
        all[kind][kPools[kind][i]] = static_cast<int>(i);
      }
    }
    return all;
  }();
  return made;
}

Texts pool(Name kind) {
  return kPools[static_cast<std::size_t>(kind)];
}

}  // namespace

int namesOf(Name kind) {
  return static_cast<int>(pool(kind).size());
}

std::string_view nameOf(Name kind, int number) {
  return pool(kind)[static_cast<std::size_t>(number)];
}

int numberOf(Name kind, std::string_view name) {
  const Numbers& known = numbers()[static_cast<std::size_t>(kind)];
  const auto at = known.find(name);
  return at == known.end() ? -1 : at->second;
}

}  // namespace sim
