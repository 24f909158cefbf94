#include "tests/sim/library/read.h"

#include "tests/sim/library/names.h"

namespace sim {
namespace {

int port(std::string_view id) {
  return numberOf(Name::port, id);
}

// The port of a "bm-" referrer.
int baremetal(std::string_view referrer) {
  return referrer.starts_with("bm-") ? port(referrer.substr(3)) : -1;
}

int element(std::string_view name) {
  return numberOf(Name::element, name);
}

class Reader {
 public:
  void readHost(const VirtualNetwork::ResourcesForHostname& host) {
    at(Fact::host, {element(host.host().view())});
    say(Fact::exists);
    readDomains(host.domain());
    readVlans(host.vlan());
  }

  void readSwitchPort(const VirtualNetwork::ResourcesForSwitchport& port) {
    const auto& si = port.switchInterface();
    at(Fact::switchPort, {element(si.switchIdentifier().view()),
                          numberOf(Name::interface, si.interfaceName().view())});
    say(Fact::exists);
    for (const auto& entry : port.remoteHost()) {
      say(Fact::remoteHost, 0, 0, known(entry, element(entry.key.view())));
    }
    for (const auto& entry : port.referrer()) {
      say(Fact::referrer, 0, 0, known(entry, baremetal(entry.key.view())));
    }
    readVlans(port.vlan());
    picture_.natives[place_] = port.nativeVlan();
  }

  void readElement(const VirtualNetwork::NetworkElement& e) {
    const int name = element(e.name().view());
    at(Fact::element, {name});
    say(Fact::exists);
    say(Fact::hostname, 0, 0, element(e.hostname().view()));
    for (const auto& entry : e.referrer()) {
      say(Fact::referrer, 0, 0, known(entry, baremetal(entry.key.view())));
    }
    readDomains(e.domain());
    readVlans(e.vlan());
    for (const auto& interface : e.physicalInterface()) readInterface(name, *interface);
  }

  void readStatus(const OpenStack::RegionStatus& status) {
    const int region = numberOf(Name::region, status.name().view());
    at(Fact::region, {region});
    say(Fact::syncStatus, static_cast<unsigned>(status.syncStatus()));
    say(Fact::oldSyncStatus, static_cast<unsigned>(status.oldSyncStatus()));
    say(Fact::owner, 0, 0, numberOf(Name::requester, status.owner().view()));
    say(Fact::request, 0, 0, numberOf(Name::request, status.requestId().view()));
    picture_.assignmentUuids[region] = status.vlanAssignmentUuid().view();
    const auto pool = status.vlanPool();
    if (!pool) return;
    readPool(Fact::assigned, pool->assignedVlan());
    readPool(Fact::available, pool->availableVlan());
    readPool(Fact::allocated, pool->allocatedVlan());
  }

  Picture take() {
    settle(picture_.facts);
    return std::move(picture_);
  }

 private:
  void at(Fact::Holder holder, const Place& place) {
    holder_ = holder;
    place_ = place;
  }
  void say(Fact::Kind kind, unsigned a = 0, unsigned b = 0, int who = 0) {
    picture_.facts.push_back({holder_, place_, kind, a, b, who});
  }
  // A member of a set whose entry is false is nobody's.
  template <class Entry>
  static int known(const Entry& entry, int who) {
    return entry.value ? who : -1;
  }

  template <class Domains>
  void readDomains(const Domains& domains) {
    for (const auto& domain : domains) {
      const auto region = static_cast<unsigned>(numberOf(Name::region, domain->name().view()));
      say(Fact::domain, region);
      for (const auto& entry : domain->referrer()) {
        say(Fact::domainReferrer, region, 0, known(entry, port(entry.key.view())));
      }
    }
  }

  template <class Vlans>
  void readVlans(const Vlans& vlans) {
    for (const auto& vlan : vlans) {
      const unsigned id = vlan->vlan();
      say(Fact::vlan, id);
      for (const auto& entry : vlan->referrer()) {
        say(Fact::vlanReferrer, id, 0, known(entry, port(entry.key.view())));
      }
      for (const auto& vni : vlan->mappedVni()) {
        say(Fact::vni, id, vni->vni());
        for (const auto& entry : vni->referrer()) {
          say(Fact::vniReferrer, id, vni->vni(), known(entry, port(entry.key.view())));
        }
      }
    }
  }

  void readInterface(int ofElement, const VirtualNetwork::PhysicalInterface& interface) {
    at(Fact::interface, {ofElement, numberOf(Name::interface, interface.name().view())});
    say(Fact::exists);
    for (const auto& entry : interface.configuredElement()) {
      const bool itself = entry.value && entry.value->name() == entry.key;
      say(Fact::configured, 0, 0, itself ? element(entry.key.view()) : -1);
    }
    readVlans(interface.vlan());
    picture_.natives[place_] = interface.nativeVlan();
  }

  template <class Vlans>
  void readPool(Fact::Kind kind, const Vlans& vlans) {
    for (const auto& entry : vlans) {
      if (entry.value) say(kind, entry.key);
    }
  }

  Picture picture_;
  Fact::Holder holder_ = Fact::host;
  Place place_;
};

}  // namespace

Picture read(const OpenStack::OpenStackStatus& status,
             const VirtualNetwork::RequestedResourcesCollection& resources,
             const VirtualNetwork::NetworkElementCollection& elements) {
  Reader reader;
  for (const auto& host : resources.resourcesForHostname()) reader.readHost(*host);
  for (const auto& port : resources.resourcesForSwitchport()) reader.readSwitchPort(*port);
  for (const auto& element : elements.networkElement()) reader.readElement(*element);
  for (const auto& region : status.regionStatus()) reader.readStatus(*region);
  return reader.take();
}

}  // namespace sim
