#include "tests/sim/library/event.h"

namespace sim {
namespace {

template <class Map>
auto* find(Map& map, const typename Map::key_type& key) {
  const auto at = map.find(key);
  return at == map.end() ? nullptr : &at->second;
}

// Puts the value at the key, or takes the key out.
template <class Map>
void put(Map& map, const typename Map::key_type& key, typename Map::mapped_type value, bool gone) {
  if (gone) {
    map.erase(key);
  } else {
    map.insert_or_assign(key, std::move(value));
  }
}

void applyBinding(const Edit& edit, Region& region) {
  if (edit.gone) {
    if (PortBinding* places = find(region.bindings, edit.id)) places->erase(edit.place);
    return;
  }
  Binding& binding = region.bindings[edit.id][edit.place];
  binding.host = edit.place.onHost() ? edit.place.element : edit.value;
}

void applyLevel(const Edit& edit, Region& region) {
  PortBinding* places = find(region.bindings, edit.id);
  Binding* binding = places == nullptr ? nullptr : find(*places, edit.place);
  if (binding != nullptr) put(binding->levels, edit.level, edit.value, edit.gone);
}

void applyToRegion(const Edit& edit, Region& region) {
  switch (edit.what) {
    case What::segment:
      return put(region.segments, edit.id, {edit.value, edit.number}, edit.gone);
    case What::port:
      return put(region.ports, edit.id, edit.value, edit.gone);
    case What::portBinding:
      if (edit.gone) {
        region.bindings.erase(edit.id);
      } else {
        region.bindings.try_emplace(edit.id);
      }
      return;
    case What::binding:
      return applyBinding(edit, region);
    case What::level:
      return applyLevel(edit, region);
    default:
      return;
  }
}

}  // namespace

void apply(const Edit& edit, Cloud& cloud) {
  switch (edit.what) {
    case What::region:
      if (edit.gone) {
        cloud.regions.erase(edit.inRegion);
      } else {
        cloud.regions.try_emplace(edit.inRegion);
      }
      return;
    case What::assignment:
      if (edit.gone) {
        cloud.assignments.erase(edit.inRegion);
      } else {
        cloud.assignments.try_emplace(edit.inRegion);
      }
      return;
    case What::vlanEntry:
      if (Assignment* entries = find(cloud.assignments, edit.inRegion)) {
        put(*entries, edit.id, edit.value != 0, edit.gone);
      }
      return;
    case What::driver:
      cloud.driver = edit.value;
      return;
    default:
      if (Region* region = find(cloud.regions, edit.inRegion)) applyToRegion(edit, *region);
      return;
  }
}

Cloud patched(Cloud cloud, const std::vector<Edit>& edits) {
  for (const Edit& edit : edits) apply(edit, cloud);
  return cloud;
}

}  // namespace sim
