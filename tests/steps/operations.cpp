// Executes each kind of change on a cloud of a given size, for check.py to count its steps.
//
//   valgrind --tool=callgrind --instr-atstart=no --combine-dumps=yes operations SHAPE...
//
// SHAPE is five numbers and a word: ports, hosts, networks and regions of the cloud, notifications
// that wait while a change is made, and what the feature toggle answers (on, off). Each change is
// made on several subjects, and the steps of each are dumped under the change's name; what prepares
// the subjects is not counted. Run without valgrind, it counts nothing.
//
// Where notifications wait, only the change of the inputs is counted, as the loop would deliver the
// waiting ones with it. Their delivery is counted in the end, by itself, and dumped under a name
// that ends with "/" and their number.
//
// What costs as much as it touches is left out: a region that goes or comes with all that is in it,
// a segment that changes under many bindings (each of them goes and comes back), a VLAN assignment
// that is given or taken as a whole, a change of the region sync timeout or of the VLAN type driver
// (each region gets it).
#include <array>
#include <functional>
#include <iostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <valgrind/callgrind.h>

#include "OpenStackSm/OpenStackSm.h"
#include "framework/FeatureToggle.h"

namespace {

using Kiv::Ptr;
using Kiv::U16;
using Kiv::U32;
using OpenStack::SyncStatus;

constexpr U32 kSubjects = 15;
constexpr U16 kFirstFreeVlan = 3900;  // the networks of a cloud have those below

struct Shape {
  U32 ports, hosts, networks, regions, waiting;
};

std::string numbered(const std::string& name, U32 number) {
  return name + '-' + std::to_string(number);
}

Ptr<OpenStack::Segment> segment(const std::string& id, OpenStack::SegmentationType type,
                                U32 value) {
  auto made = Kiv::make<OpenStack::Segment>(Kiv::String(id));
  made->segmentationTypeIs(type);
  made->segmentationIdIs(value);
  return made;
}

Ptr<OpenStack::Segment> vlanSegment(const std::string& id, U32 vlan) {
  return segment(id, OpenStack::SegmentationType::vlan, vlan);
}

// One region with its ports on its hosts, a quarter of them behind switch interfaces.
class LoadedRegion {
 public:
  LoadedRegion(OpenStack::OpenStackConfig& cloud, OpenStack::Config& config,
               const std::string& name, const Shape& shape)
      : name_(name), hosts_(shape.hosts), region_(cloud.regionIs(Kiv::Name(name))) {
    const auto assignment = Kiv::make<OpenStack::VlanAssignment>(Kiv::Name(name));
    for (U32 network = 0; network < shape.networks; ++network) {
      vxlan_.push_back(
          segment(numbered("vxlan", network), OpenStack::SegmentationType::vxlan, 10000 + network));
      vlan_.push_back(vlanSegment(numbered("vlan", network), 1 + network));
      region_->segmentIs(vxlan_.back());
      region_->segmentIs(vlan_.back());
      assignment->vlanIs(static_cast<U16>(1 + network), true);
    }
    config.vlanAssignmentIs(assignment);
    assignment_ = assignment;
    for (U32 port = 0; port < shape.ports; ++port) {
      bind(port % 4 == 3 ? onSwitch(numbered(name + "-port", port), port)
                         : onHost(numbered(name + "-port", port), port));
    }
    region_->syncStatusIs(SyncStatus::syncInProgress);
  }

  OpenStack::Region& region() const { return *region_; }
  OpenStack::VlanAssignment& assignment() const { return *assignment_; }
  const Ptr<OpenStack::Segment>& vlan(U32 seed) const { return vlan_[seed % vlan_.size()]; }

  Kiv::Name host(U32 seed) const { return {numbered(name_ + "-host", seed % hosts_)}; }

  // A port binding of a new port, filled and not yet in the region.
  Ptr<OpenStack::PortBinding> unattached(const std::string& id) const {
    auto binding = Kiv::make<OpenStack::PortBinding>(Kiv::String(id));
    binding->portIs(region_->portIs(Kiv::String(id)));
    return binding;
  }
  Ptr<OpenStack::PortBinding> onHost(const std::string& id, U32 seed) const {
    auto binding = unattached(id);
    binding->portToHostBindingIs(hostBinding(host(seed), seed));
    return binding;
  }
  Ptr<OpenStack::PortBinding> onSwitch(const std::string& id, U32 seed) const {
    auto binding = unattached(id);
    binding->portToSwitchInterfaceBindingIs(switchBinding(seed, id));
    return binding;
  }
  void bind(const Ptr<OpenStack::PortBinding>& binding) const { region_->portBindingIs(binding); }

  // VXLAN above VLAN.
  Ptr<OpenStack::PortToHostBinding> hostBinding(const Kiv::Name& host, U32 seed) const {
    auto binding = Kiv::make<OpenStack::PortToHostBinding>(host);
    binding->segmentIs(0, vxlan_[seed % vxlan_.size()]);
    binding->segmentIs(1, vlan(seed));
    return binding;
  }
  Ptr<OpenStack::PortToSwitchInterfaceBinding> switchBinding(U32 seed,
                                                             const std::string& interface) const {
    const Kiv::String leaf(numbered(name_ + "-leaf", seed % hosts_));
    auto binding = Kiv::make<OpenStack::PortToSwitchInterfaceBinding>(
        VirtualNetwork::SwitchInterface(leaf, Kiv::String(interface)));
    binding->hostIs(Kiv::Name(numbered(name_ + "-metal", seed % hosts_)));
    binding->segmentIs(0, vxlan_[seed % vxlan_.size()]);
    binding->segmentIs(1, vlan(seed));
    return binding;
  }

 private:
  std::string name_;
  U32 hosts_;
  Ptr<OpenStack::Region> region_;
  Ptr<OpenStack::VlanAssignment> assignment_;
  std::vector<Ptr<OpenStack::Segment>> vxlan_;
  std::vector<Ptr<OpenStack::Segment>> vlan_;
};

// A change whose subject is prepared.
using Change = std::function<void()>;

// One kind of change: how its subjects, each with a name of its own, are prepared for it.
struct Kind {
  std::string name;
  std::function<Change(const std::string& id, U32 seed)> prepare;
};

class Steps {
 public:
  explicit Steps(const Shape& shape)
      : shape_(shape),
        cloud_(Kiv::make<OpenStack::OpenStackConfig>()),
        config_(Kiv::make<OpenStack::Config>()),
        status_(Kiv::make<OpenStack::OpenStackStatus>()),
        resources_(Kiv::make<VirtualNetwork::RequestedResourcesCollection>()),
        elements_(Kiv::make<VirtualNetwork::NetworkElementCollection>()),
        loaded_(*cloud_, *config_, "loaded", shape),
        region_(loaded_.region()) {
    Kiv::System::timeSourceIs(&time_);
    for (U32 other = 1; other < shape.regions; ++other) {
      LoadedRegion(*cloud_, *config_, numbered("other", other), {1, 1, 1, 1, 0});
    }
    root_ = OpenStack::openStackSmFactory(
        cloud_, status_, Kiv::make<OpenStack::NameResolution::Config>(),
        Kiv::make<OpenStack::NameResolution::Status>(), resources_, 60, config_, elements_);
    loop_.run();
  }
  ~Steps() {
    changes_.clear();
    root_ = nullptr;
    // Elements refer to each other; that would keep them.
    for (const auto& element : elements_->networkElement()) element->physicalInterfaceDelAll();
    Kiv::System::timeSourceIs(nullptr);
  }
  Steps(const Steps&) = delete;
  Steps& operator=(const Steps&) = delete;

  void count() {
    addBindings();
    addFurtherHosts();
    addLevels(&Steps::hostSubject, "host binding");
    addLevels(&Steps::switchSubject, "switch-interface binding");
    addSegments();
    addAssignedVlans();
    addSync();
    prepare();
    CALLGRIND_START_INSTRUMENTATION;
    letWait("waiting");
    for (const auto& [name, changes] : changes_) {
      for (const Change& change : changes) countOne(name, change);
    }
    loop_.run();
    countDelivery();
    CALLGRIND_STOP_INSTRUMENTATION;
  }

 private:
  // Counting.

  void add(std::string name, std::function<Change(const std::string& id, U32 seed)> prepare) {
    kinds_.push_back({std::move(name), std::move(prepare)});
  }

  void prepare() {
    for (const Kind& kind : kinds_) {
      auto& changes = changes_.emplace_back(kind.name, std::vector<Change>()).second;
      for (U32 i = 0; i < kSubjects; ++i) {
        // Spread over hosts and networks.
        changes.push_back(kind.prepare(numbered(kind.name, i), 7 * i + 3));
      }
    }
    loop_.run();
  }

  void countOne(const std::string& name, const Change& change) {
    CALLGRIND_ZERO_STATS;
    change();
    if (shape_.waiting == 0) loop_.run();
    CALLGRIND_DUMP_STATS_AT(name.c_str());
  }

  // Makes changes that nobody delivers.
  void letWait(const std::string& name) {
    for (U32 i = 0; i < shape_.waiting; ++i) loaded_.bind(loaded_.onHost(numbered(name, i), i));
  }

  void countDelivery() {
    if (shape_.waiting == 0) return;
    letWait("delivered");
    const std::string name = "deliver a bind that waits/" + std::to_string(shape_.waiting);
    CALLGRIND_ZERO_STATS;
    loop_.run();
    CALLGRIND_DUMP_STATS_AT(name.c_str());
  }

  // The kinds of change.

  void addBindings() {
    add("bind a port to a host", [this](const std::string& id, U32 seed) {
      region_.portIs(Kiv::String(id));
      return [=, this] { loaded_.bind(loaded_.onHost(id, seed)); };
    });
    add("bind a port to a switch interface", [this](const std::string& id, U32 seed) {
      region_.portIs(Kiv::String(id));
      return [=, this] { loaded_.bind(loaded_.onSwitch(id, seed)); };
    });
    add("unbind a port from a host", [this](const std::string& id, U32 seed) {
      loaded_.bind(loaded_.onHost(id, seed));
      return [=, this] { region_.portBindingDel(Kiv::String(id)); };
    });
    add("unbind a port from a switch interface", [this](const std::string& id, U32 seed) {
      loaded_.bind(loaded_.onSwitch(id, seed));
      return [=, this] { region_.portBindingDel(Kiv::String(id)); };
    });
  }

  void addFurtherHosts() {
    add("bind a bound port to a further host", [this](const std::string& id, U32 seed) {
      const auto binding = loaded_.onHost(id, seed);
      loaded_.bind(binding);
      return [=, this] {
        binding->portToHostBindingIs(loaded_.hostBinding(loaded_.host(seed + 1), seed));
      };
    });
    add("unbind a port from one of its hosts", [this](const std::string& id, U32 seed) {
      const auto binding = loaded_.onHost(id, seed);
      binding->portToHostBindingIs(loaded_.hostBinding(loaded_.host(seed + 1), seed));
      loaded_.bind(binding);
      return [=, this] { binding->portToHostBindingDel(loaded_.host(seed + 1)); };
    });
  }

  // The host binding of a new port in the region; its switch-interface binding.
  Ptr<OpenStack::PortToHostBinding> hostSubject(const std::string& id, U32 seed) {
    const auto binding = loaded_.onHost(id, seed);
    loaded_.bind(binding);
    return *binding->portToHostBinding().begin();
  }
  Ptr<OpenStack::PortToSwitchInterfaceBinding> switchSubject(const std::string& id, U32 seed) {
    const auto binding = loaded_.onSwitch(id, seed);
    loaded_.bind(binding);
    return *binding->portToSwitchInterfaceBinding().begin();
  }

  template <class Subject>
  void addLevels(Subject subject, const std::string& of) {
    add("a segment comes to a level of a " + of, [=, this](const std::string& id, U32 seed) {
      const auto binding = (this->*subject)(id, seed);
      return [=, this] { binding->segmentIs(2, loaded_.vlan(seed + 1)); };
    });
    add("a segment leaves a level of a " + of, [=, this](const std::string& id, U32 seed) {
      const auto binding = (this->*subject)(id, seed);
      return [=] { binding->segmentDel(1); };
    });
  }

  // No machine watches the inside of a segment: one that changes its type or id goes, with the port
  // binding that uses it, and both come back.
  void addSegments() {
    add("a segment's type and id are written", [this](const std::string& id, U32) {
      const auto written = vlanSegment(id, freeVlan());
      region_.segmentIs(written);
      return [=] {
        written->segmentationTypeIs(OpenStack::SegmentationType::vxlan);
        written->segmentationIdIs(9000);
      };
    });
    add("a VLAN segment comes", [this](const std::string& id, U32) {
      return [=, this, vlan = freeVlan()] { region_.segmentIs(vlanSegment(id, vlan)); };
    });
    add("a VLAN segment leaves", [this](const std::string& id, U32) {
      region_.segmentIs(vlanSegment(id, freeVlan()));
      return [=, this] { region_.segmentDel(Kiv::String(id)); };
    });
    add("a VLAN segment comes with the port binding that uses it",
        [this](const std::string& id, U32 seed) {
          const auto binding = loaded_.onHost(id, seed);
          return [=, this, vlan = freeVlan()] {
            const auto changed = vlanSegment(id, vlan);
            region_.segmentIs(changed);
            binding->portToHostBinding()[loaded_.host(seed)]->segmentIs(1, changed);
            loaded_.bind(binding);
          };
        });
    add("a VLAN segment leaves with the port binding that uses it",
        [this](const std::string& id, U32 seed) {
          const auto binding = loaded_.onHost(id, seed);
          const auto changing = vlanSegment(id, freeVlan());
          region_.segmentIs(changing);
          binding->portToHostBinding()[loaded_.host(seed)]->segmentIs(1, changing);
          loaded_.bind(binding);
          return [=, this] {
            region_.portBindingDel(Kiv::String(id));
            region_.segmentDel(Kiv::String(id));
          };
        });
  }

  void addAssignedVlans() {
    add("a VLAN is assigned", [this](const std::string&, U32) {
      return [this, vlan = freeVlan()] { loaded_.assignment().vlanIs(vlan, true); };
    });
    add("a VLAN is assigned no longer", [this](const std::string&, U32) {
      const U16 vlan = freeVlan();
      loaded_.assignment().vlanIs(vlan, true);
      return [=, this] { loaded_.assignment().vlanDel(vlan); };
    });
  }

  void addSync() {
    add("a heartbeat", [this](const std::string&, U32 seed) {
      return [=, this] { region_.syncHeartbeatIs(seed); };
    });
    add("the sync status changes", [this](const std::string&, U32 seed) {
      const auto status = seed % 2 == 0 ? SyncStatus::syncComplete : SyncStatus::syncInProgress;
      return [=, this] { region_.syncStatusIs(status); };
    });
    // Asked for, given back, and so on.
    add("a lock request", [this](const std::string& id, U32 seed) {
      const Kiv::String text = seed % 2 == 0 ? Kiv::String() : Kiv::String(id);
      return [=, this] {
        region_.requesterIs(text);
        region_.requestIdIs(text);
      };
    });
  }

  U16 freeVlan() { return nextVlan_++; }

  Shape shape_;
  U16 nextVlan_ = kFirstFreeVlan;
  Kiv::VirtualTime time_;
  Kiv::ActivityManager loop_;
  Ptr<OpenStack::OpenStackConfig> cloud_;
  Ptr<OpenStack::Config> config_;
  Ptr<OpenStack::OpenStackStatus> status_;
  Ptr<VirtualNetwork::RequestedResourcesCollection> resources_;
  Ptr<VirtualNetwork::NetworkElementCollection> elements_;
  LoadedRegion loaded_;
  OpenStack::Region& region_;
  Ptr<OpenStack::OpenStackSm> root_;
  std::vector<Kind> kinds_;
  std::vector<std::pair<std::string, std::vector<Change>>> changes_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 7) {
    std::cerr << "operations PORTS HOSTS NETWORKS REGIONS WAITING on|off\n";
    return 2;
  }
  const bool toggle = std::string_view(argv[6]) == "on";
  Kiv::toggleProviderIs([toggle](std::string_view, bool) {
    return Kiv::kToggleKnown | (toggle ? Kiv::kToggleOn : 0U);
  });
  std::array<U32, 5> numbers{};
  for (std::size_t i = 0; i < numbers.size(); ++i) {
    numbers.at(i) = static_cast<U32>(std::stoul(argv[i + 1]));
  }
  const auto [ports, hosts, networks, regions, waiting] = numbers;
  Steps({ports, hosts, networks, regions, waiting}).count();
}
