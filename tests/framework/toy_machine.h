// A toy machine with everything that machines have: it watches a shelf of pots and jars, keeps a
// child machine for each pot, and lists what it found in a ledger.
//
//   ShelfSm     observes the shelf through a single reactor; mirrors its pots (reactors without a
//               cleanup, with a hook) and its jars (reactors with one)
//   PotSm       the child: observes its pot, and lists it under "pot"
//
// What they do stands in the journal of toys.h.
#pragma once

#include <functional>
#include <string>
#include <utility>

#include "framework/Machine.h"
#include "tests/framework/toys.h"

namespace Toys {

// What the machines write.
class Ledger final : public Kiv::Entity<Ledger> {
 public:
  static constexpr std::string_view kTypeName = "Toys::Ledger";

  class NotifieeConst : public Kiv::Notifiee<Ledger> {
   public:
    virtual void onEntry(const Kiv::String& /*entry*/) {}
    virtual void onEntrykivImmediate() {}
    virtual void onEntry() {}
  };

  const auto& entry() const { return entry_; }
  void entryIs(const Kiv::String& e) { entry_.is(*this, kOnEntry, e, true); }
  void entryDel(const Kiv::String& e) { entry_.del(*this, kOnEntry, e); }

 private:
  static constexpr Kiv::On<NotifieeConst, Kiv::String> kOnEntry{
      &NotifieeConst::onEntry, &NotifieeConst::onEntrykivImmediate, &NotifieeConst::onEntry};
  Kiv::ValueSet<Kiv::String> entry_;
};

// What the machines observe. Pots and jars are marbles, to have fewer toys.
class Shelf final : public Kiv::Entity<Shelf> {
 public:
  static constexpr std::string_view kTypeName = "Toys::Shelf";

  class NotifieeConst : public Kiv::Notifiee<Shelf> {
   public:
    virtual void onPot(const Kiv::String& /*id*/) {}
    virtual void onPotkivImmediate() {}
    virtual void onPot() {}
    virtual void onJar(const Kiv::String& /*id*/) {}
    virtual void onJarkivImmediate() {}
    virtual void onJar() {}
    virtual void onTitle() {}
  };

  const auto& pot() const { return pot_; }
  Kiv::Ptr<Marble> potIs(const Kiv::String& id) { return pot_.is(*this, kOnPot, id); }
  Kiv::Ptr<Marble> potIs(const Kiv::Ptr<Marble>& v) { return pot_.is(*this, kOnPot, v); }
  Kiv::Ptr<Marble> potDel(const Kiv::String& id) { return pot_.del(*this, kOnPot, id); }

  const auto& jar() const { return jar_; }
  Kiv::Ptr<Marble> jarIs(const Kiv::String& id) { return jar_.is(*this, kOnJar, id); }
  Kiv::Ptr<Marble> jarDel(const Kiv::String& id) { return jar_.del(*this, kOnJar, id); }

  const Kiv::String& title() const { return title_.get(); }
  void titleIs(const Kiv::String& v) { title_.is(*this, &NotifieeConst::onTitle, v); }

 private:
  static constexpr Kiv::On<NotifieeConst, Kiv::String> kOnPot{
      &NotifieeConst::onPot, &NotifieeConst::onPotkivImmediate, &NotifieeConst::onPot};
  static constexpr Kiv::On<NotifieeConst, Kiv::String> kOnJar{
      &NotifieeConst::onJar, &NotifieeConst::onJarkivImmediate, &NotifieeConst::onJar};
  Kiv::Collection<Marble, Kiv::String> pot_;
  Kiv::Collection<Marble, Kiv::String> jar_;
  Kiv::Scalar<Kiv::String> title_;
};

// The child machine.
class PotSm final : public Kiv::Machine<PotSm> {
 public:
  static constexpr std::string_view kTypeName = "Toys::PotSm";
  static constexpr bool kTeardownRunsCleanup = true;

  class KivPot final : public Kiv::Reactor<KivPot, PotSm, Marble> {
   public:
    static constexpr std::string_view kTypeName = "Toys::PotSm::KivPot";
    using Reactor::Reactor;

    void onColour() override {
      if (live()) machine()->handleColour();
    }

   private:
    void kivHandle() override {
      journal.push_back("cleanup of pot " + machine()->fwkKey().str());
      machine()->ledger()->entryDel("pot " + machine()->fwkKey());
    }
  };

  struct Arguments {
    Kiv::String id;
    Kiv::ReactorSlot<KivPot> pot;
    Kiv::Ptr<Ledger> ledger;
    Kiv::Name keeper;
    Kiv::Seconds patience;
  };

  PotSm(Arguments&& arguments, Kiv::Start start) : arguments_(std::move(arguments)) {
    journal.push_back("new PotSm " + fwkKey().str());
    begin(start);
  }
  ~PotSm() override {
    journal.push_back("end of PotSm " + fwkKey().str());
    teardown();
  }

  const Kiv::String& fwkKey() const { return arguments_.id; }
  Kiv::Ptr<const Marble> pot() const { return arguments_.pot.entity(); }
  const KivPot* potReactor() const { return arguments_.pot.reactor(); }
  const Kiv::Ptr<Ledger>& ledger() const { return arguments_.ledger; }
  const Kiv::Name& keeper() const { return arguments_.keeper; }
  Kiv::Seconds patience() const { return arguments_.patience; }
  void patienceIs(Kiv::Seconds v) { arguments_.patience = v; }

  void handleInitialized() {
    if (onInitialize) onInitialize(fwkKey());
    initializedIs(true);
  }

  void handleColour() { journal.push_back("PotSm::handleColour " + fwkKey().str()); }

  // What a test wants to happen within handleInitialized().
  inline static std::function<void(const Kiv::String&)> onInitialize;

  static constexpr auto kAttributes = Kiv::attributes(
      Kiv::keyArgument(130, "id", &PotSm::fwkKey), Kiv::fixedArgument(131, "pot", &PotSm::pot),
      Kiv::fixedArgument(132, "ledger", &PotSm::ledger),
      Kiv::fixedArgument(133, "keeper", &PotSm::keeper),
      Kiv::changingArgument(134, "patience", &PotSm::patience, &PotSm::patienceIs));

 private:
  friend class Kiv::Machine<PotSm>;
  auto reactors() { return std::tie(arguments_.pot); }
  auto children() { return std::tuple<>(); }

  Arguments arguments_;
};

class ShelfSm final : public Kiv::Machine<ShelfSm> {
 public:
  static constexpr std::string_view kTypeName = "Toys::ShelfSm";
  static constexpr bool kTeardownRunsCleanup = true;

  class KivShelf final : public Kiv::Reactor<KivShelf, ShelfSm, Shelf> {
   public:
    static constexpr std::string_view kTypeName = "Toys::ShelfSm::KivShelf";
    using Reactor::Reactor;

    void onPot(const Kiv::String& id) override {
      if (mirrors()) machine()->mirrorPot(*entity(), id);
    }
    void onPotkivImmediate() override {
      if (mirrors()) machine()->followPots(*entity());
    }
    void onJarkivImmediate() override {
      if (mirrors()) machine()->followJars(*entity());
    }
    void onTitle() override {
      if (live()) machine()->handleTitle();
    }

   private:
    void mirror() override { machine()->mirrorAll(*entity()); }
    void handleScalars() override { onTitle(); }
  };

  // Without a cleanup.
  class KivPot final : public Kiv::MemberReactor<KivPot, ShelfSm, Marble> {
   public:
    static constexpr std::string_view kTypeName = "Toys::ShelfSm::KivPot";
    using MemberReactor::MemberReactor;

    void onColour() override {
      if (live()) machine()->handleColour(notifier()->fwkKey());
    }
    bool hasMachine() const { return mirrors(); }

   private:
    void handleScalars() override { onColour(); }
  };

  // With a cleanup, and without a handler.
  class KivJar final : public Kiv::PassiveReactor<KivJar, ShelfSm, Marble> {
   public:
    static constexpr std::string_view kTypeName = "Toys::ShelfSm::KivJar";
    using PassiveReactor::PassiveReactor;

    void handleCleanup() {
      journal.push_back("cleanup of jar " + fwkKey().str() +
                        (machine()->jar().contains(fwkKey()) ? ", member" : ", no member") +
                        (markedForDeletion() ? ", zombie" : "") +
                        (hasNotificationActive() ? ", active" : ""));
      machine()->ledger()->entryDel("jar " + fwkKey());
    }

   private:
    void kivHandle() override { machine()->kiv_handleJar(Kiv::Ptr<KivJar>(this)); }
  };

  // What runs after a pot was added or removed.
  struct PotHook {
    ShelfSm& machine;
    void operator()(const Kiv::String& id) const { machine.handlePot(id); }
  };

  using PotMap = Kiv::ReactorMap<KivPot, Kiv::String>;
  using JarMap = Kiv::ReactorMap<KivJar, Kiv::String>;
  using PotSmMap = Kiv::ChildMap<PotSm, Kiv::String>;

  [[nodiscard]] static Kiv::Ptr<ShelfSm> ShelfSmIs(const Kiv::Ptr<const Shelf>& shelf,
                                                   const Kiv::Ptr<Ledger>& ledger) {
    return Kiv::makeMachine<ShelfSm>({shelf, ledger});
  }

  struct Arguments {
    Kiv::ReactorSlot<KivShelf> shelf;
    Kiv::Ptr<Ledger> ledger;
  };

  ShelfSm(Arguments&& arguments, Kiv::Start start) : arguments_(std::move(arguments)) {
    begin(start);
  }
  ~ShelfSm() override {
    journal.push_back("end of ShelfSm");
    teardown();
  }

  Kiv::Ptr<const Shelf> shelf() const { return arguments_.shelf.entity(); }
  KivShelf* shelfReactor() const { return arguments_.shelf.reactor(); }
  void shelfIs(const Kiv::Ptr<const Shelf>& v) { arguments_.shelf.is(*this, v); }
  void shelfDel() { arguments_.shelf.del(); }
  const Kiv::Ptr<Ledger>& ledger() const { return arguments_.ledger; }

  PotMap& pot() { return pot_; }
  Kiv::Ptr<KivPot> potIs(const Kiv::Ptr<const Marble>& v) {
    return pot_.is(*this, v, PotHook{*this});
  }
  Kiv::Ptr<const Marble> potDel(const Kiv::String& id) { return pot_.del(id, PotHook{*this}); }
  Kiv::Ptr<const Marble> potDel(const PotMap::iterator& at) {
    return pot_.del(at.key(), PotHook{*this});
  }
  void potDelAll() { pot_.delAll(PotHook{*this}); }

  JarMap& jar() { return jar_; }
  Kiv::Ptr<KivJar> jarIs(const Kiv::Ptr<const Marble>& v) { return jar_.is(*this, v); }
  Kiv::Ptr<const Marble> jarDel(const Kiv::String& id) { return jar_.del(id); }
  void jarDelAll() { jar_.delAll(); }
  void kiv_handleJar(const Kiv::Ptr<KivJar>& reactor) { reactor->handleCleanup(); }

  PotSmMap& potSm() { return potSm_; }
  Kiv::Ptr<PotSm> potSmIs(const Kiv::String& id, const Kiv::Ptr<const Marble>& pot,
                          const Kiv::Ptr<Ledger>& ledger, const Kiv::Name& keeper,
                          Kiv::Seconds patience) {
    return potSm_.is(id, id, pot, ledger, keeper, patience);
  }
  Kiv::Ptr<PotSm> potSmDel(const Kiv::String& id) { return potSm_.del(id); }
  void potSmDelAll() { potSm_.delAll(); }

  void handleInitialized() {
    journal.push_back(initialized() ? "already initialized" : "handleInitialized");
    if (initialized()) return;
    for (const auto& jar : jar_) ledger()->entryIs("jar " + jar->fwkKey());
    initializedIs(true);
  }
  void handleTitle() { journal.push_back("handleTitle"); }
  void handlePot(const Kiv::String& id) {
    journal.push_back("handlePot " + id.str() + (pot_.contains(id) ? " there" : " gone"));
    if (onHandlePot) onHandlePot(id);
  }
  void handleColour(const Kiv::String& id) { journal.push_back("handleColour " + id.str()); }

  // What a test wants to happen within handlePot().
  std::function<void(const Kiv::String&)> onHandlePot;

 private:
  friend class Kiv::Machine<ShelfSm>;
  auto reactors() { return std::tie(arguments_.shelf, pot_, jar_); }
  auto children() { return std::tie(potSm_); }

  void mirrorPot(const Shelf& shelf, const Kiv::String& id) {
    pot_.synchroniseOne(*this, shelf.pot(), id, PotHook{*this});
  }
  void mirrorAll(const Shelf& shelf) {
    pot_.synchronise(*this, shelf.pot(), PotHook{*this});
    jar_.synchronise(*this, shelf.jar());
  }
  void followPots(const Shelf& shelf) { pot_.follow(*this, shelf.pot(), PotHook{*this}); }
  void followJars(const Shelf& shelf) { jar_.follow(*this, shelf.jar()); }

  Arguments arguments_;
  PotMap pot_;
  JarMap jar_;
  PotSmMap potSm_;

 public:
  static constexpr auto kAttributes =
      Kiv::attributes(Kiv::collection(130, "pot", "id", &ShelfSm::pot_),
                      Kiv::collection(131, "jar", "id", &ShelfSm::jar_));
};

// A shelf, a ledger, and the machine between them.
class MachineTest : public LoopTest {
 protected:
  // Makes the machine; forgets what happened until then.
  void start() {
    machine_ = ShelfSm::ShelfSmIs(shelf_, ledger_);
    (void)delivered();
  }
  std::vector<std::string> entries() const {
    std::vector<std::string> all;
    for (const auto& entry : ledger_->entry()) all.push_back(entry.key.str());
    return all;
  }

  Kiv::Ptr<Shelf> shelf_ = Kiv::make<Shelf>();
  Kiv::Ptr<Ledger> ledger_ = Kiv::make<Ledger>();
  Kiv::Ptr<ShelfSm> machine_;
};

}  // namespace Toys
