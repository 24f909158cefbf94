// The root machine: one region machine, region status and VLAN pool for each configured region.
//
// The host makes exactly one, with every input and output entity, and keeps it; it may change the
// region sync timeout later. Everything else reaches the machines through changes of the inputs and
// the activity loop. Activity thread only.
#pragma once

#include "OpenStackSm/Attributes.h"
#include "OpenStackSm/RegionConfigSm.h"
#include "framework/Machine.h"
#include "model/OpenStack/Config.h"
#include "model/OpenStack/NameResolution.h"
#include "model/OpenStack/OpenStackConfig.h"
#include "model/OpenStack/OpenStackStatus.h"

namespace [[gnu::visibility("default")]] OpenStack {

class OpenStackSm final : public Kiv::Machine<OpenStackSm> {
 public:
  static constexpr std::string_view kTypeName = "OpenStack::OpenStackSm";
  static constexpr bool kTeardownRunsCleanup = false;

  // Observes the configured regions.
  class KivOpenstackConfig final
      : public Kiv::Reactor<KivOpenstackConfig, OpenStackSm, OpenStackConfig> {
   public:
    static constexpr std::string_view kTypeName = "OpenStack::OpenStackSm::KivOpenstackConfig";
    using Reactor::Reactor;

    void onRegion(const Kiv::Name& name) override {
      if (live()) machine()->handleRegion(name);
    }
    void onRegionkivImmediate() override {}
  };

  // Observes the agent configuration; mirrors its VLAN assignments.
  class KivConfig final : public Kiv::Reactor<KivConfig, OpenStackSm, Config> {
   public:
    static constexpr std::string_view kTypeName = "OpenStack::OpenStackSm::KivConfig";
    using Reactor::Reactor;

    void onVlanTypeDriver() override {
      if (live()) machine()->handleVlanTypeDriver();
    }
    void onVlanAssignment(const Kiv::Name& name) override {
      if (mirrors()) machine()->mirrorVlanAssignment(*notifier(), name);
    }
    void onVlanAssignmentkivImmediate() override {
      if (mirrors()) machine()->mirrorVlanAssignments(*notifier());
    }

   private:
    void resynchronise() override {
      onVlanAssignmentkivImmediate();
      if (notifier() != nullptr) onVlanTypeDriver();
    }
  };

  // Observes one region's VLAN assignment.
  class KivVlanAssignment final
      : public Kiv::Reactor<KivVlanAssignment, OpenStackSm, VlanAssignment> {
   public:
    static constexpr std::string_view kTypeName = "OpenStack::OpenStackSm::KivVlanAssignment";
    using Reactor::Reactor;

    void onVlan(Kiv::U16 vlan) override {
      if (live()) handleVlanAssignment(vlan);
    }
    void onVlankivImmediate() override {}

    // One VLAN of the assignment changed: stamps a new UUID and patches the region's pool.
    void handleVlanAssignment(Kiv::U16 vlan);
  };

  // What a change of the assignments does for its region: refills the region's pool.
  struct Refill {
    OpenStackSm& machine;  // whose pools
    // Runs handleRegionVlanAssignment().
    void operator()(const Kiv::Name& regionName) const {
      machine.handleRegionVlanAssignment(regionName);
    }
  };

  using RegionConfigSmMap = Kiv::ChildMap<RegionConfigSm, Kiv::Name>;
  using VlanAssignmentMap = Kiv::ReactorMap<KivVlanAssignment, Kiv::Name>;

  // Makes the root machine, brings it in line with the inputs and switches its notifications on.
  // Any input may be null and is then not observed; outputs may not.
  [[nodiscard]] static Kiv::Ptr<OpenStackSm> OpenStackSmIs(
      const Kiv::Ptr<const OpenStackConfig>& openstackConfig,
      const Kiv::Ptr<OpenStackStatus>& openstackStatus,
      const Kiv::Ptr<const NameResolution::Config>& nameResolutionConfig,
      const Kiv::Ptr<NameResolution::Status>& nameResolutionStatus,
      const Kiv::Ptr<VirtualNetwork::RequestedResourcesCollection>& requestedResourcesCollection,
      Kiv::Seconds regionSyncTimeout, const Kiv::Ptr<const Config>& config,
      const Kiv::Ptr<VirtualNetwork::NetworkElementCollection>& networkElementCollection) {
    return Kiv::makeMachine<OpenStackSm>(openstackConfig, openstackStatus, nameResolutionConfig,
                                         nameResolutionStatus, requestedResourcesCollection,
                                         regionSyncTimeout, config, networkElementCollection);
  }

  // For OpenStackSmIs(), whose arguments it takes.
  OpenStackSm(
      const Kiv::Ptr<const OpenStackConfig>& openstackConfig,
      const Kiv::Ptr<OpenStackStatus>& openstackStatus,
      const Kiv::Ptr<const NameResolution::Config>& nameResolutionConfig,
      const Kiv::Ptr<NameResolution::Status>& nameResolutionStatus,
      const Kiv::Ptr<VirtualNetwork::RequestedResourcesCollection>& requestedResourcesCollection,
      Kiv::Seconds regionSyncTimeout, const Kiv::Ptr<const Config>& config,
      const Kiv::Ptr<VirtualNetwork::NetworkElementCollection>& networkElementCollection);
  ~OpenStackSm() override;

  // How tools reach the machine's attributes, and make one.
  static const Kiv::GenericIf& reflection();
  const Kiv::GenericIf* genericIf() const override;

  // Constructor arguments
  Kiv::Ptr<const OpenStackConfig> openstackConfig() const { return openstackConfig_.entity(); }
  void openstackConfigIs(const Kiv::Ptr<const OpenStackConfig>& v) {
    openstackConfig_.is(*this, v);
  }
  void openstackConfigDel() { openstackConfig_.del(); }
  const Kiv::Ptr<OpenStackStatus>& openstackStatus() const { return openstackStatus_; }
  const Kiv::Ptr<const NameResolution::Config>& nameResolutionConfig() const {
    return nameResolutionConfig_;
  }
  const Kiv::Ptr<NameResolution::Status>& nameResolutionStatus() const {
    return nameResolutionStatus_;
  }
  const Kiv::Ptr<VirtualNetwork::RequestedResourcesCollection>& requestedResourcesCollection()
      const {
    return requestedResourcesCollection_;
  }
  // The region sync timeout, in seconds. A new value reaches every region machine, which uses it
  // from the next heartbeat on; an equal one does nothing.
  Kiv::Seconds regionSyncTimeout() const { return regionSyncTimeout_; }
  void regionSyncTimeoutIs(const Kiv::Seconds& timeout);
  Kiv::Ptr<const Config> config() const { return config_.entity(); }
  void configIs(const Kiv::Ptr<const Config>& v) { config_.is(*this, v); }
  void configDel() { config_.del(); }
  const Kiv::Ptr<VirtualNetwork::NetworkElementCollection>& networkElementCollection() const {
    return networkElementCollection_;
  }

  // The region machines, by region name. Throws a name-in-use exception when there is one that was
  // made with other entities; its timeout is written in any case but that of the first three.
  const RegionConfigSmMap& regionConfigSm() const { return regionConfigSm_; }
  RegionConfigSmMap& regionConfigSm() { return regionConfigSm_; }
  Kiv::Ptr<RegionConfigSm> regionConfigSmIs(
      const Kiv::Name& regionName, const Kiv::Ptr<const Region>& regionConfig,
      const Kiv::Ptr<RegionStatus>& regionStatus,
      const Kiv::Ptr<VirtualNetwork::RequestedResourcesCollection>& requestedResourcesCollection,
      Kiv::Seconds regionSyncTimeout,
      const Kiv::Ptr<VirtualNetwork::NetworkElementCollection>& networkElementCollection) {
    return regionConfigSm_.is(regionName, regionName, regionConfig, regionStatus,
                              requestedResourcesCollection, regionSyncTimeout,
                              networkElementCollection);
  }
  Kiv::Ptr<RegionConfigSm> regionConfigSmDel(const Kiv::Name& name) {
    return regionConfigSm_.del(name);
  }
  void regionConfigSmDelAll() { regionConfigSm_.delAll(); }
  void regionConfigSmNotify(const Kiv::Name& /*name*/) {}

  // The reactors of the VLAN assignments, by region name. Each change runs
  // handleRegionVlanAssignment() for its region. Throws a range exception for a null assignment.
  const VlanAssignmentMap& vlanAssignment() const { return vlanAssignment_; }
  VlanAssignmentMap& vlanAssignment() { return vlanAssignment_; }
  Kiv::Ptr<KivVlanAssignment> vlanAssignmentIs(const Kiv::Ptr<const VlanAssignment>& v) {
    return vlanAssignment_.is(*this, v, Refill{*this});
  }
  Kiv::Ptr<const VlanAssignment> vlanAssignmentDel(const Kiv::Name& name) {
    return vlanAssignment_.del(name, Refill{*this});
  }
  Kiv::Ptr<const VlanAssignment> vlanAssignmentDel(const VlanAssignmentMap::iterator& at) {
    return vlanAssignment_.del(at.key(), Refill{*this});
  }
  void vlanAssignmentDelAll() { vlanAssignment_.delAll(Refill{*this}); }

  // Handlers
  // Brings the machine in line with its inputs; once.
  void handleInitialized();
  // A region came, changed its presence, or went: keeps its status, pool and machine.
  void handleRegion(const Kiv::Name& regionName);
  // The timeout changed: hands it to every region machine.
  void handleRegionSyncTimeout();
  // The VLAN type driver changed: fills or empties the pools of the regions with an assignment.
  void handleVlanTypeDriver();
  // A region's assignment changed as a whole: stamps a new UUID and rebuilds the region's pool.
  void handleRegionVlanAssignment(const Kiv::Name& regionName);

 private:
  friend class Kiv::Machine<OpenStackSm>;

  auto reactors() { return std::tie(openstackConfig_, config_, vlanAssignment_); }
  auto children() { return std::tie(regionConfigSm_); }

  void mirrorVlanAssignment(const Config& config, const Kiv::Name& name) {
    vlanAssignment_.resynchroniseOne(*this, config.vlanAssignment(), name, Refill{*this});
  }
  void mirrorVlanAssignments(const Config& config) {
    vlanAssignment_.resynchronise(*this, config.vlanAssignment(), Refill{*this});
  }

  Kiv::ReactorSlot<KivOpenstackConfig> openstackConfig_;
  Kiv::Ptr<OpenStackStatus> openstackStatus_;
  Kiv::Ptr<const NameResolution::Config> nameResolutionConfig_;
  Kiv::Ptr<NameResolution::Status> nameResolutionStatus_;
  Kiv::Ptr<VirtualNetwork::RequestedResourcesCollection> requestedResourcesCollection_;
  Kiv::Seconds regionSyncTimeout_;
  Kiv::ReactorSlot<KivConfig> config_;
  Kiv::Ptr<VirtualNetwork::NetworkElementCollection> networkElementCollection_;
  RegionConfigSmMap regionConfigSm_;
  VlanAssignmentMap vlanAssignment_;

 public:
  // The attributes, in the order of their declaration, then the handlers of the nested reactors.
  static constexpr auto kAttributes = Kiv::attributes(
      Kiv::fixedArgument(130, "openstackConfig", &OpenStackSm::openstackConfig),
      Kiv::fixedArgument(131, "openstackStatus", &OpenStackSm::openstackStatus),
      Kiv::fixedArgument(132, "nameResolutionConfig", &OpenStackSm::nameResolutionConfig),
      Kiv::fixedArgument(133, "nameResolutionStatus", &OpenStackSm::nameResolutionStatus),
      Kiv::fixedArgument(134, "requestedResourcesCollection",
                         &OpenStackSm::requestedResourcesCollection),
      Kiv::changingArgument(135, "regionSyncTimeout", &OpenStackSm::regionSyncTimeout,
                            &OpenStackSm::regionSyncTimeoutIs),
      Kiv::fixedArgument(136, "config", &OpenStackSm::config),
      Kiv::fixedArgument(137, "networkElementCollection", &OpenStackSm::networkElementCollection),
      Kiv::handler(138, "handleRegionSyncTimeout",
                   "void OpenStack::OpenStackSm::handleRegionSyncTimeout()",
                   &OpenStackSm::handleRegionSyncTimeout),
      Kiv::collection(139, "regionConfigSm", "regionName", &OpenStackSm::regionConfigSm_,
                      &OpenStackSm::regionConfigSmIs, &OpenStackSm::regionConfigSmDel),
      Kiv::handler(140, "handleRegion", "void OpenStack::OpenStackSm::handleRegion(Kiv::Name)",
                   &OpenStackSm::handleRegion),
      Kiv::handler(142, "handleRegionVlanAssignment",
                   "void OpenStack::OpenStackSm::handleRegionVlanAssignment(Kiv::Name)",
                   &OpenStackSm::handleRegionVlanAssignment),
      Kiv::collection(143, "vlanAssignment", "regionName", &OpenStackSm::vlanAssignment_,
                      &OpenStackSm::vlanAssignmentIs,
                      Kiv::byKey<Kiv::Name>(&OpenStackSm::vlanAssignmentDel)),
      Kiv::handler(145, "handleVlanTypeDriver",
                   "void OpenStack::OpenStackSm::handleVlanTypeDriver()",
                   &OpenStackSm::handleVlanTypeDriver),
      Kiv::handler(146, "handleInitialized", "void OpenStack::OpenStackSm::handleInitialized()",
                   &OpenStackSm::handleInitialized),
      Kiv::plain(147, "initialized", &OpenStackSm::initialized, &OpenStackSm::initializedIs),
      Kiv::reactorHandler(
          "KivVlanAssignment::handleVlanAssignment",
          "void OpenStack::OpenStackSm::KivVlanAssignment::handleVlanAssignment(U16)"));
};

// Makes the root machine; see OpenStackSm::OpenStackSmIs().
[[nodiscard]] Kiv::Ptr<OpenStackSm> openStackSmFactory(
    const Kiv::Ptr<const OpenStackConfig>& openstackConfig,
    const Kiv::Ptr<OpenStackStatus>& openstackStatus,
    const Kiv::Ptr<const NameResolution::Config>& nameResolutionConfig,
    const Kiv::Ptr<NameResolution::Status>& nameResolutionStatus,
    const Kiv::Ptr<VirtualNetwork::RequestedResourcesCollection>& requestedResourcesCollection,
    Kiv::Seconds regionSyncTimeout, const Kiv::Ptr<const Config>& config,
    const Kiv::Ptr<VirtualNetwork::NetworkElementCollection>& networkElementCollection);

}  // namespace OpenStack
