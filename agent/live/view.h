// What a principal of some regions sees of the documents.
//
// Of the cloud: its regions, and the configuration without the VLAN assignments of others. Of the
// output: the status of its regions, and of hosts, switch ports and elements what its own ports
// refer to. What nobody refers to belongs to nobody.
#pragma once

#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "agent/cloud/output_document.h"
#include "agent/document/cloud_state.h"
#include "agent/live/place.h"
#include "agent/live/principal.h"

namespace vnagent {

// Leaves of an output document what the principal sees. `state` is the cloud document that it
// belongs to. REQUIRES: a whole document, or a part of one with all members.
void restrictOutput(OutputDocument& output, const CloudState& state, const Principal& principal);

// The value at a place of the cloud document, as the principal sees it; one line of JSON, nothing
// where it sees none.
std::optional<std::string> readCloudAs(const CloudState& state, const Place& place,
                                       const Principal& principal);

// The value at a place of the output document, likewise. REQUIRES: the session is live.
std::optional<std::string> readOutputAs(const Session& session, const Place& place,
                                        const Principal& principal);

// The same of texts: documents as they were once.
std::string viewOfOutput(const nlohmann::json& output, const CloudState& state,
                         const Principal& principal);

// Whether a place is in a region that the principal does not see, or in its VLAN assignment.
bool isHidden(const Place& place, const Principal& principal);

}  // namespace vnagent
