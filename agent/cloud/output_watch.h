// Watches the output entities and says what has changed of the output document since it was asked
// last, as a merge patch from the document of then to that of now.
//
// It is made of notifiees on the output entities, as any embedder could have: one for each entity
// that is shown. A notification only notes which key was named. The difference is found when it is
// asked for, by looking at the noted keys alone, so that its cost is that of the change and not of
// the cloud.
//
// Notifications come after the change, and name a key once for any number of changes of it. What
// was shown before cannot be seen in the entity any more, and must be kept. A merge patch holds
// values of now only, and so of before it is enough to know:
//   - which members there were: those that have a watcher;
//   - which keys each set showed: a copy of the set, which for the few referrers of a usual entry
//     lies inside the watcher;
//   - the scalars.
// So a watcher takes about the memory of the entity that it watches, texts not counted, as both
// share them. Images taken at the first change in a step would need none of it between steps; but
// the only notification that comes at once names no key, so that such an image would have to be of
// the whole set, and a port that leaves a set of 10,000 and returns to it would cost 10,000 copies.
//
// Nothing is watched, and nothing paid for, unless one is made. Activity thread only.
#pragma once

#include <cstddef>
#include <memory>

#include "agent/cloud/output_document.h"
#include "model/OpenStack/OpenStackStatus.h"
#include "model/VirtualNetwork/NetworkElement.h"
#include "model/VirtualNetwork/RequestedResources.h"

namespace vnagent {

class OutputWatch {
 public:
  // What is in the entities now counts as shown.
  OutputWatch(const Kiv::Ptr<const OpenStack::OpenStackStatus>& status,
              const Kiv::Ptr<const VirtualNetwork::RequestedResourcesCollection>& resources,
              const Kiv::Ptr<const VirtualNetwork::NetworkElementCollection>& elements);
  ~OutputWatch();
  OutputWatch(const OutputWatch&) = delete;
  OutputWatch& operator=(const OutputWatch&) = delete;

  // What has changed since the last call; the texts are good until the next change of the entities
  // or the next call. REQUIRES: the activity loop is idle.
  OutputDocument change();

  // How many keys the last change() looked at: what it cost, in a measure that a test can hold.
  size_t keysLookedAt() const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace vnagent
