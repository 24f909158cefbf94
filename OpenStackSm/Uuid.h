// Random UUIDs.
#pragma once

#include "framework/Text.h"

namespace [[gnu::visibility("default")]] OpenStack {

// A new random version-4 UUID as 36 characters, lower case. Each call makes a generator of its own,
// seeded from the system. Any thread.
Kiv::String uuid();

}  // namespace OpenStack
