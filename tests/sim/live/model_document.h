// The cloud document as the model knows it: its rules, its normal form, and how two of them differ.
#pragma once

#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace sim {

using Json = nlohmann::json;
// The names of the members that lead to a place, from the root.
using DocumentPlace = std::vector<std::string>;

// Makes the document what is printed of it: without what has its default.
void normalise(Json& cloud);

// Whether a document keeps the rules, of those that the simulation's requests can break.
bool isValid(const Json& cloud);

// Adds the places whose content is another in `after`, and those that are not there any more; as
// keyOf() writes them.
void compare(const Json& before, const Json& after, std::set<std::string>& changed,
             std::set<std::string>& gone);

// The patch on the whole document that merges `value` at a place.
Json patchAt(const DocumentPlace& place, Json value);

// What is at a place; null where there is nothing.
const Json* find(const Json& document, const DocumentPlace& place);

// A place below "region", its names with "/" between them.
std::string keyOf(const DocumentPlace& place);

// A region's collections alone.
Json withoutScalars(Json region);

// The names of the collections that a region may have.
const std::set<std::string>& collectionsOfRegion();

}  // namespace sim
