// The machines by the names of their types, for tools that know no class.
#pragma once

#include <array>

#include "framework/GenericIf.h"

namespace [[gnu::visibility("default")]] OpenStack {

// The descriptions of the five machines, from the root down.
std::array<const Kiv::GenericIf*, 5> machineReflections();

// The description of the machine with this type name, for example "OpenStack::OpenStackSm"; null
// when there is no such machine.
const Kiv::GenericIf* machineReflection(std::string_view typeName);

// Makes a machine of this type from its constructor's arguments, in order, and returns it. Throws a
// range exception for an unknown type and for arguments that do not fit, and what the machine's
// factory throws.
Kiv::GenericValue genericIfFromCtorArgs(std::string_view typeName,
                                        Kiv::GenericArgumentsView arguments);

}
