// The names that random clouds use. All other files use the number of a name, which is its
// place in a small pool: small, so that ports meet on hosts, VLANs and switch ports. The pools are
// in ascending order of their bytes, so numbers compare as names do.
#pragma once

#include <cstddef>
#include <string_view>

namespace sim {

enum class Name { region, segment, port, element, interface, requester, request };

// How many names there are of a kind.
int namesOf(Name kind);
// One of them. REQUIRES: 0 <= number < namesOf(kind).
std::string_view nameOf(Name kind, int number);
// The number of a name; -1 for a name that is not in the pool.
int numberOf(Name kind, std::string_view name);

// Hosts and switches are elements; one element may be both, and a switch may have no name.
inline constexpr int kHosts[] = {1, 2, 3, 4, 7};
inline constexpr int kSwitches[] = {0, 1, 5, 6};

inline constexpr int kRegions = 3;
inline constexpr int kPorts = 12;
inline constexpr int kSegments = 8;
inline constexpr int kInterfaces = 3;

}  // namespace sim
