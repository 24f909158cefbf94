// The outputs of the machines as lines of text, in order, for tests to compare.
//
//   host h1                                   the host has an entry
//   host h1 domain R: p1 p2                   who refers to the region's domain on it
//   host h1 vlan 10: p1                       who refers to the VLAN
//   host h1 vlan 10 vni 5000: p1              who refers to the VNI that it carries
//   port sw:e1: bm-p1                         the switch port has an entry; its referrers
//   port sw:e1 remote: h1
//   port sw:e1 native 10
//   port sw:e1 vlan 10: p1                    and VNIs as above
//   element sw: bm-p1                         the network element has an entry; its referrers
//   element h1 hostname h1
//   element h1 domain R: p1
//   element sw interface e1: h1               the interface and its configured elements
//   element sw interface e1 native 10
//   element sw interface e1 vlan 10: p1
#pragma once

#include <string>
#include <vector>

#include "model/OpenStack/OpenStackStatus.h"
#include "model/VirtualNetwork/NetworkElement.h"
#include "model/VirtualNetwork/RequestedResources.h"

using Lines = std::vector<std::string>;

Lines linesOf(const VirtualNetwork::RequestedResourcesCollection& resources,
              const VirtualNetwork::NetworkElementCollection& elements);

// The lines without what is history rather than state: entries that are never deleted, remote
// hosts, host names and native VLANs.
Lines withoutHistory(const Lines& lines);

// A pool: "assigned 10 20 allocated 20 available 10"; an entry that is false has a "!" before it.
std::string textOf(const OpenStack::VlanPool& pool);

// A status without its pool: "sync syncUnknown old syncUnknown owner a request 1".
std::string textOf(const OpenStack::RegionStatus& status);
