// Sets the output entities to what an output document says: what is missing is added, what differs
// is changed, what the document does not have is removed. What is equal is left alone, so that it
// costs little where the entities are mostly so already.
//
// For an agent that starts anew: its machines publish what the cloud document asks for, and the
// document of its former life has what was published beyond that. No machine reads the outputs
// before its next input changes, so none notices.
#pragma once

#include "agent/json/json_tree.h"
#include "model/OpenStack/OpenStackStatus.h"
#include "model/VirtualNetwork/NetworkElement.h"
#include "model/VirtualNetwork/RequestedResources.h"

namespace vnagent {

// Throws std::runtime_error, with the place, where `document` is not a whole output document; a
// part of it is taken over then.
void restoreOutput(const JsonValue& document, OpenStack::OpenStackStatus& status,
                   VirtualNetwork::RequestedResourcesCollection& resources,
                   VirtualNetwork::NetworkElementCollection& elements);

}  // namespace vnagent
