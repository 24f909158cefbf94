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

class OpenStackSm;

// Makes the root machine, which handles the inputs as they are. A null input is not observed; a
// null status or collection throws the range exception "null ValidPtr". The two of name resolution
// may be null.
[[nodiscard]] Kiv::Ptr<OpenStackSm> openStackSmFactory(
    const Kiv::Ptr<const OpenStackConfig>& openstackConfig,
    const Kiv::Ptr<OpenStackStatus>& openstackStatus,
    const Kiv::Ptr<const NameResolution::Config>& nameResolutionConfig,
    const Kiv::Ptr<NameResolution::Status>& nameResolutionStatus,
    const Kiv::Ptr<RequestedResourcesCollection>& requestedResourcesCollection,
    Kiv::Seconds regionSyncTimeout, const Kiv::Ptr<const Config>& config,
    const Kiv::Ptr<NetworkElementCollection>& networkElementCollection);

class OpenStackSm final : public Kiv::Machine<OpenStackSm, &openStackSmFactory> {
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
      if (mirrors()) machine()->mirrorVlanAssignment(*entity(), name);
    }
    void onVlanAssignmentkivImmediate() override {
      if (mirrors()) machine()->followVlanAssignments(*entity());
    }

   private:
    void mirror() override { machine()->mirrorVlanAssignments(*entity()); }
    void handleScalars() override { onVlanTypeDriver(); }
  };

  // Observes one region's VLAN assignment.
  class KivVlanAssignment final
      : public Kiv::MemberReactor<KivVlanAssignment, OpenStackSm, VlanAssignment> {
   public:
    static constexpr std::string_view kTypeName = "OpenStack::OpenStackSm::KivVlanAssignment";
    using MemberReactor::MemberReactor;

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

  // What the machine is made with.
  struct Arguments {
    Kiv::ReactorSlot<KivOpenstackConfig> openstackConfig;
    Kiv::ValidPtr<OpenStackStatus> openstackStatus;
    Kiv::Ptr<const NameResolution::Config> nameResolutionConfig;
    Kiv::Ptr<NameResolution::Status> nameResolutionStatus;
    Kiv::ValidPtr<RequestedResourcesCollection> requestedResourcesCollection;
    Kiv::Seconds regionSyncTimeout;
    Kiv::ReactorSlot<KivConfig> config;
    Kiv::ValidPtr<NetworkElementCollection> networkElementCollection;
  };

  static constexpr auto& OpenStackSmIs = openStackSmFactory;
  OpenStackSm(Arguments&& arguments, Kiv::Start start) : arguments_(std::move(arguments)) {
    begin(start);
  }
  ~OpenStackSm() override;

  // Constructor arguments
  Kiv::Ptr<const OpenStackConfig> openstackConfig() const {
    return arguments_.openstackConfig.entity();
  }
  void openstackConfigIs(const Kiv::Ptr<const OpenStackConfig>& v) {
    arguments_.openstackConfig.is(*this, v);
  }
  void openstackConfigDel() { arguments_.openstackConfig.del(); }
  const Kiv::Ptr<OpenStackStatus>& openstackStatus() const { return arguments_.openstackStatus; }
  const Kiv::Ptr<const NameResolution::Config>& nameResolutionConfig() const {
    return arguments_.nameResolutionConfig;
  }
  const Kiv::Ptr<NameResolution::Status>& nameResolutionStatus() const {
    return arguments_.nameResolutionStatus;
  }
  const Kiv::Ptr<RequestedResourcesCollection>& requestedResourcesCollection() const {
    return arguments_.requestedResourcesCollection;
  }
  // The region sync timeout, in seconds. A new value reaches every region machine, which uses it
  // from the next heartbeat on; an equal one does nothing.
  Kiv::Seconds regionSyncTimeout() const { return arguments_.regionSyncTimeout; }
  void regionSyncTimeoutIs(const Kiv::Seconds& timeout);
  Kiv::Ptr<const Config> config() const { return arguments_.config.entity(); }
  void configIs(const Kiv::Ptr<const Config>& v) { arguments_.config.is(*this, v); }
  void configDel() { arguments_.config.del(); }
  const Kiv::Ptr<NetworkElementCollection>& networkElementCollection() const {
    return arguments_.networkElementCollection;
  }

  // The region machines, by region name. Throws a name-in-use exception when there is one that was
  // made with other entities; its timeout is written in any case but that of the first three.
  const RegionConfigSmMap& regionConfigSm() const { return regionConfigSm_; }
  RegionConfigSmMap& regionConfigSm() { return regionConfigSm_; }
  Kiv::Ptr<RegionConfigSm> regionConfigSmIs(
      const Kiv::Name& regionName, const Kiv::Ptr<const Region>& regionConfig,
      const Kiv::Ptr<RegionStatus>& regionStatus,
      const Kiv::Ptr<RequestedResourcesCollection>& requestedResourcesCollection,
      Kiv::Seconds regionSyncTimeout,
      const Kiv::Ptr<NetworkElementCollection>& networkElementCollection) {
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
  void vlanAssignmentNotify(const Kiv::Name& /*name*/) {}

  // Handlers
  // Handles every configured region; once.
  void handleInitialized();
  // A region was added, replaced or removed: makes or deletes its status, pool and machine.
  void handleRegion(const Kiv::Name& regionName);
  // The timeout changed: hands it to every region machine.
  void handleRegionSyncTimeout();
  // The VLAN type driver changed: fills or empties the pools of the regions with an assignment.
  void handleVlanTypeDriver();
  // A region's assignment changed as a whole: stamps a new UUID and rebuilds the region's pool.
  void handleRegionVlanAssignment(const Kiv::Name& regionName);

 private:
  friend class Kiv::Machine<OpenStackSm, &openStackSmFactory>;

  auto reactors() {
    return std::tie(arguments_.openstackConfig, arguments_.config, vlanAssignment_);
  }
  auto children() { return std::tie(regionConfigSm_); }
  void withdraw() {
    for (const auto& child : regionConfigSm_) child->abandon();
  }

  void mirrorVlanAssignments(const Config& config) {
    vlanAssignment_.synchronise(*this, config.vlanAssignment(), Refill{*this});
  }
  void followVlanAssignments(const Config& config) {
    vlanAssignment_.follow(*this, config.vlanAssignment(), Refill{*this});
  }
  void mirrorVlanAssignment(const Config& config, const Kiv::Name& name) {
    vlanAssignment_.synchroniseOne(*this, config.vlanAssignment(), name, Refill{*this});
  }

  Arguments arguments_;
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

}  // namespace OpenStack

extern template class Kiv::Machine<OpenStack::OpenStackSm, &OpenStack::openStackSmFactory>;
