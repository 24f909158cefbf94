// The words of the cloud document: its member names, what each may hold, and the legal forms of
// keys. One table for each group of attributes; reading, applying and showing are all fed from
// them.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "agent/document/fault.h"
#include "agent/json/json_tree.h"

namespace vnagent {

// The longest time that an input may name, in seconds.
inline constexpr double kMaxSeconds = 1e9;

enum class SyncStatus : uint8_t { kUnknown, kInProgress, kTimedOut, kComplete };
inline constexpr std::array<std::string_view, 4> kSyncStatusWords{"syncUnknown", "syncInProgress",
                                                                  "syncTimedOut", "syncComplete"};

// Values of a segment's type that the document has a word for; any other is a bare number.
inline constexpr uint8_t kVlanSegment = 0;
inline constexpr uint8_t kVxlanSegment = 1;
inline constexpr std::array<std::string_view, 2> kSegmentationTypeWords{"vlan", "vxlan"};

// A scalar of any kind. A SyncStatus is held by its number.
using ScalarValue = std::variant<bool, int64_t, double, std::string>;

enum class ScalarKind : uint8_t {
  kBool,
  kUint31,           // 0 to 2147483647
  kNumber,           // any finite number
  kSeconds,          // 0 or more
  kPositiveSeconds,  // more than 0, at most kMaxSeconds
  kSyncStatus,       // one of the four words
  kText,             // any string
  kNameOrEmpty,      // a name, or the empty string
};

struct ScalarWord {
  std::string_view name;
  ScalarKind kind;
};

// The scalars of the agent configuration, in the order in which they are written.
enum class ConfigScalar : uint8_t {
  kVlanTypeDriver,
  kEnabled,
  kDefaultVlanTypeDriver,
  kDefaultGracePeriod,
  kGracePeriod,
  kDefaultRegionSyncTimeout,
  kRegionSyncTimeout,
  kDefaultAgentMode,
  kAgentMode,
  kAuthRole,
};
inline constexpr std::array<ScalarWord, 10> kConfigScalars{{
    {"vlanTypeDriver", ScalarKind::kUint31},
    {"enabled", ScalarKind::kBool},
    {"defaultVlanTypeDriver", ScalarKind::kUint31},
    {"defaultGracePeriod", ScalarKind::kSeconds},
    {"gracePeriod", ScalarKind::kSeconds},
    {"defaultRegionSyncTimeout", ScalarKind::kPositiveSeconds},
    {"regionSyncTimeout", ScalarKind::kPositiveSeconds},
    {"defaultAgentMode", ScalarKind::kText},
    {"agentMode", ScalarKind::kText},
    {"authRole", ScalarKind::kText},
}};

// The scalars of a region, in the order in which they are written: who asks for the lock stands
// before the request, and the status that both lead to comes last.
enum class RegionScalar : uint8_t {
  kRequester,
  kRequestId,
  kSyncInterval,
  kSyncHeartbeat,
  kSyncStatus
};
inline constexpr std::array<ScalarWord, 5> kRegionScalars{{
    {"requester", ScalarKind::kNameOrEmpty},
    {"requestId", ScalarKind::kNameOrEmpty},
    {"syncInterval", ScalarKind::kNumber},
    {"syncHeartbeat", ScalarKind::kNumber},
    {"syncStatus", ScalarKind::kSyncStatus},
}};

// Collections whose members have a name and nothing else.
enum class ConfigSet : uint8_t { kMandatoryRegion, kCredentials, kKeystoneAuthUrl };
inline constexpr std::array<std::string_view, 3> kConfigSets{"mandatoryRegion", "credentials",
                                                             "keystoneAuthUrl"};
enum class RegionSet : uint8_t {
  kServiceEndPoint,
  kTenant,
  kNetwork,
  kVmInstance,
  kDhcpInstance,
  kBaremetalInstance,
  kRouterInstance
};
inline constexpr std::array<std::string_view, 7> kRegionSets{
    "serviceEndPoint",   "tenant",        "network", "vmInstance", "dhcpInstance",
    "baremetalInstance", "routerInstance"};

// Which index `word` has in one of the tables, or nothing.
template <class Table>
std::optional<size_t> indexIn(const Table& table, std::string_view word) {
  for (size_t i = 0; i < table.size(); ++i) {
    if constexpr (requires { table[i].name; }) {
      if (table[i].name == word) return i;
    } else {
      if (table[i] == word) return i;
    }
  }
  return std::nullopt;
}

// Keys.

// Says what a legal name looks like and why `text` is none, or returns the empty text.
std::string faultOfName(std::string_view text);

// A number in plain decimal, without sign and leading zero, in low..high; nothing for other text.
std::optional<uint32_t> plainDecimal(std::string_view text, uint32_t low, uint32_t high);

// The word that the documents have for a status.
std::string_view syncStatusWord(SyncStatus status);

// Values. Each notes a fault and returns nothing when the value does not fit.

std::optional<int64_t> readInteger(const JsonValue& value, int64_t low, int64_t high,
                                   Faults& faults);
std::optional<uint8_t> readSegmentationType(const JsonValue& value, Faults& faults);
std::optional<ScalarValue> readScalar(const JsonValue& value, ScalarKind kind, Faults& faults);
std::optional<double> readPositiveSeconds(const JsonValue& value, Faults& faults);

// What an absent or removed scalar of this kind stands for.
ScalarValue defaultOf(ScalarKind kind);

// Notes a fault unless the key of `member` is a legal name.
bool readName(const JsonValue& member, Faults& faults, bool mayBeEmpty = false);

// Notes a fault unless `value` is an object.
bool readObject(const JsonValue& value, std::string_view what, Faults& faults);

// Notes that nothing of this name belongs here, unless it is to be removed.
void refuseMember(const JsonValue& member, std::string_view owner, Faults& faults);

}  // namespace vnagent
