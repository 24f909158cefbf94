// The clocks that a session can be given: a virtual one, which the events move, or the system's
// steady one, which moves by itself. Both count seconds.
#pragma once

#include "framework/Time.h"

namespace vnagent {

using VirtualClock = Kiv::VirtualTime;
using SteadyClock = Kiv::SteadyTime;

}  // namespace vnagent
