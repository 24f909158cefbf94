// A mirror that missed changes of its input, and is synchronised at a later one.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/framework/toy_machine.h"

namespace {

using Kiv::make;
using Kiv::Ptr;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using Toys::happened;
using Toys::Marble;

class StaleMirrorTest : public Toys::MachineTest {
 protected:
  StaleMirrorTest() {
    start();
    before_ = shelf_->potIs("a");
    shelf_->potIs("b");
    (void)delivered();
  }

  // Replaces pot "a" while the machine is not notified; the mirror is stale afterwards.
  Ptr<Marble> replaceUnnoticed() {
    machine_->hasNotificationActiveIs(false);
    const Ptr<Marble> after = make<Marble>("a");
    shelf_->potIs(after);
    (void)delivered();
    machine_->hasNotificationActiveIs(true);
    return after;
  }

  Ptr<Marble> before_;
};

TEST_F(StaleMirrorTest, AMemberThatWasReplacedUnnoticedIsFoundAtTheNextChangeOfAnother) {
  const Ptr<Marble> after = replaceUnnoticed();
  EXPECT_EQ(machine_->pot()["a"]->notifier(), before_.get());
  shelf_->potIs("c");
  EXPECT_EQ(machine_->pot()["a"]->notifier(), after.get());
  EXPECT_THAT(happened(), Contains("handlePot a there"));
}

TEST_F(StaleMirrorTest, AMemberThatWasReplacedUnnoticedIsFoundWhenItIsReplacedAgain) {
  replaceUnnoticed();
  const Ptr<Marble> again = make<Marble>("a");
  shelf_->potIs(again);
  EXPECT_EQ(machine_->pot()["a"]->notifier(), again.get());
  EXPECT_THAT(happened(), Contains("handlePot a there"));
}

TEST_F(StaleMirrorTest, AReplacedMemberIsObservedAndTheOldOneIsNot) {
  const Ptr<Marble> after = replaceUnnoticed();
  shelf_->potIs("c");
  (void)delivered();
  before_->colourIs("red");
  EXPECT_THAT(delivered(), IsEmpty());
  after->colourIs("red");
  EXPECT_THAT(delivered(), ElementsAre("handleColour a"));
}

TEST_F(StaleMirrorTest, AMemberThatWasReplacedUnnoticedAndIsRemovedLeavesNoReactor) {
  replaceUnnoticed();
  shelf_->potDel("a");
  EXPECT_EQ(machine_->pot()["a"], nullptr);
  EXPECT_NE(machine_->pot()["b"], nullptr);
}

}  // namespace
