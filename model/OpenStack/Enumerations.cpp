#include "model/OpenStack/Enumerations.h"

namespace [[gnu::visibility("default")]] OpenStack {

std::ostream& operator<<(std::ostream& stream, SyncStatus status) {
  switch (status) {
    case SyncStatus::syncUnknown:
      return stream << "syncUnknown";
    case SyncStatus::syncInProgress:
      return stream << "syncInProgress";
    case SyncStatus::syncTimedOut:
      return stream << "syncTimedOut";
    case SyncStatus::syncComplete:
      return stream << "syncComplete";
  }
  return stream << static_cast<Kiv::U32>(status);
}

std::ostream& operator<<(std::ostream& stream, SegmentationType type) {
  switch (type) {
    case SegmentationType::vlan:
      return stream << "vlan";
    case SegmentationType::vxlan:
      return stream << "vxlan";
  }
  return stream << static_cast<Kiv::U32>(type);
}

}  // namespace OpenStack
