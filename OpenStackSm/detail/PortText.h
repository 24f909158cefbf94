// Texts that name a port.
#pragma once

#include <string>

#include "model/OpenStack/Port.h"
#include "model/VirtualNetwork/SwitchInterface.h"

namespace OpenStack::detail {

// Who needs a switch port or a network element for this port: "bm-" and the port id.
inline Kiv::String baremetalReferrer(const Port& port) {
  return "bm-" + port.id();
}

// What an invariant of a port is about: the port, and the host or switch interface to which it is
// bound.
inline std::string aboutPort(const Kiv::Ptr<const Port>& port, const Kiv::Name& host) {
  return "Port " + port->id().str() + " on host " + host.str();
}
inline std::string aboutPort(const Kiv::Ptr<const Port>& port,
                             const VirtualNetwork::SwitchInterface& si) {
  return "Port " + port->id().str() + " on switch interface " + si.name().str();
}

}  // namespace OpenStack::detail
