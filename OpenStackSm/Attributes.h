// What the headers of the machines have in common.
#pragma once

#include "framework/Machine.h"
#include "model/VirtualNetwork/NetworkElement.h"
#include "model/VirtualNetwork/RequestedResources.h"

namespace [[gnu::visibility("default")]] OpenStack {

using VirtualNetwork::NetworkElementCollection;
using VirtualNetwork::RequestedResourcesCollection;
using VirtualNetwork::SwitchInterface;

// The source unit that the machines' trace lines name.
inline constexpr std::string_view kSourceUnit = "OpenStackSm";

}
