// What an export cannot do, for as long as it cannot: one text for each kind and place.
//
// One thread.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <utility>

namespace vnagent {

enum class ProblemKind : uint8_t {
  kTwoVnis,            // a VLAN of a port has more than one VNI
  kTwoNatives,         // a port has more than one native VLAN
  kNativeWithoutVlan,  // a native VLAN is not among the VLANs of its port
  kUnknownSwitch,      // the map has no such switch
  kHostWithoutPlace,   // the map does not say which port a host is connected to
  kMissingSwitch,      // the database has no such Physical_Switch
  kMissingPort,        // the switch has no such port
  kForeignRow,         // a row that the exporter does not own prevents what is asked for
  kForeignBinding,     // a VLAN of a port is bound to a Logical_Switch of somebody else
  kNoTunnelAddress,    // other switches cannot send to a switch, as its address is unknown
  kUnreachable,        // a database, or the agent, does not answer
  kLocked,             // another exporter has the lock of a database
  kRefused,            // a database refuses a transaction
};
constexpr size_t kProblemKinds = 13;

// As metrics and --status name it: "two-vnis".
std::string_view nameOf(ProblemKind kind);

class Problems {
 public:
  using Key = std::pair<ProblemKind, std::string>;
  // `isNew` is false when a problem is over.
  using Changed = std::function<void(ProblemKind kind, const std::string& place,
                                     const std::string& text, bool isNew)>;

  // Called at each change. Without it nothing is.
  void changedIs(Changed changed) { changed_ = std::move(changed); }

  // `place` names what it is about: "leaf-1/swp1/100". The same text again is no change.
  void set(ProblemKind kind, const std::string& place, const std::string& text);
  void clear(ProblemKind kind, const std::string& place);

  // Whether there is a problem of this kind, anywhere; cheap.
  bool any(ProblemKind kind) const { return counts_[static_cast<size_t>(kind)] != 0; }
  size_t count(ProblemKind kind) const { return counts_[static_cast<size_t>(kind)]; }
  const std::map<Key, std::string>& all() const { return texts_; }

 private:
  std::map<Key, std::string> texts_;
  std::array<size_t, kProblemKinds> counts_{};
  Changed changed_;
};

}  // namespace vnagent
