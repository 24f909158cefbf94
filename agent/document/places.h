// The places of things in the cloud document, as JSON Pointers: where a fault is that no value of
// the patch shows.
#pragma once

#include <string>
#include <string_view>

#include "agent/document/cloud_state.h"

namespace vnagent {

// A member of a collection of a region, or of the configuration where there is none.
std::string placeOf(const Region* region, std::string_view collection, std::string_view key);
std::string placeOf(const PortBinding& binding);
std::string placeOf(const PortBinding& binding, AttachmentKind kind, const AttachmentKey& key);
std::string placeOf(const PortBinding& binding, AttachmentKind kind, const AttachmentKey& key,
                    const Level& level);

// The place of a member of what is at `place`.
std::string memberOf(std::string place, std::string_view name);

}  // namespace vnagent
