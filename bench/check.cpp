// The limit is a yardstick only while it makes the writes that the machines make: its entries are
// compared with theirs, port by port.
#include <stdexcept>

#include "bench/groups.h"
#include "bench/limit/Limit.h"
#include "bench/machines/World.h"

namespace bench {
namespace {

using Kiv::Name;
using Kiv::String;
using VirtualNetwork::RequestedResourcesCollection;

// How many entries of the limit there are, and how many of them the machines published, too.
struct Compared {
  std::size_t entries = 0;
  std::size_t published = 0;
};

Compared compare(const InternLimit& limit, const RequestedResourcesCollection& resources) {
  Compared compared;
  const auto count = [&](bool published) {
    ++compared.entries;
    if (published) ++compared.published;
  };
  const auto& hosts = resources.resourcesForHostname();
  const auto vlanOf = [&](const Interned& host, std::uint32_t id) {
    const auto* resourcesOfHost = hosts[Name(host.view())];
    return resourcesOfHost == nullptr ? nullptr : resourcesOfHost->vlan()[id];
  };
  limit.requested().forEach(
      [&](const Interned& host, const Interned& region, const Interned& port) {
        const auto* resourcesOfHost = hosts[Name(host.view())];
        const auto* domain =
            resourcesOfHost == nullptr ? nullptr : resourcesOfHost->domain()[Name(region.view())];
        count(domain != nullptr && domain->referrer()[Name(port.view())]);
      },
      [&](const Interned& host, std::uint32_t id, const Interned& port) {
        const auto* vlan = vlanOf(host, id);
        count(vlan != nullptr && vlan->referrer()[String(port.view())]);
      },
      [&](const Interned& host, std::uint32_t id, std::uint32_t vniId, const Interned& port) {
        const auto* vlan = vlanOf(host, id);
        const auto* vni = vlan == nullptr ? nullptr : vlan->mappedVni()[vniId];
        count(vni != nullptr && vni->referrer()[String(port.view())]);
      });
  return compared;
}

// How many entries the machines published.
std::size_t entriesOf(const RequestedResourcesCollection& resources) {
  std::size_t entries = 0;
  for (const auto& host : resources.resourcesForHostname()) {
    for (const auto& domain : host->domain()) entries += domain->referrer().size();
    for (const auto& vlan : host->vlan()) {
      entries += vlan->referrer().size();
      for (const auto& vni : vlan->mappedVni()) entries += vni->referrer().size();
    }
  }
  return entries;
}

void check(Shape shape) {
  const Cloud cloud(1000, shape);
  InternLimit limit(cloud);
  Machines machines(cloud);
  const auto order = cloud.shuffled(3);
  for (const auto port : order) {
    limit.bind(port);
    machines.bind(port);
  }
  for (std::size_t i = 0; i < order.size(); i += 3) {
    limit.unbind(order[i]);
    machines.unbind(order[i]);
  }
  const RequestedResourcesCollection& resources = *machines.agent().resources();
  const Compared compared = compare(limit, resources);
  if (compared.published != compared.entries || compared.entries != entriesOf(resources)) {
    throw std::logic_error("the limit does not make the machines' writes");
  }
}

}  // namespace

void checkLimit() {
  check(Shape::spread);
  check(Shape::packed);
}

}  // namespace bench
