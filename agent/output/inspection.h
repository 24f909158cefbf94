// Looks into the machines and entities through their reflection, and writes what stands at a place
// as JSON. Knows no class: whatever describes itself can be shown.
//
// A place is written like a JSON Pointer: names of attributes and keys of members in turn, for
// example /openStackSm/regionConfigSm/RegionOne/portBindingSm; ~1 stands for a slash and ~0 for a
// tilde.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "agent/json/json_writer.h"
#include "framework/PtrInterface.h"

namespace vnagent {

// Writes what stands at `path`, whose first name is `rootName` and means `root`:
//   - an object, with its type, its values, the types of the objects that it refers to, the keys of
//     its collections and the names of its handlers;
//   - a collection, with each member as such an object, or in a value set its value;
//   - a plain value.
// Members are sorted by key. Returns what is wrong where nothing stands there, and then writes
// nothing.
std::optional<std::string> writeInspection(const Kiv::PtrInterface& root, std::string_view rootName,
                                           std::string_view path, JsonWriter& json);

}  // namespace vnagent
