#include "agent/cloud/output_restore.h"

#include <algorithm>
#include <charconv>
#include <concepts>
#include <initializer_list>
#include <limits>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "agent/cloud/output_reading.h"
#include "agent/document/vocabulary.h"

namespace vnagent {
namespace {

using OpenStack::RegionStatus;
using OpenStack::VlanPool;
using VirtualNetwork::DomainReferences;
using VirtualNetwork::NetworkElement;
using VirtualNetwork::PhysicalInterface;
using VirtualNetwork::ResourcesForHostname;
using VirtualNetwork::ResourcesForSwitchport;
using VirtualNetwork::SwitchInterface;
using VirtualNetwork::VlanReferences;
using VirtualNetwork::VniReferences;

[[noreturn]] void refuse(const JsonValue& value, const std::string& why) {
  const JsonValue* root = &value;
  while (root->parent != nullptr) root = root->parent;
  throw std::runtime_error("output document: " + pointerTo(value, *root) + ": " + why);
}

const JsonValue& expect(const JsonValue& value, JsonValue::Kind kind) {
  if (value.kind != kind) refuse(value, shown(value) + " is not what is published there");
  return value;
}

// The members of a thing, each of which it must have.
class Members {
 public:
  Members(const JsonValue& value, size_t count) : value_(expect(value, JsonValue::Kind::kObject)) {
    if (value.size != count) refuse(value, "has not the members of such a thing");
  }
  const JsonValue& operator[](std::string_view name) const {
    const JsonValue* member = value_.find(name);
    if (member == nullptr) refuse(value_, "has no " + std::string(name));
    return *member;
  }

 private:
  const JsonValue& value_;
};

// Values and keys, as the entities have them.

template <std::unsigned_integral K>
K keyOf(const JsonValue& member) {
  K number = 0;
  const char* end = member.key.data() + member.key.size();
  const auto [stop, error] = std::from_chars(member.key.data(), end, number);
  if (error != std::errc() || stop != end) refuse(member, "its key is no number");
  return number;
}
template <std::derived_from<Kiv::Text> K>
K keyOf(const JsonValue& member) {
  return K(member.key);
}

// The key as it is in the document.
std::string textOf(const Kiv::Text& key) {
  return key.str();
}
std::string textOf(Kiv::U32 key) {
  return std::to_string(key);
}

template <std::unsigned_integral T>
T valueOf(const JsonValue& value) {
  const int64_t number = expect(value, JsonValue::Kind::kInteger).integer;
  if (number < 0 || number > int64_t{std::numeric_limits<T>::max()}) refuse(value, "out of range");
  return static_cast<T>(number);
}
template <std::derived_from<Kiv::Text> T>
T valueOf(const JsonValue& value) {
  return T(expect(value, JsonValue::Kind::kString).text);
}
template <std::same_as<OpenStack::SyncStatus> T>
T valueOf(const JsonValue& value) {
  const auto word =
      std::ranges::find(kSyncStatusWords, expect(value, JsonValue::Kind::kString).text);
  if (word == kSyncStatusWords.end()) refuse(value, "no sync status");
  return static_cast<T>(word - kSyncStatusWords.begin());
}

// Kinds of attributes. `is` and `del` are the owner's mutators.

template <class Owner, class T>
void restoreScalar(Owner& owner, const JsonValue& value, const T& now,
                   void (Owner::*is)(const T&)) {
  const T wanted = valueOf<T>(value);
  if (!(wanted == now)) (owner.*is)(wanted);
}
template <class Owner, class Base, class T>
void restoreScalar(Owner& owner, const JsonValue& value, T now, void (Base::*is)(T)) {
  const T wanted = valueOf<T>(value);
  if (wanted != now) (owner.*is)(wanted);
}

// A set; add(key) and remove(key) change it.
template <class Set, class Add, class Remove>
void restoreSet(const JsonValue& value, const Set& now, Add add, Remove remove) {
  using Key = typename Set::Key;
  using Keys = decltype(readSet(now));
  using Shown = typename Keys::value_type;
  Keys wanted;
  wanted.reserve(value.size);
  for (const JsonValue* member : expect(value, JsonValue::Kind::kArray).all()) {
    if constexpr (std::is_integral_v<Shown>) {
      wanted.push_back(valueOf<Shown>(*member));
    } else {
      wanted.push_back(expect(*member, JsonValue::Kind::kString).text);
    }
  }
  if (!std::ranges::is_sorted(wanted)) std::ranges::sort(wanted);
  const Keys present = readSet(now);
  if (wanted == present) return;
  // Copies: the texts in `present` may end with their entries.
  const auto keysOf = [](const Keys& all, const Keys& without) {
    Keys rest;
    std::ranges::set_difference(all, without, std::back_inserter(rest));
    return std::vector<Key>(rest.begin(), rest.end());
  };
  const std::vector<Key> gone = keysOf(present, wanted);
  const std::vector<Key> added = keysOf(wanted, present);
  for (const Key& key : gone) remove(key);
  for (const Key& key : added) add(key);
}
template <class Owner, class Set, class Key>
void restoreSet(Owner& owner, const JsonValue& value, const Set& now, void (Owner::*is)(Key, bool),
                void (Owner::*del)(Key)) {
  restoreSet(
      value, now, [&](const auto& key) { (owner.*is)(key, true); },
      [&](const auto& key) { (owner.*del)(key); });
}

// Removes the members of a collection that the document does not have, when it has all of it.
template <class Collection, class Has, class Remove>
void removeOthers(Collection& now, size_t wanted, Has has, Remove remove) {
  if (now.size() == wanted) return;
  std::vector<std::remove_cvref_t<decltype((*now.begin())->fwkKey())>> others;
  for (const auto& member : now) {
    if (!has(member->fwkKey())) others.push_back(member->fwkKey());
  }
  for (const auto& key : others) remove(key);
}

// The parts of a thing.

void restore(VniReferences& vni, const JsonValue& value);
void restore(VlanReferences& vlan, const JsonValue& value);
void restore(DomainReferences& domain, const JsonValue& value);
void restore(RegionStatus& region, const JsonValue& value);
void restore(ResourcesForHostname& host, const JsonValue& value);
void restore(ResourcesForSwitchport& port, const JsonValue& value);

// A collection, with all that its members hold; restoreMember(entity, value) does one.
template <class Owner, class Base, class Collection, class E, class Key, class Restore>
void restoreMembers(Owner& owner, const JsonValue& value, Collection& now,
                    Kiv::Ptr<E> (Base::*is)(Key), Kiv::Ptr<E> (Base::*del)(Key),
                    Restore restoreMember) {
  for (const JsonValue* member : expect(value, JsonValue::Kind::kObject).all()) {
    const auto key = keyOf<std::remove_cvref_t<Key>>(*member);
    E* entity = now[key];
    if (entity == nullptr) entity = (owner.*is)(key).get();
    restoreMember(*entity, *member);
  }
  removeOthers(
      now, value.size, [&](const auto& key) { return value.find(textOf(key)) != nullptr; },
      [&](const auto& key) { (owner.*del)(key); });
}
template <class Owner, class Base, class Collection, class E, class Key>
void restoreMembers(Owner& owner, const JsonValue& value, Collection& now,
                    Kiv::Ptr<E> (Base::*is)(Key), Kiv::Ptr<E> (Base::*del)(Key)) {
  restoreMembers(owner, value, now, is, del,
                 [](E& entity, const JsonValue& member) { restore(entity, member); });
}

// Things.

void restore(VniReferences& vni, const JsonValue& value) {
  restoreSet(vni, value, vni.referrer(), &VniReferences::referrerIs, &VniReferences::referrerDel);
}

void restore(DomainReferences& domain, const JsonValue& value) {
  restoreSet(domain, value, domain.referrer(), &DomainReferences::referrerIs,
             &DomainReferences::referrerDel);
}

void restore(VlanReferences& vlan, const JsonValue& value) {
  const Members in(value, 2);
  restoreSet(vlan, in["referrer"], vlan.referrer(), &VlanReferences::referrerIs,
             &VlanReferences::referrerDel);
  restoreMembers(vlan, in["mappedVni"], vlan.mappedVni(), &VlanReferences::mappedVniIs,
                 &VlanReferences::mappedVniDel);
}

template <class Owner>
void restoreVlans(Owner& owner, const JsonValue& value) {
  restoreMembers(owner, value, owner.vlan(), &Owner::vlanIs, &Owner::vlanDel);
}
template <class Owner>
void restoreDomains(Owner& owner, const JsonValue& value) {
  restoreMembers(owner, value, owner.domain(), &Owner::domainIs, &Owner::domainDel);
}
template <class Owner>
void restoreNativeVlan(Owner& owner, const JsonValue& value) {
  restoreScalar(owner, value, owner.nativeVlan(), &Owner::nativeVlanIs);
}

void restore(VlanPool& pool, const JsonValue& value) {
  const Members in(value, 3);
  restoreSet(pool, in["assignedVlan"], pool.assignedVlan(), &VlanPool::assignedVlanIs,
             &VlanPool::assignedVlanDel);
  restoreSet(pool, in["availableVlan"], pool.availableVlan(), &VlanPool::availableVlanIs,
             &VlanPool::availableVlanDel);
  restoreSet(pool, in["allocatedVlan"], pool.allocatedVlan(), &VlanPool::allocatedVlanIs,
             &VlanPool::allocatedVlanDel);
}

void restore(RegionStatus& region, const JsonValue& value) {
  const Members in(value, 6);
  restoreScalar(region, in["syncStatus"], region.syncStatus(), &RegionStatus::syncStatusIs);
  restoreScalar(region, in["oldSyncStatus"], region.oldSyncStatus(),
                &RegionStatus::oldSyncStatusIs);
  restoreScalar(region, in["owner"], region.owner(), &RegionStatus::ownerIs);
  restoreScalar(region, in["requestId"], region.requestId(), &RegionStatus::requestIdIs);
  restoreScalar(region, in["vlanAssignmentUuid"], region.vlanAssignmentUuid(),
                &RegionStatus::vlanAssignmentUuidIs);
  if (region.vlanPool() == nullptr) region.vlanPoolIs(region.name());
  restore(*region.vlanPool(), in["vlanPool"]);
}

void restore(ResourcesForHostname& host, const JsonValue& value) {
  const Members in(value, 2);
  restoreDomains(host, in["domain"]);
  restoreVlans(host, in["vlan"]);
}

void restore(ResourcesForSwitchport& port, const JsonValue& value) {
  const Members in(value, 4);
  restoreVlans(port, in["vlan"]);
  restoreNativeVlan(port, in["nativeVlan"]);
  restoreSet(port, in["remoteHost"], port.remoteHost(), &ResourcesForSwitchport::remoteHostIs,
             &ResourcesForSwitchport::remoteHostDel);
  restoreSet(port, in["referrer"], port.referrer(), &ResourcesForSwitchport::referrerIs,
             &ResourcesForSwitchport::referrerDel);
}

// Network elements refer to each other: `elements` has all of them.
void restore(PhysicalInterface& interface, const JsonValue& value,
             VirtualNetwork::NetworkElementCollection& elements) {
  const Members in(value, 3);
  restoreVlans(interface, in["vlan"]);
  restoreNativeVlan(interface, in["nativeVlan"]);
  const JsonValue& configured = in["configuredElement"];
  restoreSet(
      configured, interface.configuredElement(),
      [&](const Kiv::Name& name) {
        NetworkElement* element = elements.networkElement()[name];
        if (element == nullptr) refuse(configured, "no network element " + name.str());
        interface.configuredElementIs(Kiv::Ptr<const NetworkElement>(element));
      },
      [&](const Kiv::Name& name) { interface.configuredElementDel(name); });
}

void restore(NetworkElement& element, const JsonValue& value,
             VirtualNetwork::NetworkElementCollection& elements) {
  const Members in(value, 5);
  restoreScalar(element, in["hostname"], element.hostname(), &NetworkElement::hostnameIs);
  restoreSet(element, in["referrer"], element.referrer(), &NetworkElement::referrerIs,
             &NetworkElement::referrerDel);
  restoreDomains(element, in["domain"]);
  restoreVlans(element, in["vlan"]);
  restoreMembers(element, in["physicalInterface"], element.physicalInterface(),
                 &NetworkElement::physicalInterfaceIs, &NetworkElement::physicalInterfaceDel,
                 [&](PhysicalInterface& interface, const JsonValue& member) {
                   restore(interface, member, elements);
                 });
}

// Switch ports are keyed by switch, then by interface.
void restoreSwitchports(VirtualNetwork::RequestedResourcesCollection& resources,
                        const JsonValue& value) {
  auto& now = resources.resourcesForSwitchport();
  size_t wanted = 0;
  for (const JsonValue* of : expect(value, JsonValue::Kind::kObject).all()) {
    const Kiv::String name(of->key);
    for (const JsonValue* member : expect(*of, JsonValue::Kind::kObject).all()) {
      const SwitchInterface key(name, Kiv::String(member->key));
      ResourcesForSwitchport* port = now[key];
      if (port == nullptr) port = resources.resourcesForSwitchportIs(key).get();
      restore(*port, *member);
      ++wanted;
    }
  }
  removeOthers(
      now, wanted,
      [&](const SwitchInterface& key) {
        const JsonValue* of = value.find(key.switchIdentifier().view());
        return of != nullptr && of->find(key.interfaceName().view()) != nullptr;
      },
      [&](const SwitchInterface& key) { resources.resourcesForSwitchportDel(key); });
}

void restoreElements(VirtualNetwork::NetworkElementCollection& elements, const JsonValue& value) {
  using Elements = VirtualNetwork::NetworkElementCollection;
  const auto each = [&](auto restoreOne) {
    restoreMembers(elements, value, elements.networkElement(), &Elements::networkElementIs,
                   &Elements::networkElementDel, restoreOne);
  };
  // Elements refer to each other: one that goes must not keep others that go.
  for (const auto& element : elements.networkElement()) {
    if (value.find(element->fwkKey().view()) == nullptr) element->physicalInterfaceDelAll();
  }
  each([](NetworkElement&, const JsonValue&) {});
  each([&](NetworkElement& element, const JsonValue& member) {
    restore(element, member, elements);
  });
}

}  // namespace

void restoreOutput(const JsonValue& document, OpenStack::OpenStackStatus& status,
                   VirtualNetwork::RequestedResourcesCollection& resources,
                   VirtualNetwork::NetworkElementCollection& elements) {
  using OpenStack::OpenStackStatus;
  using Resources = VirtualNetwork::RequestedResourcesCollection;
  const Members in(document, 3);
  restoreMembers(status, in["regionStatus"], status.regionStatus(),
                 &OpenStackStatus::regionStatusIs, &OpenStackStatus::regionStatusDel);
  const Members requested(in["requestedResources"], 2);
  restoreMembers(resources, requested["resourcesForHostname"], resources.resourcesForHostname(),
                 &Resources::resourcesForHostnameIs, &Resources::resourcesForHostnameDel);
  restoreSwitchports(resources, requested["resourcesForSwitchport"]);
  restoreElements(elements, in["networkElement"]);
}

}  // namespace vnagent
