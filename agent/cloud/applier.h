// Runs operations on the entities: one overload for each, for std::visit.
//
// The scalars of an entity are written before it is added; what it contains follows before the loop
// runs. Operations of one thing follow each other, so the applier remembers the
// region, the port binding and the host binding that it was at last.
#pragma once

#include <string_view>

#include "agent/plan/operations.h"
#include "framework/Ptr.h"
#include "model/OpenStack/Config.h"
#include "model/OpenStack/OpenStackConfig.h"

namespace OpenStack {
class OpenStackSm;
}

namespace vnagent {

class Applier {
 public:
  // REQUIRES: all three outlive it.
  Applier(OpenStack::Config& config, OpenStack::OpenStackConfig& cloud,
          OpenStack::OpenStackSm& root)
      : config_(config), cloud_(cloud), root_(root) {}

  void operator()(const op::LevelDel& o);
  void operator()(const op::AttachmentDel& o);
  void operator()(const op::PortBindingDel& o);
  void operator()(const op::ThingDel& o);
  void operator()(const op::RegionDel& o);
  void operator()(const op::VlanDel& o);
  void operator()(const op::VlanAssignmentDel& o);

  void operator()(const op::ScalarIs& o);
  void operator()(const op::RegionSyncTimeoutIs& o);

  void operator()(const op::VlanAssignmentIs& o);
  void operator()(const op::VlanIs& o);
  void operator()(const op::RegionIs& o);
  void operator()(const op::ThingIs& o);
  void operator()(const op::PortBindingIs& o);
  void operator()(const op::AttachmentIs& o);
  void operator()(const op::LevelIs& o);

  // Drops the references that it remembers, before the activity loop runs.
  void forget();

 private:
  OpenStack::Region& region(std::string_view name);
  // The region's entity, or the configuration's.
  Kiv::PtrInterface& ownerOf(const Region* region);
  OpenStack::PortBinding& binding(const AttachmentAddress& at);
  OpenStack::PortToHostBinding& hostBinding(const AttachmentAddress& at);

  // Remembers a port binding, or that there is none.
  void bindingIs(Kiv::Ptr<OpenStack::PortBinding> binding);

  // Gives `use` the host binding or switch-interface binding at this address.
  template <class Use>
  void withAttachment(const AttachmentAddress& at, Use use);

  OpenStack::Config& config_;
  OpenStack::OpenStackConfig& cloud_;
  OpenStack::OpenStackSm& root_;
  Kiv::Ptr<OpenStack::Region> region_;
  Kiv::Ptr<OpenStack::PortBinding> binding_;
  Kiv::Ptr<OpenStack::PortToHostBinding> hostBinding_;  // of binding_
};

}  // namespace vnagent
