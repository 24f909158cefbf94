// Kiv::Member: an object that can be a member of a HashMap.
#pragma once

#include "framework/PtrInterface.h"

namespace [[gnu::visibility("default")]] Kiv {

namespace detail {
class MemberTable;
class Stand;
}

// Carries its place in the order of the collection that it is in; of one at a time.
class Member : public PtrInterface {
 protected:
  Member() = default;

 private:
  template <class, class, class>
  friend class HashMap;
  friend class detail::MemberTable;
  friend class detail::Stand;

  using PtrInterface::collected;
  using PtrInterface::collectedIs;

  U32 kivOrder = 0;
};

}  // namespace Kiv
