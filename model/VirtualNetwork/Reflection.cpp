// The attribute tables of the requested resources and network elements.
#include "framework/Attributes.h"
#include "model/VirtualNetwork/NetworkElement.h"
#include "model/VirtualNetwork/RequestedResources.h"
#include "model/VirtualNetwork/Values.h"

namespace [[gnu::visibility("default")]] Kiv {
namespace {

// A text with a backslash before each of these characters.
std::string escaped(std::string_view text, std::string_view characters) {
  std::string all;
  for (const char c : text) {
    if (characters.find(c) != std::string_view::npos) all += '\\';
    all += c;
  }
  return all;
}

}  // namespace

using SwitchInterfaceTraits = ValueTraits<VirtualNetwork::SwitchInterface>;

std::string SwitchInterfaceTraits::text(const VirtualNetwork::SwitchInterface& si) {
  return escaped(si.switchIdentifier().view(), "\\") + ':' +
         escaped(si.interfaceName().view(), "\\:");
}

std::optional<VirtualNetwork::SwitchInterface> SwitchInterfaceTraits::parse(std::string_view text) {
  std::string plain;
  std::size_t colon = std::string::npos;  // in `plain`
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (text[at] == ':') {
      colon = plain.size();
    } else if (text[at] == '\\') {
      if (++at == text.size()) return std::nullopt;
    }
    plain += text[at];
  }
  if (colon == std::string::npos) return std::nullopt;
  return VirtualNetwork::SwitchInterface(String(plain.substr(0, colon)),
                                         String(plain.substr(colon + 1)));
}

}  // namespace Kiv

namespace [[gnu::visibility("default")]] VirtualNetwork {

const Kiv::GenericIf* VniReferences::genericIf() const {
  static const auto description = Kiv::describe<VniReferences>(
      Kiv::attributes(Kiv::plain("vni", &VniReferences::vni),
                      Kiv::collection("referrer", "portId", &VniReferences::referrer_)));
  return &description;
}

const Kiv::GenericIf* VlanReferences::genericIf() const {
  static const auto description = Kiv::describe<VlanReferences>(
      Kiv::attributes(Kiv::plain("vlan", &VlanReferences::vlan),
                      Kiv::collection("referrer", "portId", &VlanReferences::referrer_),
                      Kiv::collection("mappedVni", "vni", &VlanReferences::mappedVni_)));
  return &description;
}

const Kiv::GenericIf* DomainReferences::genericIf() const {
  static const auto description = Kiv::describe<DomainReferences>(
      Kiv::attributes(Kiv::plain("name", &DomainReferences::name),
                      Kiv::collection("referrer", "portId", &DomainReferences::referrer_)));
  return &description;
}

// What the entities share that extend one of the two base entities.
struct BaseTables {
  static constexpr auto interface() {
    return Kiv::attributes(Kiv::collection("vlan", "vlan", &Interface::vlan_),
                           Kiv::plain("nativeVlan", &Interface::nativeVlan));
  }
  static constexpr auto hostResources() {
    return Kiv::attributes(Kiv::collection("vlan", "vlan", &HostResources::vlan_),
                           Kiv::collection("domain", "regionName", &HostResources::domain_));
  }
};

const Kiv::GenericIf* PhysicalInterface::genericIf() const {
  static const auto description = Kiv::describe<PhysicalInterface>(Kiv::attributes(
      BaseTables::interface(), Kiv::plain("name", &PhysicalInterface::name),
      Kiv::collection("configuredElement", "name", &PhysicalInterface::configuredElement_)));
  return &description;
}

const Kiv::GenericIf* ResourcesForSwitchport::genericIf() const {
  static const auto description = Kiv::describe<ResourcesForSwitchport>(
      Kiv::attributes(BaseTables::interface(),
                      Kiv::plain("switchInterface", &ResourcesForSwitchport::switchInterface),
                      Kiv::collection("remoteHost", "host", &ResourcesForSwitchport::remoteHost_),
                      Kiv::collection("referrer", "referrer", &ResourcesForSwitchport::referrer_)));
  return &description;
}

const Kiv::GenericIf* ResourcesForHostname::genericIf() const {
  static const auto description = Kiv::describe<ResourcesForHostname>(Kiv::attributes(
      BaseTables::hostResources(), Kiv::plain("host", &ResourcesForHostname::host)));
  return &description;
}

const Kiv::GenericIf* NetworkElement::genericIf() const {
  static const auto description = Kiv::describe<NetworkElement>(Kiv::attributes(
      BaseTables::hostResources(), Kiv::plain("name", &NetworkElement::name),
      Kiv::plain("hostname", &NetworkElement::hostname),
      Kiv::collection("physicalInterface", "name", &NetworkElement::physicalInterface_),
      Kiv::collection("referrer", "referrer", &NetworkElement::referrer_)));
  return &description;
}

const Kiv::GenericIf* NetworkElementCollection::genericIf() const {
  static const auto description = Kiv::describe<NetworkElementCollection>(Kiv::attributes(
      Kiv::collection("networkElement", "name", &NetworkElementCollection::networkElement_)));
  return &description;
}

const Kiv::GenericIf* RequestedResourcesCollection::genericIf() const {
  static const auto description = Kiv::describe<RequestedResourcesCollection>(
      Kiv::attributes(Kiv::collection("resourcesForHostname", "host",
                                      &RequestedResourcesCollection::resourcesForHostname_),
                      Kiv::collection("resourcesForSwitchport", "switchInterface",
                                      &RequestedResourcesCollection::resourcesForSwitchport_)));
  return &description;
}

}  // namespace VirtualNetwork
