#include "agent/output/tree.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <string_view>
#include <utility>

#include <fmt/format.h>

namespace vnagent {
namespace {

// How many names a cell shows before the rest is only counted.
constexpr size_t kNamesShown = 4;
constexpr size_t kUuidBytes = 36;

enum class Look : uint8_t { kPlain, kHeading, kName, kQuiet, kMark };

constexpr std::string_view escapeOf(Look look) {
  switch (look) {
    case Look::kPlain:
      return "";
    case Look::kHeading:
      return "\033[1;4m";
    case Look::kName:
      return "\033[1m";
    case Look::kQuiet:
      return "\033[2m";
    case Look::kMark:
      return "\033[33m";
  }
  return "";
}

// Code points, which is what a terminal shows of the names that occur.
size_t widthOf(std::string_view text) {
  return static_cast<size_t>(
      std::ranges::count_if(text, [](char c) { return (c & 0xc0) != 0x80; }));
}

bool isUuid(std::string_view text) {
  if (text.size() != kUuidBytes) return false;
  for (size_t i = 0; i < text.size(); ++i) {
    const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    const bool hex = std::string_view("0123456789abcdefABCDEF").find(text[i]) != text.npos;
    if (dash ? text[i] != '-' : !hex) return false;
  }
  return true;
}

std::string shortName(std::string_view name) {
  constexpr std::string_view kPrefix = "bm-";
  const size_t start = name.starts_with(kPrefix) ? kPrefix.size() : 0;
  if (!isUuid(name.substr(start))) return std::string(name);
  return std::string(name.substr(0, start + 8)) + "…";
}

std::string count(size_t number, std::string_view one, std::string_view many) {
  return fmt::format("{} {}", number, number == 1 ? one : many);
}

struct Cell {
  std::string text;
  Look look = Look::kPlain;
};

class TreeWriter {
 public:
  TreeWriter(bool colour, std::string& out) : colour_(colour), out_(out) {}

  void write(const OutputDocument& output) {
    writeHosts(*output.requestedResources->resourcesForHostname);
    writeSwitches(*output.requestedResources->resourcesForSwitchport);
    writeElements(*output.networkElement);
    writeRegions(*output.regionStatus);
    writeCounts(output);
  }

 private:
  using Row = std::vector<Cell>;

  void line(size_t indent, const Row& cells) {
    out_.append(indent, ' ');
    for (const Cell& cell : cells) put(cell);
    out_ += '\n';
  }

  void put(const Cell& cell) {
    const bool escape = colour_ && cell.look != Look::kPlain;
    if (escape) out_ += escapeOf(cell.look);
    out_ += cell.text;
    if (escape) out_ += "\033[0m";
  }

  void heading(std::string_view text) {
    if (!out_.empty()) out_ += '\n';
    line(0, {{std::string(text), Look::kHeading}});
  }

  // Rows below each other, each column as wide as its widest cell.
  void table(size_t indent, const std::vector<Row>& rows) {
    std::vector<size_t> widths;
    for (const Row& row : rows) {
      widths.resize(std::max(widths.size(), row.size()));
      for (size_t i = 0; i < row.size(); ++i) {
        widths[i] = std::max(widths[i], widthOf(row[i].text));
      }
    }
    for (const Row& row : rows) {
      out_.append(indent, ' ');
      size_t pending = 0;
      for (size_t i = 0; i < row.size(); ++i) {
        if (!row[i].text.empty()) {
          out_.append(std::exchange(pending, 0), ' ');
          put(row[i]);
        }
        const bool columnUsed = widths[i] > 0;
        pending += widths[i] - widthOf(row[i].text) + (columnUsed ? 2 : 0);
      }
      out_ += '\n';
    }
  }

  // One row for a VLAN, with its VNIs where the same ports need them, else below it.
  void addVlan(const VlanOutput& vlan, uint32_t native, std::vector<Row>& rows) {
    const bool alike = std::ranges::all_of(
        *vlan.mappedVni, [&](const VniOutput& vni) { return vni.referrer == vlan.referrer; });
    std::string vnis;
    for (const VniOutput& vni : *vlan.mappedVni) {
      if (alike) vnis += fmt::format("{}{}", vnis.empty() ? "VNI " : ", ", vni.vni);
    }
    rows.push_back({{fmt::format("VLAN {:>4}", vlan.vlan)},
                    {vlan.vlan == native ? "native" : "", Look::kMark},
                    {vnis},
                    {abbreviated(*vlan.referrer), Look::kQuiet}});
    if (alike) return;
    for (const VniOutput& vni : *vlan.mappedVni) {
      rows.push_back(
          {{}, {}, {fmt::format("VNI {}", vni.vni)}, {abbreviated(*vni.referrer), Look::kQuiet}});
    }
  }

  void writeVlans(size_t indent, const std::vector<VlanOutput>& vlans, uint32_t native) {
    std::vector<Row> rows;
    for (const VlanOutput& vlan : vlans) addVlan(vlan, native, rows);
    const bool listed =
        std::ranges::any_of(vlans, [&](const VlanOutput& vlan) { return vlan.vlan == native; });
    if (native != 0 && !listed) {
      rows.push_back({{fmt::format("VLAN {:>4}", native)}, {"native", Look::kMark}});
    }
    if (rows.empty()) {
      line(indent, {{"no VLANs", Look::kQuiet}});
    } else {
      table(indent, rows);
    }
  }

  static std::string domainsOf(const std::vector<DomainOutput>& domains) {
    std::string text;
    for (const DomainOutput& domain : domains) {
      text += fmt::format("  in {} ({})", domain.region,
                          count(domain.referrer->size(), "port", "ports"));
    }
    return text;
  }

  void writeHosts(const std::vector<HostOutput>& hosts) {
    if (hosts.empty()) return;
    heading("Hosts");
    for (const HostOutput& host : hosts) {
      line(2, {{std::string(host.host), Look::kName}, {domainsOf(*host.domain)}});
      writeVlans(4, *host.vlan, 0);
    }
  }

  void writeSwitches(const std::vector<SwitchOutput>& switches) {
    if (switches.empty()) return;
    heading("Switches");
    for (const SwitchOutput& of : switches) {
      const std::string_view name = of.switchIdentifier;
      line(2, {{name.empty() ? "(no switch)" : std::string(name), Look::kName}});
      for (const SwitchportOutput& port : of.port) writeSwitchport(port);
    }
  }

  void writeSwitchport(const SwitchportOutput& port) {
    Row row{{port.interfaceName.empty() ? "(no interface)" : std::string(port.interfaceName),
             Look::kName}};
    for (const auto host : *port.remoteHost) row.push_back({fmt::format("  to {}", host)});
    row.push_back({"  for " + abbreviated(*port.referrer), Look::kQuiet});
    line(4, row);
    writeVlans(6, *port.vlan, *port.nativeVlan);
  }

  void writeElements(const std::vector<NetworkElementOutput>& elements) {
    if (elements.empty()) return;
    heading("Network elements");
    for (const NetworkElementOutput& element : elements) {
      Row row{{std::string(element.name), Look::kName},
              {element.hostname->empty() ? "  switch" : "  host"},
              {domainsOf(*element.domain)}};
      if (!element.referrer->empty()) {
        row.push_back({"  for " + abbreviated(*element.referrer), Look::kQuiet});
      }
      line(2, row);
      if (!element.vlan->empty()) writeVlans(4, *element.vlan, 0);
      for (const PhysicalInterfaceOutput& interface : *element.physicalInterface) {
        Row inner{{std::string(interface.name), Look::kName}};
        for (const auto other : *interface.configuredElement) {
          inner.push_back({fmt::format("  to {}", other)});
        }
        line(4, inner);
        writeVlans(6, *interface.vlan, *interface.nativeVlan);
      }
    }
  }

  void writeRegions(const std::vector<RegionOutput>& regions) {
    if (regions.empty()) return;
    heading("Regions");
    for (const RegionOutput& region : regions) {
      line(2, {{std::string(region.name), Look::kName}});
      std::vector<Row> rows;
      rows.push_back(
          {{"sync"}, {fmt::format("{} (before: {})", *region.syncStatus, *region.oldSyncStatus)}});
      rows.push_back({{"lock"},
                      {region.owner->empty()
                           ? std::string("free")
                           : fmt::format("{} (request {})", *region.owner, *region.requestId)}});
      rows.push_back({{"assigned"}, {ranges(*region.vlanPool->assignedVlan)}});
      rows.push_back({{"available"}, {ranges(*region.vlanPool->availableVlan)}});
      rows.push_back({{"allocated"}, {ranges(*region.vlanPool->allocatedVlan)}});
      if (!region.vlanAssignmentUuid->empty()) {
        rows.push_back({{"assignment"}, {std::string(*region.vlanAssignmentUuid), Look::kQuiet}});
      }
      table(4, rows);
    }
  }

  void writeCounts(const OutputDocument& output) {
    size_t ports = 0;
    size_t vlans = 0;
    size_t vnis = 0;
    const auto add = [&](const std::vector<VlanOutput>& of) {
      vlans += of.size();
      for (const VlanOutput& vlan : of) vnis += vlan.mappedVni->size();
    };
    const auto& hosts = *output.requestedResources->resourcesForHostname;
    for (const auto& host : hosts) add(*host.vlan);
    for (const auto& of : *output.requestedResources->resourcesForSwitchport) {
      ports += of.port.size();
      for (const auto& port : of.port) add(*port.vlan);
    }
    for (const auto& element : *output.networkElement) {
      add(*element.vlan);
      for (const auto& interface : *element.physicalInterface) add(*interface.vlan);
    }
    if (!out_.empty()) out_ += '\n';
    const std::array parts{
        count(output.regionStatus->size(), "region", "regions"),
        count(hosts.size(), "host", "hosts"),
        count(ports, "switch interface", "switch interfaces"),
        count(output.networkElement->size(), "network element", "network elements"),
        count(vlans, "VLAN", "VLANs"),
        count(vnis, "VNI mapping", "VNI mappings")};
    line(0, {{fmt::format("{}", fmt::join(parts, ", "))}});
  }

  bool colour_;
  std::string& out_;
};

}  // namespace

std::string ranges(const std::vector<uint16_t>& numbers) {
  std::string text;
  for (auto first = numbers.begin(); first != numbers.end();) {
    auto last = first;
    while (std::next(last) != numbers.end() && *std::next(last) == *last + 1) ++last;
    if (!text.empty()) text += ", ";
    text += last == first ? fmt::format("{}", *first) : fmt::format("{}-{}", *first, *last);
    first = std::next(last);
  }
  return text.empty() ? "none" : text;
}

std::string abbreviated(const Texts& names) {
  if (names.empty()) return "nobody";
  std::string text;
  // One name more than fits is shown rather than counted.
  const size_t shown = names.size() <= kNamesShown + 1 ? names.size() : kNamesShown;
  for (size_t i = 0; i < shown; ++i) {
    if (i > 0) text += ", ";
    text += shortName(names[i]);
  }
  if (shown < names.size()) text += fmt::format(" and {} more", names.size() - shown);
  return text;
}

void writeTree(const OutputDocument& output, bool colour, std::string& out) {
  std::string text;
  TreeWriter(colour, text).write(output);
  out += text;
}

}  // namespace vnagent
