// Regions of the cloud. Activity thread only.
#pragma once

#include "model/OpenStack/MirroredObject.h"
#include "model/OpenStack/PortBinding.h"

namespace [[gnu::visibility("default")]] OpenStack {

// One region of the cloud, as its driver last described it.
class Region final : public Kiv::Entity<Region> {
 public:
  static constexpr std::string_view kTypeName = "OpenStack::Region";
  const Kiv::GenericIf* genericIf() const override;

  class NotifieeConst : public Kiv::Notifiee<Region> {
   public:
    virtual void onServiceEndPoint(const Kiv::Name& /*name*/) {}
    virtual void onServiceEndPointkivImmediate() {}
    virtual void onServiceEndPoint() {}
    virtual void onTenant(const Kiv::String& /*id*/) {}
    virtual void onTenantkivImmediate() {}
    virtual void onTenant() {}
    virtual void onNetwork(const Kiv::String& /*id*/) {}
    virtual void onNetworkkivImmediate() {}
    virtual void onNetwork() {}
    virtual void onSegment(const Kiv::String& /*id*/) {}
    virtual void onSegmentkivImmediate() {}
    virtual void onSegment() {}
    virtual void onPort(const Kiv::String& /*id*/) {}
    virtual void onPortkivImmediate() {}
    virtual void onPort() {}
    virtual void onVmInstance(const Kiv::String& /*id*/) {}
    virtual void onVmInstancekivImmediate() {}
    virtual void onVmInstance() {}
    virtual void onDhcpInstance(const Kiv::String& /*id*/) {}
    virtual void onDhcpInstancekivImmediate() {}
    virtual void onDhcpInstance() {}
    virtual void onBaremetalInstance(const Kiv::String& /*id*/) {}
    virtual void onBaremetalInstancekivImmediate() {}
    virtual void onBaremetalInstance() {}
    virtual void onRouterInstance(const Kiv::String& /*id*/) {}
    virtual void onRouterInstancekivImmediate() {}
    virtual void onRouterInstance() {}
    virtual void onPortBinding(const Kiv::String& /*portId*/) {}
    virtual void onPortBindingkivImmediate() {}
    virtual void onPortBinding() {}
    virtual void onSyncStatus() {}
    virtual void onSyncInterval() {}
    virtual void onSyncHeartbeat() {}
    virtual void onRequester() {}
    virtual void onRequestId() {}
  };

  explicit Region(Kiv::Name name) : name_(std::move(name)) {}

  // The region name; the key.
  const Kiv::Name& name() const { return name_; }
  const Kiv::Name& fwkKey() const { return name_; }

  // The service end points, by name; owned.
  const auto& serviceEndPoint() const { return serviceEndPoint_; }
  auto& serviceEndPoint() { return serviceEndPoint_; }
  Kiv::Ptr<NamedObject> serviceEndPointIs(const Kiv::Name& name) {
    return serviceEndPoint_.is(*this, kOnServiceEndPoint, name);
  }
  Kiv::Ptr<NamedObject> serviceEndPointIs(const Kiv::Ptr<NamedObject>& v) {
    return serviceEndPoint_.is(*this, kOnServiceEndPoint, v);
  }
  Kiv::Ptr<NamedObject> serviceEndPointDel(const Kiv::Name& name) {
    return serviceEndPoint_.del(*this, kOnServiceEndPoint, name);
  }
  void serviceEndPointDelAll() { serviceEndPoint_.delAll(*this, kOnServiceEndPoint); }

  // The tenants, by id; owned.
  const auto& tenant() const { return tenant_; }
  auto& tenant() { return tenant_; }
  Kiv::Ptr<IdentifiedObject> tenantIs(const Kiv::String& id) {
    return tenant_.is(*this, kOnTenant, id);
  }
  Kiv::Ptr<IdentifiedObject> tenantIs(const Kiv::Ptr<IdentifiedObject>& v) {
    return tenant_.is(*this, kOnTenant, v);
  }
  Kiv::Ptr<IdentifiedObject> tenantDel(const Kiv::String& id) {
    return tenant_.del(*this, kOnTenant, id);
  }
  void tenantDelAll() { tenant_.delAll(*this, kOnTenant); }

  // The networks, by id; owned.
  const auto& network() const { return network_; }
  auto& network() { return network_; }
  Kiv::Ptr<IdentifiedObject> networkIs(const Kiv::String& id) {
    return network_.is(*this, kOnNetwork, id);
  }
  Kiv::Ptr<IdentifiedObject> networkIs(const Kiv::Ptr<IdentifiedObject>& v) {
    return network_.is(*this, kOnNetwork, v);
  }
  Kiv::Ptr<IdentifiedObject> networkDel(const Kiv::String& id) {
    return network_.del(*this, kOnNetwork, id);
  }
  void networkDelAll() { network_.delAll(*this, kOnNetwork); }

  // The network segments, by segment id; owned.
  const auto& segment() const { return segment_; }
  auto& segment() { return segment_; }
  Kiv::Ptr<Segment> segmentIs(const Kiv::String& id) { return segment_.is(*this, kOnSegment, id); }
  Kiv::Ptr<Segment> segmentIs(const Kiv::Ptr<Segment>& v) {
    return segment_.is(*this, kOnSegment, v);
  }
  Kiv::Ptr<Segment> segmentDel(const Kiv::String& id) {
    return segment_.del(*this, kOnSegment, id);
  }
  void segmentDelAll() { segment_.delAll(*this, kOnSegment); }

  // The ports, by port id; owned.
  const auto& port() const { return port_; }
  auto& port() { return port_; }
  Kiv::Ptr<Port> portIs(const Kiv::String& id) { return port_.is(*this, kOnPort, id); }
  Kiv::Ptr<Port> portIs(const Kiv::Ptr<Port>& v) { return port_.is(*this, kOnPort, v); }
  Kiv::Ptr<Port> portDel(const Kiv::String& id) { return port_.del(*this, kOnPort, id); }
  void portDelAll() { port_.delAll(*this, kOnPort); }

  // The virtual machines, by id; owned.
  const auto& vmInstance() const { return vmInstance_; }
  auto& vmInstance() { return vmInstance_; }
  Kiv::Ptr<IdentifiedObject> vmInstanceIs(const Kiv::String& id) {
    return vmInstance_.is(*this, kOnVmInstance, id);
  }
  Kiv::Ptr<IdentifiedObject> vmInstanceIs(const Kiv::Ptr<IdentifiedObject>& v) {
    return vmInstance_.is(*this, kOnVmInstance, v);
  }
  Kiv::Ptr<IdentifiedObject> vmInstanceDel(const Kiv::String& id) {
    return vmInstance_.del(*this, kOnVmInstance, id);
  }
  void vmInstanceDelAll() { vmInstance_.delAll(*this, kOnVmInstance); }

  // The DHCP servers, by id; owned.
  const auto& dhcpInstance() const { return dhcpInstance_; }
  auto& dhcpInstance() { return dhcpInstance_; }
  Kiv::Ptr<IdentifiedObject> dhcpInstanceIs(const Kiv::String& id) {
    return dhcpInstance_.is(*this, kOnDhcpInstance, id);
  }
  Kiv::Ptr<IdentifiedObject> dhcpInstanceIs(const Kiv::Ptr<IdentifiedObject>& v) {
    return dhcpInstance_.is(*this, kOnDhcpInstance, v);
  }
  Kiv::Ptr<IdentifiedObject> dhcpInstanceDel(const Kiv::String& id) {
    return dhcpInstance_.del(*this, kOnDhcpInstance, id);
  }
  void dhcpInstanceDelAll() { dhcpInstance_.delAll(*this, kOnDhcpInstance); }

  // The bare-metal servers, by id; owned.
  const auto& baremetalInstance() const { return baremetalInstance_; }
  auto& baremetalInstance() { return baremetalInstance_; }
  Kiv::Ptr<IdentifiedObject> baremetalInstanceIs(const Kiv::String& id) {
    return baremetalInstance_.is(*this, kOnBaremetalInstance, id);
  }
  Kiv::Ptr<IdentifiedObject> baremetalInstanceIs(const Kiv::Ptr<IdentifiedObject>& v) {
    return baremetalInstance_.is(*this, kOnBaremetalInstance, v);
  }
  Kiv::Ptr<IdentifiedObject> baremetalInstanceDel(const Kiv::String& id) {
    return baremetalInstance_.del(*this, kOnBaremetalInstance, id);
  }
  void baremetalInstanceDelAll() { baremetalInstance_.delAll(*this, kOnBaremetalInstance); }

  // The routers, by id; owned.
  const auto& routerInstance() const { return routerInstance_; }
  auto& routerInstance() { return routerInstance_; }
  Kiv::Ptr<IdentifiedObject> routerInstanceIs(const Kiv::String& id) {
    return routerInstance_.is(*this, kOnRouterInstance, id);
  }
  Kiv::Ptr<IdentifiedObject> routerInstanceIs(const Kiv::Ptr<IdentifiedObject>& v) {
    return routerInstance_.is(*this, kOnRouterInstance, v);
  }
  Kiv::Ptr<IdentifiedObject> routerInstanceDel(const Kiv::String& id) {
    return routerInstance_.del(*this, kOnRouterInstance, id);
  }
  void routerInstanceDelAll() { routerInstance_.delAll(*this, kOnRouterInstance); }

  // The bound ports, by port id; owned.
  const auto& portBinding() const { return portBinding_; }
  auto& portBinding() { return portBinding_; }
  Kiv::Ptr<PortBinding> portBindingIs(const Kiv::String& portId) {
    return portBinding_.is(*this, kOnPortBinding, portId);
  }
  Kiv::Ptr<PortBinding> portBindingIs(const Kiv::Ptr<PortBinding>& v) {
    return portBinding_.is(*this, kOnPortBinding, v);
  }
  Kiv::Ptr<PortBinding> portBindingDel(const Kiv::String& portId) {
    return portBinding_.del(*this, kOnPortBinding, portId);
  }
  void portBindingDelAll() { portBinding_.delAll(*this, kOnPortBinding); }

  // The sync status that the cloud driver asks for.
  SyncStatus syncStatus() const { return syncStatus_.get(); }
  void syncStatusIs(SyncStatus v) { syncStatus_.is(*this, &NotifieeConst::onSyncStatus, v); }

  // How often the driver means to sync, in seconds.
  double syncInterval() const { return syncInterval_.get(); }
  void syncIntervalIs(double v) { syncInterval_.is(*this, &NotifieeConst::onSyncInterval, v); }

  // Written by the driver at each heartbeat; only the write counts.
  double syncHeartbeat() const { return syncHeartbeat_.get(); }
  void syncHeartbeatIs(double v) { syncHeartbeat_.is(*this, &NotifieeConst::onSyncHeartbeat, v); }

  // The driver that asks for the sync lock.
  const Kiv::String& requester() const { return requester_.get(); }
  void requesterIs(const Kiv::String& v) { requester_.is(*this, &NotifieeConst::onRequester, v); }

  // The id of its request; empty for none.
  const Kiv::String& requestId() const { return requestId_.get(); }
  void requestIdIs(const Kiv::String& v) { requestId_.is(*this, &NotifieeConst::onRequestId, v); }

 private:
  static constexpr Kiv::On<NotifieeConst, Kiv::Name> kOnServiceEndPoint{
      &NotifieeConst::onServiceEndPoint, &NotifieeConst::onServiceEndPointkivImmediate,
      &NotifieeConst::onServiceEndPoint, "serviceEndPoint"};
  static constexpr Kiv::On<NotifieeConst, Kiv::String> kOnTenant{
      &NotifieeConst::onTenant, &NotifieeConst::onTenantkivImmediate, &NotifieeConst::onTenant,
      "tenant"};
  static constexpr Kiv::On<NotifieeConst, Kiv::String> kOnNetwork{
      &NotifieeConst::onNetwork, &NotifieeConst::onNetworkkivImmediate, &NotifieeConst::onNetwork,
      "network"};
  static constexpr Kiv::On<NotifieeConst, Kiv::String> kOnSegment{
      &NotifieeConst::onSegment, &NotifieeConst::onSegmentkivImmediate, &NotifieeConst::onSegment,
      "segment"};
  static constexpr Kiv::On<NotifieeConst, Kiv::String> kOnPort{
      &NotifieeConst::onPort, &NotifieeConst::onPortkivImmediate, &NotifieeConst::onPort, "port"};
  static constexpr Kiv::On<NotifieeConst, Kiv::String> kOnVmInstance{
      &NotifieeConst::onVmInstance, &NotifieeConst::onVmInstancekivImmediate,
      &NotifieeConst::onVmInstance, "vmInstance"};
  static constexpr Kiv::On<NotifieeConst, Kiv::String> kOnDhcpInstance{
      &NotifieeConst::onDhcpInstance, &NotifieeConst::onDhcpInstancekivImmediate,
      &NotifieeConst::onDhcpInstance, "dhcpInstance"};
  static constexpr Kiv::On<NotifieeConst, Kiv::String> kOnBaremetalInstance{
      &NotifieeConst::onBaremetalInstance, &NotifieeConst::onBaremetalInstancekivImmediate,
      &NotifieeConst::onBaremetalInstance, "baremetalInstance"};
  static constexpr Kiv::On<NotifieeConst, Kiv::String> kOnRouterInstance{
      &NotifieeConst::onRouterInstance, &NotifieeConst::onRouterInstancekivImmediate,
      &NotifieeConst::onRouterInstance, "routerInstance"};
  static constexpr Kiv::On<NotifieeConst, Kiv::String> kOnPortBinding{
      &NotifieeConst::onPortBinding, &NotifieeConst::onPortBindingkivImmediate,
      &NotifieeConst::onPortBinding, "portBinding"};

  Kiv::Name name_;
  Kiv::Collection<NamedObject, Kiv::Name> serviceEndPoint_;
  Kiv::Collection<IdentifiedObject, Kiv::String> tenant_;
  Kiv::Collection<IdentifiedObject, Kiv::String> network_;
  Kiv::Collection<Segment, Kiv::String> segment_;
  Kiv::Collection<Port, Kiv::String> port_;
  Kiv::Collection<IdentifiedObject, Kiv::String> vmInstance_;
  Kiv::Collection<IdentifiedObject, Kiv::String> dhcpInstance_;
  Kiv::Collection<IdentifiedObject, Kiv::String> baremetalInstance_;
  Kiv::Collection<IdentifiedObject, Kiv::String> routerInstance_;
  Kiv::Collection<PortBinding, Kiv::String> portBinding_;
  Kiv::Scalar<SyncStatus> syncStatus_;
  Kiv::Scalar<double> syncInterval_;
  Kiv::Scalar<double> syncHeartbeat_;
  Kiv::Scalar<Kiv::String> requester_;
  Kiv::Scalar<Kiv::String> requestId_;
};

}  // namespace OpenStack
