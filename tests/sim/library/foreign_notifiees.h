// Foreign notifiees on the inputs and outputs, which misbehave while they are notified.
//
// At a notification a watcher may unregister itself or another, deactivate one, disconnect or
// destroy one; that must have no effect on the outputs. Where it is allowed to, a watcher also
// throws, or interferes: it changes the inputs.
#pragma once

#include <functional>
#include <random>
#include <stdexcept>
#include <vector>

#include "model/OpenStack/Config.h"
#include "model/OpenStack/OpenStackConfig.h"
#include "model/OpenStack/OpenStackStatus.h"
#include "model/VirtualNetwork/NetworkElement.h"
#include "model/VirtualNetwork/RequestedResources.h"

namespace sim {

// What a watcher throws.
class ForeignError final : public std::runtime_error {
 public:
  ForeignError() : std::runtime_error("a foreign notifiee throws") {}
};

class ForeignNotifiees {
 public:
  explicit ForeignNotifiees(std::uint64_t seed) : random_(seed) {}
  ForeignNotifiees(const ForeignNotifiees&) = delete;
  ForeignNotifiees& operator=(const ForeignNotifiees&) = delete;

  // Connects watchers to some of the current entities.
  void visit(const OpenStack::Config& config, const OpenStack::OpenStackConfig& cloud,
             const OpenStack::OpenStackStatus& status,
             const VirtualNetwork::RequestedResourcesCollection& resources,
             const VirtualNetwork::NetworkElementCollection& elements);
  // Destroys all watchers.
  void leave() { watchers_.clear(); }

  // What is allowed from now on: to throw, once; to interfere, once, either inside a mutator or
  // from the loop.
  void throwSoon() { throws_ = 1 + below(40); }
  void interfereSoon(bool inside, std::function<void()> interfere) {
    interfere_ = std::move(interfere);
    interferesInside_ = inside;
    interferes_ = 1 + below(inside ? 40 : 10);
  }
  void behave() { throws_ = interferes_ = 0; }
  // Whether a watcher has thrown since the last call; whether one has interfered.
  bool threw() { return std::exchange(threw_, false); }
  bool interfered() { return std::exchange(interfered_, false); }

  // For the watchers: one of them is notified, inside a mutator or from the loop.
  void notified(Kiv::NotifieeBase& watcher, bool immediate);

  int below(int count) { return static_cast<int>(random_() % static_cast<unsigned>(count)); }

 private:
  template <class W, class E>
  void send(const E& entity);

  std::mt19937_64 random_;
  std::vector<Kiv::Ptr<Kiv::NotifieeBase>> watchers_;
  std::function<void()> interfere_;
  int throws_ = 0;      // at the how many-th notification; 0 for never
  int interferes_ = 0;  // likewise
  bool interferesInside_ = false;
  bool threw_ = false;
  bool interfered_ = false;
};

}  // namespace sim
