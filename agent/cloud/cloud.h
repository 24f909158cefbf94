// The cloud as live entities: everything that the machines watch and write, the root machine, and
// the activity loop and clock that drive them. The only place that changes an entity.
//
//   Cloud cloud({.toggle = true, .regionSyncTimeout = 60});
//   cloud.apply(outcome.plan);   // removals, configuration, additions, scalars; the loop after
//   each cloud.advance(12.5);         // timers fire here and nowhere else show(cloud.output());
//
// One cloud at a time in a process: the activity loop, the time source and the toggle's answer are
// the process's. The toggle is asked once in its life, so all clouds of a process have the first
// one's answer. What a machine throws passes through apply() and advance(), after which the cloud
// is good for destruction only. One thread.
#pragma once

#include <string_view>

#include "agent/output/output_document.h"
#include "agent/plan/operations.h"
#include "framework/Activity.h"
#include "model/OpenStack/Config.h"
#include "model/OpenStack/NameResolution.h"
#include "model/OpenStack/OpenStackConfig.h"
#include "model/OpenStack/OpenStackStatus.h"
#include "model/VirtualNetwork/NetworkElement.h"
#include "model/VirtualNetwork/RequestedResources.h"

namespace OpenStack {
class OpenStackSm;
}

namespace vnagent {

struct CloudSettings {
  bool toggle = true;             // the answer for "VirtualNetworkAgentToggle"
  double regionSyncTimeout = 60;  // what the root machine starts with, in seconds
};

class Cloud {
 public:
  // Makes the entities, empty, and the root machine on them.
  explicit Cloud(const CloudSettings& settings);
  ~Cloud();
  Cloud(const Cloud&) = delete;
  Cloud& operator=(const Cloud&) = delete;

  // Change.

  // Runs the operations of each step, then the activity loop until idle. REQUIRES: the plan is the
  // next of the document that made all plans before.
  void apply(const Plan& plan);

  // Moves the clock forward, firing each timer at its own time, the loop after each.
  void advance(double seconds);

  // Gives the root machine another region sync timeout.
  void regionSyncTimeoutIs(double seconds);

  // Reading.

  // The virtual time, in seconds from the start.
  double time() const { return time_.now(); }

  // What the machines publish now; views, good until the next change.
  OutputDocument output() const;

  // The root machine, for looking into it and all that it holds.
  const Kiv::PtrInterface& root() const;

 private:
  // Members go in reverse order: the root machine first, the loop after all that it delivers to.
  Kiv::VirtualTime time_;
  Kiv::ActivityManager loop_;
  Kiv::Ptr<OpenStack::Config> config_;
  Kiv::Ptr<OpenStack::OpenStackConfig> openstackConfig_;
  Kiv::Ptr<OpenStack::OpenStackStatus> status_;
  Kiv::Ptr<OpenStack::NameResolution::Config> nameResolutionConfig_;
  Kiv::Ptr<OpenStack::NameResolution::Status> nameResolutionStatus_;
  Kiv::Ptr<VirtualNetwork::RequestedResourcesCollection> resources_;
  Kiv::Ptr<VirtualNetwork::NetworkElementCollection> elements_;
  Kiv::Ptr<OpenStack::OpenStackSm> root_;
};

}  // namespace vnagent
