// The configured regions. Activity thread only.
#pragma once

#include "model/OpenStack/Region.h"

namespace [[gnu::visibility("default")]] OpenStack {

// The regions of the cloud that the agent serves.
class OpenStackConfig final : public Kiv::Entity<OpenStackConfig> {
 public:
  static constexpr std::string_view kTypeName = "OpenStack::OpenStackConfig";
  const Kiv::GenericIf* genericIf() const override;

  class NotifieeConst : public Kiv::Notifiee<OpenStackConfig> {
   public:
    virtual void onRegion(const Kiv::Name& /*name*/) {}
    virtual void onRegionkivImmediate() {}
    virtual void onRegion() {}
  };

  // The regions, by region name; owned.
  const auto& region() const { return region_; }
  auto& region() { return region_; }
  Kiv::Ptr<Region> regionIs(const Kiv::Name& name) { return region_.is(*this, kOnRegion, name); }
  Kiv::Ptr<Region> regionIs(const Kiv::Ptr<Region>& v) { return region_.is(*this, kOnRegion, v); }
  Kiv::Ptr<Region> regionDel(const Kiv::Name& name) { return region_.del(*this, kOnRegion, name); }
  void regionDelAll() { region_.delAll(*this, kOnRegion); }

 private:
  static constexpr Kiv::On<NotifieeConst, Kiv::Name> kOnRegion{&NotifieeConst::onRegion,
                                                               &NotifieeConst::onRegionkivImmediate,
                                                               &NotifieeConst::onRegion, "region"};

  Kiv::Collection<Region, Kiv::Name> region_;
};

}  // namespace OpenStack
