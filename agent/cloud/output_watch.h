// Watches the output entities, and computes the merge patch from the output document at one call to
// the document at the next. The cost is that of the change, not of the cloud.
//
//   OutputWatch watch(status, resources, elements);
//   ... change entities ...
//   loop.run();                              // delivers the notifications
//   writeOutput(watch.change(), json);
//
// It consists of notifiees on the output entities, one for each entity, as any embedder could have.
// A notification marks a key as dirty, here and in the entities above. change() visits dirty keys
// only and compares what was published at the last call with what is published now.
//
// Why the last published state is kept, and not a before-image made at the first change: deferred
// notifications are delivered after any number of changes, so the entity no longer holds the old
// value; immediate ones come in time, but without a key, so that each first change would copy a
// whole set. The state that is kept is small:
//   - the keys of a collection: those that have a watcher;
//   - the keys of a set: a copy, which has no table for four keys or fewer;
//   - the scalars.
// Texts are shared with the entities. A watcher takes about the memory of its entity; without an
// OutputWatch there is no cost at all.
//
// Activity thread only.
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
  // Starts with what is published now.
  OutputWatch(const Kiv::Ptr<const OpenStack::OpenStackStatus>& status,
              const Kiv::Ptr<const VirtualNetwork::RequestedResourcesCollection>& resources,
              const Kiv::Ptr<const VirtualNetwork::NetworkElementCollection>& elements);
  ~OutputWatch();
  OutputWatch(const OutputWatch&) = delete;
  OutputWatch& operator=(const OutputWatch&) = delete;

  // What has changed since the last call, or since construction. `before`, where it is not null,
  // gets the change back: the merge patch to the document at the last call, in which a thing that
  // was removed has all that it had. The texts are valid until the next change of the entities or
  // the next call. REQUIRES: the activity loop is idle.
  OutputDocument change(OutputDocument* before = nullptr);

  // The number of keys that the last change() compared: its cost, for tests.
  size_t keysCompared() const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace vnagent
