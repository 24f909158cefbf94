// Toy entities for the tests of the framework, and what watches them.
//
// A box holds marbles (children), lends some out (references by number) and has slots (a value
// set). A watcher writes each notification into the journal: "marble!" is the immediate one,
// "marble a" the keyed one, "marble" the one without a key.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "framework/Attribute.h"
#include "framework/Text.h"
#include "tests/support/live_objects.h"

namespace Toys {

// What happened in the current test, in order.
inline std::vector<std::string> journal;

// What happened since the last call.
inline std::vector<std::string> happened() {
  return std::exchange(journal, {});
}

class Marble final : public Kiv::Entity<Marble> {
 public:
  static constexpr std::string_view kTypeName = "Toys::Marble";

  class NotifieeConst : public Kiv::Notifiee<Marble> {
   public:
    virtual void onColour() {}
  };

  explicit Marble(Kiv::String id) : id_(std::move(id)) {}

  const Kiv::String& fwkKey() const { return id_; }

  const Kiv::String& colour() const { return colour_.get(); }
  void colourIs(const Kiv::String& v) { colour_.is(*this, &NotifieeConst::onColour, v); }

 private:
  Kiv::String id_;
  Kiv::Scalar<Kiv::String> colour_;
};

class Box final : public Kiv::Entity<Box> {
 public:
  static constexpr std::string_view kTypeName = "Toys::Box";

  class NotifieeConst : public Kiv::Notifiee<Box> {
   public:
    virtual void onLabel() {}
    virtual void onMarble(const Kiv::String& /*id*/) {}
    virtual void onMarblekivImmediate() {}
    virtual void onMarble() {}
    virtual void onLent(Kiv::U8 /*number*/) {}
    virtual void onLentkivImmediate() {}
    virtual void onLent() {}
    virtual void onSlot(Kiv::U16 /*slot*/) {}
    virtual void onSlotkivImmediate() {}
    virtual void onSlot() {}
  };

  const Kiv::String& label() const { return label_.get(); }
  void labelIs(const Kiv::String& v) { label_.is(*this, &NotifieeConst::onLabel, v); }

  const auto& marble() const { return marble_; }
  auto& marble() { return marble_; }
  Kiv::Ptr<Marble> marbleIs(const Kiv::String& id) { return marble_.is(*this, kOnMarble, id); }
  Kiv::Ptr<Marble> marbleIs(const Kiv::Ptr<Marble>& v) { return marble_.is(*this, kOnMarble, v); }
  Kiv::Ptr<Marble> marbleDel(const Kiv::String& id) { return marble_.del(*this, kOnMarble, id); }
  void marbleDelAll() { marble_.delAll(*this, kOnMarble); }

  const auto& lent() const { return lent_; }
  void lentIs(Kiv::U8 n, const Kiv::Ptr<const Marble>& v) { lent_.is(*this, kOnLent, n, v); }
  void lentDel(Kiv::U8 n) { lent_.del(*this, kOnLent, n); }
  void lentDelAll() { lent_.delAll(*this, kOnLent); }

  const auto& slot() const { return slot_; }
  void slotIs(Kiv::U16 n, bool v) { slot_.is(*this, kOnSlot, n, v); }
  void slotDel(Kiv::U16 n) { slot_.del(*this, kOnSlot, n); }
  void slotDelAll() { slot_.delAll(*this, kOnSlot); }

 private:
  static constexpr Kiv::On<NotifieeConst, Kiv::String> kOnMarble{
      &NotifieeConst::onMarble, &NotifieeConst::onMarblekivImmediate, &NotifieeConst::onMarble};
  static constexpr Kiv::On<NotifieeConst, Kiv::U8> kOnLent{
      &NotifieeConst::onLent, &NotifieeConst::onLentkivImmediate, &NotifieeConst::onLent};
  static constexpr Kiv::On<NotifieeConst, Kiv::U16> kOnSlot{
      &NotifieeConst::onSlot, &NotifieeConst::onSlotkivImmediate, &NotifieeConst::onSlot};

  Kiv::Scalar<Kiv::String> label_;
  Kiv::Collection<Marble, Kiv::String> marble_;
  Kiv::References<Marble, Kiv::U8> lent_;
  Kiv::ValueSet<Kiv::U16> slot_;
};

// Writes each notification into the journal, after its tag, and then does what the test asks for.
class BoxWatcher final : public Box::NotifieeConst {
 public:
  explicit BoxWatcher(std::string tag = "") : tag_(std::move(tag)) {}

  void onLabel() override { told("label"); }
  void onMarble(const Kiv::String& id) override { told("marble " + id.str()); }
  void onMarblekivImmediate() override { told("marble!"); }
  void onMarble() override { told("marble"); }
  void onLent(Kiv::U8 number) override { told("lent " + std::to_string(number)); }
  void onLentkivImmediate() override { told("lent!"); }
  void onLent() override { told("lent"); }
  void onSlot(Kiv::U16 slot) override { told("slot " + std::to_string(slot)); }
  void onSlotkivImmediate() override { told("slot!"); }
  void onSlot() override { told("slot"); }

  std::function<void(const std::string&)> then;

 private:
  void told(const std::string& what) {
    journal.push_back(tag_ + what);
    if (then) then(what);
  }

  const std::string tag_;
};

class MarbleWatcher final : public Marble::NotifieeConst {
 public:
  explicit MarbleWatcher(std::string tag = "") : tag_(std::move(tag)) {}

  void onColour() override { journal.push_back(tag_ + "colour"); }

 private:
  const std::string tag_;
};

// A watcher that is connected, registered and active.
template <class W, class E>
Kiv::Ptr<W> watch(const Kiv::Ptr<E>& entity, const std::string& tag = "") {
  Kiv::Ptr<W> watcher = Kiv::make<W>(tag);
  watcher->notifierIs(entity);
  watcher->isRegisteredNotifieeIs(true);
  watcher->hasNotificationActiveIs(true);
  return watcher;
}

// A loop whose time advances only when it is set, and an empty journal. Fails a test that leaves
// objects behind.
class LoopTest : public testing::Test {
 protected:
  LoopTest() {
    Kiv::System::timeSourceIs(&time_);
    journal.clear();
  }
  ~LoopTest() override { Kiv::System::timeSourceIs(nullptr); }

  // Delivers until idle; what happened since the last call.
  std::vector<std::string> delivered() {
    loop_.run();
    return happened();
  }

 private:
  Support::LiveObjects nothingIsLeft_;

 protected:
  Kiv::VirtualTime time_;
  Kiv::ActivityManager loop_;
};

}  // namespace Toys
