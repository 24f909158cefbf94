#include "tests/support/View.h"

#include <algorithm>
#include <set>
#include <sstream>
#include <utility>

namespace {

// A value set's entries in order, each with a blank before it; false ones marked.
template <class Set>
std::string entries(const Set& set) {
  std::set<decltype(set.begin()->key)> keys;
  for (const auto& entry : set) keys.insert(entry.key);
  std::ostringstream text;
  for (const auto& key : keys) text << (set[key] ? " " : " !") << key;
  return std::move(text).str();
}

template <class Vlans>
void addVlans(Lines& lines, const std::string& owner, const Vlans& vlans) {
  for (const auto& vlan : vlans) {
    const std::string name = owner + " vlan " + std::to_string(vlan->vlan());
    lines.push_back(name + ":" + entries(vlan->referrer()));
    for (const auto& vni : vlan->mappedVni()) {
      lines.push_back(name + " vni " + std::to_string(vni->vni()) + ":" + entries(vni->referrer()));
    }
  }
}

void addHost(Lines& lines, const std::string& name, const VirtualNetwork::HostResources& host) {
  addVlans(lines, name, host.vlan());
  for (const auto& domain : host.domain()) {
    lines.push_back(name + " domain " + domain->name().str() + ":" + entries(domain->referrer()));
  }
}

void addInterface(Lines& lines, const std::string& name,
                  const VirtualNetwork::Interface& interface) {
  addVlans(lines, name, interface.vlan());
  if (interface.nativeVlan() != 0) {
    lines.push_back(name + " native " + std::to_string(interface.nativeVlan()));
  }
}

}  // namespace

Lines linesOf(const VirtualNetwork::RequestedResourcesCollection& resources,
              const VirtualNetwork::NetworkElementCollection& elements) {
  Lines lines;
  for (const auto& host : resources.resourcesForHostname()) {
    const std::string name = "host " + host->host().str();
    lines.push_back(name);
    addHost(lines, name, *host);
  }
  for (const auto& port : resources.resourcesForSwitchport()) {
    const std::string name = "port " + port->switchInterface().name().str();
    lines.push_back(name + ":" + entries(port->referrer()));
    lines.push_back(name + " remote:" + entries(port->remoteHost()));
    addInterface(lines, name, *port);
  }
  for (const auto& element : elements.networkElement()) {
    const std::string name = "element " + element->name().str();
    lines.push_back(name + ":" + entries(element->referrer()));
    if (!element->hostname().empty()) {
      lines.push_back(name + " hostname " + element->hostname().str());
    }
    addHost(lines, name, *element);
    for (const auto& interface : element->physicalInterface()) {
      const std::string interfaceName = name + " interface " + interface->name().str();
      std::string configured;
      std::set<std::string> names;
      for (const auto& entry : interface->configuredElement()) names.insert(entry.key.str());
      for (const std::string& each : names) configured += " " + each;
      lines.push_back(interfaceName + ":" + configured);
      addInterface(lines, interfaceName, *interface);
    }
  }
  std::sort(lines.begin(), lines.end());
  return lines;
}

Lines withoutHistory(const Lines& lines) {
  Lines kept;
  for (const std::string& line : lines) {
    const bool bareHost = line.starts_with("host ") && line.find(':') == std::string::npos;
    const bool bareElement =
        line.starts_with("element ") && line.ends_with(":") && line.find(' ') == line.rfind(' ');
    if (bareHost || bareElement || line.find(" remote:") != std::string::npos ||
        line.find(" native ") != std::string::npos ||
        line.find(" hostname ") != std::string::npos) {
      continue;
    }
    kept.push_back(line);
  }
  return kept;
}

std::string textOf(const OpenStack::VlanPool& pool) {
  return "assigned" + entries(pool.assignedVlan()) + " allocated" + entries(pool.allocatedVlan()) +
         " available" + entries(pool.availableVlan());
}

std::string textOf(const OpenStack::RegionStatus& status) {
  std::ostringstream text;
  text << "sync " << status.syncStatus() << " old " << status.oldSyncStatus() << " owner "
       << status.owner() << " request " << status.requestId();
  return std::move(text).str();
}
