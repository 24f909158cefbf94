#include "agent/plan/operations.h"

#include <fmt/format.h>

namespace vnagent {
namespace {

std::string text(const ScalarValue& value) {
  return std::visit(
      [](const auto& v) {
        if constexpr (std::is_same_v<std::decay_t<decltype(v)>, std::string>) {
          return '"' + v + '"';
        } else {
          return fmt::format("{}", v);
        }
      },
      value);
}

std::string text(const AttachmentAddress& at) {
  return at.kind == AttachmentKind::kHost
             ? fmt::format("{} {} host:{}", at.region(), at.port(), at.key->first)
             : fmt::format("{} {} switch:{}:{}", at.region(), at.port(), at.key->first,
                           at.key->second);
}

std::string_view word(RegionSet set) {
  return kRegionSets.at(static_cast<size_t>(set));
}
std::string_view word(ConfigSet set) {
  return kConfigSets.at(static_cast<size_t>(set));
}

// One overload for each operation.
struct Describer {
  using S = std::string;
  S operator()(const op::LevelDel& o) { return fmt::format("-level {} {}", text(o.at), o.level); }
  S operator()(const op::AttachmentDel& o) { return "-binding " + text(o.at); }
  S operator()(const op::PortBindingDel& o) {
    return fmt::format("-portBinding {} {}", o.region, o.port);
  }
  S operator()(const op::SegmentDel& o) { return fmt::format("-segment {} {}", o.region, o.id); }
  S operator()(const op::PortDel& o) { return fmt::format("-port {} {}", o.region, o.id); }
  S operator()(const op::RegionSetDel& o) {
    return fmt::format("-{} {} {}", word(o.set), o.region, o.key);
  }
  S operator()(const op::RegionDel& o) { return fmt::format("-region {}", o.region); }
  S operator()(const op::VlanDel& o) { return fmt::format("-vlan {} {}", o.assignment, o.vlan); }
  S operator()(const op::VlanAssignmentDel& o) {
    return fmt::format("-vlanAssignment {}", o.assignment);
  }
  S operator()(const op::ConfigSetDel& o) { return fmt::format("-{} {}", word(o.set), o.key); }
  S operator()(const op::ServiceAclTypeVrfDel& o) {
    return fmt::format("-serviceAclTypeVrfMap {}", o.key);
  }
  S operator()(const op::ConfigScalarIs& o) {
    return fmt::format("={} {}", kConfigScalars.at(static_cast<size_t>(o.which)).name,
                       text(o.value));
  }
  S operator()(const op::RegionSyncTimeoutIs& o) {
    return fmt::format("=rootRegionSyncTimeout {}", o.seconds);
  }
  S operator()(const op::ConfigSetIs& o) { return fmt::format("+{} {}", word(o.set), o.key); }
  S operator()(const op::ServiceAclTypeVrfIs& o) {
    return fmt::format("+serviceAclTypeVrfMap {} {}", o.key, o.value);
  }
  S operator()(const op::VlanAssignmentIs& o) {
    S result = fmt::format("+vlanAssignment {}", o.assignment);
    for (const auto& [vlan, assigned] : *o.vlans) result += fmt::format(" {}:{}", vlan, assigned);
    return result;
  }
  S operator()(const op::VlanIs& o) {
    return fmt::format("+vlan {} {}:{}", o.assignment, o.vlan, o.assigned);
  }
  S operator()(const op::RegionIs& o) { return fmt::format("+region {}", o.region); }
  S operator()(const op::RegionSetIs& o) {
    return fmt::format("+{} {} {}", word(o.set), o.region, o.key);
  }
  S operator()(const op::SegmentIs& o) {
    return fmt::format("+segment {} {} {}:{}", o.region, o.id, o.value.type, o.value.id);
  }
  S operator()(const op::PortIs& o) {
    return fmt::format("+port {} {} {}", o.region, o.id, o.vlanType);
  }
  S operator()(const op::PortBindingIs& o) {
    return fmt::format("+portBinding {} {}", o.region, o.port);
  }
  S operator()(const op::AttachmentIs& o) {
    return "+binding " + text(o.at) + (o.host.empty() ? S() : fmt::format(" {}", o.host));
  }
  S operator()(const op::LevelIs& o) {
    return fmt::format("+level {} {} {}", text(o.at), o.level, o.segment);
  }
  S operator()(const op::RegionScalarIs& o) {
    return fmt::format("={} {} {}", kRegionScalars.at(static_cast<size_t>(o.which)).name, o.region,
                       text(*o.value));
  }
};

}  // namespace

std::string describe(const Operation& operation) {
  return std::visit(Describer{}, operation);
}

}  // namespace vnagent
