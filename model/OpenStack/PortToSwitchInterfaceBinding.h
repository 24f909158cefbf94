// Bindings of a port to a switch interface. Activity thread only.
#pragma once

#include "model/OpenStack/Segment.h"
#include "model/VirtualNetwork/SwitchInterface.h"

namespace [[gnu::visibility("default")]] OpenStack {

// A port that is reached through one interface of one switch.
class PortToSwitchInterfaceBinding final : public Kiv::Entity<PortToSwitchInterfaceBinding> {
 public:
  static constexpr std::string_view kTypeName = "OpenStack::PortToSwitchInterfaceBinding";
  const Kiv::GenericIf* genericIf() const override;

  class NotifieeConst : public Kiv::Notifiee<PortToSwitchInterfaceBinding> {
   public:
    virtual void onSegment(Kiv::U8 /*level*/) {}
    virtual void onSegmentkivImmediate() {}
    virtual void onSegment() {}
    virtual void onHost() {}
  };

  explicit PortToSwitchInterfaceBinding(VirtualNetwork::SwitchInterface switchInterface)
      : switchInterface_(std::move(switchInterface)) {}

  // The switch and its interface; the key.
  const VirtualNetwork::SwitchInterface& switchInterface() const { return switchInterface_; }
  const VirtualNetwork::SwitchInterface& fwkKey() const { return switchInterface_; }

  // The host behind the interface.
  const Kiv::Name& host() const { return host_.get(); }
  void hostIs(const Kiv::Name& v) { host_.is(*this, &NotifieeConst::onHost, v); }

  // The segment that the port uses at each binding level; references. Level 0 is the top; the
  // segment at level n + 1 lies right below the one at level n.
  const auto& segment() const { return segment_; }
  // The segment at one level; null when there is none.
  Kiv::Ptr<const Segment> segment(Kiv::U8 level) const { return segment_[level]; }
  // Throws a range exception for a null segment.
  void segmentIs(Kiv::U8 level, const Kiv::Ptr<const Segment>& v) {
    segment_.is(*this, kOnSegment, level, v);
  }
  void segmentDel(Kiv::U8 level) { segment_.del(*this, kOnSegment, level); }
  void segmentDelAll() { segment_.delAll(*this, kOnSegment); }

 private:
  static constexpr Kiv::On<NotifieeConst, Kiv::U8> kOnSegment{&NotifieeConst::onSegment,
                                                              &NotifieeConst::onSegmentkivImmediate,
                                                              &NotifieeConst::onSegment, "segment"};

  VirtualNetwork::SwitchInterface switchInterface_;
  Kiv::Scalar<Kiv::Name> host_;
  Kiv::References<Segment, Kiv::U8> segment_;
};

}  // namespace OpenStack
