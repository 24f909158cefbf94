// The cloud that every side of a comparison works on: ports on hosts, hosts on networks.
//
// P ports with ids of 36 characters, 40 to a host, P/20 networks, one region. Everything follows
// from P and the shape; two clouds of the same P and shape are equal.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace bench {

// How the ports of one host are spread over the networks.
enum class Shape {
  spread,  // each port of a host in another network
  packed,  // ten ports after each other in the same network
};

// "spread" or "packed".
std::string_view name(Shape shape);

class Cloud {
 public:
  static constexpr std::uint32_t kPortsPerHost = 40;
  static constexpr std::uint32_t kPortsPerNetwork = 20;

  Cloud(std::uint32_t ports, Shape shape);

  static std::string_view region() { return "RegionOne"; }
  std::uint32_t ports() const { return ports_; }
  std::uint32_t hosts() const { return (ports_ + kPortsPerHost - 1) / kPortsPerHost; }
  std::uint32_t networks() const { return networks_; }

  // Of a port, by its number: the id, the host's name, the network's number.
  std::string_view portId(std::uint32_t port) const { return {&portIds_[port * kIdSize], kIdSize}; }
  std::string_view host(std::uint32_t port) const { return hosts_[port / kPortsPerHost]; }
  std::uint32_t network(std::uint32_t port) const {
    return (shape_ == Shape::spread ? port : port / 10) % networks_;
  }

  // Of a network, by its number.
  static std::uint32_t vlan(std::uint32_t network) { return 1 + network % 4094; }
  static std::uint32_t vni(std::uint32_t network) { return 10000 + network; }

  // Every port's number: in random order, always the same; and host by host.
  std::vector<std::uint32_t> shuffled(std::uint32_t seed) const;
  std::vector<std::uint32_t> hostByHost() const;

 private:
  static constexpr std::size_t kIdSize = 36;

  std::uint32_t ports_;
  std::uint32_t networks_;
  Shape shape_;
  std::string portIds_;
  std::vector<std::string> hosts_;
};

}  // namespace bench
