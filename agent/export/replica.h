// The tables of one hardware_vtep database that an export looks at, as they are there.
//
// Fed with the rows of an ovsdb::Client. Whatever may differ from what is desired after a change is
// marked in the Changes of the switch. A Logical_Switch is owned when it carries the exporter's
// mark and a name that the exporter gives; every other row is foreign.
//
// One thread.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <boost/container/flat_map.hpp>

#include "agent/export/desired.h"
#include "agent/ovsdb/client.h"

namespace vnagent {

using ovsdb::Uuid;

constexpr const char* kOwnerKey = "managed-by";
constexpr const char* kOwner = "vnagent";
constexpr const char* kEveryUnknown = "unknown-dst";  // the MAC of what has no entry
constexpr const char* kEncapsulation = "vxlan_over_ipv4";
constexpr const char* kReplication = "source_node";

class Replica {
 public:
  struct LogicalSwitch {
    std::string name;
    std::set<int64_t> tunnelKey;            // one or none
    std::set<std::string> replicationMode;  // likewise
    std::map<std::string, std::string> otherConfig;
    std::optional<LogicalSwitchId> id;  // of an owned one
  };
  struct Port {
    std::string name;
    boost::container::flat_map<uint16_t, Uuid> bindings;

    // The Logical_Switch that a VLAN is bound to, or null.
    const Uuid* find(uint16_t vlan) const {
      const auto found = bindings.find(vlan);
      return found == bindings.end() ? nullptr : &found->second;
    }
  };
  // What refers to a Logical_Switch.
  struct References {
    size_t bindings = 0;          // of all ports in the database
    size_t remote = 0;            // rows of others: remote MACs
    std::set<Uuid> unknown;       // rows of Mcast_Macs_Remote for unknown-dst
    std::set<Uuid> localUnicast;  // rows that the switch wrote
    std::set<Uuid> localMulticast;
  };

  // What is monitored.
  static std::vector<ovsdb::MonitoredTable> tables();

  // `desired` and `changes` are those of the switch; kept by the caller. `physicalSwitch` is its
  // name in the database.
  Replica(std::string physicalSwitch, DesiredSwitch& desired, SwitchChanges& changes);

  // Change.

  void reset();
  // Throws ovsdb::ProtocolError.
  void apply(const ovsdb::RowChange& change);
  // To be called after a set of changes, before anything is looked up.
  void settle();

  // Lookup.

  bool hasSwitch() const { return switchRow_ != nullptr; }
  // The first of its tunnel addresses; empty where it has none.
  std::string tunnelAddress() const;
  // The row of a port, by its index in the desired switch, or null.
  const Port* port(uint32_t index) const;
  Uuid portUuid(uint32_t index) const { return *portRows_[index]; }
  // Null where there is none.
  const LogicalSwitch* logicalSwitch(const Uuid& uuid) const;
  const Uuid* logicalSwitchNamed(const std::string& name) const;
  // A Logical_Switch with this tunnel key, other than `except`; null for none.
  const LogicalSwitch* withTunnelKey(int64_t key, const Uuid* except) const;
  const References& referencesTo(const Uuid& logicalSwitch) const;
  // The addresses of the locators in the set of a row of Mcast_Macs_Remote.
  std::set<std::string> addressesOf(const Uuid& multicastRow) const;
  const Uuid* locatorOf(const std::string& address) const;
  // How many Logical_Switches are owned.
  size_t owned() const { return owned_; }

 private:
  struct SwitchRow {
    std::string name;
    std::set<Uuid> ports;
    std::set<std::string> tunnelIps;
  };
  struct Locator {
    std::string encapsulation;
    std::string address;
    std::set<int64_t> tunnelKey;
  };
  struct MulticastRow {
    std::string mac;
    std::optional<Uuid> logicalSwitch;
    std::optional<Uuid> locators;
  };
  enum class MacTable : uint8_t { kLocalUnicast, kLocalMulticast, kRemoteUnicast };

  void applySwitch(const ovsdb::RowChange& change);
  void applyPort(const ovsdb::RowChange& change);
  void applyLogicalSwitch(const ovsdb::RowChange& change);
  void applyLocator(const ovsdb::RowChange& change);
  void applyLocatorSet(const ovsdb::RowChange& change);
  void applyMulticast(const ovsdb::RowChange& change);
  void applyMac(MacTable table, const ovsdb::RowChange& change);

  void countBinding(const Uuid& logicalSwitch, bool isAdded);
  void countMulticast(const Uuid& uuid, const MulticastRow& row, bool isAdded);
  void countMac(MacTable table, const Uuid& uuid, const Uuid& logicalSwitch, bool isAdded);
  void forgetUnused(const Uuid& logicalSwitch);
  void index(const Uuid& uuid, LogicalSwitch& row, bool isAdded);
  void mark(const LogicalSwitch& row);
  void mark(const Uuid& logicalSwitch);
  void markPort(uint32_t port);
  void markBound();
  void markAdded();
  void settlePorts();

  const std::string physicalSwitch_;
  DesiredSwitch& desired_;
  SwitchChanges& changes_;

  std::unordered_map<Uuid, SwitchRow> switches_;
  std::unordered_map<Uuid, Port> ports_;
  std::unordered_map<Uuid, LogicalSwitch> logicalSwitches_;
  std::unordered_map<std::string, Uuid> byName_;
  std::multimap<int64_t, Uuid> byTunnelKey_;
  std::unordered_map<Uuid, References> references_;
  std::unordered_map<Uuid, Locator> locators_;
  std::unordered_map<std::string, Uuid> byAddress_;
  std::unordered_map<Uuid, std::set<Uuid>> locatorSets_;
  std::unordered_map<Uuid, MulticastRow> multicast_;
  std::unordered_map<Uuid, Uuid> macs_[3];  // row -> Logical_Switch
  size_t owned_ = 0;

  // Made of the above by settle().
  const SwitchRow* switchRow_ = nullptr;
  std::vector<std::optional<Uuid>> portRows_;  // by index in the desired switch
  std::unordered_map<Uuid, uint32_t> portIndexOfRow_;
  bool arePortsStale_ = true;

  // What settle() has yet to compare: bindings of ports that had none for the VLAN, and rows that
  // are new and owned. Most of them are what the exporter has just written.
  std::vector<BindingKey> bound_;
  std::vector<LogicalSwitchId> added_;
  bool isBoundAsWanted_ = true;  // so are all bindings that changed since settle()
};

}  // namespace vnagent
