// Code that runs from inside an operation of the framework: destructors of members and notifiees,
// immediate handlers, and arguments that the operation itself moves.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "framework/HashMap.h"
#include "tests/framework/toys.h"

namespace {

using Kiv::make;
using Kiv::Ptr;
using Kiv::String;
using testing::ElementsAre;
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

// Calls a function when it is freed.
class Item final : public Kiv::Member {
 public:
  static constexpr std::string_view kTypeName = "Item";
  explicit Item(int key) : key_(key) {}
  ~Item() override {
    if (onFree) onFree();
  }
  const int& fwkKey() const { return key_; }
  const Kiv::Type& fwkType() const override { return Kiv::typeRecord<Item>; }

  std::function<void()> onFree;

 private:
  int key_;
};

TEST_F(ReentrancyTest, AMemberThatIsDeletedWhileTheFormerIsFreedIsNotVisited) {
  Kiv::HashMap<Item, int> items;
  for (int key = 0; key < 6; ++key) items.newMember(make<Item>(key));
  std::vector<int> order;
  for (const auto& item : items) order.push_back(item->fwkKey());

  std::vector<int> visited;
  for (const auto& item : items) {
    visited.push_back(item->fwkKey());
    if (visited.size() != 2) continue;
    // Only the loop holds this one now, and drops it when it advances.
    item->onFree = [&] { (void)items.deleteMember(order[2]); };
    (void)items.deleteMember(order[1]);
  }
  EXPECT_THAT(visited, ElementsAre(order[0], order[1], order[3], order[4], order[5]));
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
