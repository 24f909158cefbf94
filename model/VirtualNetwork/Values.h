// The values of this folder as reflection handles them.
#pragma once

#include "framework/GenericValue.h"
#include "model/VirtualNetwork/SwitchInterface.h"

namespace [[gnu::visibility("default")]] Kiv {

// As text "switch:interface", with a backslash before each backslash, and before each colon of the
// interface; so the last colon without one separates the two.
template <>
struct ValueTraits<VirtualNetwork::SwitchInterface> {
  static constexpr std::string_view kTypeName = "VirtualNetwork::SwitchInterface";
  static constexpr ValueForm kForm = ValueForm::text;
  static std::string text(const VirtualNetwork::SwitchInterface& si);
  static std::optional<VirtualNetwork::SwitchInterface> parse(std::string_view text);
};

}
