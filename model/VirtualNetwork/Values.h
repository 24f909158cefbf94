// The values of this folder as reflection handles them.
#pragma once

#include "framework/GenericValue.h"
#include "model/VirtualNetwork/SwitchInterface.h"

namespace [[gnu::visibility("default")]] Kiv {

// As text "switch:interface". A switch identifier may hold colons itself, so the last one counts.
template <>
struct ValueTraits<VirtualNetwork::SwitchInterface>
    : StreamedTraits<VirtualNetwork::SwitchInterface, ValueForm::text> {
  static constexpr std::string_view kTypeName = "VirtualNetwork::SwitchInterface";
  static std::optional<VirtualNetwork::SwitchInterface> parse(std::string_view text) {
    const std::size_t colon = text.rfind(':');
    if (colon == std::string_view::npos) return std::nullopt;
    return VirtualNetwork::SwitchInterface(String(text.substr(0, colon)),
                                           String(text.substr(colon + 1)));
  }
};

}
