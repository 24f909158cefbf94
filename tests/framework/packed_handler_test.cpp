// Handlers packed into a word, and whether a class overrides them.
#include "framework/detail/PackedHandler.h"

#include <gtest/gtest.h>

#include "framework/detail/PendingQueue.h"

namespace {

using Kiv::detail::CallKind;
using Kiv::detail::PackedHandler;

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

constexpr CallKind kKind{nullptr, nullptr, nullptr, nullptr};
constexpr CallKind kOther{nullptr, nullptr, nullptr, nullptr};

TEST(PackedHandlerTest, LeadsToItsKind) {
  EXPECT_EQ(&PackedHandler(kKind).kind(), &kKind);
  EXPECT_EQ(PackedHandler(kKind), PackedHandler(kKind));
  EXPECT_FALSE(PackedHandler(kKind) == PackedHandler(kOther));
}

TEST(PackedHandlerTest, TellsOfAHandlerThatItDoesNotKnowThatItIsOverridden) {
  const Derived derived;
  const Base& notifiee = derived;
  EXPECT_TRUE(PackedHandler::overridden(notifiee, static_cast<const Base*>(nullptr), &Base::first));
  const Base unsubscribed;
  EXPECT_TRUE(PackedHandler::overridden(notifiee, &unsubscribed, &Base::plain));
}

#if !KIV_PORTABLE_HANDLERS

TEST(PackedHandlerTest, HandsOutTheHandlerAndItsKind) {
  Derived derived;
  using Handler = int (Base::*)();
  for (const Handler handler : {&Base::first, &Base::second}) {
    ASSERT_TRUE(PackedHandler::packs(handler));
    const PackedHandler packed(kKind, handler);
    EXPECT_EQ((derived.*packed.member<Handler>())(), (derived.*handler)());
    EXPECT_EQ(&packed.kind(), &kKind);
  }
  EXPECT_FALSE(PackedHandler(kKind, &Base::first) == PackedHandler(kKind, &Base::second));
}

TEST(PackedHandlerTest, PacksOnlyAVirtualHandlerOfALowSlot) {
  using Handler = int (Base::*)();
  EXPECT_FALSE(PackedHandler::packs(&Base::plain));
  // Members as those of a class with very many virtual functions.
  const auto atOffset = [](std::uintptr_t offset) {
#if defined(__aarch64__)
    const std::uintptr_t parts[2] = {offset, 1};
#else
    const std::uintptr_t parts[2] = {offset | 1, 0};
#endif
    Handler handler;
    static_assert(sizeof(parts) == sizeof(handler));
    std::memcpy(&handler, parts, sizeof(parts));
    return handler;
  };
  EXPECT_TRUE(PackedHandler::packs(atOffset(0xfff8)));
  EXPECT_FALSE(PackedHandler::packs(atOffset(0x10000)));
}

TEST(PackedHandlerTest, TellsWhetherAClassOverridesAHandler) {
  const Base unsubscribed;
  const Derived derived;
  const Base& notifiee = derived;
  EXPECT_FALSE(PackedHandler::overridden(notifiee, &unsubscribed, &Base::first));
  EXPECT_TRUE(PackedHandler::overridden(notifiee, &unsubscribed, &Base::second));
}

TEST(PackedHandlerDeathTest, StopsTheProcessAtAnAddressOfMoreThan48Bits) {
  const auto& far = *reinterpret_cast<const CallKind*>(std::uintptr_t{1} << 48);
  EXPECT_DEATH(PackedHandler{far}, "Assertion \"address <= kAddress\" failed: PackedHandler");
}

#endif

}  // namespace
