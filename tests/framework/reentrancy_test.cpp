// Code that runs from inside an operation of the framework: destructors of notifiees, immediate
// handlers, and arguments that the operation itself moves.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "tests/framework/toys.h"

namespace {

using Kiv::make;
using Kiv::Ptr;
using Kiv::String;
using Toys::Box;
using Toys::BoxWatcher;
using Toys::Marble;
using Toys::watch;

using ReentrancyTest = Toys::LoopTest;

TEST_F(ReentrancyTest, AReferenceThatIsInTheSetMayBeAddedUnderAnotherKey) {
  const auto box = make<Box>();
  for (Kiv::U8 number = 0; number < 4; ++number) box->lentIs(number, make<Marble>(String("m")));
  // The fifth entry moves the first four.
  box->lentIs(9, *box->lent().find(0));
  EXPECT_EQ(box->lent()[9], box->lent()[0]);
  box->lentDelAll();
}

TEST_F(ReentrancyTest, ANotifieeThatIsBeingDestroyedIsNotQueued) {
  class Leaving final : public Box::NotifieeConst {
   public:
    explicit Leaving(Box& box) : box_(box) {}
    ~Leaving() override { box_.labelIs("gone"); }
    void onLabel() override {}

   private:
    Box& box_;
  };
  const auto box = make<Box>();
  auto watcher = make<Leaving>(*box);
  watcher->notifierIs(box);
  watcher->isRegisteredNotifieeIs(true);
  watcher->hasNotificationActiveIs(true);
  watcher = nullptr;
  EXPECT_EQ(loop_.waiting(), 0U);
  loop_.run();
}

TEST_F(ReentrancyTest, AChangeWithinAnotherIsNotMissedByWhoSawTheOuterOneAlone) {
  const auto box = make<Box>();
  const auto first = watch<BoxWatcher>(box);
  const auto second = watch<BoxWatcher>(box);
  const Kiv::U32 synced = box->marble().changes();
  bool isInner = false;
  first->then = [&](const std::string& what) {
    if (what != "marble!" || std::exchange(isInner, true)) return;
    second->hasNotificationActiveIs(false);
    box->marbleIs(String("inner"));
    second->hasNotificationActiveIs(true);
  };
  bool looksAtAll = false;
  second->then = [&](const std::string& what) {
    if (what == "marble!") looksAtAll = box->marble().singleChangeSince(synced) == nullptr;
  };
  box->marbleIs(String("outer"));
  EXPECT_TRUE(looksAtAll);
}

}  // namespace
