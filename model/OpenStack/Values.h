// The enumerations and other values of this folder as reflection handles them.
#pragma once

#include <array>

#include "framework/GenericValue.h"
#include "model/OpenStack/Config.h"
#include "model/OpenStack/Enumerations.h"

namespace [[gnu::visibility("default")]] Kiv {

// As its name where it has one, else as its number.
template <>
struct ValueTraits<OpenStack::SyncStatus> : StreamedTraits<OpenStack::SyncStatus, ValueForm::text> {
  static constexpr std::string_view kTypeName = "OpenStack::SyncStatus";
  static std::optional<OpenStack::SyncStatus> parse(std::string_view name) {
    using enum OpenStack::SyncStatus;
    for (const auto status : {syncUnknown, syncInProgress, syncTimedOut, syncComplete}) {
      if (text(status) == name) return status;
    }
    const auto number = ValueTraits<U32>::parse(name);
    return number ? std::optional(static_cast<OpenStack::SyncStatus>(*number)) : std::nullopt;
  }
};

template <>
struct ValueTraits<OpenStack::SegmentationType>
    : StreamedTraits<OpenStack::SegmentationType, ValueForm::text> {
  static constexpr std::string_view kTypeName = "OpenStack::SegmentationType";
  static std::optional<OpenStack::SegmentationType> parse(std::string_view name) {
    using enum OpenStack::SegmentationType;
    for (const auto type : {vlan, vxlan}) {
      if (text(type) == name) return type;
    }
    const auto number = ValueTraits<U8>::parse(name);
    return number ? std::optional(static_cast<OpenStack::SegmentationType>(*number)) : std::nullopt;
  }
};

// An enumeration that is known by its number.
template <class T, class Number>
struct NumberedTraits {
  static constexpr ValueForm kForm = ValueForm::number;
  static std::string text(T value) { return std::to_string(static_cast<Number>(value)); }
  static std::optional<T> parse(std::string_view text) {
    const auto number = ValueTraits<Number>::parse(text);
    return number ? std::optional(static_cast<T>(*number)) : std::nullopt;
  }
};
template <>
struct ValueTraits<OpenStack::VlanType> : NumberedTraits<OpenStack::VlanType, U8> {
  static constexpr std::string_view kTypeName = "OpenStack::VlanType";
};
template <>
struct ValueTraits<OpenStack::VlanTypeDriver> : NumberedTraits<OpenStack::VlanTypeDriver, U32> {
  static constexpr std::string_view kTypeName = "OpenStack::VlanTypeDriver";
};

// As "type=vrf" pairs, separated by commas; not read back.
template <>
struct ValueTraits<OpenStack::ServiceAclTypeVrfMap> {
  static constexpr std::string_view kTypeName = "OpenStack::ServiceAclTypeVrfMap";
  static constexpr ValueForm kForm = ValueForm::text;
  static std::string text(const OpenStack::ServiceAclTypeVrfMap& map) {
    std::string all;
    for (const auto& [type, vrf] : map) {
      all.append(all.empty() ? "" : ",").append(type.view()).append("=").append(vrf.view());
    }
    return all;
  }
  static std::optional<OpenStack::ServiceAclTypeVrfMap> parse(std::string_view) {
    return std::nullopt;
  }
};

}
