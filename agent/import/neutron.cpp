#include "agent/import/neutron.h"

#include <algorithm>

#include <fmt/format.h>

#include "agent/document/vocabulary.h"

namespace vnagent {
namespace {

constexpr uint8_t kOtherSegment = 2;
constexpr int64_t kMaxLevel = 255;

// The text under a key, or nothing where it is absent, null or something else.
std::optional<std::string> textOf(const JsonValue& object, std::string_view key) {
  const JsonValue* at = object.find(key);
  if (at == nullptr || at->kind != JsonValue::Kind::kString) return std::nullopt;
  return std::string(at->text);
}

std::string textOrEmpty(const JsonValue& object, std::string_view key) {
  return textOf(object, key).value_or(std::string());
}

// The integer under a key; nothing where it is absent, null, something else or beyond low..high.
std::optional<int64_t> integerOf(const JsonValue& object, std::string_view key, int64_t low,
                                 int64_t high) {
  const JsonValue* at = object.find(key);
  const bool fits = at != nullptr && at->kind == JsonValue::Kind::kInteger && at->integer >= low &&
                    at->integer <= high;
  return fits ? std::optional(at->integer) : std::nullopt;
}

// True where a scalar or null has the same value under both keys; an absent one is null.
bool isSame(const JsonValue& a, std::string_view keyA, const JsonValue& b, std::string_view keyB) {
  static constexpr JsonValue kNull;
  const JsonValue* const atA = a.find(keyA);
  const JsonValue* const atB = b.find(keyB);
  const JsonValue& valueA = atA == nullptr ? kNull : *atA;
  const JsonValue& valueB = atB == nullptr ? kNull : *atB;
  return valueA.kind == valueB.kind && valueA.text == valueB.text &&
         valueA.integer == valueB.integer;
}

bool isBaremetal(const JsonValue& port) {
  return textOf(port, "binding:vnic_type") == "baremetal";
}

[[noreturn]] void refuse(const char* file, const JsonValue& root, const JsonValue& at,
                         std::string_view text) {
  throw BadDump(
      fmt::format("{}.json:{}: {}: {}", file, at.position.line, pointerTo(at, root), text));
}

// Throws BadDump unless a list holds objects only.
std::span<const JsonValue* const> objectsIn(const char* file, const JsonValue& root,
                                            const JsonValue& list) {
  for (const JsonValue* item : list.all()) {
    if (!item->isObject()) refuse(file, root, *item, shown(*item) + " is not an object");
  }
  return list.all();
}

// The objects of the list that an answer holds under its name. Throws BadDump.
std::span<const JsonValue* const> listIn(const JsonValue& answer, const char* name) {
  const JsonValue* list = answer.find(name);
  if (list == nullptr || list->kind != JsonValue::Kind::kArray) {
    refuse(name, answer, list == nullptr ? answer : *list,
           fmt::format("there is no list of {}", name));
  }
  return objectsIn(name, answer, *list);
}

class Importer {
 public:
  explicit Importer(const NeutronDump& dump) : dump_(dump) {}

  NeutronImport import() {
    const auto networks = listIn(dump_.networks, "networks");
    const auto segments = listIn(dump_.segments, "segments");
    const auto ports = listIn(dump_.ports, "ports");
    for (const JsonValue* segment : segments) importSegment(*segment);
    for (const JsonValue* network : networks) importNetwork(*network);
    if (dump_.bindingLevels != nullptr) readLevels(*dump_.bindingLevels);
    for (const JsonValue* port : ports) importPort(*port);
    leaveOutUnusedRows();
    return std::move(result_);
  }

 private:
  struct LevelRow {
    uint8_t level;
    std::string segment;
  };
  struct HostRows {
    std::vector<LevelRow> rows;
    bool isUsed = false;
  };

  void leaveOut(std::string line) { result_.leftOut.push_back(std::move(line)); }

  // The id of an object, or nothing after saying why it cannot be kept.
  std::optional<std::string> idOf(const JsonValue& object, std::string_view kind, bool known) {
    const auto id = textOf(object, "id");
    if (!id) {
      leaveOut(fmt::format("{} without an id left out", kind));
      return std::nullopt;
    }
    const auto fault = faultOfName(*id);
    if (!fault.empty()) {
      leaveOut(fmt::format("{} {} left out: {}", kind, shown(*id), fault));
    } else if (known) {
      leaveOut(fmt::format("{} {} left out: there is another of this id", kind, *id));
    } else {
      return id;
    }
    return std::nullopt;
  }

  // Segments and networks.

  void importSegment(const JsonValue& segment) {
    const auto id = idOf(segment, "segment", result_.segments.contains(textOrEmpty(segment, "id")));
    if (!id) return;
    const std::string type = textOrEmpty(segment, "network_type");
    const bool vlan = type == "vlan";
    const bool vxlan = type == "vxlan";
    const JsonValue* const idAt = segment.find("segmentation_id");
    const bool without = idAt == nullptr || idAt->isNull();
    const int64_t low = vlan || vxlan ? 1 : 0;
    const int64_t high = vlan ? 4094 : vxlan ? 16777215 : 4294967295;
    auto number = integerOf(segment, "segmentation_id", low, high);
    if (without && !vlan && !vxlan) number = 0;
    if (type.empty() || !number) {
      leaveOut(type.empty() ? fmt::format("segment {} left out: it has no network type", *id)
                            : fmt::format("segment {} left out: {} is not an id of a {} segment "
                                          "({} to {})",
                                          *id, without ? "null" : shown(*idAt), type, low, high));
      return;
    }
    const uint8_t mapped = vlan ? kVlanSegment : vxlan ? kVxlanSegment : kOtherSegment;
    result_.segments[*id] = {mapped, static_cast<uint32_t>(*number)};
    if (const auto network = textOf(segment, "network_id")) {
      networkSegments_[*network].push_back(&segment);
    }
  }

  void importNetwork(const JsonValue& network) {
    const auto id = idOf(network, "network", result_.networks.contains(textOrEmpty(network, "id")));
    if (!id) return;
    result_.networks.insert(*id);
    networks_[*id] = &network;
  }

  // The one segment that a network was made with; nothing where it has several, or none is known.
  // Binding makes more of them, which the server lists among the others, so that the network's own
  // description says which is meant.
  std::optional<std::string> ownSegment(const std::string& network) const {
    const auto segments = networkSegments_.find(network);
    if (segments == networkSegments_.end()) return std::nullopt;
    const auto described = networks_.find(network);
    const JsonValue* description = described == networks_.end() ? nullptr : described->second;
    if (const JsonValue* own = description == nullptr ? nullptr : description->find("segments")) {
      const bool one = own->kind == JsonValue::Kind::kArray && own->size == 1;
      return one ? matching(segments->second, *own->members[0]) : std::nullopt;
    }
    if (description != nullptr && textOf(*description, "provider:network_type")) {
      return matching(segments->second, *description);
    }
    if (segments->second.size() != 1) return std::nullopt;
    return textOf(*segments->second.front(), "id");
  }

  static std::optional<std::string> matching(const std::vector<const JsonValue*>& segments,
                                             const JsonValue& provider) {
    std::optional<std::string> found;
    for (const JsonValue* segment : segments) {
      if (!isSame(*segment, "network_type", provider, "provider:network_type") ||
          !isSame(*segment, "physical_network", provider, "provider:physical_network") ||
          !isSame(*segment, "segmentation_id", provider, "provider:segmentation_id")) {
        continue;
      }
      if (found) return std::nullopt;
      found = textOf(*segment, "id");
    }
    return found;
  }

  // Binding levels.

  void readLevels(const JsonValue& rows) {
    constexpr const char* kFile = "db_binding_levels";
    if (rows.kind != JsonValue::Kind::kArray) {
      refuse(kFile, rows, rows, shown(rows) + " is not a list of rows");
    }
    for (const JsonValue* item : objectsIn(kFile, rows, rows)) {
      const JsonValue& row = *item;
      const auto port = textOf(row, "port_id");
      const auto host = textOf(row, "host");
      const auto level = integerOf(row, "level", 0, kMaxLevel);
      const auto segment = textOf(row, "segment_id");
      if (port && host && level && segment) {
        rows_[*port][*host].rows.push_back({static_cast<uint8_t>(*level), *segment});
      } else {
        leaveOut(
            fmt::format("binding level of port {} on host {} left out: it needs port_id, host, "
                        "segment_id and a level 0 to 255",
                        shown(port.value_or("")), shown(host.value_or(""))));
      }
    }
  }

  // The levels of one binding of a port that a host has. What would break a rule is left out.
  std::map<uint8_t, std::string> levelsOf(const JsonValue& port, const std::string& id,
                                          const std::string& host) {
    std::vector<LevelRow> rows;
    if (const auto known = rows_[id].find(host); known != rows_[id].end()) {
      known->second.isUsed = true;
      rows = known->second.rows;
    } else if (const auto own = ownSegment(textOrEmpty(port, "network_id"))) {
      rows.push_back({0, *own});
    }
    std::ranges::stable_sort(rows, {}, &LevelRow::level);
    std::map<uint8_t, std::string> levels;
    for (const LevelRow& row : rows) {
      const auto fault = faultOfLevel(row, levels);
      if (fault.empty()) {
        levels[row.level] = row.segment;
      } else {
        leaveOut(fmt::format("level {} of port {} on host {} left out: {}", row.level, id,
                             shown(host), fault));
      }
    }
    return levels;
  }

  std::string faultOfLevel(const LevelRow& row, const std::map<uint8_t, std::string>& levels) {
    const auto segment = result_.segments.find(row.segment);
    if (segment == result_.segments.end()) {
      return fmt::format("there is no segment {}", shown(row.segment));
    }
    if (levels.contains(row.level)) return "there is another row for it";
    for (const auto& [level, other] : levels) {
      if (other == row.segment) return fmt::format("its segment is at level {} too", level);
      const ImportedSegment& above = result_.segments[other];
      if (above.type == kVlanSegment && segment->second.type == kVlanSegment &&
          above.id == segment->second.id) {
        return fmt::format("VLAN {} is at level {} too", above.id, level);
      }
    }
    return {};
  }

  // Ports.

  void importPort(const JsonValue& port) {
    const auto id = idOf(port, "port", result_.ports.contains(textOrEmpty(port, "id")));
    if (!id) return;
    ImportedPort& made = result_.ports[*id];
    const bool subport = textOf(port, "device_owner") == "trunk:subport";
    made.vlanType = isBaremetal(port) && !subport ? 1 : 0;
    importBinding(port, *id, made);
    countDevice(port, *id);
  }

  void importBinding(const JsonValue& port, const std::string& id, ImportedPort& made) {
    const auto vif = textOf(port, "binding:vif_type");
    if (!vif) {
      leaveOut(fmt::format("binding of port {} left out: it has no binding:vif_type", id));
      return;
    }
    if (*vif == "unbound" || *vif == "binding_failed") return;
    const auto hosts = hostsOf(port, id, *vif);
    if (hosts.empty()) return;
    made.bound = true;
    const JsonValue* links = isBaremetal(port) ? linksOf(port) : nullptr;
    if (links == nullptr) {
      for (const std::string& host : hosts) made.hosts[host] = {{}, levelsOf(port, id, host)};
    } else if (links->kind != JsonValue::Kind::kArray) {
      leaveOut(fmt::format("links of port {} left out: {} is not a list", id, shown(*links)));
    } else {
      const ImportedBinding binding{hosts.front(), levelsOf(port, id, hosts.front())};
      for (const JsonValue* link : links->all()) importLink(id, *link, binding, made);
    }
  }

  // The hosts that a bound port is bound on, its own first; none after saying why.
  std::vector<std::string> hostsOf(const JsonValue& port, const std::string& id,
                                   const std::string& vif) {
    std::vector<std::string> hosts;
    const std::string own = textOrEmpty(port, "binding:host_id");
    if (!own.empty()) hosts.push_back(own);
    if (!own.empty() || vif == "distributed") {
      for (auto& [host, rows] : rows_[id]) {
        if (host == own) continue;
        if (own.empty() || !isBaremetal(port)) {
          // Of a distributed port, or one that migrates.
          hosts.push_back(host);
        } else {
          rows.isUsed = true;
          leaveOutRows(id, host, "a baremetal port is bound on its own host only");
        }
      }
    }
    if (hosts.empty()) {
      unbound_.insert(id);
      leaveOut(
          fmt::format("binding of port {} left out: it is bound ({}), but on no host", id, vif));
    }
    std::erase_if(hosts, [&](const std::string& host) {
      const auto fault = faultOfName(host);
      if (fault.empty()) return false;
      unbound_.insert(id);
      leaveOut(fmt::format("binding of port {} left out: {}", id, fault));
      return true;
    });
    return hosts;
  }

  // The links of a baremetal port; null where it has none.
  static const JsonValue* linksOf(const JsonValue& port) {
    const JsonValue* const profile = port.find("binding:profile");
    const JsonValue* const links = profile == nullptr || !profile->isObject()
                                       ? nullptr
                                       : profile->find("local_link_information");
    const bool none = links == nullptr || links->isNull() ||
                      (links->kind == JsonValue::Kind::kArray && links->size == 0);
    return none ? nullptr : links;
  }

  void importLink(const std::string& id, const JsonValue& link, const ImportedBinding& binding,
                  ImportedPort& made) {
    const auto fail = [&](std::string_view why) {
      leaveOut(fmt::format("link of port {} left out: {}", id, why));
    };
    if (!link.isObject()) return fail("it is not an object");
    std::string name = textOrEmpty(link, "switch_info");
    if (name.empty()) name = textOrEmpty(link, "switch_id");
    const auto interface = textOf(link, "port_id");
    if (name.empty()) return fail("it names no switch");
    if (!interface || interface->empty()) return fail("it names no port_id");
    if (const auto fault = faultOfName(name); !fault.empty()) return fail(fault);
    if (const auto fault = faultOfName(*interface); !fault.empty()) return fail(fault);
    if (!made.interfaces.try_emplace({name, *interface}, binding).second) {
      fail(fmt::format("the port has another one to {} {}", name, *interface));
    }
  }

  // Rows that no binding has used.
  void leaveOutUnusedRows() {
    for (const auto& [port, hosts] : rows_) {
      if (unbound_.contains(port)) continue;  // said already
      const bool isKnown = result_.ports.contains(port);
      for (const auto& [host, rows] : hosts) {
        if (rows.isUsed) continue;
        leaveOutRows(port, host, isKnown ? "the port is not bound there" : "there is no such port");
      }
    }
  }

  void leaveOutRows(const std::string& port, const std::string& host, std::string_view why) {
    leaveOut(fmt::format("binding levels of port {} on host {} left out: {}", shown(port),
                         shown(host), why));
  }

  // Devices.

  void countDevice(const JsonValue& port, const std::string& id) {
    const std::string owner = textOrEmpty(port, "device_owner");
    std::set<std::string>* devices = nullptr;
    if (owner.starts_with("compute:")) {
      devices = isBaremetal(port) ? &result_.baremetalInstances : &result_.vmInstances;
    } else if (owner == "network:dhcp") {
      devices = &result_.dhcpInstances;
    } else if (owner.starts_with("network:router_")) {
      devices = &result_.routerInstances;
    }
    if (devices == nullptr) return;
    const std::string device = textOrEmpty(port, "device_id");
    if (device.empty()) return;  // as it is for a port that no device has taken yet
    const auto fault = faultOfName(device);
    if (fault.empty()) {
      devices->insert(device);
    } else {
      leaveOut(fmt::format("device of port {} ({}) left out: {}", id, owner, fault));
    }
  }

  const NeutronDump& dump_;
  NeutronImport result_;
  std::map<std::string, std::vector<const JsonValue*>> networkSegments_;
  std::map<std::string, const JsonValue*> networks_;
  std::map<std::string, std::map<std::string, HostRows>> rows_;  // by port, by host
  std::set<std::string> unbound_;  // bound ports that have, or may have, no binding here
};

}  // namespace

NeutronImport importNeutron(const NeutronDump& dump) {
  return Importer(dump).import();
}

}  // namespace vnagent
