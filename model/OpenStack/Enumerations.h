// The enumerations of the cloud's entities.
#pragma once

#include <ostream>

#include "framework/Integers.h"

namespace [[gnu::visibility("default")]] OpenStack {

// A region's sync state.
enum class SyncStatus : Kiv::U32 {
  syncUnknown = 0,     // no sync reported
  syncInProgress = 1,  // the driver is syncing; heartbeats are expected
  syncTimedOut = 2,    // the heartbeat timer expired
  syncComplete = 3,    // the driver finished a sync
};

// Prints the value's name; the number where it has none.
std::ostream& operator<<(std::ostream& stream, SyncStatus status);

// What kind of network segment it is. Other values are carried, and ignored by every machine.
enum class SegmentationType : Kiv::U8 {
  vlan = 0,   // the segmentation id is a VLAN id
  vxlan = 1,  // the segmentation id is a VNI
};

// Prints "vlan", "vxlan", or the number.
std::ostream& operator<<(std::ostream& stream, SegmentationType type);

// How a port takes its VLAN on a switch port. Other values are carried, and mean tagged.
enum class VlanType : Kiv::U8 {
  tagged = 0,
  native = 1,  // the port's VLAN is the native, untagged one of the switch port
};

// Who assigns VLANs to regions. Other values are carried, and do nothing.
enum class VlanTypeDriver : Kiv::U32 {
  assigned = 0,  // the agent configuration assigns each region its pool
  external = 1,  // somebody else does; the pools are empty
};

}  // namespace OpenStack
