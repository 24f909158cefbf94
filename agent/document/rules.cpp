#include "agent/document/rules.h"

#include <algorithm>

#include <fmt/format.h>

namespace vnagent {
namespace {

std::string placeIn(const Region& region, std::string_view collection, std::string_view key) {
  std::string place = "/region";
  appendToken(place, region.name);
  appendToken(place, collection);
  appendToken(place, key);
  return place;
}

std::string placeOf(const PortBinding& binding) {
  return placeIn(*binding.region, "portBinding", binding.id);
}

std::string placeOf(const PortBinding& binding, AttachmentKind kind, const AttachmentKey& key) {
  std::string place = placeOf(binding);
  appendToken(place, kAttachmentWords.at(static_cast<size_t>(kind)));
  appendToken(place, key.first);
  if (kind == AttachmentKind::kSwitchInterface) appendToken(place, key.second);
  return place;
}

std::string placeOf(std::string attachment, const Level& level) {
  attachment += "/segment";
  appendToken(attachment, std::to_string(level.level));
  return attachment;
}

class Checker {
 public:
  Checker(const CloudState& state, Faults& faults) : state_(state), faults_(faults) {}

  void check(const RegionTouch& touch) {
    if (touch.removed()) return;
    const Region& region = *touch.region;
    if (touch.added()) {
      checkWhole(region);
      return;
    }
    for (const PortTouch& port : touch.ports) {
      if (!port.before) {
        checkPort(region, port.id);
      } else if (port.port == nullptr) {
        checkPortGone(region, port.id);
      }
    }
    for (const PortBindingTouch& binding : touch.portBindings) check(binding);
    for (const SegmentTouch& segment : touch.segments) checkUsers(segment);
  }

 private:
  void check(const PortBindingTouch& touch) {
    if (touch.removed()) return;
    if (touch.added()) {
      checkPortOf(*touch.binding);
      checkAttachments(*touch.binding);
      return;
    }
    checkKinds(*touch.binding);
    for (const auto kind : kAttachmentKinds) {
      for (const AttachmentTouch& attachment : touch.of(kind)) {
        if (!attachment.removed()) checkAttachment(*touch.binding, kind, *attachment.attachment);
      }
    }
  }

  void checkWhole(const Region& region) {
    for (const auto& [id, port] : region.port) checkPort(region, id);
    // Ports and bindings stand in one order, so that no port needs to be looked up.
    auto port = region.port.begin();
    for (const auto& [id, binding] : region.portBinding) {
      while (port != region.port.end() && port->first < id) ++port;
      if (port == region.port.end() || port->first != id) addPortMissing(binding);
      checkAttachments(binding);
    }
  }

  void checkPort(const Region& region, std::string_view id) {
    if (const Region* other = state_.ports().elsewhere(id, region)) {
      faults_.add(placeIn(region, "port", id),
                  fmt::format("port id {} is in region {} too, and may be in one region only",
                              shown(id), shown(other->name)));
    }
  }

  void checkPortGone(const Region& region, std::string_view id) {
    const auto binding = region.portBinding.find(id);
    if (binding != region.portBinding.end()) checkPortOf(binding->second);
  }

  void checkPortOf(const PortBinding& binding) {
    if (!binding.region->port.contains(binding.id)) addPortMissing(binding);
  }

  void addPortMissing(const PortBinding& binding) {
    faults_.add(placeOf(binding), fmt::format("no port {} in region {}", shown(binding.id),
                                              shown(binding.region->name)));
  }

  void checkKinds(const PortBinding& binding) {
    const auto& hosts = binding.of(AttachmentKind::kHost);
    const auto& switches = binding.of(AttachmentKind::kSwitchInterface);
    if (hosts.empty() || switches.empty()) return;
    faults_.add(
        placeOf(binding),
        fmt::format("port {} has host bindings ({}) and switch-interface bindings ({}), and "
                    "may have one kind only",
                    shown(binding.id), shown(hosts.begin()->first.first),
                    shown(switches.begin()->first.first)));
  }

  void checkAttachments(const PortBinding& binding) {
    checkKinds(binding);
    for (const auto kind : kAttachmentKinds) {
      for (const auto& attachment : binding.of(kind)) checkAttachment(binding, kind, attachment);
    }
  }

  void checkAttachment(const PortBinding& binding, AttachmentKind kind,
                       const AttachmentEntry& attachment) {
    const Region& region = *binding.region;
    const auto host = CloudState::hostOf(kind, attachment);
    const Region* other = host.empty() ? nullptr : state_.hosts(kind).elsewhere(host, region);
    if (other != nullptr) {
      const std::string_view where =
          kind == AttachmentKind::kHost ? "in the host bindings" : "behind the switch interfaces";
      faults_.add(placeOf(binding, kind, attachment.first),
                  fmt::format("host {} is {} of region {} too, and may be in those of one region "
                              "only",
                              shown(host), where, shown(other->name)));
    }
    checkLevels(binding, kind, attachment);
  }

  void checkLevels(const PortBinding& binding, AttachmentKind kind,
                   const AttachmentEntry& attachment) {
    const Levels& levels = attachment.second.levels;
    for (auto level = levels.begin(); level != levels.end(); ++level) {
      auto fault = faultOfLevel(binding, *level);
      // Two or three levels are usual, so that looking back costs less than a set would.
      for (auto above = levels.begin(); above != level && fault.empty(); ++above) {
        fault = faultOfPair(*above, *level);
      }
      if (fault.empty()) continue;
      faults_.add(placeOf(placeOf(binding, kind, attachment.first), *level), std::move(fault));
    }
  }

  static std::string faultOfLevel(const PortBinding& binding, const Level& level) {
    if (level.segment->second.value) return {};
    return fmt::format("no segment {} in region {}", shown(level.segment->first),
                       shown(binding.region->name));
  }

  static std::string faultOfPair(const Level& above, const Level& level) {
    if (above.segment == level.segment) {
      return fmt::format("segment {} stands at level {} too, and may stand at one level only",
                         shown(level.segment->first), above.level);
    }
    const auto& a = above.segment->second.value;
    const auto& b = level.segment->second.value;
    if (!a || !b || a->type != kVlanSegment || *a != *b) return {};
    return fmt::format(
        "segment {} has VLAN {} like segment {} at level {}, and a binding may have "
        "a VLAN once only",
        shown(level.segment->first), b->id, shown(above.segment->first), above.level);
  }

  // A segment that went or changed may break the bindings that nobody touched.
  void checkUsers(const SegmentTouch& touch) {
    if (touch.added()) return;
    for (const SegmentUse& use : touch.segment->second.users) {
      const PortBinding& binding = *use.binding;
      const bool onHosts = binding.of(AttachmentKind::kHost).contains(use.attachment->first);
      checkLevels(binding, onHosts ? AttachmentKind::kHost : AttachmentKind::kSwitchInterface,
                  *use.attachment);
    }
  }

  const CloudState& state_;
  Faults& faults_;
};

}  // namespace

void checkRules(const CloudState& state, const Change& change, Faults& faults) {
  Checker checker(state, faults);
  for (const RegionTouch& region : change.regions) checker.check(region);
}

}  // namespace vnagent
