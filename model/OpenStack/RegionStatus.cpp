#include "model/OpenStack/RegionStatus.h"

namespace [[gnu::visibility("default")]] OpenStack {

Kiv::Ptr<VlanPool> RegionStatus::vlanPoolIs(const Kiv::Name& name) {
  if (const Kiv::Ptr<VlanPool> pool = vlanPool(); pool && pool->name() == name) return pool;
  Kiv::Ptr<VlanPool> pool = Kiv::make<VlanPool>(name);
  vlanPool_.is(*this, &NotifieeConst::onVlanPool, pool);
  return pool;
}

}  // namespace OpenStack
