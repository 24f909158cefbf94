#include "agent/export/replica.h"

#include <algorithm>
#include <utility>

namespace vnagent {
namespace {

using RowKind = ovsdb::RowChange::Kind;
using ovsdb::integerOf;
using ovsdb::JsonElement;
using ovsdb::RowChange;
using ovsdb::textOf;

uint16_t vlanOf(JsonElement atom) {
  const int64_t vlan = integerOf(atom);
  if (vlan < 0 || vlan > 4095) throw ovsdb::ProtocolError("a binding of no VLAN");
  return static_cast<uint16_t>(vlan);
}

void applyText(const RowChange& change, const char* column, std::string& target) {
  if (const auto value = change.find(column)) target = textOf(*value);
}

// An optional value: its new one stands in a modification too, where it has one; but for a
// difference of sets, in which the old one is as well.
template <class Element, class Read>
void applyOptional(const RowChange& change, const char* column, std::set<Element>& target,
                   const Read& read) {
  const auto value = change.find(column);
  if (!value) return;
  std::set<Element> named;
  ovsdb::forEachElement(*value, [&](JsonElement atom) { named.emplace(read(atom)); });
  if (change.kind == RowKind::kModify && named.size() > 1) {
    for (const Element& element : target) named.erase(element);
  } else if (change.kind == RowKind::kModify && named == target) {
    named.clear();
  }
  target = std::move(named);
}

void applyReference(const RowChange& change, const char* column, std::optional<Uuid>& target) {
  if (const auto value = change.find(column)) target = Uuid::of(*value);
}

// The row that a change is about: a new one for an insertion; null where it is unknown.
template <class Rows>
typename Rows::mapped_type* rowOf(Rows& rows, const RowChange& change) {
  if (change.isNew()) return &(rows[change.uuid] = {});
  const auto found = rows.find(change.uuid);
  return found == rows.end() ? nullptr : &found->second;
}

}  // namespace

std::vector<ovsdb::MonitoredTable> Replica::tables() {
  return {
      {"Physical_Switch", {"name", "ports", "tunnel_ips"}},
      {"Physical_Port", {"name", "vlan_bindings"}},
      {"Logical_Switch", {"name", "tunnel_key", "other_config"}, {"replication_mode"}},
      {"Physical_Locator", {"encapsulation_type", "dst_ip"}, {"tunnel_key"}},
      {"Physical_Locator_Set", {"locators"}},
      {"Mcast_Macs_Remote", {"MAC", "logical_switch", "locator_set"}},
      {"Mcast_Macs_Local", {"logical_switch"}},
      {"Ucast_Macs_Local", {"logical_switch"}},
      {"Ucast_Macs_Remote", {"logical_switch"}},
  };
}

Replica::Replica(std::string physicalSwitch, DesiredSwitch& desired, SwitchChanges& changes)
    : physicalSwitch_(std::move(physicalSwitch)), desired_(desired), changes_(changes) {}

void Replica::reset() {
  switches_.clear();
  ports_.clear();
  logicalSwitches_.clear();
  byName_.clear();
  byTunnelKey_.clear();
  references_.clear();
  locators_.clear();
  byAddress_.clear();
  locatorSets_.clear();
  multicast_.clear();
  for (auto& rows : macs_) rows.clear();
  owned_ = 0;
  switchRow_ = nullptr;
  portRows_.clear();
  portIndexOfRow_.clear();
  arePortsStale_ = true;
  bound_.clear();
  added_.clear();
  isBoundAsWanted_ = true;
  for (const auto& [id, bindings] : desired_.logicalSwitches) {
    changes_.logicalSwitches.push_back(id);
  }
}

void Replica::apply(const RowChange& change) {
  if (change.table == "Physical_Port") {
    applyPort(change);
  } else if (change.table == "Logical_Switch") {
    applyLogicalSwitch(change);
  } else if (change.table == "Mcast_Macs_Remote") {
    applyMulticast(change);
  } else if (change.table == "Physical_Locator") {
    applyLocator(change);
  } else if (change.table == "Physical_Locator_Set") {
    applyLocatorSet(change);
  } else if (change.table == "Physical_Switch") {
    applySwitch(change);
  } else if (change.table == "Ucast_Macs_Local") {
    applyMac(MacTable::kLocalUnicast, change);
  } else if (change.table == "Mcast_Macs_Local") {
    applyMac(MacTable::kLocalMulticast, change);
  } else if (change.table == "Ucast_Macs_Remote") {
    applyMac(MacTable::kRemoteUnicast, change);
  }
}

void Replica::settle() {
  if (arePortsStale_) settlePorts();
  markBound();
  markAdded();
}

void Replica::settlePorts() {
  arePortsStale_ = false;
  const auto found = std::ranges::find_if(
      switches_, [&](const auto& row) { return row.second.name == physicalSwitch_; });
  switchRow_ = found == switches_.end() ? nullptr : &found->second;

  const auto before = std::exchange(portRows_, {});
  portIndexOfRow_.clear();
  if (switchRow_ != nullptr) {
    for (const Uuid& uuid : switchRow_->ports) {
      const auto row = ports_.find(uuid);
      if (row == ports_.end()) continue;
      const uint32_t port = desired_.portOf(row->second.name);
      if (portRows_.size() <= port) portRows_.resize(port + 1);
      if (portRows_[port]) continue;  // a second port of the name
      portRows_[port] = uuid;
      portIndexOfRow_.emplace(uuid, port);
    }
  }
  for (uint32_t port = 0; port < desired_.ports.size(); ++port) {
    const auto rowIn = [port](const auto& rows) {
      return port < rows.size() ? rows[port] : std::nullopt;
    };
    if (rowIn(before) != rowIn(portRows_) || before.empty()) markPort(port);
  }
}

std::string Replica::tunnelAddress() const {
  return switchRow_ == nullptr || switchRow_->tunnelIps.empty() ? std::string()
                                                                : *switchRow_->tunnelIps.begin();
}

const Replica::Port* Replica::port(uint32_t index) const {
  if (index >= portRows_.size() || !portRows_[index]) return nullptr;
  return &ports_.at(*portRows_[index]);
}

const Replica::LogicalSwitch* Replica::logicalSwitch(const Uuid& uuid) const {
  const auto found = logicalSwitches_.find(uuid);
  return found == logicalSwitches_.end() ? nullptr : &found->second;
}

const Uuid* Replica::logicalSwitchNamed(const std::string& name) const {
  const auto found = byName_.find(name);
  return found == byName_.end() ? nullptr : &found->second;
}

const Replica::LogicalSwitch* Replica::withTunnelKey(int64_t key, const Uuid* except) const {
  const auto [begin, end] = byTunnelKey_.equal_range(key);
  for (auto at = begin; at != end; ++at) {
    if (except == nullptr || at->second != *except) return logicalSwitch(at->second);
  }
  return nullptr;
}

const Replica::References& Replica::referencesTo(const Uuid& logicalSwitch) const {
  static const References kNone;
  const auto found = references_.find(logicalSwitch);
  return found == references_.end() ? kNone : found->second;
}

std::set<std::string> Replica::addressesOf(const Uuid& multicastRow) const {
  std::set<std::string> addresses;
  const auto row = multicast_.find(multicastRow);
  if (row == multicast_.end() || !row->second.locators) return addresses;
  const auto set = locatorSets_.find(*row->second.locators);
  if (set == locatorSets_.end()) return addresses;
  for (const Uuid& uuid : set->second) {
    const auto locator = locators_.find(uuid);
    if (locator != locators_.end()) addresses.insert(locator->second.address);
  }
  return addresses;
}

const Uuid* Replica::locatorOf(const std::string& address) const {
  const auto found = byAddress_.find(address);
  return found == byAddress_.end() ? nullptr : &found->second;
}

void Replica::applySwitch(const RowChange& change) {
  arePortsStale_ = true;
  switchRow_ = nullptr;  // rows move in their table
  if (change.kind == RowKind::kDelete) {
    switches_.erase(change.uuid);
    return;
  }
  SwitchRow* row = rowOf(switches_, change);
  if (row == nullptr) return;
  applyText(change, "name", row->name);
  ovsdb::applySet(change, "ports", row->ports, Uuid::of);
  ovsdb::applySet(change, "tunnel_ips", row->tunnelIps, textOf);
}

void Replica::applyPort(const RowChange& change) {
  if (change.isNew() || change.kind == RowKind::kDelete || change.find("name")) {
    arePortsStale_ = true;
  }
  if (change.kind == RowKind::kDelete) {
    const auto found = ports_.find(change.uuid);
    if (found == ports_.end()) return;
    for (const auto& [vlan, target] : found->second.bindings) countBinding(target, false);
    ports_.erase(found);
    return;
  }
  Port* row = rowOf(ports_, change);
  if (row == nullptr) return;
  applyText(change, "name", row->name);
  const auto index = portIndexOfRow_.find(change.uuid);
  const bool isKnown = index != portIndexOfRow_.end();
  ovsdb::applyMap(change, "vlan_bindings", row->bindings, vlanOf, Uuid::of,
                  [&](uint16_t vlan, const Uuid* before, const Uuid* after) {
                    if (before != nullptr) countBinding(*before, false);
                    if (after != nullptr) countBinding(*after, true);
                    if (!isKnown || before != nullptr) isBoundAsWanted_ = false;
                    if (!isKnown) return;
                    const BindingKey key{index->second, vlan};
                    if (before == nullptr) {
                      bound_.push_back(key);
                    } else if (after != nullptr || desired_.find(key) != nullptr) {
                      changes_.bindings.push_back(key);
                    }
                  });
}

void Replica::applyLogicalSwitch(const RowChange& change) {
  const auto found = logicalSwitches_.find(change.uuid);
  const bool isKnown = found != logicalSwitches_.end();
  if (isKnown) {
    mark(found->second);
    index(change.uuid, found->second, false);
  }
  if (change.kind == RowKind::kDelete) {
    logicalSwitches_.erase(change.uuid);
    forgetUnused(change.uuid);
    return;
  }
  LogicalSwitch* row = rowOf(logicalSwitches_, change);
  if (row == nullptr) return;
  applyText(change, "name", row->name);
  applyOptional(change, "tunnel_key", row->tunnelKey, integerOf);
  applyOptional(change, "replication_mode", row->replicationMode, textOf);
  ovsdb::applyMap(change, "other_config", row->otherConfig, textOf, textOf,
                  [](const std::string&, const std::string*, const std::string*) {});
  const auto mark = row->otherConfig.find(kOwnerKey);
  const bool isOwned = mark != row->otherConfig.end() && mark->second == kOwner;
  row->id = isOwned ? LogicalSwitchId::parse(row->name) : std::nullopt;
  index(change.uuid, *row, true);
  if (!isKnown && row->id) {
    changes_.logicalSwitches.push_back(*row->id);
    added_.push_back(*row->id);
  } else {
    this->mark(*row);
  }
}

void Replica::applyLocator(const RowChange& change) {
  const auto found = locators_.find(change.uuid);
  if (found != locators_.end()) {
    const auto indexed = byAddress_.find(found->second.address);
    if (indexed != byAddress_.end() && indexed->second == change.uuid) byAddress_.erase(indexed);
  }
  if (change.kind == RowKind::kDelete) {
    locators_.erase(change.uuid);
    return;
  }
  Locator* row = rowOf(locators_, change);
  if (row == nullptr) return;
  // The one encapsulation of the schema is its default, and may be left out.
  applyText(change, "encapsulation_type", row->encapsulation);
  applyText(change, "dst_ip", row->address);
  applyOptional(change, "tunnel_key", row->tunnelKey, integerOf);
  const bool isPlain = row->tunnelKey.empty() &&
                       (row->encapsulation.empty() || row->encapsulation == kEncapsulation);
  if (isPlain) byAddress_.insert_or_assign(row->address, change.uuid);
}

void Replica::applyLocatorSet(const RowChange& change) {
  if (change.kind == RowKind::kDelete) {
    locatorSets_.erase(change.uuid);
    return;
  }
  std::set<Uuid>* row = rowOf(locatorSets_, change);
  if (row != nullptr) ovsdb::applySet(change, "locators", *row, Uuid::of);
}

void Replica::applyMulticast(const RowChange& change) {
  const auto found = multicast_.find(change.uuid);
  if (found != multicast_.end()) countMulticast(change.uuid, found->second, false);
  if (change.kind == RowKind::kDelete) {
    multicast_.erase(change.uuid);
    return;
  }
  MulticastRow* row = rowOf(multicast_, change);
  if (row == nullptr) return;
  applyText(change, "MAC", row->mac);
  applyReference(change, "logical_switch", row->logicalSwitch);
  applyReference(change, "locator_set", row->locators);
  countMulticast(change.uuid, *row, true);
}

void Replica::applyMac(MacTable table, const RowChange& change) {
  auto& rows = macs_[static_cast<size_t>(table)];
  const auto found = rows.find(change.uuid);
  if (found != rows.end()) {
    countMac(table, change.uuid, found->second, false);
    if (change.kind == RowKind::kDelete || change.find("logical_switch")) rows.erase(found);
  }
  if (change.kind == RowKind::kDelete) return;
  if (const auto value = change.find("logical_switch")) rows[change.uuid] = Uuid::of(*value);
  const auto now = rows.find(change.uuid);
  if (now != rows.end()) countMac(table, change.uuid, now->second, true);
}

void Replica::countBinding(const Uuid& logicalSwitch, bool isAdded) {
  References& references = references_[logicalSwitch];
  references.bindings += isAdded ? 1 : size_t(-1);
  if (references.bindings == 0) {
    mark(logicalSwitch);
    forgetUnused(logicalSwitch);
  }
}

void Replica::countMulticast(const Uuid& uuid, const MulticastRow& row, bool isAdded) {
  if (!row.logicalSwitch) return;
  References& references = references_[*row.logicalSwitch];
  if (row.mac != kEveryUnknown) {
    references.remote += isAdded ? 1 : size_t(-1);
  } else if (isAdded) {
    references.unknown.insert(uuid);
  } else {
    references.unknown.erase(uuid);
  }
  mark(*row.logicalSwitch);
  forgetUnused(*row.logicalSwitch);
}

void Replica::countMac(MacTable table, const Uuid& uuid, const Uuid& logicalSwitch, bool isAdded) {
  References& references = references_[logicalSwitch];
  if (table == MacTable::kRemoteUnicast) {
    references.remote += isAdded ? 1 : size_t(-1);
    mark(logicalSwitch);
  } else {
    auto& rows =
        table == MacTable::kLocalUnicast ? references.localUnicast : references.localMulticast;
    if (isAdded) {
      rows.insert(uuid);
    } else {
      rows.erase(uuid);
    }
  }
  forgetUnused(logicalSwitch);
}

void Replica::forgetUnused(const Uuid& logicalSwitch) {
  const auto found = references_.find(logicalSwitch);
  if (found == references_.end()) return;
  const References& of = found->second;
  const bool isUsed = of.bindings != 0 || of.remote != 0 || !of.unknown.empty() ||
                      !of.localUnicast.empty() || !of.localMulticast.empty();
  if (!isUsed) references_.erase(found);
}

void Replica::index(const Uuid& uuid, LogicalSwitch& row, bool isAdded) {
  if (isAdded) {
    byName_.insert_or_assign(row.name, uuid);
    for (const int64_t key : row.tunnelKey) byTunnelKey_.emplace(key, uuid);
    owned_ += row.id ? 1 : 0;
    return;
  }
  const auto named = byName_.find(row.name);
  if (named != byName_.end() && named->second == uuid) byName_.erase(named);
  for (const int64_t key : row.tunnelKey) {
    const auto [begin, end] = byTunnelKey_.equal_range(key);
    const auto found =
        std::find_if(begin, end, [&](const auto& one) { return one.second == uuid; });
    if (found != end) byTunnelKey_.erase(found);
  }
  owned_ -= row.id ? 1 : 0;
}

// A row matters for the Logical_Switch of its name, and for that of its tunnel key.
void Replica::mark(const LogicalSwitch& row) {
  const auto markId = [&](LogicalSwitchId id) {
    changes_.logicalSwitches.push_back(id);
    const auto desired = desired_.logicalSwitches.find(id);
    if (desired == desired_.logicalSwitches.end()) return;
    changes_.bindings.insert(changes_.bindings.end(), desired->second.begin(),
                             desired->second.end());
  };
  const auto named = LogicalSwitchId::parse(row.name);
  if (named) markId(*named);
  for (const int64_t key : row.tunnelKey) {
    if (key <= 0 || key > LogicalSwitchId::kLargestVni) continue;
    const auto id = LogicalSwitchId::ofVni(static_cast<uint32_t>(key));
    if (id != named) markId(id);
  }
}

void Replica::mark(const Uuid& logicalSwitch) {
  const LogicalSwitch* row = this->logicalSwitch(logicalSwitch);
  if (row == nullptr) return;
  if (const auto id = LogicalSwitchId::parse(row->name)) changes_.logicalSwitches.push_back(*id);
}

// Every VLAN that a port is to have, or has; in order, and each once.
void Replica::markPort(uint32_t port) {
  static const decltype(Port::bindings) kNone;
  const auto& wanted = desired_.ports[port].bindings;
  const Port* row = this->port(port);
  const auto& present = row == nullptr ? kNone : row->bindings;
  auto next = wanted.begin();
  for (const auto& [vlan, target] : present) {
    for (; next != wanted.end() && next->first < vlan; ++next) {
      changes_.bindings.push_back({port, next->first});
    }
    if (next != wanted.end() && next->first == vlan) ++next;
    changes_.bindings.push_back({port, vlan});
  }
  for (; next != wanted.end(); ++next) changes_.bindings.push_back({port, next->first});
}

// Marks new bindings that are not as is desired.
void Replica::markBound() {
  for (const BindingKey& key : bound_) {
    const LogicalSwitchId* wanted = desired_.find(key);
    const Port* row = port(key.port);
    const Uuid* present = row == nullptr ? nullptr : row->find(key.vlan);
    const LogicalSwitch* target = present == nullptr ? nullptr : logicalSwitch(*present);
    const bool isAsWanted = wanted != nullptr && target != nullptr && target->id == *wanted;
    if (isAsWanted) continue;
    isBoundAsWanted_ = false;
    changes_.bindings.push_back(key);
  }
  bound_.clear();
}

// Marks the bindings that lack to Logical_Switches that are new.
void Replica::markAdded() {
  for (const LogicalSwitchId id : added_) {
    const auto desired = desired_.logicalSwitches.find(id);
    if (desired == desired_.logicalSwitches.end()) continue;
    const Uuid* uuid = logicalSwitchNamed(id.name());
    // All that is bound to it is as new as itself: so many, and all as wanted, means all of them.
    const bool isComplete = isBoundAsWanted_ && uuid != nullptr &&
                            referencesTo(*uuid).bindings == desired->second.size();
    if (isComplete) continue;
    for (const BindingKey& key : desired->second) {
      const Port* row = port(key.port);
      if (row == nullptr) continue;
      const Uuid* present = row->find(key.vlan);
      const bool isBound = uuid != nullptr && present != nullptr && *present == *uuid;
      if (!isBound) changes_.bindings.push_back(key);
    }
  }
  added_.clear();
  isBoundAsWanted_ = true;
}

}  // namespace vnagent
