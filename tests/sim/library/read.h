// Reads what the library publishes, as facts.
#pragma once

#include "model/OpenStack/OpenStackStatus.h"
#include "model/VirtualNetwork/NetworkElement.h"
#include "model/VirtualNetwork/RequestedResources.h"
#include "tests/sim/library/facts.h"

namespace sim {

Picture read(const OpenStack::OpenStackStatus& status,
             const VirtualNetwork::RequestedResourcesCollection& resources,
             const VirtualNetwork::NetworkElementCollection& elements);

}  // namespace sim
