// The status of a region, as the switch keeps it. Activity thread only.
#pragma once

#include "model/OpenStack/Enumerations.h"
#include "model/OpenStack/VlanPool.h"

namespace [[gnu::visibility("default")]] OpenStack {

// What the machines say of one region.
class RegionStatus final : public Kiv::Entity<RegionStatus> {
 public:
  static constexpr std::string_view kTypeName = "OpenStack::RegionStatus";
  const Kiv::GenericIf* genericIf() const override;

  class NotifieeConst : public Kiv::Notifiee<RegionStatus> {
   public:
    virtual void onSyncStatus() {}
    virtual void onOldSyncStatus() {}
    virtual void onOwner() {}
    virtual void onRequestId() {}
    virtual void onVlanPool() {}
    virtual void onVlanAssignmentUuid() {}
  };

  explicit RegionStatus(Kiv::Name name) : name_(std::move(name)) {}

  // The region name; the key.
  const Kiv::Name& name() const { return name_; }
  const Kiv::Name& fwkKey() const { return name_; }

  // The sync status as the switch sees it.
  SyncStatus syncStatus() const { return syncStatus_.get(); }
  void syncStatusIs(SyncStatus v) { syncStatus_.is(*this, &NotifieeConst::onSyncStatus, v); }

  // What syncStatus was before its last write.
  SyncStatus oldSyncStatus() const { return oldSyncStatus_.get(); }
  void oldSyncStatusIs(SyncStatus v) {
    oldSyncStatus_.is(*this, &NotifieeConst::onOldSyncStatus, v);
  }

  // The holder of the sync lock; empty when it is free.
  const Kiv::String& owner() const { return owner_.get(); }
  void ownerIs(const Kiv::String& v) { owner_.is(*this, &NotifieeConst::onOwner, v); }

  // The request for which the lock was granted; empty when it is free.
  const Kiv::String& requestId() const { return requestId_.get(); }
  void requestIdIs(const Kiv::String& v) { requestId_.is(*this, &NotifieeConst::onRequestId, v); }

  // The VLAN pool; owned, null until it is made. vlanPoolIs() returns the pool of this name, made
  // when there is none.
  Kiv::Ptr<const VlanPool> vlanPool() const { return vlanPool_.get(); }
  Kiv::Ptr<VlanPool> vlanPool() { return vlanPool_.get(); }
  Kiv::Ptr<VlanPool> vlanPoolIs(const Kiv::Name& name);
  void vlanPoolDel() { vlanPool_.is(*this, &NotifieeConst::onVlanPool, nullptr); }

  // Stamped anew at each change of the VLAN assignment; empty before the first.
  const Kiv::String& vlanAssignmentUuid() const { return vlanAssignmentUuid_.get(); }
  void vlanAssignmentUuidIs(const Kiv::String& v) {
    vlanAssignmentUuid_.is(*this, &NotifieeConst::onVlanAssignmentUuid, v);
  }

 private:
  Kiv::Name name_;
  Kiv::Scalar<SyncStatus> syncStatus_;
  Kiv::Scalar<SyncStatus> oldSyncStatus_;
  Kiv::Scalar<Kiv::String> owner_;
  Kiv::Scalar<Kiv::String> requestId_;
  Kiv::Scalar<Kiv::Ptr<VlanPool>> vlanPool_;
  Kiv::Scalar<Kiv::String> vlanAssignmentUuid_;
};

}  // namespace OpenStack
