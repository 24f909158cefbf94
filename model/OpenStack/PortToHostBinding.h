// Bindings of a port to a host. Activity thread only.
#pragma once

#include "model/OpenStack/Segment.h"

namespace [[gnu::visibility("default")]] OpenStack {

// A port bound to a host.
class PortToHostBinding final : public Kiv::Entity<PortToHostBinding> {
 public:
  static constexpr std::string_view kTypeName = "OpenStack::PortToHostBinding";
  const Kiv::GenericIf* genericIf() const override;

  class NotifieeConst : public Kiv::Notifiee<PortToHostBinding> {
   public:
    virtual void onSegment(Kiv::U8 /*level*/) {}
    virtual void onSegmentkivImmediate() {}
    virtual void onSegment() {}
  };

  explicit PortToHostBinding(Kiv::Name host) : host_(std::move(host)) {}

  // The host name; the key.
  const Kiv::Name& host() const { return host_; }
  const Kiv::Name& fwkKey() const { return host_; }

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

  Kiv::Name host_;
  Kiv::References<Segment, Kiv::U8> segment_;
};

}  // namespace OpenStack
