// Which Logical_Switch a VLAN belongs to: that of a VNI, the same on every switch, or that of a
// VLAN without VNI, which is known on one switch only. Its name says which.
#pragma once

#include <charconv>
#include <compare>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace vnagent {

class LogicalSwitchId {
 public:
  static constexpr uint32_t kLargestVni = (1 << 24) - 1;
  static constexpr uint16_t kLargestVlan = 4094;

  static LogicalSwitchId ofVni(uint32_t vni) { return LogicalSwitchId(vni); }
  static LogicalSwitchId ofVlan(uint16_t vlan) { return LogicalSwitchId(kVlan | vlan); }

  // Of "vni10001" and "vlan100"; nothing for other names, such as "vni007".
  static std::optional<LogicalSwitchId> parse(std::string_view name) {
    const bool isVni = name.starts_with("vni");
    if (!isVni && !name.starts_with("vlan")) return std::nullopt;
    const std::string_view digits = name.substr(isVni ? 3 : 4);
    uint32_t number = 0;
    const auto result = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    if (result.ec != std::errc() || number == 0) return std::nullopt;
    if (number > (isVni ? kLargestVni : kLargestVlan)) return std::nullopt;
    const LogicalSwitchId id(isVni ? number : kVlan | number);
    return id.name() == name ? std::optional(id) : std::nullopt;
  }

  // Nothing where it has no tunnel key.
  std::optional<uint32_t> vni() const {
    return (code_ & kVlan) == 0 ? std::optional(code_) : std::nullopt;
  }
  std::string name() const {
    return (code_ & kVlan) == 0 ? "vni" + std::to_string(code_)
                                : "vlan" + std::to_string(code_ & ~kVlan);
  }

  friend auto operator<=>(const LogicalSwitchId&, const LogicalSwitchId&) = default;

 private:
  friend struct std::hash<LogicalSwitchId>;

  static constexpr uint32_t kVlan = uint32_t{1} << 31;

  explicit LogicalSwitchId(uint32_t code) : code_(code) {}

  uint32_t code_;
};

}  // namespace vnagent

template <>
struct std::hash<vnagent::LogicalSwitchId> {
  size_t operator()(vnagent::LogicalSwitchId id) const { return id.code_; }
};
