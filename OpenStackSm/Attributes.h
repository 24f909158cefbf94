// What the tables of the machines' attributes have in common.
#pragma once

#include "framework/Attributes.h"

namespace [[gnu::visibility("default")]] OpenStack {

// The source unit that the machines' trace lines name.
inline constexpr std::string_view kSourceUnit = "OpenStackSm";

}
