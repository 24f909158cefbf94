// Random UUIDs, and where they come from.
#pragma once

#include <functional>
#include <string>

#include "framework/Text.h"

namespace [[gnu::visibility("default")]] OpenStack {

// What makes a UUID: 36 characters, lower case.
using UuidSource = std::function<std::string()>;

// Installs a source for every UUID from now on, for example one that records them; null installs
// the library's own. Activity thread only.
void uuidSourceIs(UuidSource source);

// The source that is installed; null: the library's own. Good until another one is.
const UuidSource& uuidSource();

// A new UUID from the source. The library's own makes random ones of version 4, each from the
// system's random source. Activity thread only.
Kiv::String uuid();

}  // namespace OpenStack
