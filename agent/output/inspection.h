// Writes machines and entities as JSON, through their reflection. Depends on no class: whatever has
// reflection can be written.
//
// A path has the form of a JSON Pointer: names of attributes and keys of members in turn, for
// example /openStackSm/regionConfigSm/RegionOne/portBindingSm; ~1 is a slash and ~0 a tilde.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "agent/json/json_writer.h"
#include "framework/PtrInterface.h"

namespace vnagent {

// Writes what `path` leads to; its first name is `rootName`, which is `root`:
//   - an object, with its type, its values, the types of the objects that it refers to, the keys of
//     its collections and the names of its handlers;
//   - a collection, with each member as such an object, or in a value set its value;
//   - a plain value.
// Members are sorted by key, numbers by value. If the path leads nowhere, returns which part of it
// is wrong, and writes nothing.
std::optional<std::string> writeInspection(const Kiv::PtrInterface& root, std::string_view rootName,
                                           std::string_view path, JsonWriter& json);

}  // namespace vnagent
