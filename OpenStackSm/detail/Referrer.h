// The referrers of a port that are not its plain id.
#pragma once

#include "model/OpenStack/Port.h"

namespace OpenStack::detail {

// Who needs a switch port or a network element for this port: "bm-" and the port id.
inline Kiv::String baremetalReferrer(const Port& port) {
  return "bm-" + port.id();
}

}  // namespace OpenStack::detail
