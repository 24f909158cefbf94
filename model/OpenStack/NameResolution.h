// Name resolution: handed to the root machine, which holds and shows it. Activity thread only.
#pragma once

#include "framework/Attribute.h"

namespace [[gnu::visibility("default")]] OpenStack {
namespace NameResolution {

// How names are resolved. No machine reads it.
class Config final : public Kiv::Entity<Config> {
 public:
  static constexpr std::string_view kTypeName = "OpenStack::NameResolution::Config";
  const Kiv::GenericIf* genericIf() const override;
  class NotifieeConst : public Kiv::Notifiee<Config> {};
};

// What resolving came to. No machine writes it.
class Status final : public Kiv::Entity<Status> {
 public:
  static constexpr std::string_view kTypeName = "OpenStack::NameResolution::Status";
  const Kiv::GenericIf* genericIf() const override;
  class NotifieeConst : public Kiv::Notifiee<Status> {};
};

}  // namespace NameResolution
}  // namespace OpenStack
