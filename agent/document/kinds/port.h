// Ports.
#pragma once

#include <array>

#include "agent/document/kinds.h"
#include "model/OpenStack/Port.h"

namespace vnagent {

inline constexpr std::array kPortScalars{
    scalar<&OpenStack::Port::vlanTypeIs>(
        "vlanType", form::kUint8,
        "1: the port's VLAN is the native, untagged one of its switch port. 0 and any other: "
        "tagged."),
};

inline constexpr Kind kPort{"a port", OnChange::kReplace, kPortScalars};

}  // namespace vnagent
