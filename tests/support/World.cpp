#include "tests/support/World.h"

#include <sstream>
#include <stdexcept>
#include <utility>

#include "OpenStackSm/detail/Toggle.h"
#include "framework/FeatureToggle.h"

namespace {

using Kiv::Ptr;
using Words = std::vector<std::string>;

Words wordsOf(const std::string& statement) {
  std::istringstream in(statement);
  Words words;
  for (std::string word; in >> word;) words.push_back(word);
  return words;
}

Kiv::U32 number(const std::string& text) {
  return static_cast<Kiv::U32>(std::stoul(text));
}

// "-" stands for the empty string.
Kiv::String orEmpty(const std::string& text) {
  return text == "-" ? Kiv::String() : Kiv::String(text);
}

OpenStack::SyncStatus syncStatus(const std::string& text) {
  if (text == "unknown") return OpenStack::SyncStatus::syncUnknown;
  if (text == "progress") return OpenStack::SyncStatus::syncInProgress;
  if (text == "timedout") return OpenStack::SyncStatus::syncTimedOut;
  if (text == "complete") return OpenStack::SyncStatus::syncComplete;
  throw std::invalid_argument("no such sync status: " + text);
}

OpenStack::SegmentationType segmentationType(const std::string& text) {
  if (text == "vlan") return OpenStack::SegmentationType::vlan;
  if (text == "vxlan") return OpenStack::SegmentationType::vxlan;
  return static_cast<OpenStack::SegmentationType>(number(text));
}

template <class T>
Ptr<T> found(T* object, std::string_view what) {
  if (object == nullptr) throw std::invalid_argument("no such object: " + std::string(what));
  return Ptr<T>(object);
}

// Writes "LEVEL=ID" and "LEVEL=-" words into a binding.
template <class Binding>
void levels(const Ptr<Binding>& binding, OpenStack::Region& region, const Words& words,
            std::size_t from) {
  for (std::size_t i = from; i < words.size(); ++i) {
    const std::size_t equals = words[i].find('=');
    const auto level = static_cast<Kiv::U8>(number(words[i].substr(0, equals)));
    const std::string id = words[i].substr(equals + 1);
    if (id == "-") {
      binding->segmentDel(level);
    } else {
      binding->segmentIs(level, found(region.segment()[id], id));
    }
  }
}

Ptr<OpenStack::PortBinding> bound(OpenStack::Region& region, const std::string& portId) {
  const auto port = region.portIs(portId);
  const Ptr<OpenStack::PortBinding> existing(region.portBinding()[portId]);
  if (existing) return existing;
  const auto binding = Kiv::make<OpenStack::PortBinding>(portId);
  binding->portIs(port);
  return region.portBindingIs(binding);
}

}  // namespace

void toggleAnswersIs(Kiv::U32 word) {
  Kiv::toggleProviderIs([word](std::string_view, bool) { return word; });
  OpenStack::detail::virtualNetworkAgentToggleForget();
}

World::World()
    : cloud(Kiv::make<OpenStack::OpenStackConfig>()),
      config(Kiv::make<OpenStack::Config>()),
      nameConfig(Kiv::make<OpenStack::NameResolution::Config>()),
      nameStatus(Kiv::make<OpenStack::NameResolution::Status>()),
      statuses(Kiv::make<OpenStack::OpenStackStatus>()),
      resources(Kiv::make<VirtualNetwork::RequestedResourcesCollection>()),
      elements(Kiv::make<VirtualNetwork::NetworkElementCollection>()) {
  time.nowIs(1000);
  Kiv::System::timeSourceIs(&time);
  toggleIs(true);
}

World::~World() {
  root = nullptr;
  Kiv::System::timeSourceIs(nullptr);
  Kiv::toggleProviderIs(nullptr);
  OpenStack::detail::virtualNetworkAgentToggleForget();
}

void World::toggleIs(bool on) {
  toggleAnswersIs(Kiv::kToggleKnown | (on ? Kiv::kToggleOn : 0));
}

void World::start(std::string_view text) {
  change(text);
  root = OpenStack::openStackSmFactory(cloud, statuses, nameConfig, nameStatus, resources, kTimeout,
                                       config, elements);
  run();
}

void World::apply(std::string_view text) {
  change(text);
  run();
}

void World::change(std::string_view text) {
  std::string rest(text);
  for (char& c : rest) {
    if (c == '\n') c = ';';
  }
  std::istringstream in(rest);
  for (std::string each; std::getline(in, each, ';');) {
    if (const Words words = wordsOf(each); !words.empty()) statement(words);
  }
}

void World::statement(const Words& words) {
  const bool gone = words[0].front() == '-';
  const std::string verb = gone ? words[0].substr(1) : words[0];
  if (verb == "region") {
    if (gone) {
      cloud->regionDel(words.at(1));
    } else {
      regionName_ = words.at(1);
      cloud->regionIs(regionName_);
    }
  } else if (verb == "driver") {
    config->vlanTypeDriverIs(static_cast<OpenStack::VlanTypeDriver>(number(words.at(1))));
  } else if (verb == "assign" && gone) {
    config->vlanAssignmentDel(words.at(1));
  } else if (verb == "assign") {
    const auto assignment = config->vlanAssignmentIs(words.at(1));
    for (std::size_t i = 2; i < words.size(); ++i) {
      const char mark = words[i].front();
      const bool marked = mark == '-' || mark == '!';
      const auto vlan = static_cast<Kiv::U16>(number(words[i].substr(marked ? 1 : 0)));
      if (mark == '-') {
        assignment->vlanDel(vlan);
      } else {
        assignment->vlanIs(vlan, mark != '!');
      }
    }
  } else {
    regionStatement(verb, gone, words);
  }
}

void World::regionStatement(const std::string& verb, bool gone, const Words& words) {
  const auto r = region();
  const std::string first = words.size() > 1 ? words[1] : std::string();
  if (verb == "segment" && gone) {
    r->segmentDel(first);
  } else if (verb == "segment") {
    const Ptr<OpenStack::Segment> existing(r->segment()[first]);
    const auto segment = existing ? existing : Kiv::make<OpenStack::Segment>(first);
    segment->segmentationTypeIs(segmentationType(words.at(2)));
    segment->segmentationIdIs(number(words.at(3)));
    r->segmentIs(segment);
  } else if (verb == "port" && gone) {
    r->portDel(first);
  } else if (verb == "port") {
    r->portIs(first)->vlanTypeIs(words.size() > 2 ? OpenStack::VlanType::native
                                                  : OpenStack::VlanType::tagged);
  } else if (verb == "bind" && gone) {
    r->portBindingDel(first);
  } else if (verb == "bind") {
    bound(*r, first);
  } else if (verb == "host" && gone) {
    binding(first)->portToHostBindingDel(words.at(2));
  } else if (verb == "host") {
    levels(bound(*r, first)->portToHostBindingIs(words.at(2)), *r, words, 3);
  } else if (verb == "switch" && gone) {
    binding(first)->portToSwitchInterfaceBindingDel({words.at(2), words.at(3)});
  } else if (verb == "switch") {
    const VirtualNetwork::SwitchInterface si(orEmpty(words.at(2)), orEmpty(words.at(3)));
    const auto to = bound(*r, first);
    if (const Ptr<OpenStack::PortToSwitchInterfaceBinding> existing{
            to->portToSwitchInterfaceBinding()[si]}) {
      levels(existing, *r, words, 5);
    } else {
      const auto made = Kiv::make<OpenStack::PortToSwitchInterfaceBinding>(si);
      made->hostIs(words.at(4));
      levels(made, *r, words, 5);
      to->portToSwitchInterfaceBindingIs(made);
    }
  } else if (verb == "sync") {
    r->syncStatusIs(syncStatus(first));
  } else if (verb == "heartbeat") {
    r->syncHeartbeatIs(r->syncHeartbeat() + 1);
  } else if (verb == "lock") {
    r->requesterIs(orEmpty(first));
    r->requestIdIs(orEmpty(words.at(2)));
  } else if (verb == "network") {
    r->networkIs(first);
  } else if (verb == "vm") {
    r->vmInstanceIs(first);
  } else if (verb == "dhcp") {
    r->dhcpInstanceIs(first);
  } else if (verb == "baremetal") {
    r->baremetalInstanceIs(first);
  } else {
    throw std::invalid_argument("no such statement: " + words[0]);
  }
}

void World::passes(Kiv::Seconds seconds) {
  const Kiv::Seconds until = time.now() + seconds;
  while (loop.nextTimer() <= until) {
    if (loop.nextTimer() > time.now()) time.nowIs(loop.nextTimer());
    loop.fireNextTimer();
    run();
  }
  time.nowIs(until);
}

void World::unbindAll() {
  for (const auto& each : cloud->region()) each->portBindingDelAll();
  run();
}

Ptr<OpenStack::Region> World::region() const {
  return found(cloud->region()[regionName_], regionName_.view());
}

Ptr<OpenStack::Segment> World::segment(std::string_view id) const {
  return found(region()->segment()[id], id);
}

Ptr<OpenStack::Port> World::port(std::string_view id) const {
  return found(region()->port()[id], id);
}

Ptr<OpenStack::PortBinding> World::binding(std::string_view portId) const {
  return found(region()->portBinding()[portId], portId);
}

Ptr<OpenStack::PortToHostBinding> World::hostBinding(std::string_view portId,
                                                     std::string_view host) const {
  return found(binding(portId)->portToHostBinding()[host], host);
}

Ptr<OpenStack::PortToSwitchInterfaceBinding> World::switchBinding(std::string_view portId) const {
  for (const auto& each : binding(portId)->portToSwitchInterfaceBinding()) return each;
  throw std::invalid_argument("no switch interface: " + std::string(portId));
}

Ptr<OpenStack::RegionConfigSm> World::regionSm() const {
  return Ptr<OpenStack::RegionConfigSm>(root->regionConfigSm()[regionName_]);
}

Ptr<OpenStack::PortBindingSm> World::portSm(std::string_view portId) const {
  const auto sm = regionSm();
  return sm ? Ptr<OpenStack::PortBindingSm>(sm->portBindingSm()[portId]) : nullptr;
}

Ptr<OpenStack::PortToHostBindingSm> World::hostSm(std::string_view portId,
                                                  std::string_view host) const {
  const auto sm = portSm(portId);
  return sm ? Ptr<OpenStack::PortToHostBindingSm>(sm->portToHostBindingSm()[host]) : nullptr;
}

Ptr<OpenStack::PortToSwitchInterfaceBindingSm> World::switchSm(std::string_view portId) const {
  const auto sm = portSm(portId);
  if (!sm) return nullptr;
  for (const auto& each : sm->portToSwitchInterfaceBindingSm()) return each;
  return nullptr;
}

Ptr<OpenStack::RegionStatus> World::regionStatus() const {
  return found(statuses->regionStatus()[regionName_], regionName_.view());
}

Lines World::rebuilt() {
  traces.pausedIs(true);
  const auto freshResources = Kiv::make<VirtualNetwork::RequestedResourcesCollection>();
  const auto freshElements = Kiv::make<VirtualNetwork::NetworkElementCollection>();
  Lines lines;
  {
    const auto second =
        OpenStack::openStackSmFactory(cloud, Kiv::make<OpenStack::OpenStackStatus>(), nameConfig,
                                      nameStatus, freshResources, kTimeout, config, freshElements);
    lines = linesOf(*freshResources, *freshElements);
  }
  traces.pausedIs(false);
  return lines;
}

std::string World::rebuiltVlans() {
  traces.pausedIs(true);
  const auto fresh = Kiv::make<OpenStack::OpenStackStatus>();
  std::string text;
  {
    const auto second = OpenStack::openStackSmFactory(
        cloud, fresh, nameConfig, nameStatus,
        Kiv::make<VirtualNetwork::RequestedResourcesCollection>(), kTimeout, config,
        Kiv::make<VirtualNetwork::NetworkElementCollection>());
    text = textOf(*fresh->regionStatusIs(regionName_)->vlanPoolIs(regionName_));
  }
  traces.pausedIs(false);
  return text;
}

Lines machinesAlive() {
  Lines lines;
  for (const Kiv::AllocTrackRecord& record : Kiv::AllocTrackTypeInfo::report()) {
    const bool machine =
        record.typeName.ends_with("Sm") || record.typeName.find("Sm::") != std::string_view::npos;
    if (!machine || record.liveCount == 0) continue;
    lines.push_back(std::string(record.typeName) + ": " + std::to_string(record.liveCount));
  }
  return lines;
}
