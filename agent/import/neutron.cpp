#include "agent/import/neutron.h"

#include <algorithm>

#include <fmt/format.h>

#include "agent/document/vocabulary.h"

namespace vnagent {
namespace {

using nlohmann::json;

constexpr uint8_t kOtherSegment = 2;
constexpr int64_t kMaxLevel = 255;

// The text under a key, or nothing where it is absent, null or something else.
std::optional<std::string> textOf(const json& object, const char* key) {
  const auto at = object.find(key);
  if (at == object.end() || !at->is_string()) return std::nullopt;
  return at->get<std::string>();
}

std::string textOrEmpty(const json& object, const char* key) {
  return textOf(object, key).value_or(std::string());
}

// The integer under a key; nothing where it is absent, null, something else or beyond low..high.
std::optional<int64_t> integerOf(const json& object, const char* key, int64_t low, int64_t high) {
  const auto at = object.find(key);
  if (at == object.end() || !at->is_number_integer()) return std::nullopt;
  if (at->is_number_unsigned() && at->get<uint64_t>() > static_cast<uint64_t>(high)) {
    return std::nullopt;
  }
  const auto value = at->get<int64_t>();
  return value >= low && value <= high ? std::optional(value) : std::nullopt;
}

// The list under a key of an answer. Throws BadDump.
const json& listOf(const json& answer, const char* file, const char* key) {
  if (!answer.is_object()) {
    throw BadDump(fmt::format("{}.json: : not an object with \"{}\"", file, key));
  }
  const auto list = answer.find(key);
  if (list == answer.end() || !list->is_array()) {
    throw BadDump(fmt::format("{}.json: /{}: there is no list of {}", file, key, key));
  }
  return *list;
}

// Throws BadDump unless all that is in a list is objects.
void checkObjects(const json& list, const std::string& file, const std::string& place) {
  for (size_t i = 0; i < list.size(); ++i) {
    if (!list[i].is_object()) {
      throw BadDump(fmt::format("{}.json: {}/{}: not an object", file, place, i));
    }
  }
}

bool isBaremetal(const json& port) {
  return textOf(port, "binding:vnic_type") == "baremetal";
}

class Importer {
 public:
  explicit Importer(const NeutronDump& dump) : dump_(dump) {}

  NeutronImport import() {
    const json& networks = listOf(dump_.networks, "networks", "networks");
    const json& segments = listOf(dump_.segments, "segments", "segments");
    const json& ports = listOf(dump_.ports, "ports", "ports");
    checkObjects(networks, "networks", "/networks");
    checkObjects(segments, "segments", "/segments");
    checkObjects(ports, "ports", "/ports");
    for (const json& segment : segments) importSegment(segment);
    for (const json& network : networks) importNetwork(network);
    if (dump_.bindingLevels) readLevels(*dump_.bindingLevels);
    for (const json& port : ports) importPort(port);
    return std::move(result_);
  }

 private:
  using SwitchInterface = std::pair<std::string, std::string>;
  struct LevelRow {
    uint8_t level;
    std::string segment;
  };

  void leaveOut(std::string line) { result_.leftOut.push_back(std::move(line)); }

  // The id of an object, or nothing after saying why it cannot be kept.
  std::optional<std::string> idOf(const json& object, std::string_view kind, bool known) {
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

  void importSegment(const json& segment) {
    const auto id = idOf(segment, "segment", result_.segments.contains(textOrEmpty(segment, "id")));
    if (!id) return;
    const std::string type = textOrEmpty(segment, "network_type");
    const bool vlan = type == "vlan";
    const bool vxlan = type == "vxlan";
    const auto idAt = segment.find("segmentation_id");
    const bool without = idAt == segment.end() || idAt->is_null();
    const int64_t low = vlan || vxlan ? 1 : 0;
    const int64_t high = vlan ? 4094 : vxlan ? 16777215 : 4294967295;
    auto number = integerOf(segment, "segmentation_id", low, high);
    if (without && !vlan && !vxlan) number = 0;
    if (type.empty() || !number) {
      leaveOut(type.empty() ? fmt::format("segment {} left out: it has no network type", *id)
                            : fmt::format("segment {} left out: {} is not an id of a {} segment "
                                          "({} to {})",
                                          *id, without ? "null" : idAt->dump(), type, low, high));
      return;
    }
    const uint8_t mapped = vlan ? kVlanSegment : vxlan ? kVxlanSegment : kOtherSegment;
    result_.segments[*id] = {mapped, static_cast<uint32_t>(*number)};
    if (const auto network = textOf(segment, "network_id")) {
      networkSegments_[*network].push_back(&segment);
    }
  }

  void importNetwork(const json& network) {
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
    const json* description = described == networks_.end() ? nullptr : described->second;
    if (description != nullptr && description->contains("segments")) {
      const json& own = (*description)["segments"];
      return own.is_array() && own.size() == 1 ? matching(segments->second, own[0]) : std::nullopt;
    }
    if (description != nullptr && textOf(*description, "provider:network_type")) {
      return matching(segments->second, *description);
    }
    if (segments->second.size() != 1) return std::nullopt;
    return textOf(*segments->second.front(), "id");
  }

  static std::optional<std::string> matching(const std::vector<const json*>& segments,
                                             const json& provider) {
    const auto same = [&](const json& segment, const char* key, const char* providerKey) {
      return segment.value(key, json()) == provider.value(providerKey, json());
    };
    std::optional<std::string> found;
    for (const json* segment : segments) {
      if (!same(*segment, "network_type", "provider:network_type") ||
          !same(*segment, "physical_network", "provider:physical_network") ||
          !same(*segment, "segmentation_id", "provider:segmentation_id")) {
        continue;
      }
      if (found) return std::nullopt;
      found = textOf(*segment, "id");
    }
    return found;
  }

  // Binding levels.

  void readLevels(const json& rows) {
    if (!rows.is_array()) throw BadDump("db_binding_levels.json: : not a list of rows");
    checkObjects(rows, "db_binding_levels", "");
    for (const json& row : rows) {
      const auto port = textOf(row, "port_id");
      const auto host = textOf(row, "host");
      const auto level = integerOf(row, "level", 0, kMaxLevel);
      const auto segment = textOf(row, "segment_id");
      if (port && host && level && segment) {
        rows_[*port][*host].push_back({static_cast<uint8_t>(*level), *segment});
      } else {
        leaveOut(
            fmt::format("binding level of port {} on host {} left out: it needs port_id, host, "
                        "segment_id and a level 0 to 255",
                        shown(port.value_or("")), shown(host.value_or(""))));
      }
    }
  }

  const std::vector<LevelRow>* rowsOf(const std::string& port, const std::string& host) const {
    const auto hosts = rows_.find(port);
    if (hosts == rows_.end()) return nullptr;
    const auto rows = hosts->second.find(host);
    return rows == hosts->second.end() ? nullptr : &rows->second;
  }

  // The levels of one binding of a port that a host has. What would break a rule is left out.
  std::map<uint8_t, std::string> levelsOf(const json& port, const std::string& id,
                                          const std::string& host) {
    std::vector<LevelRow> rows;
    if (const auto* known = rowsOf(id, host)) {
      rows = *known;
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
      if (other == row.segment) return fmt::format("its segment stands at level {} too", level);
      const ImportedSegment& above = result_.segments[other];
      if (above.type == kVlanSegment && segment->second.type == kVlanSegment &&
          above.id == segment->second.id) {
        return fmt::format("VLAN {} stands at level {} too", above.id, level);
      }
    }
    return {};
  }

  // Ports.

  void importPort(const json& port) {
    const auto id = idOf(port, "port", result_.ports.contains(textOrEmpty(port, "id")));
    if (!id) return;
    ImportedPort& made = result_.ports[*id];
    const bool subport = textOf(port, "device_owner") == "trunk:subport";
    made.vlanType = isBaremetal(port) && !subport ? 1 : 0;
    importBinding(port, *id, made);
    countDevice(port, *id);
  }

  void importBinding(const json& port, const std::string& id, ImportedPort& made) {
    const auto vif = textOf(port, "binding:vif_type");
    if (!vif) {
      leaveOut(fmt::format("binding of port {} left out: it has no binding:vif_type", id));
      return;
    }
    if (*vif == "unbound" || *vif == "binding_failed") return;
    const auto hosts = hostsOf(port, id, *vif);
    if (hosts.empty()) return;
    made.bound = true;
    const json links = linksOf(port);
    if (isBaremetal(port) && !links.empty()) {
      for (const json& link : links) importLink(port, id, hosts.front(), link, made);
      return;
    }
    for (const std::string& host : hosts) made.hosts[host] = {{}, levelsOf(port, id, host)};
  }

  // The hosts that a bound port is bound on; none after saying why.
  std::vector<std::string> hostsOf(const json& port, const std::string& id,
                                   const std::string& vif) {
    std::vector<std::string> hosts;
    const std::string own = textOrEmpty(port, "binding:host_id");
    if (!own.empty()) {
      hosts.push_back(own);
    } else if (const auto rows = rows_.find(id); vif == "distributed" && rows != rows_.end()) {
      for (const auto& [host, levels] : rows->second) hosts.push_back(host);
    }
    if (hosts.empty()) {
      leaveOut(
          fmt::format("binding of port {} left out: it is bound ({}), but on no host", id, vif));
    }
    std::erase_if(hosts, [&](const std::string& host) {
      const auto fault = faultOfName(host);
      if (!fault.empty()) leaveOut(fmt::format("binding of port {} left out: {}", id, fault));
      return !fault.empty();
    });
    return hosts;
  }

  static json linksOf(const json& port) {
    const auto profile = port.find("binding:profile");
    if (profile == port.end() || !profile->is_object()) return json::array();
    const auto links = profile->find("local_link_information");
    return links == profile->end() || !links->is_array() ? json::array() : *links;
  }

  void importLink(const json& port, const std::string& id, const std::string& host,
                  const json& link, ImportedPort& made) {
    const auto fail = [&](std::string_view why) {
      leaveOut(fmt::format("link of port {} left out: {}", id, why));
    };
    if (!link.is_object()) return fail("it is not an object");
    std::string name = textOrEmpty(link, "switch_info");
    if (name.empty()) name = textOrEmpty(link, "switch_id");
    const auto interface = textOf(link, "port_id");
    if (name.empty()) return fail("it names no switch");
    if (!interface || interface->empty()) return fail("it names no port_id");
    if (const auto fault = faultOfName(name); !fault.empty()) return fail(fault);
    if (const auto fault = faultOfName(*interface); !fault.empty()) return fail(fault);
    const SwitchInterface key{name, *interface};
    if (made.interfaces.contains(key)) {
      return fail(fmt::format("the port has another one to {} {}", name, *interface));
    }
    made.interfaces[key] = {host, levelsOf(port, id, host)};
  }

  // Devices.

  void countDevice(const json& port, const std::string& id) {
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
    const auto fault = faultOfName(device);
    if (fault.empty()) {
      devices->insert(device);
    } else {
      leaveOut(fmt::format("device of port {} ({}) left out: {}", id, owner, fault));
    }
  }

  const NeutronDump& dump_;
  NeutronImport result_;
  std::map<std::string, std::vector<const json*>> networkSegments_;
  std::map<std::string, const json*> networks_;
  std::map<std::string, std::map<std::string, std::vector<LevelRow>>> rows_;  // by port, by host
};

}  // namespace

NeutronImport importNeutron(const NeutronDump& dump) {
  return Importer(dump).import();
}

}  // namespace vnagent
