// Everything but ports on hosts.
//
//   switch/SIDE                   bindings of 10,000 ports to switch interfaces; sides:
//                                 switchports, elements (the toggle on, off)
//   segments                      VLAN segments that are added and removed
//   assignment                    4,094 VLANs assigned to a region, and unassigned (ns a VLAN)
//   heartbeats                    heartbeats of 1,000 regions that synchronise
//   hosts/SIDE                    a port that moves over 10,000 hosts, from each to the next;
//                                 sides: machines, intern
#include <algorithm>

#include "bench/groups.h"
#include "bench/limit/Limit.h"
#include "bench/machines/World.h"
#include "framework/FeatureToggle.h"

namespace bench {
namespace {

using Kiv::Name;
using Kiv::String;

// Measures the time of `first` and of `second`, each `operations` operations, as counters and as
// the repetition's time.
template <class First, class Second>
void timeBoth(benchmark::State& state, std::int64_t operations, const char* firstName, First first,
              const char* secondName, Second second) {
  double firstSeconds = 0;
  double secondSeconds = 0;
  while (state.KeepRunningBatch(operations)) {
    const Stopwatch firstWatch;
    first();
    firstSeconds = firstWatch.seconds();
    const Stopwatch secondWatch;
    second();
    secondSeconds = secondWatch.seconds();
    state.SetIterationTime(firstSeconds + secondSeconds);
  }
  const double nanoseconds = 1e9 / static_cast<double>(operations);
  state.counters[firstName] = firstSeconds * nanoseconds;
  state.counters[secondName] = secondSeconds * nanoseconds;
}

// A port's binding to an interface of its own, of a switch with 40.
Kiv::Ptr<OpenStack::PortToSwitchInterfaceBinding> switchBinding(const Cloud& cloud,
                                                                const Segments& segments,
                                                                std::uint32_t port) {
  const std::string rack = std::to_string(port / 40);
  const VirtualNetwork::SwitchInterface interface(String("leaf-" + rack),
                                                  String("Ethernet" + std::to_string(port % 40)));
  auto binding = Kiv::make<OpenStack::PortToSwitchInterfaceBinding>(interface);
  binding->hostIs(Name("metal-" + std::to_string(port)));
  binding->segmentIs(0, segments.vxlan(cloud.network(port)));
  binding->segmentIs(1, segments.vlan(cloud.network(port)));
  return binding;
}

void bindToSwitches(benchmark::State& state, bool switchports) {
  // Without the answer that it is known, the toggle is asked each time, so that one process can
  // have both.
  Kiv::toggleProviderIs(
      [=](std::string_view, bool) { return switchports ? Kiv::kToggleOn : Kiv::U32{0}; });
  const Cloud cloud(10000, Shape::spread);
  const auto region = Kiv::make<OpenStack::Region>(Name(Cloud::region()));
  const Segments segments(cloud, *region);
  for (std::uint32_t port = 0; port < cloud.ports(); ++port) {
    const String id(cloud.portId(port));
    region->portBindingIs(id)->portIs(region->portIs(id));
  }
  Agent agent;
  agent.cloud()->regionIs(region);
  agent.start();
  const auto order = cloud.shuffled(1);
  const auto bindingOf = [&](std::uint32_t port) -> OpenStack::PortBinding& {
    return *region->portBinding()[String(cloud.portId(port))];
  };
  timeBoth(
      state, cloud.ports(), "bind",
      [&] {
        for (const auto port : order) {
          bindingOf(port).portToSwitchInterfaceBindingIs(switchBinding(cloud, segments, port));
          loop().run();
        }
        const std::size_t published = switchports
                                          ? agent.resources()->resourcesForSwitchport().size()
                                          : agent.elements()->networkElement().size();
        if (published < cloud.ports()) state.SkipWithError("the bindings were not published");
      },
      "unbind",
      [&] {
        for (const auto port : order) {
          bindingOf(port).portToSwitchInterfaceBindingDelAll();
          loop().run();
        }
      });
  agent.stop();
  Kiv::toggleProviderIs({});
}

// A region with 4,094 VLANs assigned, and none in use.
class AssignedRegion {
 public:
  AssignedRegion() {
    agent_.config()->vlanTypeDriverIs(OpenStack::VlanTypeDriver::assigned);
    region_ = agent_.cloud()->regionIs(Name(Cloud::region()));
    agent_.start();
  }
  const Agent& agent() const { return agent_; }
  OpenStack::Region& region() const { return *region_; }
  std::size_t availableVlans() const {
    return agent_.status()->regionStatusIs(region_->name())->vlanPool()->availableVlan().size();
  }
  void assign() const {
    const auto assignment = Kiv::make<OpenStack::VlanAssignment>(region_->name());
    for (Kiv::U16 vlan = 1; vlan <= kVlans; ++vlan) assignment->vlanIs(vlan, true);
    agent_.config()->vlanAssignmentIs(assignment);
    loop().run();
  }
  void unassign() const {
    agent_.config()->vlanAssignmentDel(region_->name());
    loop().run();
  }

  static constexpr Kiv::U16 kVlans = 4094;

 private:
  Agent agent_;
  Kiv::Ptr<OpenStack::Region> region_;
};

void segmentsComeAndGo(benchmark::State& state) {
  const AssignedRegion of;
  of.assign();
  std::vector<String> ids;
  for (Kiv::U16 vlan = 1; vlan <= of.kVlans; ++vlan)
    ids.emplace_back("seg-" + std::to_string(vlan));
  timeBoth(
      state, of.kVlans, "arrive",
      [&] {
        for (Kiv::U16 vlan = 1; vlan <= of.kVlans; ++vlan) {
          const auto segment = Kiv::make<OpenStack::Segment>(ids[vlan - 1U]);
          segment->segmentationTypeIs(OpenStack::SegmentationType::vlan);
          segment->segmentationIdIs(vlan);
          of.region().segmentIs(segment);
          loop().run();
        }
        if (of.availableVlans() != 0) state.SkipWithError("a VLAN in use is still available");
      },
      "leave",
      [&] {
        for (const String& id : ids) {
          of.region().segmentDel(id);
          loop().run();
        }
        if (of.availableVlans() != of.kVlans) state.SkipWithError("a free VLAN is not available");
      });
}

void vlansAssigned(benchmark::State& state) {
  const AssignedRegion of;
  timeBoth(
      state, of.kVlans, "assign",
      [&] {
        of.assign();
        if (of.availableVlans() != of.kVlans) state.SkipWithError("a VLAN is not available");
      },
      "unassign", [&] { of.unassign(); });
}

void heartbeats(benchmark::State& state) {
  constexpr std::uint32_t kRegions = 1000;
  constexpr int kRounds = 10;
  Agent agent;
  std::vector<Kiv::Ptr<OpenStack::Region>> regions;
  for (std::uint32_t i = 0; i < kRegions; ++i) {
    regions.push_back(agent.cloud()->regionIs(Name("Region" + std::to_string(i))));
    regions.back()->syncStatusIs(OpenStack::SyncStatus::syncInProgress);
  }
  agent.start();
  while (state.KeepRunningBatch(kRegions * kRounds)) {
    const Stopwatch watch;
    for (int round = 0; round < kRounds; ++round) {
      for (const auto& region : regions) {
        region->syncHeartbeatIs(round);
        loop().run();
      }
    }
    state.SetIterationTime(watch.seconds());
  }
}

// The port with a cloud's first id moves from each host to the next; port numbers number the hosts.
constexpr std::uint32_t kHosts = 10000;

template <class Move>
void moveOverHosts(benchmark::State& state, Move move) {
  while (state.KeepRunningBatch(kHosts)) {
    const Stopwatch watch;
    for (std::uint32_t host = 0; host < kHosts; ++host) move(host, (host + 1) % kHosts);
    state.SetIterationTime(watch.seconds());
  }
}

std::vector<std::string> hostNames() {
  std::vector<std::string> names;
  const Cloud cloud(kHosts * Cloud::kPortsPerHost, Shape::spread);
  for (std::uint32_t host = 0; host < kHosts; ++host) {
    names.emplace_back(cloud.host(host * Cloud::kPortsPerHost));
  }
  return names;
}

void moveMachines(benchmark::State& state) {
  const Cloud cloud(20, Shape::spread);
  const auto names = hostNames();
  const RegionOfCloud of(cloud);
  Agent agent;
  agent.cloud()->regionIs(of.region());
  agent.start();
  const auto binding = of.portBinding(0);
  of.region()->portBindingIs(binding);
  loop().run();
  const auto add = [&](std::uint32_t host) {
    binding->portToHostBindingIs(of.hostBinding(0, names[host]));
    loop().run();
  };
  add(0);
  moveOverHosts(state, [&](std::uint32_t from, std::uint32_t to) {
    add(to);
    binding->portToHostBindingDel(Name(names[from]));
    loop().run();
  });
  if (agent.resources()->resourcesForHostname().size() != kHosts) {
    state.SkipWithError("the port was not on all hosts");
  }
}

void moveIntern(benchmark::State& state) {
  const Cloud cloud(20, Shape::spread);
  const auto names = hostNames();
  Requested<Interned, SwissTables> requested;
  const auto add = [&](std::uint32_t host) {
    requested.bind(Interned::of(cloud.portId(0)), Interned::of(names[host]),
                   Interned::of(Cloud::region()), Cloud::vlan(0), Cloud::vni(0));
  };
  add(0);
  moveOverHosts(state, [&](std::uint32_t from, std::uint32_t to) {
    add(to);
    requested.unbind(Interned::find(cloud.portId(0)), Interned::find(names[from]),
                     Interned::find(Cloud::region()), Cloud::vlan(0), Cloud::vni(0));
  });
}

}  // namespace

void addRegions(Suite& suite) {
  suite.addBatch("switch/switchports", 10000, 10,
                 [](benchmark::State& state) { bindToSwitches(state, true); });
  suite.addBatch("switch/elements", 10000, 10,
                 [](benchmark::State& state) { bindToSwitches(state, false); });
  suite.addBatch("segments", AssignedRegion::kVlans, 10, segmentsComeAndGo);
  suite.addBatch("assignment", AssignedRegion::kVlans, 10, vlansAssigned);
  suite.addBatch("heartbeats", 10000, 10, heartbeats);
  suite.addBatch("hosts/machines", kHosts, 10, moveMachines);
  suite.addBatch("hosts/intern", kHosts, 10, moveIntern);
}

}  // namespace bench
