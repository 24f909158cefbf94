// Regions of the cloud.
#pragma once

#include <array>

#include "agent/document/kinds.h"
#include "agent/document/kinds/port.h"
#include "agent/document/kinds/port_binding.h"
#include "agent/document/kinds/segment.h"
#include "model/OpenStack/Region.h"

namespace vnagent {

namespace region_table {

using R = OpenStack::Region;
using Named = OpenStack::NamedObject;
using Identified = OpenStack::IdentifiedObject;

// In the order in which they are written: who asks for the lock before the request, and the status
// that both lead to last.
inline constexpr std::array kScalars{
    scalar<&R::requesterIs>("requester", form::kNameOrEmpty,
                            "The driver that asks for the sync lock."),
    scalar<&R::requestIdIs>("requestId", form::kNameOrEmpty,
                            "The id of its request; empty for none."),
    scalar<&R::syncIntervalIs>("syncInterval", form::kNumber,
                               "How often the driver means to sync, in seconds."),
    scalar<&R::syncHeartbeatIs>("syncHeartbeat", form::kNumber,
                                "Written by the driver at each heartbeat; only the write counts."),
    scalar<&R::syncStatusIs>("syncStatus", form::kSyncStatus,
                             "The sync status that the driver asks for."),
};

// In the order in which they are added, and taken out.
inline constexpr std::array kCollections{
    things<R, Named, &R::serviceEndPointIs, &R::serviceEndPointDel>(
        "serviceEndPoint", "service end points by name", kNamed, "The service end points."),
    things<R, Identified, &R::tenantIs, &R::tenantDel>("tenant", "tenants by id", kNamed,
                                                       "The tenants."),
    things<R, Identified, &R::networkIs, &R::networkDel>("network", "networks by id", kNamed,
                                                         "The networks."),
    things<R, Identified, &R::vmInstanceIs, &R::vmInstanceDel>(
        "vmInstance", "virtual machines by id", kNamed, "The virtual machines."),
    things<R, Identified, &R::dhcpInstanceIs, &R::dhcpInstanceDel>(
        "dhcpInstance", "DHCP servers by id", kNamed, "The DHCP servers."),
    things<R, Identified, &R::baremetalInstanceIs, &R::baremetalInstanceDel>(
        "baremetalInstance", "bare-metal servers by id", kNamed, "The bare-metal servers."),
    things<R, Identified, &R::routerInstanceIs, &R::routerInstanceDel>(
        "routerInstance", "routers by id", kNamed, "The routers."),
    things<R, OpenStack::Segment, &R::segmentIs, &R::segmentDel>("segment", "segments by id",
                                                                 kSegment, "The network segments."),
    things<R, OpenStack::Port, &R::portIs, &R::portDel>("port", "ports by id", kPort, "The ports."),
    CollectionRow{.name = "portBinding",
                  .what = "port bindings by port id",
                  .about = "The bound ports, each under the id of a port of the same region.",
                  .of = &kPortBinding},
};

}  // namespace region_table

inline constexpr const auto& kRegionScalars = region_table::kScalars;
inline constexpr const auto& kRegionCollections = region_table::kCollections;
inline constexpr size_t kSegmentRow = rowOf(kRegionCollections, "segment");
inline constexpr size_t kPortRow = rowOf(kRegionCollections, "port");
inline constexpr size_t kPortBindingRow = rowOf(kRegionCollections, "portBinding");
static_assert(kPortBindingRow == kRegionCollections.size() - 1);

inline constexpr Kind kRegion{"a region", OnChange::kWrite, kRegionScalars, kRegionCollections};

}  // namespace vnagent
