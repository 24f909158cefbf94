// Network segments.
#pragma once

#include <array>

#include "agent/document/kinds.h"
#include "model/OpenStack/Segment.h"

namespace vnagent {

inline constexpr size_t kSegmentType = 0;
inline constexpr std::array<FormFor, 2> kSegmentIds{
    {{kVlanSegment, form::kVlanSegmentId}, {kVxlanSegment, form::kVxlanSegmentId}}};

inline constexpr std::array kSegmentScalars{
    scalar<&OpenStack::Segment::segmentationTypeIs>(
        "segmentationType", form::kSegmentationType,
        "What kind of segment it is. 0 is vlan, 1 is vxlan; the machines ignore any other.")
        .required(),
    scalar<&OpenStack::Segment::segmentationIdIs>(
        "segmentationId", form::kUint32,
        "The VLAN id of a VLAN segment, the VNI of a VXLAN segment.")
        .required()
        .formBy(kSegmentType, kSegmentIds),
};
inline constexpr size_t kSegmentNumber = rowOf(kSegmentScalars, "segmentationId");
static_assert(kSegmentType == rowOf(kSegmentScalars, "segmentationType"));

inline constexpr Kind kSegment{"a segment", OnChange::kReplace, kSegmentScalars};

}  // namespace vnagent
