// Handlers of every shape that C++ knows, and very many keys: each is called, and once.
#include <random>

#include "tests/framework/toys.h"

namespace {

using Kiv::make;
using testing::ElementsAre;
using Toys::happened;

class HandlersTest : public Toys::LoopTest {};

// Handlers that are not virtual, that come from a base beside the notifiee, or that must be given.
struct Ears {
  virtual ~Ears() = default;
  virtual void onStroke() {}
};

class Bell final : public Kiv::Entity<Bell> {
 public:
  static constexpr std::string_view kTypeName = "Test::Bell";

  class NotifieeConst : public Kiv::Notifiee<Bell>, public Ears {
   public:
    void onPull() { Toys::journal.push_back("pull"); }
    virtual void onRing() {}
  };

  void pullIs(int v) { pull_.is(*this, &NotifieeConst::onPull, v); }
  void ringIs(int v) { ring_.is(*this, &NotifieeConst::onRing, v); }
  void strokeIs(int v) {
    stroke_.is(*this, static_cast<void (NotifieeConst::*)()>(&NotifieeConst::onStroke), v);
  }

 private:
  Kiv::Scalar<int> pull_;
  Kiv::Scalar<int> ring_;
  Kiv::Scalar<int> stroke_;
};

class Ringer final : public Bell::NotifieeConst {
 public:
  explicit Ringer(const std::string& /*tag*/) {}
  void onRing() override { Toys::journal.push_back("ring"); }
  void onStroke() override { Toys::journal.push_back("stroke"); }
};

TEST_F(HandlersTest, EveryShapeOfHandlerIsCalled) {
  const auto bell = make<Bell>();
  const auto ringer = Toys::watch<Ringer>(bell);
  bell->pullIs(1);
  bell->ringIs(1);
  bell->strokeIs(1);
  EXPECT_THAT(delivered(), ElementsAre("pull", "ring", "stroke"));
}

class Door final : public Kiv::Entity<Door> {
 public:
  static constexpr std::string_view kTypeName = "Test::Door";

  class NotifieeConst : public Kiv::Notifiee<Door> {
   public:
    virtual void onKnock() = 0;
    virtual void onLock() {}
  };

  void knockIs(int v) { knock_.is(*this, &NotifieeConst::onKnock, v); }
  void lockIs(int v) { lock_.is(*this, &NotifieeConst::onLock, v); }

 private:
  Kiv::Scalar<int> knock_;
  Kiv::Scalar<int> lock_;
};

class Porter final : public Door::NotifieeConst {
 public:
  explicit Porter(const std::string& /*tag*/) {}
  void onKnock() override { Toys::journal.push_back("knock"); }
};

TEST_F(HandlersTest, AHandlerThatIsPureVirtualIsCalled) {
  const auto door = make<Door>();
  const auto porter = Toys::watch<Porter>(door);
  door->lockIs(1);
  door->knockIs(1);
  EXPECT_THAT(delivered(), ElementsAre("knock"));
}

// Two attributes with the same keys, so many that hashes meet.
class Ledger final : public Kiv::Entity<Ledger> {
 public:
  static constexpr std::string_view kTypeName = "Test::Ledger";

  class NotifieeConst : public Kiv::Notifiee<Ledger> {
   public:
    virtual void onDebit(Kiv::U32 /*number*/) {}
    virtual void onDebitkivImmediate() {}
    virtual void onDebit() {}
    virtual void onCredit(Kiv::U32 /*number*/) {}
    virtual void onCreditkivImmediate() {}
    virtual void onCredit() {}
  };

  void debitIs(Kiv::U32 number, bool v) { debit_.is(*this, kOnDebit, number, v); }
  void creditIs(Kiv::U32 number, bool v) { credit_.is(*this, kOnCredit, number, v); }

 private:
  static constexpr Kiv::On<NotifieeConst, Kiv::U32> kOnDebit{
      &NotifieeConst::onDebit, &NotifieeConst::onDebitkivImmediate, &NotifieeConst::onDebit};
  static constexpr Kiv::On<NotifieeConst, Kiv::U32> kOnCredit{
      &NotifieeConst::onCredit, &NotifieeConst::onCreditkivImmediate, &NotifieeConst::onCredit};
  Kiv::ValueSet<Kiv::U32> debit_;
  Kiv::ValueSet<Kiv::U32> credit_;
};

class Clerk final : public Ledger::NotifieeConst {
 public:
  explicit Clerk(const std::string& /*tag*/) {}
  void onDebit(Kiv::U32 number) override { debits.push_back(number); }
  void onCredit(Kiv::U32 number) override { credits.push_back(number); }

  std::vector<Kiv::U32> debits;
  std::vector<Kiv::U32> credits;
};

TEST_F(HandlersTest, EachOfVeryManyKeysIsDeliveredOnceAndInOrder) {
  std::mt19937 random(17);
  std::vector<Kiv::U32> numbers(200000);
  for (Kiv::U32 i = 0; i < numbers.size(); ++i) {
    // Each is another, as its lower half says which it is.
    numbers[i] = static_cast<Kiv::U32>((random() & 0x3fff) << 18) | i;
  }
  const auto ledger = make<Ledger>();
  const auto clerk = Toys::watch<Clerk>(ledger);
  for (const bool value : {true, false}) {
    for (const Kiv::U32 number : numbers) {
      ledger->debitIs(number, value);
      ledger->creditIs(number, value);
    }
  }
  loop_.run();
  EXPECT_TRUE(clerk->debits == numbers);
  EXPECT_TRUE(clerk->credits == numbers);
}

}  // namespace
