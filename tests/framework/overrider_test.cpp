// Pointers to handlers, taken apart and put together again.
#include "framework/detail/Overrider.h"

#include <gtest/gtest.h>

namespace {

using Kiv::U32;
using Kiv::detail::handlerAt;
using Kiv::detail::ignores;
using Kiv::detail::placeOf;

class Base {
 public:
  virtual ~Base() = default;
  virtual int first() { return 1; }
  virtual int second() { return 2; }
  int plain() { return 3; }
};
class Derived : public Base {
 public:
  int second() override { return 20; }
};

TEST(OverriderTest, AHandlerIsFoundAtItsPlace) {
  Derived derived;
  using Handler = int (Base::*)();
  for (const Handler handler : {&Base::first, &Base::second}) {
    const U32 place = placeOf(handler);
    ASSERT_NE(place, 0U);
    EXPECT_EQ((derived.*handlerAt<Handler>(place))(), (derived.*handler)());
  }
  EXPECT_NE(placeOf(&Base::first), placeOf(&Base::second));
}

TEST(OverriderTest, OnlyAVirtualHandlerNearTheStartOfItsTableHasAPlace) {
  using Handler = int (Base::*)();
  EXPECT_EQ(placeOf(&Base::plain), 0U);
  // As that of a class with so many virtual functions would be.
  EXPECT_NE(placeOf(handlerAt<Handler>(0xfff8)), 0U);
  EXPECT_EQ(placeOf(handlerAt<Handler>(0x10000)), 0U);
}

TEST(OverriderTest, WhatIsNotOverriddenIsIgnored) {
  const Base deaf;
  const Derived derived;
  const Base& notifiee = derived;
  EXPECT_TRUE(ignores(notifiee, &deaf, &Base::first));
  EXPECT_FALSE(ignores(notifiee, &deaf, &Base::second));
  EXPECT_FALSE(ignores(notifiee, static_cast<const Base*>(nullptr), &Base::first));
  EXPECT_FALSE(ignores(notifiee, &deaf, &Base::plain)) << "it cannot be told";
}

}  // namespace
