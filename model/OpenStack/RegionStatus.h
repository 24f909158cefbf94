// The status of a region, as the switch keeps it. Activity thread only.
#pragma once

#include "model/OpenStack/Enumerations.h"
#include "model/OpenStack/VlanPool.h"

namespace [[gnu::visibility("default")]] OpenStack {

// The VLAN pools of a region status, of which there is one at most: that pool, or null, and the
// operations of a keyed collection. Borrowed until the status changes. P: VlanPool, const or not.
template <class P>
class VlanPools : public Kiv::Ptr<P> {
  using Collection = Kiv::Collection<VlanPool, Kiv::Name>;
  using Map = std::conditional_t<std::is_const_v<P>, const Collection, Collection>;

 public:
  VlanPools(std::nullptr_t) {}
  explicit VlanPools(Map& map) : map_(&map) {
    for (const auto& pool : map) Kiv::Ptr<P>::operator=(Kiv::Ptr<P>(pool));
  }

  // The pool of this name; null when absent.
  P* operator[](const Kiv::Name& name) const { return map_ == nullptr ? nullptr : (*map_)[name]; }
  bool contains(const Kiv::Name& name) const { return (*this)[name] != nullptr; }
  std::size_t size() const { return map_ == nullptr ? 0 : map_->size(); }
  bool empty() const { return size() == 0; }
  // Iteration; REQUIRES: not made from null.
  auto begin() const { return map_->begin(); }
  auto end() const { return map_->end(); }

 private:
  Map* map_ = nullptr;
};

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
    virtual void onVlanPool(const Kiv::Name& /*name*/) {}
    virtual void onVlanPoolkivImmediate() {}
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

  // The VLAN pool, by its name; owned. There is one at most: vlanPoolIs() returns the pool of this
  // name, which is made in the place of another one when absent.
  VlanPools<const VlanPool> vlanPool() const { return VlanPools<const VlanPool>(vlanPool_); }
  VlanPools<VlanPool> vlanPool() { return VlanPools<VlanPool>(vlanPool_); }
  Kiv::Ptr<VlanPool> vlanPoolIs(const Kiv::Name& name);
  Kiv::Ptr<VlanPool> vlanPoolDel(const Kiv::Name& name) {
    return vlanPool_.del(*this, kOnVlanPool, name);
  }
  void vlanPoolDel() { vlanPoolDelAll(); }
  void vlanPoolDelAll() { vlanPool_.delAll(*this, kOnVlanPool); }

  // Stamped anew at each change of the VLAN assignment; empty before the first.
  const Kiv::String& vlanAssignmentUuid() const { return vlanAssignmentUuid_.get(); }
  void vlanAssignmentUuidIs(const Kiv::String& v) {
    vlanAssignmentUuid_.is(*this, &NotifieeConst::onVlanAssignmentUuid, v);
  }

 private:
  static constexpr Kiv::On<NotifieeConst, Kiv::Name> kOnVlanPool{
      &NotifieeConst::onVlanPool, &NotifieeConst::onVlanPoolkivImmediate,
      &NotifieeConst::onVlanPool};

  // For the table of attributes.
  Kiv::Ptr<const VlanPool> onlyPool() const { return vlanPool(); }

  Kiv::Name name_;
  Kiv::Scalar<SyncStatus> syncStatus_;
  Kiv::Scalar<SyncStatus> oldSyncStatus_;
  Kiv::Scalar<Kiv::String> owner_;
  Kiv::Scalar<Kiv::String> requestId_;
  Kiv::Collection<VlanPool, Kiv::Name> vlanPool_;
  Kiv::Scalar<Kiv::String> vlanAssignmentUuid_;
};

}  // namespace OpenStack
