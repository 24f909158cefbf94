// The limit in its three variants. Each takes a port of the cloud by number, and binds or unbinds
// it; what a variant reads of the cloud is what its interface would be given.
#pragma once

#include <absl/container/flat_hash_map.h>
#include <absl/container/flat_hash_set.h>

#include <string>
#include <unordered_map>
#include <unordered_set>

#include "bench/data/Cloud.h"
#include "bench/limit/Interned.h"
#include "bench/limit/Requested.h"

namespace bench {

// The fastest tables that there are.
struct SwissTables {
  template <class K, class V>
  using Map = absl::flat_hash_map<K, V>;
  template <class K>
  using Set = absl::flat_hash_set<K>;
};

// Those of the standard library.
struct StdTables {
  template <class K, class V>
  using Map = std::unordered_map<K, V>;
  template <class K>
  using Set = std::unordered_set<K>;
};

// `intern`, the yardstick: takes text, as the machines do, and interns it.
class InternLimit {
 public:
  explicit InternLimit(const Cloud& cloud) : cloud_(cloud) {}

  void bind(std::uint32_t port) {
    const std::uint32_t network = cloud_.network(port);
    requested_.bind(Interned::of(cloud_.portId(port)), Interned::of(cloud_.host(port)),
                    Interned::of(Cloud::region()), Cloud::vlan(network), Cloud::vni(network));
  }
  void unbind(std::uint32_t port) {
    const std::uint32_t network = cloud_.network(port);
    const Interned id = Interned::find(cloud_.portId(port));
    const Interned host = Interned::find(cloud_.host(port));
    const Interned region = Interned::find(Cloud::region());
    if (!id || !host || !region) return;
    requested_.unbind(id, host, region, Cloud::vlan(network), Cloud::vni(network));
  }
  const auto& requested() const { return requested_; }

 private:
  const Cloud& cloud_;
  Requested<Interned, SwissTables> requested_;
};

// `ids`, a lower bound: the caller has ports, hosts and regions as numbers.
class IdsLimit {
 public:
  explicit IdsLimit(const Cloud& cloud) : cloud_(cloud) {}

  void bind(std::uint32_t port) {
    const std::uint32_t network = cloud_.network(port);
    requested_.bind(port, port / Cloud::kPortsPerHost, 0, Cloud::vlan(network),
                    Cloud::vni(network));
  }
  void unbind(std::uint32_t port) {
    const std::uint32_t network = cloud_.network(port);
    requested_.unbind(port, port / Cloud::kPortsPerHost, 0, Cloud::vlan(network),
                      Cloud::vni(network));
  }

 private:
  const Cloud& cloud_;
  Requested<std::uint32_t, SwissTables> requested_;
};

// `std`: what one writes first.
class StdLimit {
 public:
  explicit StdLimit(const Cloud& cloud) : cloud_(cloud) {}

  void bind(std::uint32_t port) {
    const std::uint32_t network = cloud_.network(port);
    requested_.bind(std::string(cloud_.portId(port)), std::string(cloud_.host(port)),
                    std::string(Cloud::region()), Cloud::vlan(network), Cloud::vni(network));
  }
  void unbind(std::uint32_t port) {
    const std::uint32_t network = cloud_.network(port);
    requested_.unbind(std::string(cloud_.portId(port)), std::string(cloud_.host(port)),
                      std::string(Cloud::region()), Cloud::vlan(network), Cloud::vni(network));
  }

 private:
  const Cloud& cloud_;
  Requested<std::string, StdTables> requested_;
};

}  // namespace bench
