// Places in the documents of the live agent: the names that lead from the root to a value.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/document/cloud_state.h"
#include "agent/session/session.h"

namespace vnagent {

using Place = std::vector<std::string>;

// Reads a JSON Pointer (RFC 6901); nothing where it is none. It need not lead anywhere.
std::optional<Place> placeOfPointer(std::string_view pointer);
std::string pointerOf(const Place& place);

// Whether `place` is `outer`, or below it.
bool isWithin(const Place& place, const Place& outer);

// A merge patch with `value`, a JSON text, at the place.
std::string patchAt(const Place& place, std::string_view value);

// The value at a place of the cloud document, as one line of JSON; nothing where the document that
// is printed does not have it.
std::optional<std::string> readCloud(const CloudState& state, const Place& place);
bool hasPlace(const CloudState& state, const Place& place);

// The value at a place of the output document. The cost is that of the nearest host, switch port,
// element or region, not of the document. REQUIRES: the session is live.
std::optional<std::string> readOutput(const Session& session, const Place& place);

}  // namespace vnagent
