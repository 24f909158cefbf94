// The agent configuration.
#pragma once

#include <array>

#include "agent/document/kinds.h"
#include "model/OpenStack/Config.h"

namespace vnagent {

inline constexpr std::array<CollectionRow, 1> kVlanAssignmentCollections{{
    {.name = "vlan",
     .what = "a set of VLAN ids",
     .about = "The VLAN ids; one is assigned where it says true.",
     .value = &form::kFlag,
     .key = key::kVlan},
}};
inline constexpr Kind kVlanAssignment{
    "a VLAN assignment", OnChange::kReplace, {}, kVlanAssignmentCollections};

namespace config_table {

using C = OpenStack::Config;
using Named = OpenStack::NamedObject;

// In the order in which they are written.
inline constexpr std::array kScalars{
    scalar<&C::vlanTypeDriverIs>(
        "vlanTypeDriver", form::kUint31,
        "Who assigns VLANs to regions. 0: vlanAssignment, below. 1: somebody else; the pools are "
        "empty."),
    scalar<&C::enabledIs>("enabled", form::kFlag, "Stored and shown.").asGiven(),
    scalar<&C::defaultVlanTypeDriverIs>("defaultVlanTypeDriver", form::kUint31, "Stored and shown.")
        .asGiven(),
    scalar<&C::defaultGracePeriodIs>("defaultGracePeriod", form::kSeconds, "Stored and shown.")
        .asGiven(),
    scalar<&C::gracePeriodIs>("gracePeriod", form::kSeconds, "Stored and shown.").asGiven(),
    scalar<&C::defaultRegionSyncTimeoutIs>(
        "defaultRegionSyncTimeout", form::kPositiveSeconds,
        "The region sync timeout where regionSyncTimeout is not given; without both it is that of "
        "the command line."),
    scalar<&C::regionSyncTimeoutIs>("regionSyncTimeout", form::kPositiveSeconds,
                                    "How long a region's sync may take without a heartbeat."),
    scalar<&C::defaultAgentModeIs>("defaultAgentMode", form::kText, "Stored and shown.").asGiven(),
    scalar<&C::agentModeIs>("agentMode", form::kText, "Stored and shown.").asGiven(),
    scalar<&C::authRoleIs>("authRole", form::kText, "Stored and shown.").asGiven(),
};

// A map that is one attribute of the entity: an entry is written by writing the whole.
inline constexpr CollectionRow kServiceAclTypeVrfMap{
    .name = "serviceAclTypeVrfMap",
    .what = "a map from ACL type to VRF",
    .about = "VRF names by type of service ACL. Stored and shown.",
    .value = &form::kText,
    .isGeneric = true,
    .add =
        [](const CollectionRow&, Kiv::PtrInterface& owner, std::string_view key,
           const Values& values) {
          auto& config = static_cast<C&>(owner);
          auto map = config.serviceAclTypeVrfMap();
          map[Kiv::String(key)] = detail::to<Kiv::String>(values.front());
          config.serviceAclTypeVrfMapIs(map);
        },
    .remove =
        [](Kiv::PtrInterface& owner, std::string_view key) {
          auto& config = static_cast<C&>(owner);
          auto map = config.serviceAclTypeVrfMap();
          map.erase(Kiv::String(key));
          config.serviceAclTypeVrfMapIs(map);
        }};

// In the order in which they are added, and taken out.
inline constexpr std::array kCollections{
    things<C, Named, &C::mandatoryRegionIs, &C::mandatoryRegionDel>(
        "mandatoryRegion", "regions by name", kNamed, "Stored and shown."),
    things<C, Named, &C::credentialsIs, &C::credentialsDel>("credentials", "credentials by name",
                                                            kNamed, "Stored and shown."),
    things<C, Named, &C::keystoneAuthUrlIs, &C::keystoneAuthUrlDel>(
        "keystoneAuthUrl", "URLs by name", kNamed, "Stored and shown."),
    kServiceAclTypeVrfMap,
    CollectionRow{.name = "vlanAssignment",
                  .what = "VLAN assignments by region",
                  .about = "The VLANs that regions may use, by region name.",
                  .of = &kVlanAssignment},
};

}  // namespace config_table

inline constexpr const auto& kConfigScalars = config_table::kScalars;
inline constexpr const auto& kConfigCollections = config_table::kCollections;
inline constexpr Kind kConfig{"the agent configuration", OnChange::kWrite, kConfigScalars,
                              kConfigCollections};

}  // namespace vnagent
