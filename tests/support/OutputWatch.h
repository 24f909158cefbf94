// Observes every output of the machines: what was written, and in which order.
//
//   OutputWatch watch(status, resources, elements);
//   ... let machines work ...
//   EXPECT_THAT(watch.take(), ElementsAre("host h1 vlan 10", ...));   // in the order of the writes
//
// A change of a collection or set is recorded when the loop delivers it, as the path of the entry,
// followed by " gone" when the entry does not exist any more; a scalar as its name and value. What
// is written twice before the loop delivers is recorded once.
//
// `immediate`, where set, is called inside the mutator with the path of the collection; it may
// change anything, or throw.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "model/OpenStack/OpenStackStatus.h"
#include "model/VirtualNetwork/NetworkElement.h"
#include "model/VirtualNetwork/RequestedResources.h"

class OutputWatch {
 public:
  OutputWatch(const Kiv::Ptr<OpenStack::OpenStackStatus>& status,
              const Kiv::Ptr<VirtualNetwork::RequestedResourcesCollection>& resources,
              const Kiv::Ptr<VirtualNetwork::NetworkElementCollection>& elements);
  ~OutputWatch();
  OutputWatch(const OutputWatch&) = delete;
  OutputWatch& operator=(const OutputWatch&) = delete;

  // What was recorded since the last call.
  std::vector<std::string> take();
  // How often a collection or set has changed since the watch began.
  int changes() const;

  std::function<void(const std::string& path)> immediate;

  class Tree;

 private:
  std::unique_ptr<Tree> tree_;
};
