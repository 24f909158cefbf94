// What the switch must provide, written by straight-line code: the yardstick for the machines.
//
// Holds what the output entities hold for hosts, by host: the ports by region, the VLANs, each with
// its ports and with its VNIs, each with their ports. bind() and unbind() make the final writes
// that the machines make, entry by entry, and nothing else: nobody is notified, nothing is
// remembered. As there, an entry is removed with its last port, and a host stays.
#pragma once

#include <cstdint>
#include <utility>

namespace bench {

// Id: how a port, a host or a region is known. Tables: which hash tables hold them.
template <class Id, class Tables>
class Requested {
  using Referrers = typename Tables::template Set<Id>;

  struct Vlan {
    Referrers referrers;
    typename Tables::template Map<std::uint32_t, Referrers> mappedVni;
  };
  struct Host {
    typename Tables::template Map<Id, Referrers> domain;
    typename Tables::template Map<std::uint32_t, Vlan> vlan;
  };

 public:
  // The port needs the VLAN on the host, to carry the VNI.
  void bind(const Id& port, const Id& hostName, const Id& region, std::uint32_t vlanId,
            std::uint32_t vni) {
    Host& host = hosts_[hostName];
    host.domain[region].insert(port);
    Vlan& vlan = host.vlan[vlanId];
    vlan.referrers.insert(port);
    vlan.mappedVni[vni].insert(port);
  }

  // The port does not need it any more.
  void unbind(const Id& port, const Id& hostName, const Id& region, std::uint32_t vlanId,
              std::uint32_t vni) {
    const auto host = hosts_.find(hostName);
    if (host == hosts_.end()) return;
    dropReferrer(host->second.domain, region, port);
    auto& vlans = host->second.vlan;
    const auto vlan = vlans.find(vlanId);
    if (vlan == vlans.end()) return;
    dropReferrer(vlan->second.mappedVni, vni, port);
    vlan->second.referrers.erase(port);
    if (vlan->second.referrers.empty()) vlans.erase(vlan);
  }

  // Calls see(host, region, port), see(host, VLAN, port) and see(host, VLAN, VNI, port) for all.
  template <class Domain, class OnVlan, class OnVni>
  void forEach(Domain domain, OnVlan onVlan, OnVni onVni) const {
    for (const auto& [name, host] : hosts_) {
      for (const auto& [region, ports] : host.domain) {
        for (const auto& port : ports) domain(name, region, port);
      }
      for (const auto& [id, vlan] : host.vlan) {
        for (const auto& port : vlan.referrers) onVlan(name, id, port);
        for (const auto& [vni, ports] : vlan.mappedVni) {
          for (const auto& port : ports) onVni(name, id, vni, port);
        }
      }
    }
  }

 private:
  // Removes the port from the entry, and the entry with its last port.
  template <class Map, class Key>
  static void dropReferrer(Map& map, const Key& key, const Id& port) {
    const auto entry = map.find(key);
    if (entry == map.end()) return;
    entry->second.erase(port);
    if (entry->second.empty()) map.erase(entry);
  }

  typename Tables::template Map<Id, Host> hosts_;
};

}  // namespace bench
