#include "agent/export/planner.h"

#include <algorithm>
#include <map>
#include <set>
#include <unordered_map>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <nlohmann/json.hpp>

namespace vnagent {
namespace {

std::string jsonText(std::string_view text) {
  return nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string namedUuid(const std::string& name) {
  return fmt::format(R"(["named-uuid","{}"])", name);
}

std::string reference(const Uuid& uuid) {
  std::string json;
  uuid.appendTo(json);
  return json;
}

std::string whereUuid(const Uuid& uuid) {
  return fmt::format(R"("where":[["_uuid","==",{}]])", reference(uuid));
}

std::string counted(size_t count, const char* what, const char* done) {
  return fmt::format("{} {}{} {}", count, what,
                     count == 1 ? "" : (std::string_view(what).ends_with("h") ? "es" : "s"), done);
}

}  // namespace

std::string SwitchPlan::summary() const {
  std::vector<std::string> parts;
  const auto add = [&parts](size_t count, const char* what, const char* done) {
    if (count != 0) parts.push_back(counted(count, what, done));
  };
  add(logicalSwitchesAdded, "logical switch", "added");
  add(logicalSwitchesChanged, "logical switch", "changed");
  add(logicalSwitchesRemoved, "logical switch", "removed");
  add(bindingsAdded, "binding", "added");
  add(bindingsRemoved, "binding", "removed");
  add(floodsChanged, "flooding list", "changed");
  return fmt::format("{}", fmt::join(parts, ", "));
}

// The work on one plan.
class Planner::Run {
 public:
  Run(const Planner& planner, bool hasReplicationMode)
      : planner_(planner),
        desired_(planner.desired_.at(planner.index_)),
        replica_(planner.replica_),
        problems_(planner.problems_),
        mayRemove_(planner.mode_ != ExportMode::kAddOnly),
        isReport_(planner.mode_ == ExportMode::kReport),
        hasReplicationMode_(hasReplicationMode) {}

  SwitchPlan plan(const SwitchChanges& changes) {
    // Most of a large plan are bindings: a VLAN, and a reference.
    plan_.operations.reserve(64 * changes.bindings.size());
    std::vector<BindingKey> more;
    for (const LogicalSwitchId id : changes.logicalSwitches) {
      const auto wanted = desired_.logicalSwitches.find(id);
      if (wanted == desired_.logicalSwitches.end() || !ensure(id)) continue;
      // Nothing could be bound to it before.
      std::ranges::copy_if(wanted->second, std::back_inserter(more),
                           [&changes](const BindingKey& key) {
                             return !std::ranges::binary_search(changes.bindings, key);
                           });
    }
    if (more.empty()) {
      planBindings(changes.bindings);
    } else {
      more.insert(more.end(), changes.bindings.begin(), changes.bindings.end());
      std::ranges::sort(more);
      planBindings(more);
    }
    for (const LogicalSwitchId id : changes.logicalSwitches) {
      if (!desired_.logicalSwitches.contains(id)) remove(id);
    }
    return std::move(plan_);
  }

 private:
  using Iterator = std::vector<BindingKey>::const_iterator;

  void planBindings(const std::vector<BindingKey>& bindings) {
    for (auto at = bindings.begin(); at != bindings.end();) {
      const auto end = std::find_if(at, bindings.end(), [port = at->port](const BindingKey& key) {
        return key.port != port;
      });
      planPort(at->port, at, end);
      at = end;
    }
  }

  std::string placeOf(const std::string& thing) const { return desired_.name + '/' + thing; }

  void operation(std::string_view json) {
    if (!plan_.operations.empty()) plan_.operations += ',';
    plan_.operations += json;
  }

  void differs(char sign, const std::string& text) {
    if (isReport_) plan_.differences.push_back(fmt::format("{} {}", sign, text));
  }

  // Logical_Switches.

  // Plans the row of a Logical_Switch that is wanted. Returns whether it is a new one.
  bool ensure(LogicalSwitchId id) {
    const std::string name = id.name();
    const Uuid* uuid = replica_.logicalSwitchNamed(name);
    const auto* row = uuid == nullptr ? nullptr : replica_.logicalSwitch(*uuid);
    if (row != nullptr && !row->id) {
      blocked(id, fmt::format("a Logical_Switch \"{}\" is there that is not managed by {}", name,
                              kOwner));
      return false;
    }
    const auto* other = id.vni() ? replica_.withTunnelKey(*id.vni(), uuid) : nullptr;
    if (other != nullptr) {
      blocked(id,
              fmt::format("Logical_Switch \"{}\" has the tunnel key {}", other->name, *id.vni()));
      return false;
    }
    problems_.clear(ProblemKind::kForeignRow, placeOf(name));
    if (row == nullptr) {
      insert(id, name);
    } else {
      correct(id, *uuid, *row);
    }
    flood(id, uuid);
    return row == nullptr;
  }

  void blocked(LogicalSwitchId id, const std::string& why) {
    problems_.set(ProblemKind::kForeignRow, placeOf(id.name()),
                  fmt::format("{}: {}; nothing is bound to {}", desired_.name, why, id.name()));
  }

  std::string columnsOf(LogicalSwitchId id) const {
    std::string columns;
    if (id.vni()) columns += fmt::format(R"("tunnel_key":{})", *id.vni());
    if (!id.vni()) columns += R"("tunnel_key":["set",[]])";
    if (hasReplicationMode_) columns += fmt::format(R"(,"replication_mode":"{}")", kReplication);
    return columns;
  }

  void insert(LogicalSwitchId id, const std::string& name) {
    operation(fmt::format(R"({{"op":"insert","table":"Logical_Switch","uuid-name":"{}","row":)"
                          R"({{"name":"{}","other_config":["map",[["{}","{}"]]],{}}}}})",
                          name, name, kOwnerKey, kOwner, columnsOf(id)));
    inserted_.insert(id);
    ++plan_.logicalSwitchesAdded;
    differs('+', "Logical_Switch " + name);
  }

  void correct(LogicalSwitchId id, const Uuid& uuid, const Replica::LogicalSwitch& row) {
    std::set<int64_t> key;
    if (id.vni()) key.insert(*id.vni());
    const bool isMode = !hasReplicationMode_ || row.replicationMode.contains(kReplication);
    if (row.tunnelKey == key && isMode) return;
    operation(fmt::format(R"({{"op":"update","table":"Logical_Switch",{},"row":{{{}}}}})",
                          whereOwned(uuid), columnsOf(id)));
    ++plan_.logicalSwitchesChanged;
    differs('~', fmt::format("Logical_Switch {}: tunnel key or replication mode", row.name));
  }

  static std::string whereOwned(const Uuid& uuid) {
    return fmt::format(
        R"("where":[["_uuid","==",{}],["other_config","includes",["map",[["{}","{}"]]]]])",
        reference(uuid), kOwnerKey, kOwner);
  }

  // Removes the row of a Logical_Switch that is not wanted, where it is owned and nothing refers to
  // it any more.
  void remove(LogicalSwitchId id) {
    const std::string name = id.name();
    const Uuid* uuid = replica_.logicalSwitchNamed(name);
    const auto* row = uuid == nullptr ? nullptr : replica_.logicalSwitch(*uuid);
    problems_.clear(ProblemKind::kForeignRow, placeOf(name));
    if (row == nullptr || !row->id || !mayRemove_) return;
    const Replica::References& references = replica_.referencesTo(*uuid);
    const auto unbound = unbound_.find(*uuid);
    const size_t bound = references.bindings - (unbound == unbound_.end() ? 0 : unbound->second);
    if (bound > 0 || references.remote > 0) {
      problems_.set(ProblemKind::kForeignRow, placeOf(name),
                    fmt::format("{}: Logical_Switch \"{}\" is not needed, and stays while rows of "
                                "others refer to it",
                                desired_.name, name));
      return;
    }
    for (const Uuid& flood : references.unknown) removeFlood(flood);
    const auto removeLocal = [&](const char* table, const std::set<Uuid>& rows) {
      if (rows.empty()) return;
      operation(
          fmt::format(R"({{"op":"delete","table":"{}","where":[["logical_switch","==",{}]]}})",
                      table, reference(*uuid)));
    };
    removeLocal("Ucast_Macs_Local", references.localUnicast);
    removeLocal("Mcast_Macs_Local", references.localMulticast);
    operation(fmt::format(R"({{"op":"delete","table":"Logical_Switch",{}}})", whereOwned(*uuid)));
    ++plan_.logicalSwitchesRemoved;
    differs('-', "Logical_Switch " + name);
  }

  // Flooding: the row for unknown-dst.

  // `uuid` is that of the Logical_Switch, null for a new one.
  void flood(LogicalSwitchId id, const Uuid* uuid) {
    static const std::set<Uuid> kNone;
    const auto& rows = uuid == nullptr ? kNone : replica_.referencesTo(*uuid).unknown;
    if (!id.vni()) {
      if (mayRemove_) std::ranges::for_each(rows, [this](const Uuid& row) { removeFlood(row); });
      return;
    }
    Desired::Members others = planner_.desired_.othersOf(planner_.index_, id);
    const std::set<std::string> present =
        rows.empty() ? std::set<std::string>() : replica_.addressesOf(*rows.begin());
    // What is there may be the address that is not known yet.
    if (!others.isComplete || !mayRemove_) {
      others.addresses.insert(present.begin(), present.end());
    }
    auto row = rows.begin();
    if (!others.addresses.empty()) {
      if (rows.empty() || others.addresses != present) {
        changeFlood(id, uuid, rows.empty() ? nullptr : &*row, others.addresses);
      }
      if (row != rows.end()) ++row;
    }
    if (!mayRemove_) return;
    for (; row != rows.end(); ++row) removeFlood(*row);
  }

  void changeFlood(LogicalSwitchId id, const Uuid* logicalSwitch, const Uuid* row,
                   const std::set<std::string>& addresses) {
    const std::string name = id.name();
    std::string locators;
    for (const std::string& address : addresses) {
      if (!locators.empty()) locators += ',';
      locators += locator(address);
    }
    operation(fmt::format(R"({{"op":"insert","table":"Physical_Locator_Set","uuid-name":"set_{}",)"
                          R"("row":{{"locators":["set",[{}]]}}}})",
                          name, locators));
    const std::string set = namedUuid("set_" + name);
    if (row != nullptr) {
      operation(fmt::format(
          R"({{"op":"update","table":"Mcast_Macs_Remote",{},"row":{{"locator_set":{}}}}})",
          whereUuid(*row), set));
    } else {
      operation(fmt::format(R"({{"op":"insert","table":"Mcast_Macs_Remote","row":)"
                            R"({{"MAC":"{}","logical_switch":{},"locator_set":{}}}}})",
                            kEveryUnknown,
                            logicalSwitch == nullptr ? namedUuid(name) : reference(*logicalSwitch),
                            set));
    }
    ++plan_.floodsChanged;
    differs(row == nullptr ? '+' : '~',
            fmt::format("{} of {}: {}", kEveryUnknown, name, fmt::join(addresses, ", ")));
  }

  void removeFlood(const Uuid& row) {
    operation(fmt::format(R"({{"op":"delete","table":"Mcast_Macs_Remote",{}}})", whereUuid(row)));
    ++plan_.floodsChanged;
    differs('-', fmt::format("{}: {}", kEveryUnknown, fmt::join(replica_.addressesOf(row), ", ")));
  }

  // A reference to the locator of an address, which is made where there is none.
  std::string locator(const std::string& address) {
    if (const Uuid* uuid = replica_.locatorOf(address)) return reference(*uuid);
    const auto [found, isNew] =
        locators_.try_emplace(address, fmt::format("locator_{}", locators_.size()));
    if (isNew) {
      operation(fmt::format(R"({{"op":"insert","table":"Physical_Locator","uuid-name":"{}",)"
                            R"("row":{{"encapsulation_type":"{}","dst_ip":{}}}}})",
                            found->second, kEncapsulation, jsonText(address)));
    }
    return namedUuid(found->second);
  }

  // Bindings.

  void planPort(uint32_t port, Iterator begin, Iterator end) {
    const Replica::Port* row = replica_.port(port);
    const DesiredSwitch::Port& wanted = desired_.ports[port];
    const std::string place = placeOf(wanted.name);
    if (row == nullptr) {
      if (wanted.bindings.empty() || !replica_.hasSwitch()) {
        problems_.clear(ProblemKind::kMissingPort, place);
      } else {
        problems_.set(ProblemKind::kMissingPort, place,
                      fmt::format("switch \"{}\" has no port \"{}\"", desired_.name, wanted.name));
      }
      clearForeign(wanted, begin, end);
      return;
    }
    problems_.clear(ProblemKind::kMissingPort, place);
    removals_.clear();
    additions_.clear();
    for (auto at = begin; at != end; ++at) planBinding(*at, *row);
    if (removals_.empty() && additions_.empty()) return;
    operation(fmt::format(R"({{"op":"mutate","table":"Physical_Port",{},"mutations":[)",
                          whereUuid(replica_.portUuid(port))));
    std::string& json = plan_.operations;
    const auto mutation = [&json](const char* mutator, const std::string& pairs) {
      if (pairs.empty()) return;
      if (json.back() != '[') json += ',';
      fmt::format_to(std::back_inserter(json), R"(["vlan_bindings","{}",["map",[)", mutator);
      json += pairs;
      json += "]]]";
    };
    mutation("delete", removals_);
    mutation("insert", additions_);
    json += "]}";
  }

  void clearForeign(const DesiredSwitch::Port& wanted, Iterator begin, Iterator end) {
    if (!problems_.any(ProblemKind::kForeignBinding)) return;
    for (auto at = begin; at != end; ++at) {
      problems_.clear(ProblemKind::kForeignBinding, bindingPlace(wanted, at->vlan));
    }
  }

  std::string bindingPlace(const DesiredSwitch::Port& port, uint16_t vlan) const {
    return fmt::format("{}/{}/{}", desired_.name, port.name, vlan);
  }

  void planBinding(BindingKey key, const Replica::Port& row) {
    const DesiredSwitch::Port& port = desired_.ports[key.port];
    const LogicalSwitchId* wanted = desired_.find(key);
    const Uuid* present = row.find(key.vlan);
    const auto* target = present == nullptr ? nullptr : replica_.logicalSwitch(*present);
    const bool isOwned = target != nullptr && target->id.has_value();
    if (wanted != nullptr && isOwned && target->id == *wanted) {
      clearForeignBinding(port, key.vlan);
      return;
    }
    if (present != nullptr && !isOwned) {
      if (wanted == nullptr) {
        clearForeignBinding(port, key.vlan);
      } else {
        problems_.set(ProblemKind::kForeignBinding, bindingPlace(port, key.vlan),
                      fmt::format("{}/{}: VLAN {} is bound to Logical_Switch \"{}\", which is not "
                                  "managed by {}",
                                  desired_.name, port.name, key.vlan,
                                  target == nullptr ? "" : target->name, kOwner));
      }
      return;
    }
    clearForeignBinding(port, key.vlan);
    if (present != nullptr) {
      if (!mayRemove_) return;
      append(removals_, key.vlan, reference(*present));
      ++unbound_[*present];
      ++plan_.bindingsRemoved;
      differs('-', fmt::format("{} VLAN {}: {}", port.name, key.vlan, target->name));
    }
    if (wanted == nullptr) return;
    const std::string& to = referenceTo(*wanted);
    if (to.empty()) return;  // it cannot be made, which is reported
    append(additions_, key.vlan, to);
    ++plan_.bindingsAdded;
    differs('+', fmt::format("{} VLAN {}: {}", port.name, key.vlan, wanted->name()));
  }

  void clearForeignBinding(const DesiredSwitch::Port& port, uint16_t vlan) {
    if (!problems_.any(ProblemKind::kForeignBinding)) return;
    problems_.clear(ProblemKind::kForeignBinding, bindingPlace(port, vlan));
  }

  static void append(std::string& pairs, uint16_t vlan, const std::string& to) {
    if (!pairs.empty()) pairs += ',';
    pairs += '[';
    pairs += std::to_string(vlan);
    pairs += ',';
    pairs += to;
    pairs += ']';
  }

  // Of a row that is there and owned, or of one that this plan makes; else empty.
  // REQUIRES: the rows are planned.
  const std::string& referenceTo(LogicalSwitchId id) {
    const auto [found, isNew] = references_.try_emplace(id);
    if (!isNew) return found->second;
    const std::string name = id.name();
    if (inserted_.contains(id)) return found->second = namedUuid(name);
    const Uuid* uuid = replica_.logicalSwitchNamed(name);
    if (uuid != nullptr && replica_.logicalSwitch(*uuid)->id) found->second = reference(*uuid);
    return found->second;
  }

  const Planner& planner_;
  const DesiredSwitch& desired_;
  const Replica& replica_;
  Problems& problems_;
  const bool mayRemove_;
  const bool isReport_;
  const bool hasReplicationMode_;
  SwitchPlan plan_;
  std::set<LogicalSwitchId> inserted_;
  std::unordered_map<LogicalSwitchId, std::string> references_;  // empty: there is no row
  std::string removals_;                                         // of one port
  std::string additions_;                                        // likewise
  std::map<std::string, std::string> locators_;  // made by this plan: address -> name
  std::unordered_map<Uuid, size_t> unbound_;     // bindings that this plan removes
};

Planner::Planner(const Desired& desired, size_t index, const Replica& replica, ExportMode mode,
                 Problems& problems)
    : desired_(desired), index_(index), replica_(replica), mode_(mode), problems_(problems) {}

SwitchPlan Planner::plan(const SwitchChanges& changes, bool hasReplicationMode) {
  return Run(*this, hasReplicationMode).plan(changes);
}

}  // namespace vnagent
