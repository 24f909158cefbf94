// The status of all regions. Activity thread only.
#pragma once

#include "model/OpenStack/RegionStatus.h"

namespace [[gnu::visibility("default")]] OpenStack {

// What the machines say of the cloud; one for each agent.
class OpenStackStatus final : public Kiv::Entity<OpenStackStatus> {
 public:
  static constexpr std::string_view kTypeName = "OpenStack::OpenStackStatus";
  const Kiv::GenericIf* genericIf() const override;

  class NotifieeConst : public Kiv::Notifiee<OpenStackStatus> {
   public:
    virtual void onRegionStatus(const Kiv::Name& /*name*/) {}
    virtual void onRegionStatuskivImmediate() {}
    virtual void onRegionStatus() {}
  };

  // The regions' status, by region name; owned, with all that it owns.
  const auto& regionStatus() const { return regionStatus_; }
  auto& regionStatus() { return regionStatus_; }
  Kiv::Ptr<RegionStatus> regionStatusIs(const Kiv::Name& name) {
    return regionStatus_.is(*this, kOnRegionStatus, name);
  }
  Kiv::Ptr<RegionStatus> regionStatusDel(const Kiv::Name& name) {
    return regionStatus_.del(*this, kOnRegionStatus, name);
  }
  void regionStatusDelAll() { regionStatus_.delAll(*this, kOnRegionStatus); }

 private:
  static constexpr Kiv::On<NotifieeConst, Kiv::Name> kOnRegionStatus{
      &NotifieeConst::onRegionStatus, &NotifieeConst::onRegionStatuskivImmediate,
      &NotifieeConst::onRegionStatus};

  Kiv::Collection<RegionStatus, Kiv::Name> regionStatus_;
};

}  // namespace OpenStack
