// Port bindings: where a port is bound.
#pragma once

#include <array>

#include "agent/document/kinds.h"
#include "model/OpenStack/PortToSwitchInterfaceBinding.h"

namespace vnagent {

inline constexpr std::array<CollectionRow, 1> kLevels{{
    {.name = "segment",
     .what = "segment ids by level",
     .about = "The segments of the binding, by level from the top: each names a segment of the "
              "same region.",
     .value = &form::kSegmentId,
     .key = key::kLevel},
}};

inline constexpr Kind kHostBinding{"a host binding", OnChange::kReplace, {}, kLevels};

inline constexpr std::array kSwitchInterfaceBindingScalars{
    scalar<&OpenStack::PortToSwitchInterfaceBinding::hostIs>(
        "host", form::kName, "The host behind the switch interface.")
        .required(),
};
inline constexpr size_t kHostBehind = rowOf(kSwitchInterfaceBindingScalars, "host");

inline constexpr Kind kSwitchInterfaceBinding{"a switch-interface binding", OnChange::kReplace,
                                              kSwitchInterfaceBindingScalars, kLevels};

// In the order of AttachmentKind.
inline constexpr std::array<CollectionRow, 2> kAttachments{{
    {.name = "portToHostBinding",
     .what = "host bindings by host",
     .about = "The hosts to which the port is bound.",
     .of = &kHostBinding},
    {.name = "portToSwitchInterfaceBinding",
     .what = "switch-interface bindings by switch and interface",
     .about = "The switch interfaces to which the port is bound, by switch identifier, then by "
              "interface name.",
     .of = &kSwitchInterfaceBinding,
     .key = key::kNameOrEmpty,
     .shape = CollectionRow::Shape::kByPair},
}};

inline constexpr Kind kPortBinding{"a port binding", OnChange::kReplace, {}, kAttachments};

}  // namespace vnagent
