#include "agent/live/view.h"

#include <algorithm>
#include <string_view>

#include <nlohmann/json.hpp>

#include "agent/json/json_writer.h"
#include "agent/live/output_of_json.h"
#include "agent/output/output_json.h"

namespace vnagent {
namespace {

using OrderedJson = nlohmann::ordered_json;

// In front of a port id where a switch port or a network element refers to it.
constexpr std::string_view kReferrerPrefix = "bm-";

std::string_view portOf(std::string_view referrer) {
  if (referrer.starts_with(kReferrerPrefix)) referrer.remove_prefix(kReferrerPrefix.size());
  return referrer;
}

std::optional<std::string> textAt(const OrderedJson& root, const Place& place) {
  const OrderedJson* at = &root;
  for (const std::string& name : place) {
    if (!at->is_object()) return std::nullopt;
    const auto member = at->find(name);
    if (member == at->end()) return std::nullopt;
    at = &*member;
  }
  return at->dump();
}

class OutputView {
 public:
  OutputView(const CloudState& state, const Principal& principal) {
    for (const std::string& name : principal.regions) {
      const auto region = state.region.find(name);
      if (region != state.region.end()) regions_.push_back(&region->second);
    }
    names_ = &principal.regions;
  }

  void restrict(OutputDocument& output) {
    if (output.regionStatus) {
      std::erase_if(*output.regionStatus,
                    [&](const RegionOutput& region) { return !isOwn(region.name); });
    }
    if (output.requestedResources) restrict(*output.requestedResources);
    if (output.networkElement) {
      std::erase_if(*output.networkElement,
                    [&](NetworkElementOutput& element) { return !restrict(element); });
    }
  }

 private:
  bool isOwn(std::string_view region) const {
    return std::ranges::binary_search(*names_, region, std::less<>());
  }
  const PortBinding* bindingOf(std::string_view port) const {
    for (const Region* region : regions_) {
      const auto binding = region->portBinding.find(port);
      if (binding != region->portBinding.end()) return &binding->second;
    }
    return nullptr;
  }
  bool isOwnPort(std::string_view port) const {
    return std::ranges::any_of(regions_, [&](const Region* region) {
      return region->ports().contains(port) || region->portBinding.contains(port);
    });
  }

  // Each leaves what is seen, and returns whether anything is left.

  bool restrictReferrers(std::optional<Texts>& referrers) const {
    if (!referrers) return false;
    std::erase_if(*referrers,
                  [&](std::string_view referrer) { return !isOwnPort(portOf(referrer)); });
    return !referrers->empty();
  }
  bool restrict(VlanOutput& vlan) const {
    const bool referred = restrictReferrers(vlan.referrer);
    if (vlan.mappedVni) {
      std::erase_if(*vlan.mappedVni,
                    [&](VniOutput& vni) { return !restrictReferrers(vni.referrer); });
    }
    return referred;
  }
  void restrictVlans(std::optional<std::vector<VlanOutput>>& vlans) const {
    if (vlans) std::erase_if(*vlans, [&](VlanOutput& vlan) { return !restrict(vlan); });
  }
  static void restrictNative(std::optional<uint32_t>& native,
                             const std::optional<std::vector<VlanOutput>>& vlans) {
    const bool isLeft = vlans && native && std::ranges::any_of(*vlans, [&](const VlanOutput& vlan) {
                          return vlan.vlan == *native;
                        });
    if (!isLeft) native = 0;
  }
  void restrictDomains(std::optional<std::vector<DomainOutput>>& domains) const {
    if (!domains) return;
    std::erase_if(*domains, [&](const DomainOutput& domain) { return !isOwn(domain.region); });
  }

  // Whether an own binding at this switch interface, one of these ports where any are named, has
  // this host.
  bool isNamedBy(const Texts& ports, std::string_view switchIdentifier, std::string_view interface,
                 std::string_view host) const {
    return std::ranges::any_of(ports, [&](std::string_view referrer) {
      const PortBinding* binding = bindingOf(portOf(referrer));
      if (binding == nullptr) return false;
      const AttachmentMap& map = binding->of(AttachmentKind::kSwitchInterface);
      const auto attachment = map.find(AttachmentKeyView(switchIdentifier, interface));
      return attachment != map.end() &&
             hostOf(AttachmentKind::kSwitchInterface, *attachment) == host;
    });
  }
  void restrictHosts(std::optional<Texts>& hosts, const Texts& ports,
                     std::string_view switchIdentifier, std::string_view interface) const {
    if (!hosts) return;
    std::erase_if(*hosts, [&](std::string_view host) {
      return !isNamedBy(ports, switchIdentifier, interface, host);
    });
  }

  void restrict(RequestedResourcesOutput& resources) const {
    if (resources.resourcesForHostname) {
      std::erase_if(*resources.resourcesForHostname, [&](HostOutput& host) {
        restrictDomains(host.domain);
        restrictVlans(host.vlan);
        return !host.domain || host.domain->empty();
      });
    }
    if (!resources.resourcesForSwitchport) return;
    for (SwitchOutput& of : *resources.resourcesForSwitchport) {
      std::erase_if(of.port, [&](SwitchportOutput& port) {
        const bool referred = restrictReferrers(port.referrer);
        restrictVlans(port.vlan);
        restrictNative(port.nativeVlan, port.vlan);
        restrictHosts(port.remoteHost, *port.referrer, port.switchIdentifier, port.interfaceName);
        return !referred;
      });
    }
    std::erase_if(*resources.resourcesForSwitchport,
                  [](const SwitchOutput& of) { return of.port.empty(); });
  }

  bool restrict(NetworkElementOutput& element) const {
    bool isLeft = restrictReferrers(element.referrer);
    restrictDomains(element.domain);
    isLeft |= element.domain && !element.domain->empty();
    restrictVlans(element.vlan);
    isLeft |= element.vlan && !element.vlan->empty();
    if (element.physicalInterface) {
      std::erase_if(*element.physicalInterface, [&](PhysicalInterfaceOutput& interface) {
        return !restrict(interface, element.name);
      });
      isLeft |= !element.physicalInterface->empty();
    }
    if (!isLeft) return false;
    if (element.hostname && !element.hostname->empty() && !isHostOfOwn(*element.hostname)) {
      element.hostname = "";
    }
    return true;
  }
  bool restrict(PhysicalInterfaceOutput& interface, std::string_view element) const {
    restrictVlans(interface.vlan);
    restrictNative(interface.nativeVlan, interface.vlan);
    const Texts ports = portsAt(element, interface.name);
    restrictHosts(interface.configuredElement, ports, element, interface.name);
    return !ports.empty() || (interface.vlan && !interface.vlan->empty());
  }

  // The own ports that are bound to a switch interface.
  Texts portsAt(std::string_view switchIdentifier, std::string_view interface) const {
    Texts ports;
    for (const Region* region : regions_) {
      for (const auto& [id, binding] : region->portBinding) {
        if (binding.of(AttachmentKind::kSwitchInterface)
                .contains(AttachmentKeyView(switchIdentifier, interface))) {
          ports.push_back(id);
        }
      }
    }
    return ports;
  }
  bool isHostOfOwn(std::string_view host) const {
    return std::ranges::any_of(regions_, [&](const Region* region) {
      return std::ranges::any_of(region->portBinding, [&](const auto& binding) {
        return std::ranges::any_of(
            binding.second.of(AttachmentKind::kSwitchInterface), [&](const auto& attachment) {
              return hostOf(AttachmentKind::kSwitchInterface, attachment) == host;
            });
      });
    });
  }

  std::vector<const Region*> regions_;
  const std::vector<std::string>* names_;
};

std::string written(OutputDocument output, const CloudState& state, const Principal& principal) {
  restrictOutput(output, state, principal);
  std::string text;
  JsonWriter json(text, JsonWriter::Style::kOneLine);
  writeOutput(output, json);
  return text;
}

}  // namespace

void restrictOutput(OutputDocument& output, const CloudState& state, const Principal& principal) {
  OutputView(state, principal).restrict(output);
}

std::string viewOfOutput(const nlohmann::json& output, const CloudState& state,
                         const Principal& principal) {
  return written(outputOf(output), state, principal);
}

bool isHidden(const Place& place, const Principal& principal) {
  if (place.size() >= 2 && place[0] == "region") return !principal.mayRead(place[1]);
  return place.size() >= 3 && place[0] == "config" && place[1] == "vlanAssignment" &&
         !principal.mayRead(place[2]);
}

std::optional<std::string> readCloudAs(const CloudState& state, const Place& place,
                                       const Principal& principal) {
  if (!principal.isRestricted()) return readCloud(state, place);
  if (isHidden(place, principal)) return std::nullopt;
  if (place.size() >= 2 && place[0] == "region") return readCloud(state, place);
  OrderedJson view = OrderedJson::object();
  if (const auto text = readCloud(state, {"config"})) {
    OrderedJson config = OrderedJson::parse(*text);
    const auto assignments = config.find("vlanAssignment");
    if (assignments != config.end()) {
      OrderedJson own = OrderedJson::object();
      for (const auto& [region, vlans] : assignments->items()) {
        if (principal.mayRead(region)) own[region] = vlans;
      }
      if (own.empty()) {
        config.erase("vlanAssignment");
      } else {
        *assignments = std::move(own);
      }
    }
    if (!config.empty()) view["config"] = std::move(config);
  }
  for (const std::string& region : principal.regions) {
    if (const auto text = readCloud(state, {"region", region})) {
      view["region"][region] = OrderedJson::parse(*text);
    }
  }
  return textAt(view, place);
}

std::optional<std::string> readOutputAs(const Session& session, const Place& place,
                                        const Principal& principal) {
  if (!principal.isRestricted()) return readOutput(session, place);
  const std::string text = written(session.output(), session.document(), principal);
  return place.empty() ? std::optional(text) : textAt(OrderedJson::parse(text), place);
}

}  // namespace vnagent
