// Operations as tests compare them, one line each: "+level R p host:h 1 seg", "-segment R s",
// "=syncStatus R 1".
#pragma once

#include <fmt/format.h>

#include <string>

#include "agent/plan/operations.h"

namespace vnagent {
namespace detail {

inline std::string text(const Scalar& value, bool quoted) {
  return std::visit(
      [&](const auto& v) -> std::string {
        using T = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<T, std::monostate>) {
          return {};
        } else if constexpr (std::is_same_v<T, std::string>) {
          return quoted ? '"' + v + '"' : v;
        } else {
          return fmt::format("{}", v);
        }
      },
      value);
}

inline std::string text(const AttachmentAddress& at) {
  return at.kind == AttachmentKind::kHost
             ? fmt::format("{} {} host:{}", at.region(), at.port(), at.key->first)
             : fmt::format("{} {} switch:{}:{}", at.region(), at.port(), at.key->first,
                           at.key->second);
}

// " a:b", or nothing where there is nothing to say.
inline std::string text(const Values& values, const Kind* kind) {
  std::string result;
  const size_t count = kind != nullptr ? kind->scalars.size() : values.size();
  for (size_t i = 0; i < count; ++i) {
    result += i == 0 ? ' ' : ':';
    result += text(kind != nullptr ? valueOf(values, *kind, i) : values[i], false);
  }
  return result;
}

// "network R", or "credentials" for the configuration's.
template <class Row>
std::string text(const Row& row, const Region* region) {
  return region == nullptr ? std::string(row.name) : fmt::format("{} {}", row.name, region->name);
}

// One overload for each operation.
struct Describer {
  using S = std::string;
  S operator()(const op::LevelDel& o) { return fmt::format("-level {} {}", text(o.at), o.level); }
  S operator()(const op::AttachmentDel& o) { return "-binding " + text(o.at); }
  S operator()(const op::PortBindingDel& o) {
    return fmt::format("-portBinding {} {}", o.region, o.port);
  }
  S operator()(const op::ThingDel& o) {
    return fmt::format("-{} {}", text(*o.row, o.region), o.key);
  }
  S operator()(const op::RegionDel& o) { return fmt::format("-region {}", o.region); }
  S operator()(const op::VlanDel& o) { return fmt::format("-vlan {} {}", o.assignment, o.vlan); }
  S operator()(const op::VlanAssignmentDel& o) {
    return fmt::format("-vlanAssignment {}", o.assignment);
  }
  S operator()(const op::ScalarIs& o) {
    return fmt::format("={} {}", text(*o.row, o.region), text(*o.value, true));
  }
  S operator()(const op::RegionSyncTimeoutIs& o) {
    return fmt::format("=rootRegionSyncTimeout {}", o.seconds);
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
  S operator()(const op::ThingIs& o) {
    return fmt::format("+{} {}{}", text(*o.row, o.region), o.thing->first,
                       text(o.thing->second.values, o.row->of));
  }
  S operator()(const op::PortBindingIs& o) {
    return fmt::format("+portBinding {} {}", o.region, o.port);
  }
  S operator()(const op::AttachmentIs& o) {
    return "+binding " + text(o.at) + text(*o.values, rowOf(o.at.kind).of);
  }
  S operator()(const op::LevelIs& o) {
    return fmt::format("+level {} {} {}", text(o.at), o.level, o.segment);
  }
};

}  // namespace detail

inline std::string describe(const Operation& operation) {
  return std::visit(detail::Describer{}, operation);
}

}  // namespace vnagent
