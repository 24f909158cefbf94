#include "agent/document/rules.h"

#include <algorithm>

#include <fmt/format.h>

#include "agent/document/places.h"

namespace vnagent {
namespace {

class Checker {
 public:
  Checker(const CloudState& state, Faults& faults) : state_(state), faults_(faults) {}

  void check(const DirtyRegion& dirty) {
    if (dirty.removed()) return;
    const Region& region = dirty.value();
    if (dirty.added()) {
      checkWhole(region);
      return;
    }
    for (const DirtyThing& port : dirty.things[kPortRow]) {
      if (port.added()) checkPort(region, port.key());
      if (port.removed()) checkPortGone(region, port.key());
    }
    for (const DirtyPortBinding& binding : dirty.portBindings) check(binding);
    for (const DirtyThing& segment : dirty.things[kSegmentRow]) checkUsers(segment);
  }

 private:
  void check(const DirtyPortBinding& dirty) {
    if (dirty.removed()) return;
    const PortBinding& binding = dirty.value();
    if (dirty.added()) {
      checkPortOf(binding);
      checkAttachments(binding);
      return;
    }
    checkKinds(binding);
    for (const auto kind : kAttachmentKinds) {
      for (const DirtyAttachment& attachment : dirty.of(kind)) {
        if (!attachment.removed()) checkAttachment(binding, kind, *attachment.entry);
      }
    }
  }

  void checkWhole(const Region& region) {
    for (const auto& [id, port] : region.ports()) checkPort(region, id);
    // Ports and bindings are in the same order, so that no port needs to be looked up.
    auto port = region.ports().begin();
    for (const auto& [id, binding] : region.portBinding) {
      while (port != region.ports().end() && port->first < id) ++port;
      if (port == region.ports().end() || port->first != id) addPortMissing(binding);
      checkAttachments(binding);
    }
  }

  void checkPort(const Region& region, std::string_view id) {
    if (const Region* other = state_.ports().elsewhere(id, region)) {
      faults_.add(placeOf(&region, "port", id),
                  fmt::format("port id {} is in region {} too, and may be in one region only",
                              shown(id), shown(other->name)));
    }
  }

  void checkPortGone(const Region& region, std::string_view id) {
    const auto binding = region.portBinding.find(id);
    if (binding != region.portBinding.end()) checkPortOf(binding->second);
  }

  void checkPortOf(const PortBinding& binding) {
    if (!binding.region->ports().contains(binding.id)) addPortMissing(binding);
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
    const auto host = hostOf(kind, attachment);
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
      faults_.add(placeOf(binding, kind, attachment.first, *level), std::move(fault));
    }
  }

  static std::string faultOfLevel(const PortBinding& binding, const Level& level) {
    if (level.segment->second.present) return {};
    return fmt::format("no segment {} in region {}", shown(level.segment->first),
                       shown(binding.region->name));
  }

  static std::string faultOfPair(const Level& above, const Level& level) {
    if (above.segment == level.segment) {
      return fmt::format("segment {} is at level {} too, and may be at one level only",
                         shown(level.segment->first), above.level);
    }
    const Values& a = above.segment->second.values;
    const Values& b = level.segment->second.values;
    const auto vlan = segmentNumber(b);
    if (segmentType(a) != kVlanSegment || segmentType(b) != kVlanSegment || !vlan ||
        vlan != segmentNumber(a)) {
      return {};
    }
    return fmt::format(
        "segment {} has VLAN {} like segment {} at level {}, and a binding may have "
        "a VLAN once only",
        shown(level.segment->first), *vlan, shown(above.segment->first), above.level);
  }

  // A segment that was removed or changed may break the bindings that nobody touched.
  void checkUsers(const DirtyThing& segment) {
    if (segment.added()) return;
    for (const SegmentUse& use : segment.value().users) {
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
  for (const DirtyRegion& region : change.regions) checker.check(region);
}

}  // namespace vnagent
