// The region machine: one for each configured region.
//
// Mirrors the driver's sync status, runs the sync heartbeat timer, arbitrates the sync lock, moves
// VLANs of the pool as segments are added and removed, and owns one port-binding machine for each
// port binding. Made and deleted by the root machine. Activity thread only.
#pragma once

#include "OpenStackSm/Attributes.h"
#include "OpenStackSm/PortBindingSm.h"
#include "framework/Machine.h"
#include "model/OpenStack/Region.h"
#include "model/OpenStack/RegionStatus.h"

namespace [[gnu::visibility("default")]] OpenStack {

class RegionConfigSm;

// Makes the machine of a region, which handles it as it is. A null region is not observed; a null
// status or collection throws the range exception "null ValidPtr".
[[nodiscard]] Kiv::Ptr<RegionConfigSm> regionConfigSmFactory(
    const Kiv::Name& regionName, const Kiv::Ptr<const Region>& regionConfig,
    const Kiv::Ptr<RegionStatus>& regionStatus,
    const Kiv::Ptr<RequestedResourcesCollection>& requestedResourcesCollection,
    const Kiv::Seconds& regionSyncTimeout,
    const Kiv::Ptr<NetworkElementCollection>& networkElementCollection);

class RegionConfigSm final : public Kiv::Machine<RegionConfigSm, &regionConfigSmFactory> {
 public:
  static constexpr std::string_view kTypeName = "OpenStack::RegionConfigSm";
  // The end of a region machine leaves all that its region has published; only removals in the
  // region withdraw.
  static constexpr bool kTeardownRunsCleanup = false;

  // Observes the region; mirrors its segments and port bindings.
  class KivRegionConfig final : public Kiv::Reactor<KivRegionConfig, RegionConfigSm, Region> {
   public:
    static constexpr std::string_view kTypeName = "OpenStack::RegionConfigSm::KivRegionConfig";
    using Reactor::Reactor;

    void onSegment(const Kiv::String& id) override {
      const Kiv::String key = id;
      if (mirrors()) machine()->mirrorSegment(*entity(), key);
      if (live()) machine()->handleSegment(key);
    }
    void onSegmentkivImmediate() override {
      if (mirrors()) machine()->followSegments(*entity());
    }
    void onPortBinding(const Kiv::String& portId) override {
      const Kiv::String key = portId;
      if (mirrors()) machine()->mirrorPortBinding(*entity(), key);
      if (live()) machine()->handlePortBinding(key);
    }
    void onPortBindingkivImmediate() override {
      if (mirrors()) machine()->followPortBindings(*entity());
    }
    void onSyncStatus() override {
      if (live()) machine()->handleSyncStatus();
    }
    void onSyncHeartbeat() override {
      if (live()) machine()->handleHeartbeat();
    }
    void onRequester() override {
      if (live()) machine()->handleLockRequest();
    }
    void onRequestId() override { onRequester(); }

   private:
    void mirror() override { machine()->mirrorAll(*entity()); }
    void handleScalars() override {
      onSyncStatus();
      onSyncHeartbeat();
      onRequester();
    }
  };

  // The timer of the sync heartbeat.
  class KivSyncHeartbeatClock final
      : public Kiv::Reactor<KivSyncHeartbeatClock, RegionConfigSm, Kiv::Clock> {
   public:
    static constexpr std::string_view kTypeName =
        "OpenStack::RegionConfigSm::KivSyncHeartbeatClock";
    using Reactor::Reactor;

    void onTime() override {
      if (live()) machine()->handleSyncHeartbeatTimeout();
    }
  };

  // One segment; its removal returns the segment's VLAN to the pool.
  class KivSegment final : public Kiv::PassiveReactor<KivSegment, RegionConfigSm, Segment> {
   public:
    static constexpr std::string_view kTypeName = "OpenStack::RegionConfigSm::KivSegment";
    using PassiveReactor::PassiveReactor;

    // Returns the segment's VLAN to the pool.
    void handleCleanup();

   private:
    void kivHandle() override { machine()->kiv_handleSegment(Kiv::Ptr<KivSegment>(this)); }
  };

  // One port binding; its removal withdraws what the binding published.
  class KivPortBinding final
      : public Kiv::PassiveReactor<KivPortBinding, RegionConfigSm, PortBinding> {
   public:
    static constexpr std::string_view kTypeName = "OpenStack::RegionConfigSm::KivPortBinding";
    using PassiveReactor::PassiveReactor;

    // Runs the cleanup of the port binding's machine and deletes the machine.
    void handleCleanup();

   private:
    void kivHandle() override { machine()->kiv_handlePortBinding(Kiv::Ptr<KivPortBinding>(this)); }
  };

  using PortBindingSmMap = Kiv::ChildMap<PortBindingSm, Kiv::String>;
  using SegmentMap = Kiv::ReactorMap<KivSegment, Kiv::String>;
  using PortBindingMap = Kiv::ReactorMap<KivPortBinding, Kiv::String>;

  // What the machine is made with.
  struct Arguments {
    Kiv::Name regionName;
    Kiv::ReactorSlot<KivRegionConfig> regionConfig;
    Kiv::ValidPtr<RegionStatus> regionStatus;
    Kiv::ValidPtr<RequestedResourcesCollection> requestedResourcesCollection;
    Kiv::Seconds regionSyncTimeout;
    Kiv::ValidPtr<NetworkElementCollection> networkElementCollection;
  };

  static constexpr auto& RegionConfigSmIs = regionConfigSmFactory;
  RegionConfigSm(Arguments&& arguments, Kiv::Start start) : arguments_(std::move(arguments)) {
    begin(start);
  }
  ~RegionConfigSm() override;

  // Constructor arguments
  const Kiv::Name& regionName() const { return arguments_.regionName; }
  const Kiv::Name& fwkKey() const { return arguments_.regionName; }
  Kiv::Ptr<const Region> regionConfig() const { return arguments_.regionConfig.entity(); }
  void regionConfigIs(const Kiv::Ptr<const Region>& v) { arguments_.regionConfig.is(*this, v); }
  void regionConfigDel() { arguments_.regionConfig.del(); }
  const Kiv::Ptr<RegionStatus>& regionStatus() const { return arguments_.regionStatus; }
  const Kiv::Ptr<RequestedResourcesCollection>& requestedResourcesCollection() const {
    return arguments_.requestedResourcesCollection;
  }
  // The heartbeat timeout, in seconds. A new one counts from the next heartbeat on.
  Kiv::Seconds regionSyncTimeout() const { return arguments_.regionSyncTimeout; }
  void regionSyncTimeoutIs(const Kiv::Seconds& timeout) { arguments_.regionSyncTimeout = timeout; }
  const Kiv::Ptr<NetworkElementCollection>& networkElementCollection() const {
    return arguments_.networkElementCollection;
  }

  // The heartbeat timer's reactor; null until handleInitialized() has made it.
  KivSyncHeartbeatClock* syncHeartbeatClock() const { return syncHeartbeatClock_.reactor(); }
  // The clock that it observes; null while there is no reactor.
  Kiv::Ptr<const Kiv::Clock> observedClock() const { return syncHeartbeatClock_.entity(); }
  void syncHeartbeatClockIs(const Kiv::Ptr<const Kiv::Clock>& v) {
    syncHeartbeatClock_.is(*this, v);
  }
  void syncHeartbeatClockDel() { syncHeartbeatClock_.del(); }

  // The port-binding machines, by port id. Throws a name-in-use exception when there is one that
  // was made with other arguments. Deleting runs no cleanup.
  const PortBindingSmMap& portBindingSm() const { return portBindingSm_; }
  PortBindingSmMap& portBindingSm() { return portBindingSm_; }
  Kiv::Ptr<PortBindingSm> portBindingSmIs(
      const Kiv::Name& regionName, const Kiv::String& portId, const Kiv::Ptr<const Port>& port,
      const Kiv::Ptr<const PortBinding>& portBinding,
      const Kiv::Ptr<RequestedResourcesCollection>& requestedResourcesCollection,
      const Kiv::Ptr<NetworkElementCollection>& networkElementCollection) {
    return portBindingSm_.is(portId, regionName, portId, port, portBinding,
                             requestedResourcesCollection, networkElementCollection);
  }
  Kiv::Ptr<PortBindingSm> portBindingSmDel(const Kiv::String& portId) {
    return portBindingSm_.del(portId);
  }
  void portBindingSmDelAll() { portBindingSm_.delAll(); }
  void portBindingSmNotify(const Kiv::String& /*portId*/) {}

  // The reactors of the segments, by segment id. Throws a range exception for a null segment.
  const SegmentMap& segment() const { return segment_; }
  SegmentMap& segment() { return segment_; }
  Kiv::Ptr<KivSegment> segmentIs(const Kiv::Ptr<const Segment>& v) { return segment_.is(*this, v); }
  Kiv::Ptr<const Segment> segmentDel(const Kiv::String& id) { return segment_.del(id); }
  Kiv::Ptr<const Segment> segmentDel(const SegmentMap::iterator& at) {
    return segment_.del(at.key());
  }
  void segmentDelAll() { segment_.delAll(); }
  void segmentNotify(const Kiv::String& /*id*/) {}
  void kiv_handleSegment(const Kiv::Ptr<KivSegment>& reactor) { reactor->handleCleanup(); }

  // The reactors of the port bindings, by port id. Throws a range exception for a null binding.
  const PortBindingMap& portBinding() const { return portBinding_; }
  PortBindingMap& portBinding() { return portBinding_; }
  Kiv::Ptr<KivPortBinding> portBindingIs(const Kiv::Ptr<const PortBinding>& v) {
    return portBinding_.is(*this, v);
  }
  Kiv::Ptr<const PortBinding> portBindingDel(const Kiv::String& portId) {
    return portBinding_.del(portId);
  }
  Kiv::Ptr<const PortBinding> portBindingDel(const PortBindingMap::iterator& at) {
    return portBinding_.del(at.key());
  }
  void portBindingDelAll() { portBinding_.delAll(); }
  void portBindingNotify(const Kiv::String& /*portId*/) {}
  void kiv_handlePortBinding(const Kiv::Ptr<KivPortBinding>& reactor) { reactor->handleCleanup(); }

  // Handlers
  // Makes the timer, traces the region's inventory, handles all that the region holds; once.
  void handleInitialized();
  // A segment was added, changed or removed: allocates its VLAN in the pool.
  void handleSegment(const Kiv::String& id);
  // A port binding was added or removed: makes or deletes its machine.
  void handlePortBinding(const Kiv::String& portId);
  // The driver asks for a sync status: applies it, or refuses a completion without a start.
  void handleSyncStatus();
  // The driver is alive: pushes the timer forward.
  void handleHeartbeat();
  // The driver was silent for too long: the sync timed out, and the lock is free.
  void handleSyncHeartbeatTimeout();
  // A driver asks for the sync lock, or gives it back.
  void handleLockRequest();

 private:
  friend class Kiv::Machine<RegionConfigSm, &regionConfigSmFactory>;

  auto reactors() {
    return std::tie(arguments_.regionConfig, syncHeartbeatClock_, segment_, portBinding_);
  }
  auto children() { return std::tie(portBindingSm_); }
  void withdraw() {
    portBindingDelAll();
    segmentDelAll();
  }

  void mirrorAll(const Region& region) {
    segment_.synchronise(*this, region.segment());
    portBinding_.synchronise(*this, region.portBinding());
  }
  void followSegments(const Region& region) { segment_.follow(*this, region.segment()); }
  void mirrorSegment(const Region& region, const Kiv::String& id) {
    segment_.synchroniseOne(*this, region.segment(), id);
  }
  void followPortBindings(const Region& region) {
    portBinding_.follow(*this, region.portBinding());
  }
  void mirrorPortBinding(const Region& region, const Kiv::String& portId) {
    portBinding_.synchroniseOne(*this, region.portBinding(), portId);
  }

  Arguments arguments_;
  Kiv::ReactorSlot<KivSyncHeartbeatClock> syncHeartbeatClock_;
  PortBindingSmMap portBindingSm_;
  SegmentMap segment_;
  PortBindingMap portBinding_;

 public:
  // The attributes, in the order of their declaration, then the handlers of the nested reactors.
  static constexpr auto kAttributes = Kiv::attributes(
      Kiv::keyArgument(130, "regionName", &RegionConfigSm::regionName),
      Kiv::fixedArgument(131, "regionConfig", &RegionConfigSm::regionConfig),
      Kiv::fixedArgument(132, "regionStatus", &RegionConfigSm::regionStatus),
      Kiv::fixedArgument(133, "requestedResourcesCollection",
                         &RegionConfigSm::requestedResourcesCollection),
      Kiv::changingArgument(134, "regionSyncTimeout", &RegionConfigSm::regionSyncTimeout,
                            &RegionConfigSm::regionSyncTimeoutIs),
      Kiv::fixedArgument(135, "networkElementCollection",
                         &RegionConfigSm::networkElementCollection),
      Kiv::plain(136, "syncHeartbeatClock", &RegionConfigSm::observedClock),
      Kiv::collection(137, "portBindingSm", "portId", &RegionConfigSm::portBindingSm_,
                      &RegionConfigSm::portBindingSmIs, &RegionConfigSm::portBindingSmDel),
      Kiv::collection(138, "segment", "id", &RegionConfigSm::segment_, &RegionConfigSm::segmentIs,
                      Kiv::byKey<Kiv::String>(&RegionConfigSm::segmentDel)),
      Kiv::handler(139, "handleSegment",
                   "void OpenStack::RegionConfigSm::handleSegment(Kiv::String)",
                   &RegionConfigSm::handleSegment),
      Kiv::collection(142, "portBinding", "portId", &RegionConfigSm::portBinding_,
                      &RegionConfigSm::portBindingIs,
                      Kiv::byKey<Kiv::String>(&RegionConfigSm::portBindingDel)),
      Kiv::handler(143, "handlePortBinding",
                   "void OpenStack::RegionConfigSm::handlePortBinding(Kiv::String)",
                   &RegionConfigSm::handlePortBinding),
      Kiv::handler(146, "handleSyncStatus", "void OpenStack::RegionConfigSm::handleSyncStatus()",
                   &RegionConfigSm::handleSyncStatus),
      Kiv::handler(147, "handleHeartbeat", "void OpenStack::RegionConfigSm::handleHeartbeat()",
                   &RegionConfigSm::handleHeartbeat),
      Kiv::handler(148, "handleSyncHeartbeatTimeout",
                   "void OpenStack::RegionConfigSm::handleSyncHeartbeatTimeout()",
                   &RegionConfigSm::handleSyncHeartbeatTimeout),
      Kiv::handler(149, "handleLockRequest", "void OpenStack::RegionConfigSm::handleLockRequest()",
                   &RegionConfigSm::handleLockRequest),
      Kiv::handler(150, "handleInitialized", "void OpenStack::RegionConfigSm::handleInitialized()",
                   &RegionConfigSm::handleInitialized),
      Kiv::plain(151, "initialized", &RegionConfigSm::initialized, &RegionConfigSm::initializedIs),
      Kiv::reactorHandler("KivSegment::handleCleanup",
                          "void OpenStack::RegionConfigSm::KivSegment::handleCleanup()"),
      Kiv::reactorHandler("KivPortBinding::handleCleanup",
                          "void OpenStack::RegionConfigSm::KivPortBinding::handleCleanup()"));
};

}  // namespace OpenStack

extern template class Kiv::Machine<OpenStack::RegionConfigSm, &OpenStack::regionConfigSmFactory>;
