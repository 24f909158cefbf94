#include "model/OpenStack/RegionStatus.h"

namespace [[gnu::visibility("default")]] OpenStack {

Kiv::Ptr<VlanPool> RegionStatus::vlanPoolIs(const Kiv::Name& name) {
  const Kiv::Ptr<RegionStatus> hold(this);
  const Kiv::Name own = name;  // the caller's may belong to the pool that is deleted
  if (!vlanPool_.contains(own)) vlanPoolDelAll();
  return vlanPool_.is(*this, kOnVlanPool, own);
}

}  // namespace OpenStack
