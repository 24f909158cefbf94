// The cloud of a load: regions with networks, ports on hosts and ports behind switch interfaces,
// all from a seed, and the moves of its ports. It knows where each port is, so that each move is a
// change. One thread.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace vnagent {

struct CloudShape {
  std::string prefix = "load-";  // of the names of regions, hosts and switches
  uint32_t regions = 1;
  uint32_t ports = 1000;  // in all; spread evenly over the regions, as are the hosts
  uint32_t hosts = 100;
  uint64_t seed = 1;
};

class LoadCloud {
 public:
  // REQUIRES: at least one region, and for each region two hosts.
  explicit LoadCloud(const CloudShape& shape);

  uint32_t regions() const { return shape_.regions; }
  uint32_t ports() const { return static_cast<uint32_t>(ports_.size()); }
  uint32_t hosts() const { return shape_.hosts; }

  std::string regionName(uint32_t region) const;
  std::string hostName(uint32_t host) const;
  // The ports of a region are region, region + regions(), and so on; so are its hosts.
  uint32_t regionOf(uint32_t port) const { return port % shape_.regions; }

  // The region as the cloud document has it, with each port where it is.
  std::string regionText(uint32_t region) const;
  // All regions as a cloud document.
  std::string documentText() const;

  // The request path of a port's binding.
  std::string bindingTarget(uint32_t port) const;
  // A merge patch on the binding that moves the port to another host or interface of its region,
  // and the cloud's memory of it.
  std::string move(uint32_t port);
  // Takes the last move of the port back, which was refused.
  void undoMove(uint32_t port);

 private:
  struct Port {
    std::string id;
    uint32_t network;  // of its region
    uint32_t at;       // host, or interface
    uint32_t before;   // likewise, before its last move
    bool isOnSwitch;
  };

  uint32_t networks() const { return networks_; }
  uint32_t otherPlace(const Port& port, uint32_t region);
  void appendBinding(std::string& out, uint32_t port) const;
  std::string place(const Port& port, uint32_t number, uint32_t at) const;

  CloudShape shape_;
  uint32_t networks_;  // of each region
  std::mt19937_64 random_;
  std::vector<Port> ports_;
};

}  // namespace vnagent
