// A switch interface: which interface of which switch.
#pragma once

#include <ostream>
#include <utility>

#include "framework/Text.h"

namespace [[gnu::visibility("default")]] VirtualNetwork {

// A value of two strings; either may be empty, which the machines take as no switch interface.
class SwitchInterface {
 public:
  SwitchInterface() = default;
  // An interface of a switch.
  SwitchInterface(Kiv::String switchIdentifier, Kiv::String interfaceName)
      : switchIdentifier_(std::move(switchIdentifier)), interfaceName_(std::move(interfaceName)) {}

  // The switch, by the name of its network element.
  const Kiv::String& switchIdentifier() const { return switchIdentifier_; }
  // The interface on that switch.
  const Kiv::String& interfaceName() const { return interfaceName_; }

  // The pair as text, "switch:interface".
  Kiv::Name name() const {
    return Kiv::Name((switchIdentifier_ + ":").view(), interfaceName_.view());
  }

  Kiv::U32 hash() const {
    return switchIdentifier_.hash() * 0x9e3779b1U + interfaceName_.hash() + 1;
  }

  friend bool operator==(const SwitchInterface& a, const SwitchInterface& b) {
    return a.switchIdentifier_ == b.switchIdentifier_ && a.interfaceName_ == b.interfaceName_;
  }
  friend bool operator<(const SwitchInterface& a, const SwitchInterface& b) {
    if (!(a.switchIdentifier_ == b.switchIdentifier_)) {
      return a.switchIdentifier_ < b.switchIdentifier_;
    }
    return a.interfaceName_ < b.interfaceName_;
  }
  friend std::ostream& operator<<(std::ostream& stream, const SwitchInterface& si) {
    return stream << si.switchIdentifier_ << ':' << si.interfaceName_;
  }

 private:
  Kiv::String switchIdentifier_;
  Kiv::String interfaceName_;
};

}  // namespace VirtualNetwork
