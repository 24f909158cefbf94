// The machines as a host agent runs them: the entities, the loop, the root machine; fed from a
// Cloud through the public interface.
#pragma once

#include <vector>

#include "OpenStackSm/OpenStackSm.h"
#include "bench/data/Cloud.h"

namespace bench {

// The loop of the process; there is one at a time.
Kiv::ActivityManager& loop();

// The entities that a host agent hands to the root machine, and that machine.
class Agent {
 public:
  Agent();
  ~Agent() { stop(); }
  Agent(const Agent&) = delete;
  Agent& operator=(const Agent&) = delete;

  // Makes the root machine, and runs the loop.
  void start();
  // Destroys the machines, and runs the loop.
  void stop();

  const Kiv::Ptr<OpenStack::OpenStackConfig>& cloud() const { return cloud_; }
  const Kiv::Ptr<OpenStack::Config>& config() const { return config_; }
  const Kiv::Ptr<OpenStack::OpenStackStatus>& status() const { return status_; }
  const Kiv::Ptr<VirtualNetwork::RequestedResourcesCollection>& resources() const {
    return resources_;
  }
  const Kiv::Ptr<VirtualNetwork::NetworkElementCollection>& elements() const { return elements_; }

 private:
  Kiv::Ptr<OpenStack::OpenStackConfig> cloud_;
  Kiv::Ptr<OpenStack::Config> config_;
  Kiv::Ptr<OpenStack::OpenStackStatus> status_;
  Kiv::Ptr<VirtualNetwork::RequestedResourcesCollection> resources_;
  Kiv::Ptr<VirtualNetwork::NetworkElementCollection> elements_;
  Kiv::Ptr<OpenStack::OpenStackSm> machines_;
};

// The segments of a cloud's networks, in a region: the VXLAN of a network, and its VLAN in the
// rack.
class Segments {
 public:
  Segments(const Cloud& cloud, OpenStack::Region& region);

  const Kiv::Ptr<const OpenStack::Segment>& vxlan(std::uint32_t network) const {
    return vxlan_[network];
  }
  const Kiv::Ptr<const OpenStack::Segment>& vlan(std::uint32_t network) const {
    return vlan_[network];
  }

 private:
  std::vector<Kiv::Ptr<const OpenStack::Segment>> vxlan_;
  std::vector<Kiv::Ptr<const OpenStack::Segment>> vlan_;
};

// A cloud's region: its segments and ports, without port bindings.
class RegionOfCloud {
 public:
  explicit RegionOfCloud(const Cloud& cloud);

  const Kiv::Ptr<OpenStack::Region>& region() const { return region_; }

  // A port's binding to its host, or to another, with its two levels.
  Kiv::Ptr<OpenStack::PortToHostBinding> hostBinding(std::uint32_t port) const {
    return hostBinding(port, cloud_.host(port));
  }
  Kiv::Ptr<OpenStack::PortToHostBinding> hostBinding(std::uint32_t port,
                                                     std::string_view host) const;
  // A port's binding, not bound to a host yet.
  Kiv::Ptr<OpenStack::PortBinding> portBinding(std::uint32_t port) const;

 private:
  const Cloud& cloud_;
  Kiv::Ptr<OpenStack::Region> region_;
  Segments segments_;
};

// A cloud's region with all ports bound.
Kiv::Ptr<OpenStack::Region> boundRegion(const Cloud& cloud);

// `machines`: each port has its port binding; binding a port adds the binding to its host, with its
// two levels, and lets the loop run until idle.
class Machines {
 public:
  explicit Machines(const Cloud& cloud);

  void bind(std::uint32_t port) {
    portBinding(port).portToHostBindingIs(of_.hostBinding(port));
    loop().run();
  }
  void unbind(std::uint32_t port) {
    portBinding(port).portToHostBindingDel(Kiv::Name(cloud_.host(port)));
    loop().run();
  }
  const Agent& agent() const { return agent_; }

 private:
  OpenStack::PortBinding& portBinding(std::uint32_t port) const {
    return *of_.region()->portBinding()[Kiv::String(cloud_.portId(port))];
  }

  const Cloud& cloud_;
  Agent agent_;
  RegionOfCloud of_;
};

// `machines-whole`: binding a port adds its port binding too, and a machine for that.
class WholeMachines {
 public:
  explicit WholeMachines(const Cloud& cloud);

  void bind(std::uint32_t port) {
    const auto binding = of_.portBinding(port);
    binding->portToHostBindingIs(of_.hostBinding(port));
    of_.region()->portBindingIs(binding);
    loop().run();
  }
  void unbind(std::uint32_t port) {
    of_.region()->portBindingDel(Kiv::String(cloud_.portId(port)));
    loop().run();
  }

 private:
  const Cloud& cloud_;
  Agent agent_;
  RegionOfCloud of_;
};

// Makes a cloud's outputs through the mutators of the output entities, as the machines would. `id`
// gives the id of a port, and `host` the name of its host.
template <class Id, class Host>
void publish(const Cloud& cloud, VirtualNetwork::RequestedResourcesCollection& resources, Id id,
             Host host) {
  const Kiv::Name region(Cloud::region());
  for (std::uint32_t port = 0; port < cloud.ports(); ++port) {
    const Kiv::String portId = id(port);
    const std::uint32_t network = cloud.network(port);
    const auto entry = resources.resourcesForHostnameIs(host(port));
    entry->domainIs(region)->referrerIs(Kiv::Name(portId), true);
    const auto vlan = entry->vlanIs(Cloud::vlan(network));
    vlan->referrerIs(portId, true);
    vlan->mappedVniIs(Cloud::vni(network))->referrerIs(portId, true);
  }
}

}  // namespace bench
