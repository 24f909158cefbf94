// The feature-toggle service: named switches whose states the host provides. Activity thread only.
#pragma once

#include <functional>
#include <string_view>

#include "framework/Integers.h"

namespace [[gnu::visibility("default")]] Kiv {

// An answer of the service, as a word.
inline constexpr U32 kToggleOn = 1;     // the toggle is on
inline constexpr U32 kToggleKnown = 2;  // the answer may be kept for the life of the process

// Answers for one toggle: its name, and the default where the host has no opinion.
using ToggleProvider = std::function<U32(std::string_view name, bool byDefault)>;

// Installs the host's provider, before anything asks; an empty one removes it.
void toggleProviderIs(ToggleProvider provider);

// The state of a toggle, as the installed provider answers; without one the default, not known.
U32 getToggleState(std::string_view name, bool byDefault);

}  // namespace Kiv
