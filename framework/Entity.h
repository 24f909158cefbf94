// Entities: the objects whose attributes can be observed.
//
// An entity's class derives from Kiv::Entity<Self>, names itself with kTypeName, declares its
// NotifieeConst and, for each attribute, one short group of members that forward to an attribute
// template (framework/Attribute.h). Activity thread only; counts as in PtrInterface.h.
#pragma once

#include "framework/Notifiee.h"

namespace [[gnu::visibility("default")]] Kiv {

class EntityBase : public Member {
 public:
  // Who observes this entity. Observing does not change it, hence const.
  NotifieeList* notifieeList() const final { return &notifiees_; }

 protected:
  EntityBase() = default;

 private:
  mutable NotifieeList notifiees_;
};

// Base is the entity class that Self extends, if it extends one.
template <class Self, class Base = EntityBase>
class Entity : public Base {
 public:
  const Type& fwkType() const override { return typeRecord<Self>; }

 protected:
  using Base::Base;
};

}  // namespace Kiv
