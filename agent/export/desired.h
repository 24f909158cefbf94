// What the output document asks of the switches of a map, as bindings and Logical_Switches.
//
// Fed with a whole document, or with merge patches on it; both change only what differs, and mark
// that in the Changes of each switch, so that a patch of one VLAN costs the same whatever else a
// switch has.
//
//   Desired desired(map, problems);
//   desired.replace(document);
//   desired.merge(patch);
//   for (size_t i = 0; i < desired.size(); ++i) plan(desired.at(i), desired.changesOf(i)) ...
//
// What the documents ask for and what cannot be expressed is reported to Problems. One thread.
#pragma once

#include <compare>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <tuple>
#include <unordered_map>
#include <vector>

#include <simdjson.h>
#include <boost/container/flat_map.hpp>
#include <boost/container/flat_set.hpp>

#include "agent/export/logical_switch_id.h"
#include "agent/export/map.h"
#include "agent/export/problems.h"

namespace vnagent {

// A VLAN of a port; VLAN 0 is what has no tag. Ports are counted by each switch.
struct BindingKey {
  uint32_t port = 0;
  uint16_t vlan = 0;

  friend auto operator<=>(const BindingKey&, const BindingKey&) = default;
};

// What is to be compared with the database again. May name a thing more than once.
struct SwitchChanges {
  std::vector<BindingKey> bindings;
  std::vector<LogicalSwitchId> logicalSwitches;

  bool empty() const { return bindings.empty() && logicalSwitches.empty(); }
  void append(const SwitchChanges& more);
  void normalise();  // sorts, and removes repetitions
};

struct DesiredSwitch {
  struct Port {
    std::string name;  // as in the database
    boost::container::flat_map<uint16_t, LogicalSwitchId> bindings;
  };

  std::string name;           // as in the output document
  std::string tunnelAddress;  // empty while it is unknown
  std::vector<Port> ports;    // all that were ever named, here or in the database
  std::map<std::string, uint32_t, std::less<>> portIndex;
  // With what is bound to each.
  std::unordered_map<LogicalSwitchId, std::set<BindingKey>> logicalSwitches;

  // The index of a port by its name in the database; a new one where there is none.
  uint32_t portOf(std::string_view name);
  // The Logical_Switch that a VLAN is to be bound to, or null.
  const LogicalSwitchId* find(const BindingKey& key) const;
};

// A document that is no output document. what() begins with the place as a JSON Pointer.
class InvalidOutput : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class Desired {
 public:
  using JsonElement = simdjson::dom::element;

  // Both are kept by the caller, for as long as this lives.
  Desired(const ExportMap& map, Problems& problems);
  ~Desired();
  Desired(const Desired&) = delete;
  Desired& operator=(const Desired&) = delete;

  // Change.

  // Throws InvalidOutput; what was read before the fault is applied.
  void replace(JsonElement document);
  void merge(JsonElement patch);

  // The address that others send to; empty: it is unknown.
  void tunnelAddressIs(size_t index, const std::string& address);

  // Lookup. Switches have the order of the map.

  size_t size() const { return switches_.size(); }
  const DesiredSwitch& at(size_t index) const { return switches_[index]; }
  DesiredSwitch& at(size_t index) { return switches_[index]; }
  SwitchChanges& changesOf(size_t index) { return changes_[index]; }

  // The other switches that have a Logical_Switch, by their addresses; `isComplete` is false where
  // the address of one is unknown.
  struct Members {
    std::set<std::string> addresses;
    bool isComplete = true;
  };
  Members othersOf(size_t index, LogicalSwitchId id) const;

 private:
  enum class SourceKind : uint8_t { kHost, kSwitchPort, kInterface };
  using SourceKey = std::tuple<SourceKind, std::string, std::string>;
  using Vnis = boost::container::flat_set<uint32_t>;
  struct Place {
    size_t switchIndex;
    uint32_t port;
  };
  // One thing of the document that asks for VLANs, and the ports where it does.
  struct Source {
    boost::container::flat_map<uint16_t, Vnis> vlans;
    uint16_t native = 0;
    std::vector<Place> places;
  };
  struct Touched {
    std::vector<uint16_t> vlans;
    bool isNative = false;
  };

  // Sources of a document.
  Source& sourceOf(const SourceKey& key);
  void remove(const SourceKey& key);
  void removeAll(SourceKind kind, const std::string& name);
  void mergeSource(const SourceKey& key, JsonElement patch);
  void mergeVlans(Source& source, JsonElement patch, const std::string& place, Touched& touched);
  void mergeHosts(JsonElement patch);
  void mergeSwitchPorts(JsonElement patch);
  void mergeElements(JsonElement patch);
  void mergeInterfaces(SourceKind kind, const std::string& name, JsonElement patch);
  void replaceSource(const SourceKey& key, JsonElement value);
  void reportPlace(const SourceKey& key, bool hasVlans);

  // Consequences.
  void update(const Source& source, const Touched& touched);
  void updatePort(const Place& place, const Touched& touched);
  uint16_t nativeOf(const Place& place);
  std::optional<LogicalSwitchId> resolve(const Place& place, uint16_t vlan);
  void setBinding(const Place& place, uint16_t vlan, std::optional<LogicalSwitchId> id);
  void markOthers(size_t index, LogicalSwitchId id);
  std::string labelOf(const Place& place) const;

  const ExportMap& map_;
  Problems& problems_;
  std::vector<DesiredSwitch> switches_;
  std::vector<SwitchChanges> changes_;
  std::map<std::string, size_t, std::less<>> switchIndex_;
  std::map<SourceKey, Source> sources_;
  std::vector<std::vector<std::vector<const Source*>>> sourcesAt_;  // by switch and port
  std::vector<std::vector<uint16_t>> natives_;                      // likewise
  std::map<LogicalSwitchId, std::set<size_t>> members_;             // of Logical_Switches with VNI
  std::map<std::string, std::set<SourceKey>> withoutSwitch_;        // by the switch's name
  std::set<SourceKey> seen_;                                        // by replace(), while it runs
  bool isWhole_ = false;                                            // replace() runs
};

}  // namespace vnagent
