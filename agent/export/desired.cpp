#include "agent/export/desired.h"

#include <algorithm>
#include <charconv>

#include <fmt/format.h>
#include <fmt/ranges.h>

namespace vnagent {
namespace {

using JsonElement = Desired::JsonElement;
using Object = simdjson::dom::object;

// A place is a text, or something that makes it: there are many places, and few faults.
const std::string& placeText(const std::string& place) {
  return place;
}

template <class Place>
auto placeText(const Place& place) -> decltype(std::string(place())) {
  return place();
}

template <class Place>
uint32_t numberOf(std::string_view key, uint32_t largest, const char* what, const Place& place) {
  uint32_t number = 0;
  const auto result = std::from_chars(key.data(), key.data() + key.size(), number);
  const bool isWhole = result.ec == std::errc() && result.ptr == key.data() + key.size();
  if (!isWhole || number == 0 || number > largest) {
    throw InvalidOutput(fmt::format("{}: \"{}\" is not {}", placeText(place), key, what));
  }
  return number;
}

template <class Place>
Object objectOf(JsonElement value, const Place& place) {
  Object members;
  if (value.get(members)) throw InvalidOutput(placeText(place) + ": an object is expected");
  return members;
}

// The members of an object whose names are VLANs, in the order of the VLANs: a map that is filled
// in its order grows at its end.
template <class Place>
std::vector<std::pair<uint16_t, JsonElement>> inOrder(JsonElement value, const Place& place) {
  const Object all = objectOf(value, place);
  std::vector<std::pair<uint16_t, JsonElement>> members;
  members.reserve(all.size());
  for (const auto [key, member] : all) {
    const uint32_t vlan = numberOf(key, LogicalSwitchId::kLargestVlan, "a VLAN", place);
    members.emplace_back(static_cast<uint16_t>(vlan), member);
  }
  std::ranges::sort(members, {}, &std::pair<uint16_t, JsonElement>::first);
  return members;
}

std::optional<JsonElement> memberOf(Object object, std::string_view name) {
  JsonElement value;
  return object[name].get(value) ? std::nullopt : std::optional(value);
}

// 0 where there is none.
uint16_t nativeVlanOf(JsonElement value, const std::string& place) {
  if (value.is_null()) return 0;
  uint64_t vlan = 0;
  if (value.get(vlan) || vlan > LogicalSwitchId::kLargestVlan) {
    throw InvalidOutput(place + "/nativeVlan: a VLAN is expected");
  }
  return static_cast<uint16_t>(vlan);
}

}  // namespace

void SwitchChanges::append(const SwitchChanges& more) {
  bindings.insert(bindings.end(), more.bindings.begin(), more.bindings.end());
  logicalSwitches.insert(logicalSwitches.end(), more.logicalSwitches.begin(),
                         more.logicalSwitches.end());
}

void SwitchChanges::normalise() {
  const auto unique = [](auto& items) {
    if (!std::ranges::is_sorted(items)) std::ranges::sort(items);
    items.erase(std::unique(items.begin(), items.end()), items.end());
  };
  unique(bindings);
  unique(logicalSwitches);
}

uint32_t DesiredSwitch::portOf(std::string_view portName) {
  const auto found = portIndex.find(portName);
  if (found != portIndex.end()) return found->second;
  const auto index = static_cast<uint32_t>(ports.size());
  ports.push_back({std::string(portName), {}});
  portIndex.emplace(portName, index);
  return index;
}

const LogicalSwitchId* DesiredSwitch::find(const BindingKey& key) const {
  const auto& bindings = ports[key.port].bindings;
  const auto found = bindings.find(key.vlan);
  return found == bindings.end() ? nullptr : &found->second;
}

Desired::Desired(const ExportMap& map, Problems& problems) : map_(map), problems_(problems) {
  for (const auto& [name, one] : map.switches) {
    switchIndex_[name] = switches_.size();
    DesiredSwitch desired;
    desired.name = name;
    desired.tunnelAddress = one.tunnelIp;
    switches_.push_back(std::move(desired));
  }
  changes_.resize(switches_.size());
  sourcesAt_.resize(switches_.size());
  natives_.resize(switches_.size());
}

Desired::~Desired() = default;

void Desired::replace(JsonElement document) {
  isWhole_ = true;
  seen_.clear();
  try {
    merge(document);
  } catch (...) {
    isWhole_ = false;
    throw;
  }
  isWhole_ = false;
  std::vector<SourceKey> gone;
  for (const auto& [key, source] : sources_) {
    if (!seen_.contains(key)) gone.push_back(key);
  }
  for (const SourceKey& key : gone) remove(key);
  seen_.clear();
}

void Desired::merge(JsonElement patch) {
  const Object document = objectOf(patch, "");
  if (const auto requested = memberOf(document, "requestedResources")) {
    const Object resources = objectOf(*requested, "/requestedResources");
    if (const auto hosts = memberOf(resources, "resourcesForHostname")) mergeHosts(*hosts);
    if (const auto ports = memberOf(resources, "resourcesForSwitchport")) mergeSwitchPorts(*ports);
  }
  if (const auto elements = memberOf(document, "networkElement")) mergeElements(*elements);
}

void Desired::tunnelAddressIs(size_t index, const std::string& address) {
  DesiredSwitch& one = switches_[index];
  if (one.tunnelAddress == address) return;
  one.tunnelAddress = address;
  for (const auto& [id, bindings] : one.logicalSwitches) {
    if (id.vni()) markOthers(index, id);
  }
}

Desired::Members Desired::othersOf(size_t index, LogicalSwitchId id) const {
  Members others;
  const auto found = members_.find(id);
  if (found == members_.end()) return others;
  const std::string& own = switches_[index].tunnelAddress;
  for (const size_t member : found->second) {
    if (member == index) continue;
    const std::string& address = switches_[member].tunnelAddress;
    if (address.empty()) {
      others.isComplete = false;
    } else if (address != own) {
      others.addresses.insert(address);
    }
  }
  return others;
}

// Sources of a document.

Desired::Source& Desired::sourceOf(const SourceKey& key) {
  const auto [found, isNew] = sources_.try_emplace(key);
  Source& source = found->second;
  if (!isNew) return source;
  const auto& [kind, name, port] = key;
  const auto place = [&](const std::string& switchName, const std::string& portName) {
    const auto index = switchIndex_.find(switchName);
    if (index == switchIndex_.end()) return;
    const auto& names = map_.switches.at(switchName).ports;
    const auto renamed = names.find(portName);
    const uint32_t portIndex =
        switches_[index->second].portOf(renamed == names.end() ? portName : renamed->second);
    source.places.push_back({index->second, portIndex});
    auto& at = sourcesAt_[index->second];
    if (at.size() <= portIndex) at.resize(portIndex + 1);
    at[portIndex].push_back(&source);
  };
  if (kind == SourceKind::kHost) {
    const auto places = map_.hosts.find(name);
    if (places == map_.hosts.end()) return source;
    for (const SwitchPortName& one : places->second) place(one.switchName, one.port);
  } else {
    place(name, port);
  }
  return source;
}

void Desired::remove(const SourceKey& key) {
  const auto found = sources_.find(key);
  if (found == sources_.end()) return;
  Source& source = found->second;
  Touched touched{{}, true};
  for (const auto& [vlan, vnis] : source.vlans) touched.vlans.push_back(vlan);
  source.vlans.clear();
  source.native = 0;
  update(source, touched);
  for (const Place& place : source.places) {
    std::erase(sourcesAt_[place.switchIndex][place.port], &source);
  }
  reportPlace(key, false);
  sources_.erase(found);
}

void Desired::removeAll(SourceKind kind, const std::string& name) {
  std::vector<SourceKey> keys;
  for (auto at = sources_.lower_bound({kind, name, ""});
       at != sources_.end() && std::get<0>(at->first) == kind && std::get<1>(at->first) == name;
       ++at) {
    keys.push_back(at->first);
  }
  for (const SourceKey& key : keys) remove(key);
}

void Desired::mergeHosts(JsonElement patch) {
  for (const auto [name, host] : objectOf(patch, "/requestedResources/resourcesForHostname")) {
    mergeSource({SourceKind::kHost, std::string(name), ""}, host);
  }
}

void Desired::mergeSwitchPorts(JsonElement patch) {
  for (const auto [name, ports] : objectOf(patch, "/requestedResources/resourcesForSwitchport")) {
    mergeInterfaces(SourceKind::kSwitchPort, std::string(name), ports);
  }
}

void Desired::mergeElements(JsonElement patch) {
  for (const auto [key, element] : objectOf(patch, "/networkElement")) {
    const std::string name(key);
    if (element.is_null()) {
      removeAll(SourceKind::kInterface, name);
    } else if (const auto interfaces =
                   memberOf(objectOf(element, "/networkElement/" + name), "physicalInterface")) {
      mergeInterfaces(SourceKind::kInterface, name, *interfaces);
    }
  }
}

void Desired::mergeInterfaces(SourceKind kind, const std::string& name, JsonElement patch) {
  if (patch.is_null()) return removeAll(kind, name);
  for (const auto [port, value] : objectOf(patch, "/" + name)) {
    mergeSource({kind, name, std::string(port)}, value);
  }
}

void Desired::mergeSource(const SourceKey& key, JsonElement patch) {
  if (isWhole_) return replaceSource(key, patch);
  if (patch.is_null()) return remove(key);
  const std::string place = fmt::format("/{}/{}", std::get<1>(key), std::get<2>(key));
  const Object members = objectOf(patch, place);
  Source& source = sourceOf(key);
  Touched touched;
  if (const auto vlans = memberOf(members, "vlan")) mergeVlans(source, *vlans, place, touched);
  if (const auto native = memberOf(members, "nativeVlan")) {
    source.native = nativeVlanOf(*native, place);
    touched.isNative = true;
  }
  update(source, touched);
  reportPlace(key, !source.vlans.empty());
}

void Desired::mergeVlans(Source& source, JsonElement patch, const std::string& place,
                         Touched& touched) {
  if (patch.is_null()) {
    for (const auto& [vlan, vnis] : source.vlans) touched.vlans.push_back(vlan);
    source.vlans.clear();
    return;
  }
  const auto members = inOrder(patch, [&] { return place + "/vlan"; });
  touched.vlans.reserve(members.size());
  for (const auto& [vlan, value] : members) {
    touched.vlans.push_back(vlan);
    if (value.is_null()) {
      source.vlans.erase(vlan);
      continue;
    }
    Vnis& vnis = source.vlans[vlan];
    const auto here = [&place, number = vlan] { return fmt::format("{}/vlan/{}", place, number); };
    const auto mapped = memberOf(objectOf(value, here), "mappedVni");
    if (!mapped) continue;
    if (mapped->is_null()) {
      vnis.clear();
      continue;
    }
    for (const auto [text, ports] : objectOf(*mapped, [&] { return here() + "/mappedVni"; })) {
      const uint32_t vni = numberOf(text, LogicalSwitchId::kLargestVni, "a VNI", here);
      if (ports.is_null()) {
        vnis.erase(vni);
      } else {
        vnis.insert(vni);
      }
    }
  }
}

// Of a whole document: only what differs from before is touched.
void Desired::replaceSource(const SourceKey& key, JsonElement value) {
  seen_.insert(key);
  const std::string place = fmt::format("/{}/{}", std::get<1>(key), std::get<2>(key));
  Source next;
  Touched ignored;
  const Object members = objectOf(value, place);
  if (const auto vlans = memberOf(members, "vlan")) mergeVlans(next, *vlans, place, ignored);
  if (const auto native = memberOf(members, "nativeVlan")) {
    next.native = nativeVlanOf(*native, place);
  }

  Source& source = sourceOf(key);
  Touched touched{{}, next.native != source.native};
  // Both are in order, so that one walk finds what is in one of them only, and what differs.
  auto before = source.vlans.begin();
  for (auto now = next.vlans.begin(); now != next.vlans.end() || before != source.vlans.end();) {
    if (now == next.vlans.end() || (before != source.vlans.end() && before->first < now->first)) {
      touched.vlans.push_back((before++)->first);
    } else if (before == source.vlans.end() || now->first < before->first) {
      touched.vlans.push_back((now++)->first);
    } else {
      if (now->second != before->second) touched.vlans.push_back(now->first);
      ++now;
      ++before;
    }
  }
  source.vlans = std::move(next.vlans);
  source.native = next.native;
  update(source, touched);
  reportPlace(key, !source.vlans.empty());
}

void Desired::reportPlace(const SourceKey& key, bool hasVlans) {
  const auto& [kind, name, port] = key;
  if (kind == SourceKind::kHost) {
    if (hasVlans && !map_.hosts.contains(name)) {
      problems_.set(ProblemKind::kHostWithoutPlace, name,
                    fmt::format("the map does not say where host \"{}\" is; its VLANs are not "
                                "bound",
                                name));
    } else {
      problems_.clear(ProblemKind::kHostWithoutPlace, name);
    }
    return;
  }
  if (switchIndex_.contains(name)) return;
  std::set<SourceKey>& users = withoutSwitch_[name];
  if (hasVlans) {
    users.insert(key);
  } else {
    users.erase(key);
  }
  if (users.empty()) {
    withoutSwitch_.erase(name);
    problems_.clear(ProblemKind::kUnknownSwitch, name);
  } else {
    problems_.set(ProblemKind::kUnknownSwitch, name,
                  fmt::format("the map has no switch \"{}\"; its ports are not bound", name));
  }
}

// Consequences.

void Desired::update(const Source& source, const Touched& touched) {
  for (const Place& place : source.places) updatePort(place, touched);
}

void Desired::updatePort(const Place& place, const Touched& touched) {
  auto& natives = natives_[place.switchIndex];
  if (natives.size() <= place.port) natives.resize(place.port + 1);
  const uint16_t before = natives[place.port];
  const uint16_t native = touched.isNative ? nativeOf(place) : before;
  natives[place.port] = native;

  const auto updateVlan = [&](uint16_t vlan) {
    const auto id = resolve(place, vlan);
    const bool isNative = vlan == native;
    setBinding(place, vlan, isNative ? std::nullopt : id);
    if (isNative) setBinding(place, 0, id);
  };
  const auto isTouched = [&touched](uint16_t vlan) {
    return std::ranges::find(touched.vlans, vlan) != touched.vlans.end();
  };
  for (const uint16_t vlan : touched.vlans) updateVlan(vlan);
  if (native != before) {
    if (native == 0) setBinding(place, 0, std::nullopt);
    for (const uint16_t vlan : {before, native}) {
      if (vlan != 0 && !isTouched(vlan)) updateVlan(vlan);
    }
  }
  if (!touched.isNative && !isTouched(native)) return;

  const bool isAsked = native == 0 || std::ranges::any_of(sourcesAt_[place.switchIndex][place.port],
                                                          [native](const Source* source) {
                                                            return source->vlans.contains(native);
                                                          });
  if (isAsked) {
    problems_.clear(ProblemKind::kNativeWithoutVlan, labelOf(place));
  } else {
    problems_.set(ProblemKind::kNativeWithoutVlan, labelOf(place),
                  fmt::format("native VLAN {} of {} is not among its VLANs; it is not bound",
                              native, labelOf(place)));
  }
}

uint16_t Desired::nativeOf(const Place& place) {
  std::set<uint16_t> natives;
  for (const Source* source : sourcesAt_[place.switchIndex][place.port]) {
    if (source->native != 0) natives.insert(source->native);
  }
  if (natives.size() < 2) {
    problems_.clear(ProblemKind::kTwoNatives, labelOf(place));
    return natives.empty() ? uint16_t{0} : *natives.begin();
  }
  problems_.set(ProblemKind::kTwoNatives, labelOf(place),
                fmt::format("{} has the native VLANs {}; none of them is native", labelOf(place),
                            fmt::join(natives, " and ")));
  return 0;
}

std::optional<LogicalSwitchId> Desired::resolve(const Place& place, uint16_t vlan) {
  bool isAsked = false;
  const Vnis* first = nullptr;
  bool isAmbiguous = false;
  for (const Source* source : sourcesAt_[place.switchIndex][place.port]) {
    const auto found = source->vlans.find(vlan);
    if (found == source->vlans.end()) continue;
    isAsked = true;
    const Vnis& vnis = found->second;
    if (vnis.empty()) continue;
    isAmbiguous = isAmbiguous || vnis.size() > 1 || (first != nullptr && *first != vnis);
    first = &vnis;
  }
  if (isAmbiguous) {
    Vnis all;
    for (const Source* source : sourcesAt_[place.switchIndex][place.port]) {
      const auto found = source->vlans.find(vlan);
      if (found != source->vlans.end()) all.insert(found->second.begin(), found->second.end());
    }
    problems_.set(ProblemKind::kTwoVnis, fmt::format("{}/{}", labelOf(place), vlan),
                  fmt::format("VLAN {} of {} has the VNIs {}; it is not bound", vlan,
                              labelOf(place), fmt::join(all, " and ")));
    return std::nullopt;
  }
  if (problems_.any(ProblemKind::kTwoVnis)) {
    problems_.clear(ProblemKind::kTwoVnis, fmt::format("{}/{}", labelOf(place), vlan));
  }
  if (!isAsked) return std::nullopt;
  return first == nullptr ? LogicalSwitchId::ofVlan(vlan) : LogicalSwitchId::ofVni(*first->begin());
}

void Desired::setBinding(const Place& place, uint16_t vlan, std::optional<LogicalSwitchId> id) {
  DesiredSwitch& one = switches_[place.switchIndex];
  auto& bindings = one.ports[place.port].bindings;
  const auto found = bindings.lower_bound(vlan);
  const bool isThere = found != bindings.end() && found->first == vlan;
  if (isThere ? id == found->second : !id.has_value()) return;

  const BindingKey key{place.port, vlan};
  SwitchChanges& changes = changes_[place.switchIndex];
  changes.bindings.push_back(key);
  if (isThere) {
    const LogicalSwitchId before = found->second;
    auto& bound = one.logicalSwitches[before];
    bound.erase(key);
    if (bound.empty()) {
      one.logicalSwitches.erase(before);
      changes.logicalSwitches.push_back(before);
      if (before.vni()) {
        auto& members = members_[before];
        members.erase(place.switchIndex);
        if (members.empty()) members_.erase(before);
        markOthers(place.switchIndex, before);
      }
    }
  }
  if (!id) {
    bindings.erase(found);
    return;
  }
  if (isThere) {
    found->second = *id;
  } else {
    bindings.emplace_hint(found, vlan, *id);
  }
  auto& bound = one.logicalSwitches[*id];
  if (bound.empty()) {
    changes.logicalSwitches.push_back(*id);
    if (id->vni()) {
      members_[*id].insert(place.switchIndex);
      markOthers(place.switchIndex, *id);
    }
  }
  bound.insert(bound.end(), key);  // documents are read in the order of ports and VLANs
}

void Desired::markOthers(size_t index, LogicalSwitchId id) {
  const auto found = members_.find(id);
  if (found == members_.end()) return;
  for (const size_t member : found->second) {
    if (member != index) changes_[member].logicalSwitches.push_back(id);
  }
}

std::string Desired::labelOf(const Place& place) const {
  const DesiredSwitch& one = switches_[place.switchIndex];
  return one.name + '/' + one.ports[place.port].name;
}

}  // namespace vnagent
