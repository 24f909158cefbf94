// vnagent show, get and complete: what the live agent has, for people, scripts and shells.
#include <algorithm>
#include <charconv>
#include <map>
#include <set>

#include <fmt/format.h>

#include "agent/cli/client_support.h"
#include "agent/output/tree.h"

namespace vnagent {
namespace {

// What a show command prints: the table, and with --json the same as an array of objects.
struct Shown {
  Table table;
  Json json = Json::array();
};

std::string secondsOf(const Json& value) {
  return value.is_number() ? fmt::format("{:.1f} s", value.get<double>()) : std::string();
}

std::vector<uint16_t> numbersOf(const Json& array) {
  std::vector<uint16_t> numbers;
  for (const Json& number : array) numbers.push_back(number.get<uint16_t>());
  return numbers;
}

uint32_t numberOf(std::string_view text) {
  uint32_t number = 0;
  std::from_chars(text.data(), text.data() + text.size(), number);
  return number;
}

// The keys of an object that are numbers, in numeric order.
std::vector<uint16_t> numericKeys(const Json& object) {
  std::vector<uint16_t> numbers;
  for (const auto& [key, value] : object.items()) {
    numbers.push_back(static_cast<uint16_t>(numberOf(key)));
  }
  std::ranges::sort(numbers);
  return numbers;
}

std::string joined(const std::vector<std::string>& words) {
  return fmt::format("{}", fmt::join(words, ", "));
}

std::vector<std::string> wordsOf(const Json& array) {
  return array.is_array() ? array.get<std::vector<std::string>>() : std::vector<std::string>();
}

Json outputOf(const LiveAgent& agent) {
  return agent.read("/v1/output").value;
}

Shown regions(const LiveAgent& agent) {
  Shown shown{Table({"REGION", "STATUS", "OWNER", "PORTS", "BINDINGS", "SEGMENTS"})};
  const Json output = outputOf(agent);
  const Json cloud = agent.read("/v1/cloud").value;
  for (const auto& [name, status] : memberOf(output, "regionStatus").items()) {
    const Json& region = memberOf(memberOf(cloud, "region"), name);
    Json row{{"region", name}, {"status", status["syncStatus"]}, {"owner", status["owner"]}};
    std::vector<std::string> cells{name, textOf(status["syncStatus"]), textOf(status["owner"])};
    for (const char* collection : {"port", "portBinding", "segment"}) {
      const size_t count = memberOf(region, collection).size();
      row[collection] = count;
      cells.push_back(std::to_string(count));
    }
    shown.table.add(std::move(cells));
    shown.json.push_back(std::move(row));
  }
  return shown;
}

Shown hosts(const LiveAgent& agent) {
  Shown shown{Table({"HOST", "REGION", "PORTS", "VLANS"})};
  const Json output = outputOf(agent);
  for (const auto& [name, host] :
       memberOf(memberOf(output, "requestedResources"), "resourcesForHostname").items()) {
    std::vector<std::string> regions;
    size_t ports = 0;
    for (const auto& [region, referrers] : memberOf(host, "domain").items()) {
      regions.push_back(region);
      ports += referrers.size();
    }
    const auto vlans = numericKeys(memberOf(host, "vlan"));
    shown.table.add({name, joined(regions), std::to_string(ports), ranges(vlans)});
    shown.json.push_back(
        {{"host", name}, {"regions", regions}, {"ports", ports}, {"vlans", vlans}});
  }
  return shown;
}

Shown ports(const LiveAgent& agent) {
  Shown shown{Table({"REGION", "PORT", "VLAN TYPE", "BOUND TO"})};
  const Json cloud = agent.read("/v1/cloud").value;
  for (const auto& [region, members] : memberOf(cloud, "region").items()) {
    for (const auto& [port, attributes] : memberOf(members, "port").items()) {
      const Json& binding = memberOf(memberOf(members, "portBinding"), port);
      std::vector<std::string> bound;
      for (const auto& [host, levels] : memberOf(binding, "portToHostBinding").items()) {
        bound.push_back(host);
      }
      for (const auto& [leaf, interfaces] :
           memberOf(binding, "portToSwitchInterfaceBinding").items()) {
        for (const auto& [interface, levels] : interfaces.items()) {
          bound.push_back(leaf + ":" + interface);
        }
      }
      const Json& type = memberOf(attributes, "vlanType");
      const int number = type.is_number() ? type.get<int>() : 0;
      shown.table.add({region, port, std::to_string(number), joined(bound)});
      shown.json.push_back(
          {{"region", region}, {"port", port}, {"vlanType", number}, {"boundTo", bound}});
    }
  }
  return shown;
}

Shown switchports(const LiveAgent& agent) {
  Shown shown{Table({"SWITCH", "INTERFACE", "NATIVE", "VLANS", "REMOTE HOST", "FOR"})};
  const Json output = outputOf(agent);
  for (const auto& [leaf, interfaces] :
       memberOf(memberOf(output, "requestedResources"), "resourcesForSwitchport").items()) {
    for (const auto& [name, port] : interfaces.items()) {
      const auto vlans = numericKeys(memberOf(port, "vlan"));
      const int native = memberOf(port, "nativeVlan").get<int>();
      const auto remote = wordsOf(memberOf(port, "remoteHost"));
      const auto referrers = wordsOf(memberOf(port, "referrer"));
      const Texts names(referrers.begin(), referrers.end());
      shown.table.add({leaf, name, native == 0 ? "" : std::to_string(native), ranges(vlans),
                       joined(remote), abbreviated(names)});
      shown.json.push_back({{"switch", leaf},
                            {"interface", name},
                            {"nativeVlan", native},
                            {"vlans", vlans},
                            {"remoteHosts", remote},
                            {"referrers", referrers}});
    }
  }
  return shown;
}

// Where a VLAN is needed.
struct VlanUse {
  std::set<uint32_t> vnis;
  std::set<std::string> hosts;
  std::set<std::string> interfaces;
  std::set<std::string> ports;

  void add(const Json& vlan) {
    for (const auto& [vni, referrers] : memberOf(vlan, "mappedVni").items()) {
      vnis.insert(numberOf(vni));
    }
    for (auto& port : wordsOf(memberOf(vlan, "referrer"))) ports.insert(std::move(port));
  }
};

Shown vlans(const LiveAgent& agent) {
  const Json output = outputOf(agent);
  const Json& resources = memberOf(output, "requestedResources");
  std::map<uint32_t, VlanUse> uses;
  for (const auto& [host, entry] : memberOf(resources, "resourcesForHostname").items()) {
    for (const auto& [number, vlan] : memberOf(entry, "vlan").items()) {
      VlanUse& use = uses[numberOf(number)];
      use.hosts.insert(host);
      use.add(vlan);
    }
  }
  const auto addInterface = [&](const std::string& name, const Json& port) {
    for (const auto& [number, vlan] : memberOf(port, "vlan").items()) {
      VlanUse& use = uses[numberOf(number)];
      use.interfaces.insert(name);
      use.add(vlan);
    }
  };
  for (const auto& [leaf, interfaces] : memberOf(resources, "resourcesForSwitchport").items()) {
    for (const auto& [name, port] : interfaces.items()) addInterface(leaf + ":" + name, port);
  }
  for (const auto& [leaf, element] : memberOf(output, "networkElement").items()) {
    for (const auto& [name, port] : memberOf(element, "physicalInterface").items()) {
      addInterface(leaf + ":" + name, port);
    }
  }
  Shown shown{Table({"VLAN", "VNI", "HOSTS", "INTERFACES", "PORTS"})};
  for (const auto& [number, use] : uses) {
    shown.table.add({std::to_string(number), fmt::format("{}", fmt::join(use.vnis, ", ")),
                     std::to_string(use.hosts.size()), std::to_string(use.interfaces.size()),
                     std::to_string(use.ports.size())});
    shown.json.push_back({{"vlan", number},
                          {"vnis", use.vnis},
                          {"hosts", use.hosts},
                          {"interfaces", use.interfaces},
                          {"ports", use.ports}});
  }
  return shown;
}

Shown locks(const LiveAgent& agent) {
  Shown shown{Table({"REGION", "OWNER", "REQUEST", "HELD FOR", "EXPIRES IN", "WAITING", "STATUS"})};
  const Json output = outputOf(agent);
  for (const auto& [name, entry] : memberOf(output, "regionStatus").items()) {
    Json status = agent.read("/v1/region/" + percentEncoded(name) + "/sync").value;
    shown.table.add({name, textOf(memberOf(status, "owner")), textOf(memberOf(status, "requestId")),
                     secondsOf(memberOf(status, "heldFor")),
                     secondsOf(memberOf(status, "expiresIn")), textOf(memberOf(status, "waiting")),
                     textOf(memberOf(status, "syncStatus"))});
    status["region"] = name;
    shown.json.push_back(std::move(status));
  }
  return shown;
}

Shown pools(const LiveAgent& agent) {
  Shown shown{Table({"REGION", "ASSIGNED", "AVAILABLE", "ALLOCATED"})};
  const Json output = outputOf(agent);
  for (const auto& [name, status] : memberOf(output, "regionStatus").items()) {
    const Json& pool = memberOf(status, "vlanPool");
    std::vector<std::string> cells{name};
    for (const char* set : {"assignedVlan", "availableVlan", "allocatedVlan"}) {
      cells.push_back(ranges(numbersOf(memberOf(pool, set))));
    }
    shown.table.add(std::move(cells));
    Json row = pool;
    row["region"] = name;
    shown.json.push_back(std::move(row));
  }
  return shown;
}

constexpr std::pair<std::string_view, Shown (*)(const LiveAgent&)> kShown[] = {
    {"regions", regions}, {"hosts", hosts}, {"ports", ports}, {"switchports", switchports},
    {"vlans", vlans},     {"locks", locks}, {"pools", pools},
};

ExitStatus showOverview(const LiveAgent& agent, bool json) {
  const Json info = agent.read("/v1").value;
  if (json) {
    printJson(info, true);
    return ExitStatus::kOk;
  }
  const Json output = outputOf(agent);
  const Json& resources = memberOf(output, "requestedResources");
  size_t interfaces = 0;
  for (const auto& [leaf, of] : memberOf(resources, "resourcesForSwitchport").items()) {
    interfaces += of.size();
  }
  const bool isDurable = memberOf(info, "durable") == Json(true);
  printOut(fmt::format("{} {}  revision {}  up {}  state {}  you are {}\n",
                       textOf(memberOf(info, "name")), textOf(memberOf(info, "version")),
                       textOf(memberOf(info, "revision")), secondsOf(memberOf(info, "uptime")),
                       isDurable ? "on disk" : "in memory only", textOf(memberOf(info, "role"))));
  printOut(fmt::format("{} regions, {} hosts, {} switch interfaces, {} network elements\n",
                       memberOf(output, "regionStatus").size(),
                       memberOf(resources, "resourcesForHostname").size(), interfaces,
                       memberOf(output, "networkElement").size()));
  const Shown shown = regions(agent);
  if (!shown.table.isEmpty()) {
    printOut("\n");
    printTable(shown.table);
  }
  return ExitStatus::kOk;
}

}  // namespace

ExitStatus show(const ShowOptions& options) {
  const LiveAgent agent = connected(options);
  if (options.what.empty()) return showOverview(agent, options.json);
  const auto found =
      std::ranges::find_if(kShown, [&](const auto& entry) { return entry.first == options.what; });
  const Shown shown = found->second(agent);
  if (options.json) {
    printJson(shown.json, true);
  } else {
    printTable(shown.table);
  }
  return ExitStatus::kOk;
}

ExitStatus get(const GetOptions& options) {
  const Place place = placeOf(options.place);
  const Json value = connected(options).read(placeTarget(place.document, place.pointer)).value;
  if (!options.keys) {
    printJson(value, options.json);
    return ExitStatus::kOk;
  }
  std::string out;
  if (value.is_object()) {
    for (const auto& [key, member] : value.items()) out += key + "\n";
  }
  printOut(out);
  return ExitStatus::kOk;
}

// A shell asks while somebody types: whatever goes wrong, there are no words.
ExitStatus complete(const CompleteOptions& options) {
  try {
    const LiveAgent agent = connected(options);
    std::string out;
    if (options.what == "regions") {
      const Json names = agent.read("/v1/output?at=/regionStatus").value;
      for (const auto& [key, member] : names.items()) {
        out += key + "\n";
      }
    } else {
      const size_t slash = options.text.rfind('/');
      if (slash == std::string::npos) {
        out = "cloud\noutput\n";
      } else {
        const std::string around = options.text.substr(0, slash);
        const Place place = placeOf(around);
        const Json value = agent.read(placeTarget(place.document, place.pointer)).value;
        if (value.is_object()) {
          for (const auto& [key, member] : value.items()) out += withKey(around, key) + "\n";
        }
      }
    }
    printOut(out);
  } catch (const std::exception&) {
  }
  return ExitStatus::kOk;
}

}  // namespace vnagent
