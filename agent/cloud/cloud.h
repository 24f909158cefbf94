// The cloud as live entities: everything that the machines watch and write, the root machine, and
// the activity loop that drives them. The only place that changes an entity.
//
//   Kiv::VirtualTime clock;
//   Cloud cloud({.toggle = true, .regionSyncTimeout = 60}, clock);
//   cloud.apply(plan);                     // each of its steps, the loop after each
//   while (cloud.nextTimer() <= clock.now()) cloud.fireNextTimer();
//   show(cloud.output());
//
// One cloud at a time in a process: the activity loop, the time source and the toggle's answer are
// the process's. The toggle is asked once in its life, so all clouds of a process have the first
// one's answer. What a machine throws passes through, after which the cloud is good for destruction
// only. One thread.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "agent/cloud/output_document.h"
#include "agent/cloud/output_watch.h"
#include "agent/json/json_tree.h"
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
  bool watched = false;           // whether outputChange() will be asked for
};

// The sync timers that are armed: by region, a time of the clock.
using Timers = std::map<std::string, double, std::less<>>;

class Cloud {
 public:
  // Makes the entities, empty, and the root machine on them. REQUIRES: the clock outlives it.
  Cloud(const CloudSettings& settings, const Kiv::TimeSource& clock);
  ~Cloud();
  Cloud(const Cloud&) = delete;
  Cloud& operator=(const Cloud&) = delete;

  // Change.

  // Runs the operations of each step, then the activity loop until idle. REQUIRES: the plan is the
  // next of the document that made all plans before.
  void apply(const Plan& plan);

  // Fires the earliest timer that is due by now, and runs the loop until idle. Returns false when
  // none is due.
  bool fireNextTimer();

  // Gives the root machine another region sync timeout.
  void regionSyncTimeoutIs(double seconds);

  // Restoring: a cloud without a region becomes what another one was. First its machines are made,
  // then the outputs are set to what it published, then its timers.

  // Applies the plan of the whole document. What the machines publish is not watched, and the UUIDs
  // in it are from no source. REQUIRES: it is the first plan, and outputIs() follows.
  void applyFirst(const Plan& plan);

  // Sets the outputs to what an output document says; from there on they are watched. Throws
  // std::runtime_error where it is none; the cloud is good for destruction only then.
  void outputIs(const JsonValue& document);

  // Arms the timers of these regions for these times of the clock, and disarms all others. Those
  // of the same time fire in the order of the regions' names. Throws std::runtime_error for a
  // region that there is not, likewise.
  void timersIs(const Timers& timers);

  // Gives each timer that is armed one whole timeout from now.
  void restartTimers();

  // Reading.

  // When the next timer is due, a time of the clock; +infinity when none is armed.
  double nextTimer() const { return loop_.nextTimer(); }

  // The timers that are armed.
  Timers timers() const;
  // That of a region; nothing where it is not armed.
  std::optional<double> timerOf(std::string_view region) const;

  // The root machine's region sync timeout, in seconds.
  double regionSyncTimeout() const;

  // What the machines publish now; views, good until the next change.
  OutputDocument output() const;

  // The part of it that a place leads to; views, likewise.
  OutputPart outputAt(std::span<const std::string> place) const;

  // What of it has changed since the last call, or since construction; views, likewise. `before`
  // gets the change back, where it is not null. REQUIRES: CloudSettings::watched.
  OutputDocument outputChange(OutputDocument* before = nullptr) { return watch_->change(before); }

  // The root machine, for reflection.
  const Kiv::PtrInterface& root() const;

 private:
  void startWatch();

  // Members are destroyed in reverse order: the watch and the root machine first, the loop after
  // all that it delivers to.
  const bool watched_;
  Kiv::ActivityManager loop_;
  Kiv::Ptr<OpenStack::Config> config_;
  Kiv::Ptr<OpenStack::OpenStackConfig> openstackConfig_;
  Kiv::Ptr<OpenStack::OpenStackStatus> status_;
  Kiv::Ptr<OpenStack::NameResolution::Config> nameResolutionConfig_;
  Kiv::Ptr<OpenStack::NameResolution::Status> nameResolutionStatus_;
  Kiv::Ptr<VirtualNetwork::RequestedResourcesCollection> resources_;
  Kiv::Ptr<VirtualNetwork::NetworkElementCollection> elements_;
  Kiv::Ptr<OpenStack::OpenStackSm> root_;
  std::optional<OutputWatch> watch_;
};

}  // namespace vnagent
