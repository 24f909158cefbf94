// Network segments. Activity thread only.
#pragma once

#include "framework/Attribute.h"
#include "framework/Text.h"
#include "model/OpenStack/Enumerations.h"

namespace [[gnu::visibility("default")]] OpenStack {

// A segment of a network: a VLAN, a VXLAN tunnel, or another kind.
class Segment final : public Kiv::Entity<Segment> {
 public:
  static constexpr std::string_view kTypeName = "OpenStack::Segment";
  const Kiv::GenericIf* genericIf() const override;

  class NotifieeConst : public Kiv::Notifiee<Segment> {
   public:
    virtual void onSegmentationType() {}
    virtual void onSegmentationId() {}
  };

  explicit Segment(Kiv::String id) : id_(std::move(id)) {}

  // The segment id; the key.
  const Kiv::String& id() const { return id_; }
  const Kiv::String& fwkKey() const { return id_; }

  // What kind of segment it is.
  SegmentationType segmentationType() const { return segmentationType_.get(); }
  void segmentationTypeIs(SegmentationType v) {
    segmentationType_.is(*this, &NotifieeConst::onSegmentationType, v);
  }

  // The VLAN id of a VLAN segment, the VNI of a VXLAN segment.
  Kiv::U32 segmentationId() const { return segmentationId_.get(); }
  void segmentationIdIs(Kiv::U32 v) {
    segmentationId_.is(*this, &NotifieeConst::onSegmentationId, v);
  }

 private:
  Kiv::String id_;
  Kiv::Scalar<SegmentationType> segmentationType_;
  Kiv::Scalar<Kiv::U32> segmentationId_;
};

}  // namespace OpenStack
