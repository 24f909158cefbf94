#include "bench/data/Cloud.h"

#include <algorithm>
#include <cstdio>
#include <numeric>
#include <random>

namespace bench {
namespace {

// A UUID of random digits.
void appendUuid(std::string& to, std::mt19937_64& random) {
  const std::uint64_t high = random();
  const std::uint64_t low = random();
  char text[40];
  std::snprintf(text, sizeof(text), "%08x-%04x-%04x-%04x-%012llx",
                static_cast<unsigned>(high >> 32), static_cast<unsigned>(high >> 16 & 0xffff),
                static_cast<unsigned>(high & 0x0fff) | 0x4000U,
                static_cast<unsigned>(low >> 48 & 0x3fff) | 0x8000U,
                static_cast<unsigned long long>(low & 0xffffffffffffULL));
  to += text;
}

}  // namespace

std::string_view name(Shape shape) {
  return shape == Shape::spread ? "spread" : "packed";
}

Cloud::Cloud(std::uint32_t ports, Shape shape)
    : ports_(ports), networks_(std::max(1U, ports / kPortsPerNetwork)), shape_(shape) {
  std::mt19937_64 random(ports);
  portIds_.reserve(ports * kIdSize);
  for (std::uint32_t port = 0; port < ports; ++port) appendUuid(portIds_, random);
  hosts_.reserve(hosts());
  for (std::uint32_t host = 0; host < hosts(); ++host) {
    char text[40];
    std::snprintf(text, sizeof(text), "compute-%05u.az1.lan", host);
    hosts_.emplace_back(text);
  }
}

std::vector<std::uint32_t> Cloud::shuffled(std::uint32_t seed) const {
  auto order = hostByHost();
  std::shuffle(order.begin(), order.end(), std::mt19937(seed));
  return order;
}

std::vector<std::uint32_t> Cloud::hostByHost() const {
  std::vector<std::uint32_t> order(ports_);
  std::iota(order.begin(), order.end(), 0U);
  return order;
}

}  // namespace bench
