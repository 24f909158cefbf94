// A crowd of foreign notifiees on the inputs and outputs, that misbehave while they are told.
//
// Each notification is a chance for an antic: a watcher leaves, sends another away, falls silent,
// moves to another entity, lets go of itself or of another, or brings a new one; that must disturb
// nobody. Where it is allowed to, it also throws, or meddles: calls back to change the inputs.
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
class Antic final : public std::runtime_error {
 public:
  Antic() : std::runtime_error("a foreign notifiee throws") {}
};

class Crowd {
 public:
  explicit Crowd(std::uint64_t seed) : random_(seed) {}
  Crowd(const Crowd&) = delete;
  Crowd& operator=(const Crowd&) = delete;

  // Sends watchers to entities that are there now; to some of them.
  void visit(const OpenStack::Config& config, const OpenStack::OpenStackConfig& cloud,
             const OpenStack::OpenStackStatus& status,
             const VirtualNetwork::RequestedResourcesCollection& resources,
             const VirtualNetwork::NetworkElementCollection& elements);
  // Lets go of all.
  void leave() { watchers_.clear(); }

  // What is allowed from now on: to throw, once; to meddle, once, either at once within a mutator
  // or from the loop.
  void throwSoon() { throws_ = 1 + below(40); }
  void meddleSoon(bool atOnce, std::function<void()> meddle) {
    meddle_ = std::move(meddle);
    meddlesAtOnce_ = atOnce;
    meddles_ = 1 + below(atOnce ? 40 : 10);
  }
  void behave() { throws_ = meddles_ = 0; }
  // Whether a throw has been made since the last call; the same of meddling.
  bool threw() { return std::exchange(threw_, false); }
  bool meddled() { return std::exchange(meddled_, false); }

  // For the watchers: one of them is told something, at once or from the loop.
  void told(Kiv::NotifieeBase& watcher, bool atOnce);

  int below(int count) { return static_cast<int>(random_() % static_cast<unsigned>(count)); }

 private:
  template <class W, class E>
  void send(const E& entity);

  std::mt19937_64 random_;
  std::vector<Kiv::Ptr<Kiv::NotifieeBase>> watchers_;
  std::function<void()> meddle_;
  int throws_ = 0;   // at the how many-th notification; 0 for never
  int meddles_ = 0;  // likewise
  bool meddlesAtOnce_ = false;
  bool threw_ = false;
  bool meddled_ = false;
};

}  // namespace sim
