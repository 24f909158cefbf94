// What a machine was made with, where it is needed. An output or a port may be null as long as
// nothing has to be written; cleanups then find nothing to withdraw.
#pragma once

#include "framework/Ptr.h"

namespace OpenStack::detail {

// The entity. Throws the range exception "null ValidPtr" when the machine was made without it.
template <class T>
const Kiv::Ptr<T>& given(const Kiv::Ptr<T>& entity) {
  if (!entity) Kiv::throwRangeException("null ValidPtr");
  return entity;
}

}  // namespace OpenStack::detail
