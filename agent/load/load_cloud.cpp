#include "agent/load/load_cloud.h"

#include <algorithm>

#include <fmt/format.h>

namespace vnagent {
namespace {

// One port in so many is behind a switch interface, like that of a bare-metal server.
constexpr uint32_t kSwitchPortEvery = 10;
// Each such port has a few interfaces of its own, between which it moves.
constexpr uint32_t kInterfaces = 4;
constexpr uint32_t kPortsPerSwitch = 32;
constexpr uint32_t kPortsPerNetwork = 50;
constexpr uint32_t kMostNetworks = 4000;

std::string uuid(std::mt19937_64& random) {
  const uint64_t high = random();
  const uint64_t low = random();
  return fmt::format("{:08x}-{:04x}-4{:03x}-{:04x}-{:012x}", high >> 32, (high >> 16) & 0xFFFF,
                     high & 0xFFF, 0x8000 | ((low >> 48) & 0x3FFF), low & 0xFFFFFFFFFFFF);
}

}  // namespace

LoadCloud::LoadCloud(const CloudShape& shape) : shape_(shape), random_(shape.seed) {
  const uint32_t perRegion = shape.ports / shape.regions;
  networks_ = std::clamp(perRegion / kPortsPerNetwork, 1U, kMostNetworks);
  const uint32_t hostsPerRegion = shape.hosts / shape.regions;
  ports_.reserve(shape.ports);
  for (uint32_t i = 0; i < shape.ports; ++i) {
    Port port;
    port.id = uuid(random_);
    port.network = static_cast<uint32_t>(random_() % networks_);
    port.isOnSwitch = i / shape.regions % kSwitchPortEvery == kSwitchPortEvery - 1;
    port.at =
        port.isOnSwitch
            ? 0
            : i % shape.regions + shape.regions * static_cast<uint32_t>(random_() % hostsPerRegion);
    port.before = port.at;
    ports_.push_back(std::move(port));
  }
}

std::string LoadCloud::regionName(uint32_t region) const {
  return fmt::format("{}region-{}", shape_.prefix, region + 1);
}

std::string LoadCloud::hostName(uint32_t host) const {
  return fmt::format("{}host-{}", shape_.prefix, host + 1);
}

std::string LoadCloud::bindingTarget(uint32_t port) const {
  return fmt::format("/v1/cloud/region/{}/portBinding/{}", regionName(regionOf(port)),
                     ports_[port].id);
}

// `"HOST": {...}` of a host binding, or `"INTERFACE": {...}` of a switch; for `at` other than where
// the port is, `"HOST": null`.
std::string LoadCloud::place(const Port& port, uint32_t number, uint32_t at) const {
  std::string name =
      port.isOnSwitch ? fmt::format("Ethernet{}", number % kPortsPerSwitch * kInterfaces + at + 1)
                      : hostName(at);
  if (at != port.at) return fmt::format("\"{}\":null", name);
  if (port.isOnSwitch) {
    return fmt::format(R"("{}":{{"host":"{}server-{}","segment":{{"0":"vlan-{}"}}}})", name,
                       shape_.prefix, number + 1, port.network + 1);
  }
  return fmt::format(R"("{}":{{"segment":{{"0":"vxlan-{}","1":"vlan-{}"}}}})", name,
                     port.network + 1, port.network + 1);
}

void LoadCloud::appendBinding(std::string& out, uint32_t number) const {
  const Port& port = ports_[number];
  const auto to = std::back_inserter(out);
  // Where it was goes, where it is comes.
  const std::string gone = port.before == port.at ? "" : place(port, number, port.before) + ",";
  if (port.isOnSwitch) {
    fmt::format_to(to, R"({{"portToSwitchInterfaceBinding":{{"{}leaf-{}":{{{}{}}}}}}})",
                   shape_.prefix, number / kPortsPerSwitch + 1, gone, place(port, number, port.at));
  } else {
    fmt::format_to(to, R"({{"portToHostBinding":{{{}{}}}}})", gone, place(port, number, port.at));
  }
}

std::string LoadCloud::regionText(uint32_t region) const {
  std::string text = R"({"segment":{)";
  const auto to = std::back_inserter(text);
  for (uint32_t network = 0; network < networks_; ++network) {
    fmt::format_to(to,
                   R"({}"vxlan-{}":{{"segmentationType":"vxlan","segmentationId":{}}},)"
                   R"("vlan-{}":{{"segmentationType":"vlan","segmentationId":{}}})",
                   network == 0 ? "" : ",", network + 1, 10000 + region * networks_ + network,
                   network + 1, network + 1);
  }
  text += R"(},"port":{)";
  for (uint32_t port = region; port < ports(); port += shape_.regions) {
    fmt::format_to(to, R"({}"{}":{{}})", port == region ? "" : ",", ports_[port].id);
  }
  text += R"(},"portBinding":{)";
  for (uint32_t number = region; number < ports(); number += shape_.regions) {
    fmt::format_to(to, R"({}"{}":)", number == region ? "" : ",", ports_[number].id);
    const Port& port = ports_[number];
    if (port.isOnSwitch) {
      fmt::format_to(to, R"({{"portToSwitchInterfaceBinding":{{"{}leaf-{}":{{{}}}}}}})",
                     shape_.prefix, number / kPortsPerSwitch + 1, place(port, number, port.at));
    } else {
      fmt::format_to(to, R"({{"portToHostBinding":{{{}}}}})", place(port, number, port.at));
    }
  }
  text += "}}";
  return text;
}

std::string LoadCloud::documentText() const {
  std::string text = R"({"region":{)";
  for (uint32_t region = 0; region < shape_.regions; ++region) {
    fmt::format_to(std::back_inserter(text), R"({}"{}":{})", region == 0 ? "" : ",",
                   regionName(region), regionText(region));
  }
  return text + "}}";
}

uint32_t LoadCloud::otherPlace(const Port& port, uint32_t region) {
  if (port.isOnSwitch) {
    return (port.at + 1 + static_cast<uint32_t>(random_() % (kInterfaces - 1))) % kInterfaces;
  }
  const uint32_t each = shape_.hosts / shape_.regions;
  const uint32_t now = port.at / shape_.regions;
  const uint32_t next = (now + 1 + static_cast<uint32_t>(random_() % (each - 1))) % each;
  return region + shape_.regions * next;
}

std::string LoadCloud::move(uint32_t number) {
  Port& port = ports_[number];
  port.before = port.at;
  port.at = otherPlace(port, regionOf(number));
  std::string patch;
  appendBinding(patch, number);
  return patch;
}

void LoadCloud::undoMove(uint32_t number) {
  ports_[number].at = ports_[number].before;
}

}  // namespace vnagent
