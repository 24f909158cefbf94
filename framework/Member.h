// Kiv::Member: an object that can be a member of a HashMap.
#pragma once

#include "framework/PtrInterface.h"

namespace [[gnu::visibility("default")]] Kiv {

namespace detail {
class MemberTable;
}

// Carries its sort key in the collection that it is in; it is in one at a time. A class of members
// has `const K& fwkKey() const`, its own key, which stays the same while it is a member.
class Member : public PtrInterface {
 protected:
  Member() = default;

 private:
  template <class, class, class>
  friend class HashMap;
  friend class detail::MemberTable;

  using PtrInterface::collected;
  using PtrInterface::collectedIs;

  U32 kivOrder = 0;
};

}  // namespace Kiv
