// A small cloud and the machines over it, built from a few lines of text.
//
//   World world;
//   world.toggleIs(true);
//   world.start("region R; segment vl vlan 10; host p1 h1 0=vl");
//   EXPECT_THAT(world.published(), ElementsAre("host h1", ...));
//   world.apply("-bind p1");
//
// Statements stand on lines or between semicolons. Each says what is to be there, or, with a "-"
// before it, what is to go:
//
//   region R               the region; the statements after it are about it
//   segment ID vlan|vxlan|NUMBER VALUE
//   port P [native]        a port; made by `bind` too
//   bind P                 a port binding; made by `host` and `switch` too
//   host P H [LEVEL=ID|LEVEL=-]...         its binding to a host
//   switch P SW IF H [LEVEL=ID|LEVEL=-]... its binding to an interface of a switch, behind it H
//   assign R [VLAN|!VLAN|-VLAN]...         a region's VLAN assignment; "!" enters false
//   driver NUMBER          the VLAN type driver
//   sync unknown|progress|timedout|complete
//   heartbeat
//   lock REQUESTER|- ID|-  the request for the sync lock; "-" for empty
//   network|vm|dhcp|baremetal ID
//
// Owns the activity loop, a clock that stands still, all entities, the root machine and a recorder
// of the traces. One at a time in a process.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "OpenStackSm/OpenStackSm.h"
#include "tests/support/TraceRecorder.h"
#include "tests/support/View.h"

class World {
 public:
  static constexpr Kiv::Seconds kTimeout = 30;

  World();
  ~World();
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  // Change
  // What the feature toggle answers, for good. On, to begin with.
  void toggleIs(bool on);
  // Changes the inputs; delivers nothing.
  void change(std::string_view text);
  // Makes the root machine over what `text` adds to the inputs.
  void start(std::string_view text = {});
  // Changes the inputs and delivers.
  void apply(std::string_view text);
  void run() { loop.run(); }
  // Lets time pass, firing each timer when it is due.
  void passes(Kiv::Seconds seconds);
  // Ends the root machine.
  void rootDel() { root = nullptr; }
  // Unbinds every port, in every region, and delivers.
  void unbindAll();

  // Inputs, of the current region. REQUIRES: they are there.
  Kiv::Ptr<OpenStack::Region> region() const;
  Kiv::Ptr<OpenStack::Segment> segment(std::string_view id) const;
  Kiv::Ptr<OpenStack::Port> port(std::string_view id) const;
  Kiv::Ptr<OpenStack::PortBinding> binding(std::string_view portId) const;
  Kiv::Ptr<OpenStack::PortToHostBinding> hostBinding(std::string_view portId,
                                                     std::string_view host) const;
  Kiv::Ptr<OpenStack::PortToSwitchInterfaceBinding> switchBinding(std::string_view portId) const;

  // Machines, of the current region; null when absent. A port has one switch-interface binding for
  // switchSm() to be of use.
  Kiv::Ptr<OpenStack::RegionConfigSm> regionSm() const;
  Kiv::Ptr<OpenStack::PortBindingSm> portSm(std::string_view portId) const;
  Kiv::Ptr<OpenStack::PortToHostBindingSm> hostSm(std::string_view portId,
                                                  std::string_view host) const;
  Kiv::Ptr<OpenStack::PortToSwitchInterfaceBindingSm> switchSm(std::string_view portId) const;

  // Outputs
  Lines published() const { return linesOf(*resources, *elements); }
  Kiv::Ptr<OpenStack::RegionStatus> regionStatus() const;
  Kiv::Ptr<OpenStack::VlanPool> pool() const { return regionStatus()->vlanPool(); }
  std::string status() const { return textOf(*regionStatus()); }
  std::string vlans() const { return textOf(*pool()); }
  // What a second root machine publishes over the same inputs and fresh outputs, and its pool.
  Lines rebuilt();
  std::string rebuiltVlans();

  Kiv::ActivityManager loop;
  Kiv::VirtualTime time;
  TraceRecorder traces;
  const Kiv::Ptr<OpenStack::OpenStackConfig> cloud;
  const Kiv::Ptr<OpenStack::Config> config;
  const Kiv::Ptr<OpenStack::NameResolution::Config> nameConfig;
  const Kiv::Ptr<OpenStack::NameResolution::Status> nameStatus;
  const Kiv::Ptr<OpenStack::OpenStackStatus> statuses;
  const Kiv::Ptr<VirtualNetwork::RequestedResourcesCollection> resources;
  const Kiv::Ptr<VirtualNetwork::NetworkElementCollection> elements;
  Kiv::Ptr<OpenStack::OpenStackSm> root;

 private:
  void statement(const std::vector<std::string>& words);
  void regionStatement(const std::string& verb, bool gone, const std::vector<std::string>& words);

  Kiv::Name regionName_;
};

// The machines and reactors of which objects are alive, as "type: count".
Lines machinesAlive();

// A feature toggle that stays unknown, or is known, for the life of a test; see toggleIs().
void toggleAnswersIs(Kiv::U32 word);
