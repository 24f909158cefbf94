// Objects of the cloud of which only their presence counts: networks, instances, tenants. Activity
// thread only.
#pragma once

#include <type_traits>

#include "framework/Attribute.h"
#include "framework/Text.h"

namespace [[gnu::visibility("default")]] OpenStack {

// An object with a key and nothing else. K is Kiv::Name or Kiv::String.
template <class K>
class MirroredObject final : public Kiv::Entity<MirroredObject<K>> {
 public:
  static constexpr std::string_view kTypeName =
      std::is_same_v<K, Kiv::Name> ? "OpenStack::NamedObject" : "OpenStack::IdentifiedObject";
  const Kiv::GenericIf* genericIf() const override;

  class NotifieeConst : public Kiv::Notifiee<MirroredObject> {};

  explicit MirroredObject(K id) : id_(std::move(id)) {}

  // The name or id; the key.
  const K& id() const { return id_; }
  const K& fwkKey() const { return id_; }

 private:
  K id_;
};

extern template class MirroredObject<Kiv::Name>;
extern template class MirroredObject<Kiv::String>;
// With a name, or with an id of free text.
using NamedObject = MirroredObject<Kiv::Name>;
using IdentifiedObject = MirroredObject<Kiv::String>;

}  // namespace OpenStack
