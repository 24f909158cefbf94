// The attributes of the five machines: one table for each, in the order of their declaration, then
// the handlers of its nested reactors. Traces and the fixed exception texts are fed from them.
//
// Indices start at 130 in every machine. Signatures are what trace lines print, whatever the
// compiler makes of a function's name.
#pragma once

#include "framework/KivAttr.h"

namespace [[gnu::visibility("default")]] OpenStack {

// The source unit that every machine's trace lines name.
inline constexpr std::string_view kSourceUnit = "OpenStackSm";

// The attributes of OpenStackSm.
inline constexpr Kiv::KivAttrTable<17> kOpenStackSmAttributes{
    "OpenStack::OpenStackSm",
    kSourceUnit,
    {{
        {130, "openstackConfig", "", ""},
        {131, "openstackStatus", "", ""},
        {132, "nameResolutionConfig", "", ""},
        {133, "nameResolutionStatus", "", ""},
        {134, "requestedResourcesCollection", "", ""},
        {135, "regionSyncTimeout", "", ""},
        {136, "config", "", ""},
        {137, "networkElementCollection", "", ""},
        {138, "handleRegionSyncTimeout", "",
         "void OpenStack::OpenStackSm::handleRegionSyncTimeout()"},
        {139, "regionConfigSm", "regionName", ""},
        {140, "handleRegion", "", "void OpenStack::OpenStackSm::handleRegion(Kiv::Name)"},
        {142, "handleRegionVlanAssignment", "",
         "void OpenStack::OpenStackSm::handleRegionVlanAssignment(Kiv::Name)"},
        {143, "vlanAssignment", "regionName", ""},
        {145, "handleVlanTypeDriver", "", "void OpenStack::OpenStackSm::handleVlanTypeDriver()"},
        {146, "handleInitialized", "", "void OpenStack::OpenStackSm::handleInitialized()"},
        {147, "initialized", "", ""},
        {0, "KivVlanAssignment::handleVlanAssignment", "",
         "void OpenStack::OpenStackSm::KivVlanAssignment::handleVlanAssignment(U16)"},
    }}};

// The attributes of RegionConfigSm.
inline constexpr Kiv::KivAttrTable<20> kRegionConfigSmAttributes{
    "OpenStack::RegionConfigSm",
    kSourceUnit,
    {{
        {130, "regionName", "", ""},
        {131, "regionConfig", "", ""},
        {132, "regionStatus", "", ""},
        {133, "requestedResourcesCollection", "", ""},
        {134, "regionSyncTimeout", "", ""},
        {135, "networkElementCollection", "", ""},
        {136, "syncHeartbeatClock", "", ""},
        {137, "portBindingSm", "portId", ""},
        {138, "segment", "id", ""},
        {139, "handleSegment", "", "void OpenStack::RegionConfigSm::handleSegment(Kiv::String)"},
        {142, "portBinding", "portId", ""},
        {143, "handlePortBinding", "",
         "void OpenStack::RegionConfigSm::handlePortBinding(Kiv::String)"},
        {146, "handleSyncStatus", "", "void OpenStack::RegionConfigSm::handleSyncStatus()"},
        {147, "handleHeartbeat", "", "void OpenStack::RegionConfigSm::handleHeartbeat()"},
        {148, "handleSyncHeartbeatTimeout", "",
         "void OpenStack::RegionConfigSm::handleSyncHeartbeatTimeout()"},
        {149, "handleLockRequest", "", "void OpenStack::RegionConfigSm::handleLockRequest()"},
        {150, "handleInitialized", "", "void OpenStack::RegionConfigSm::handleInitialized()"},
        {151, "initialized", "", ""},
        {0, "KivSegment::handleCleanup", "",
         "void OpenStack::RegionConfigSm::KivSegment::handleCleanup()"},
        {0, "KivPortBinding::handleCleanup", "",
         "void OpenStack::RegionConfigSm::KivPortBinding::handleCleanup()"},
    }}};

// The attributes of PortBindingSm.
inline constexpr Kiv::KivAttrTable<19> kPortBindingSmAttributes{
    "OpenStack::PortBindingSm",
    kSourceUnit,
    {{
        {130, "regionName", "", ""},
        {131, "portId", "", ""},
        {132, "port", "", ""},
        {133, "portBinding", "", ""},
        {134, "requestedResourcesCollection", "", ""},
        {135, "networkElementCollection", "", ""},
        {136, "portToHostBinding", "host", ""},
        {138, "portToSwitchInterfaceBinding", "switchInterface", ""},
        {139, "portToHostBindingSm", "hostname", ""},
        {140, "portToSwitchInterfaceBindingSm", "switchInterface", ""},
        {141, "handlePortToHostBinding", "",
         "void OpenStack::PortBindingSm::handlePortToHostBinding(Kiv::Name)"},
        {144, "handlePortToSwitchInterfaceBinding", "",
         "void OpenStack::PortBindingSm::handlePortToSwitchInterfaceBinding("
         "const VirtualNetwork::SwitchInterface&)"},
        {146, "doCleanupPortToHostBinding", "",
         "void OpenStack::PortBindingSm::doCleanupPortToHostBinding(Kiv::Name)"},
        {147, "doCleanupPortToSwitchInterfaceBinding", "",
         "void OpenStack::PortBindingSm::doCleanupPortToSwitchInterfaceBinding("
         "const VirtualNetwork::SwitchInterface&)"},
        {148, "doCleanup", "", "void OpenStack::PortBindingSm::doCleanup()"},
        {149, "handleInitialized", "", "void OpenStack::PortBindingSm::handleInitialized()"},
        {150, "initialized", "", ""},
        {0, "KivPortToHostBinding::doCleanup", "",
         "void OpenStack::PortBindingSm::KivPortToHostBinding::doCleanup()"},
        {0, "KivPortToSwitchInterfaceBinding::doCleanup", "",
         "void OpenStack::PortBindingSm::KivPortToSwitchInterfaceBinding::doCleanup()"},
    }}};

// The attributes of PortToHostBindingSm.
inline constexpr Kiv::KivAttrTable<10> kPortToHostBindingSmAttributes{
    "OpenStack::PortToHostBindingSm",
    kSourceUnit,
    {{
        {130, "hostname", "", ""},
        {131, "port", "", ""},
        {132, "portToHostBinding", "", ""},
        {133, "requestedResourcesCollection", "", ""},
        {134, "handleSegment", "", "void OpenStack::PortToHostBindingSm::handleSegment(U8)"},
        {136, "segment", "level", ""},
        {138, "doCleanup", "", "void OpenStack::PortToHostBindingSm::doCleanup()"},
        {139, "handleInitialized", "", "void OpenStack::PortToHostBindingSm::handleInitialized()"},
        {140, "initialized", "", ""},
        {0, "KivSegment::doCleanup", "",
         "void OpenStack::PortToHostBindingSm::KivSegment::doCleanup()"},
    }}};

// The attributes of PortToSwitchInterfaceBindingSm.
inline constexpr Kiv::KivAttrTable<12> kPortToSwitchInterfaceBindingSmAttributes{
    "OpenStack::PortToSwitchInterfaceBindingSm",
    kSourceUnit,
    {{
        {130, "switchInterface", "", ""},
        {131, "regionName", "", ""},
        {132, "port", "", ""},
        {133, "portToSwitchInterfaceBinding", "", ""},
        {134, "requestedResourcesCollection", "", ""},
        {135, "networkElementCollection", "", ""},
        {136, "handleSegment", "",
         "void OpenStack::PortToSwitchInterfaceBindingSm::handleSegment(U8)"},
        {138, "segment", "level", ""},
        {140, "doCleanup", "", "void OpenStack::PortToSwitchInterfaceBindingSm::doCleanup()"},
        {141, "handleInitialized", "",
         "void OpenStack::PortToSwitchInterfaceBindingSm::handleInitialized()"},
        {142, "initialized", "", ""},
        {0, "KivSegment::doCleanup", "",
         "void OpenStack::PortToSwitchInterfaceBindingSm::KivSegment::doCleanup()"},
    }}};

}  // namespace OpenStack
