#include "agent/document/places.h"

namespace vnagent {

std::string placeOf(const Region* region, std::string_view collection, std::string_view key) {
  std::string place = region == nullptr ? "/config" : memberOf("/region", region->name);
  return memberOf(memberOf(std::move(place), collection), key);
}

std::string placeOf(const PortBinding& binding) {
  return placeOf(binding.region, "portBinding", binding.id);
}

std::string placeOf(const PortBinding& binding, AttachmentKind kind, const AttachmentKey& key) {
  const CollectionRow& row = rowOf(kind);
  std::string place = memberOf(memberOf(placeOf(binding), row.name), key.first);
  return row.shape == CollectionRow::Shape::kByPair ? memberOf(std::move(place), key.second)
                                                    : place;
}

std::string placeOf(const PortBinding& binding, AttachmentKind kind, const AttachmentKey& key,
                    const Level& level) {
  return memberOf(memberOf(placeOf(binding, kind, key), "segment"), std::to_string(level.level));
}

std::string memberOf(std::string place, std::string_view name) {
  appendToken(place, name);
  return place;
}

}  // namespace vnagent
