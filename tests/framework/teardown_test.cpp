// The end of a machine: in which order it goes, what it withdraws, and what may outlive it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/framework/toy_machine.h"

namespace {

using Kiv::make;
using Kiv::Ptr;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Toys::happened;
using Toys::Ledger;
using Toys::Marble;
using Toys::PotSm;
using Toys::Shelf;
using Toys::ShelfSm;

class TeardownTest : public Toys::MachineTest {};

TEST_F(TeardownTest, ReactorsGoFirstAndThenTheChildren) {
  shelf_->potIs("a");
  shelf_->jarIs("j");
  start();
  (void)machine_->potSmIs("c", make<Marble>("c"), ledger_, "me", 30);
  (void)happened();
  machine_ = nullptr;
  EXPECT_THAT(happened(), ElementsAre("end of ShelfSm", "cleanup of jar j, member",
                                      "end of PotSm c", "cleanup of pot c"));
  EXPECT_THAT(entries(), IsEmpty());
}

// Does what the test asks for at each change of the ledger.
class Watch final : public Ledger::NotifieeConst {
 public:
  explicit Watch(const std::string&) {}
  void onEntrykivImmediate() override { then(); }
  std::function<void()> then;
};

TEST_F(TeardownTest, WhenTheChildrenGoTheReactorsHaveLostTheMachine) {
  shelf_->potIs("a");
  start();
  (void)machine_->potSmIs("c", make<Marble>("c"), ledger_, "me", 30);
  ledger_->entryIs("pot c");
  const Ptr<ShelfSm::KivPot> reactor(machine_->pot()["a"]);
  EXPECT_TRUE(reactor->hasMachine());
  const auto watch = Toys::watch<Watch>(ledger_);
  int times = 0;
  watch->then = [&] {
    ++times;
    EXPECT_FALSE(reactor->hasMachine());
  };
  machine_ = nullptr;
  EXPECT_EQ(times, 1);
}

TEST_F(TeardownTest, ACleanupFindsTheMachineAndItsChildrenStillThere) {
  shelf_->jarIs("j");
  start();
  (void)machine_->potSmIs("c", make<Marble>("c"), ledger_, "me", 30);
  std::vector<std::size_t> children;
  const auto watch = Toys::watch<Watch>(ledger_);
  const ShelfSm* const machine = machine_.get();
  watch->then = [&] { children.push_back(const_cast<ShelfSm*>(machine)->potSm().size()); };
  machine_ = nullptr;
  EXPECT_THAT(children, ElementsAre(1U));
}

TEST_F(TeardownTest, AReactorThatOutlivesItsMachineIsHarmless) {
  shelf_->potIs("a");
  shelf_->jarIs("j");
  start();
  const Ptr<ShelfSm::KivShelf> shelf(machine_->shelfReactor());
  const Ptr<ShelfSm::KivPot> pot(machine_->pot()["a"]);
  const Ptr<ShelfSm::KivJar> jar(machine_->jar()["j"]);
  machine_ = nullptr;
  (void)happened();
  for (const bool revived : {false, true}) {
    if (revived) {
      // As badly as it can be: no zombies, and active.
      for (Kiv::NotifieeBase* reactor :
           std::initializer_list<Kiv::NotifieeBase*>{shelf.get(), pot.get(), jar.get()}) {
        reactor->kivMarkedForDeletionIs(false);
        reactor->hasNotificationActiveIs(true);
      }
    }
    shelf_->titleIs("x");
    shelf_->potIs("b");
    shelf->onTitle();
    shelf->onPot("a");
    shelf->onPotkivImmediate();
    pot->onColour();
    jar->kivDoZombieReactors(true);
    EXPECT_THAT(delivered(), IsEmpty());
  }
}

TEST_F(TeardownTest, WhatWaitsForItsReactorsOutlivesTheMachineHarmlessly) {
  const auto pot = shelf_->potIs("a");
  start();
  const auto loose = make<Marble>("c");
  (void)machine_->potSmIs("c", loose, ledger_, "me", 30);
  shelf_->titleIs("x");
  shelf_->potIs("b");
  pot->colourIs("red");
  loose->colourIs("red");
  EXPECT_GE(loop_.waiting(), 4U);
  machine_ = nullptr;
  (void)happened();
  EXPECT_THAT(delivered(), IsEmpty());
  EXPECT_EQ(shelf_->references(), 1U);
}

TEST_F(TeardownTest, TheMachineMayGoWithinItsOwnHandler) {
  start();
  machine_->onHandlePot = [&](const Kiv::String&) { machine_ = nullptr; };
  shelf_->potIs("a");
  EXPECT_EQ(machine_, nullptr);
  EXPECT_THAT(happened(), ElementsAre("handlePot a there", "end of ShelfSm"));
  EXPECT_THAT(delivered(), IsEmpty());
}

// Observers of the outputs that throw

class Thrower final : public Ledger::NotifieeConst {
 public:
  explicit Thrower(const std::string&) {}
  void onEntrykivImmediate() override {
    ++times;
    if (unknown) throw 5;
    throw std::runtime_error("the ledger is closed");
  }
  int times = 0;
  bool unknown = false;
};

TEST_F(TeardownTest, ObserversThatThrowDoNotStopTheCleanupOfTheRest) {
  for (const char* id : {"a", "b", "c", "d"}) shelf_->jarIs(id);
  start();
  EXPECT_EQ(ledger_->entry().size(), 4U);
  (void)machine_->potSmIs("c", make<Marble>("c"), ledger_, "me", 30);
  const auto thrower = Toys::watch<Thrower>(ledger_);
  const Ptr<ShelfSm::KivJar> outlives(machine_->jar()["a"]);
  machine_ = nullptr;
  EXPECT_EQ(thrower->times, 4);
  EXPECT_THAT(entries(), IsEmpty());
  EXPECT_TRUE(outlives->markedForDeletion());
  EXPECT_THAT(happened(), testing::Contains("end of PotSm c"));
}

TEST_F(TeardownTest, AnObserverThatThrowsThousandsOfTimesDoesNotKeepTheMachineFromItsEnd) {
  for (int i = 0; i < 3000; ++i) shelf_->jarIs(std::to_string(i));
  start();
  (void)machine_->potSmIs("c", make<Marble>("c"), ledger_, "me", 30);
  const auto thrower = Toys::watch<Thrower>(ledger_);
  std::vector<Ptr<ShelfSm::KivJar>> outlive;
  for (const auto& jar : machine_->jar()) outlive.emplace_back(jar);
  machine_ = nullptr;
  EXPECT_GT(thrower->times, 1000);
  EXPECT_LT(thrower->times, 3000);
  EXPECT_THAT(happened(), testing::Contains("end of PotSm c"));
  // What was not reached any more has lost the machine all the same.
  for (const auto& jar : outlive) jar->kivDoZombieReactors(true);
  EXPECT_THAT(happened(), IsEmpty());
  EXPECT_EQ(entries().size(), 3000U - static_cast<std::size_t>(thrower->times));
}

TEST_F(TeardownTest, WhatAnObserverThrewIsTraced) {
  shelf_->jarIs("a");
  start();
  std::vector<std::string> lines;
  Kiv::_defaultTraceHandle().levelIs(1);
  Kiv::_defaultTraceHandle().sinkIs([&](const Kiv::TraceLine& line) {
    lines.push_back(std::to_string(line.level) + " " + std::string(line.function) + ": " +
                    std::string(line.text));
  });
  const auto thrower = Toys::watch<Thrower>(ledger_);
  machine_ = nullptr;
  machine_ = ShelfSm::ShelfSmIs(nullptr, ledger_);
  (void)machine_->jarIs(make<Marble>("x"));
  EXPECT_THROW(ledger_->entryIs("jar x"), std::runtime_error);
  thrower->unknown = true;
  machine_ = nullptr;
  Kiv::_defaultTraceHandle().levelIs(-1);
  Kiv::_defaultTraceHandle().sinkIs(nullptr);
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_THAT(lines[0], testing::StartsWith("1 teardown: 0x"));
  EXPECT_THAT(lines[0], HasSubstr(" [ void Kiv::Machine::teardown() ] "));
  EXPECT_THAT(lines[0], HasSubstr("an observer threw: the ledger is closed"));
  EXPECT_THAT(lines[1], HasSubstr("an observer threw: unknown exception"));
}

// A machine whose end leaves what it published.
class QuietSm final : public Kiv::Machine<QuietSm> {
 public:
  static constexpr std::string_view kTypeName = "Toys::QuietSm";
  static constexpr bool kTeardownRunsCleanup = false;

  class KivJar final : public Kiv::MemberReactor<KivJar, QuietSm, Marble> {
   public:
    static constexpr std::string_view kTypeName = "Toys::QuietSm::KivJar";
    using MemberReactor::MemberReactor;

   private:
    void kivHandle() override { Toys::journal.push_back("cleanup of " + fwkKey().str()); }
  };

  struct Arguments {
    Kiv::ReactorSlot<KivJar> single;
  };

  QuietSm(Arguments&& arguments, Kiv::Start start) : arguments_(std::move(arguments)) {
    begin(start);
  }
  ~QuietSm() override { teardown(); }

  Ptr<KivJar> jarIs(const Ptr<const Marble>& v) { return jar_.is(*this, v); }
  Ptr<const Marble> jarDel(const Kiv::String& id) { return jar_.del(id); }

 private:
  friend class Kiv::Machine<QuietSm>;
  void handleInitialized() {}
  auto reactors() { return std::tie(arguments_.single, jar_); }
  auto children() { return std::tuple<>(); }
  Arguments arguments_;
  Kiv::ReactorMap<KivJar, Kiv::String> jar_;
};

TEST_F(TeardownTest, AMachineMayEndWithoutAnyCleanup) {
  auto quiet = Kiv::makeMachine<QuietSm>({make<Marble>("single")});
  (void)quiet->jarIs(make<Marble>("deleted"));
  const auto outlives = quiet->jarIs(make<Marble>("outlives"));
  (void)quiet->jarDel("deleted");
  EXPECT_THAT(happened(), ElementsAre("cleanup of deleted"));
  quiet = nullptr;
  EXPECT_THAT(happened(), IsEmpty());
  EXPECT_TRUE(outlives->markedForDeletion());
  EXPECT_FALSE(outlives->hasNotificationActive());
}

}  // namespace
