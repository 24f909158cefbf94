// A complete machine on the framework: an input, an output, and the machine between them. The alarm
// of a house lists the doors that are open.
#include <iostream>

#include "framework/Machine.h"

namespace Example {

// A door. Input.
class Door final : public Kiv::Entity<Door> {
 public:
  static constexpr std::string_view kTypeName = "Example::Door";

  class NotifieeConst : public Kiv::Notifiee<Door> {
   public:
    virtual void onOpen() {}
  };

  explicit Door(Kiv::Name name) : name_(std::move(name)) {}

  // The door's name; the key.
  const Kiv::Name& name() const { return name_; }
  const Kiv::Name& fwkKey() const { return name_; }

  // Whether it is open.
  bool open() const { return open_.get(); }
  void openIs(bool v) { open_.is(*this, &NotifieeConst::onOpen, v); }

 private:
  Kiv::Name name_;
  Kiv::Scalar<bool> open_;
};

// A house and its doors. Input.
class House final : public Kiv::Entity<House> {
 public:
  static constexpr std::string_view kTypeName = "Example::House";

  class NotifieeConst : public Kiv::Notifiee<House> {
   public:
    virtual void onDoor(const Kiv::Name& /*name*/) {}
    virtual void onDoorkivImmediate() {}
    virtual void onDoor() {}
  };

  // The doors, by name; owned.
  const auto& door() const { return door_; }
  Kiv::Ptr<Door> doorIs(const Kiv::Name& name) { return door_.is(*this, kOnDoor, name); }
  Kiv::Ptr<Door> doorDel(const Kiv::Name& name) { return door_.del(*this, kOnDoor, name); }

 private:
  static constexpr Kiv::On<NotifieeConst, Kiv::Name> kOnDoor{
      &NotifieeConst::onDoor, &NotifieeConst::onDoorkivImmediate, &NotifieeConst::onDoor};

  Kiv::Collection<Door, Kiv::Name> door_;
};

// What the alarm shows. Output.
class Alarm final : public Kiv::Entity<Alarm> {
 public:
  static constexpr std::string_view kTypeName = "Example::Alarm";

  class NotifieeConst : public Kiv::Notifiee<Alarm> {
   public:
    virtual void onOpenDoor(const Kiv::Name& /*name*/) {}
    virtual void onOpenDoorkivImmediate() {}
    virtual void onOpenDoor() {}
  };

  // The doors that are open.
  const auto& openDoor() const { return openDoor_; }
  void openDoorIs(const Kiv::Name& name, bool v) { openDoor_.is(*this, kOnOpenDoor, name, v); }
  void openDoorDel(const Kiv::Name& name) { openDoor_.del(*this, kOnOpenDoor, name); }

 private:
  static constexpr Kiv::On<NotifieeConst, Kiv::Name> kOnOpenDoor{
      &NotifieeConst::onOpenDoor, &NotifieeConst::onOpenDoorkivImmediate,
      &NotifieeConst::onOpenDoor};

  Kiv::ValueSet<Kiv::Name> openDoor_;
};

// Writes the doors of a house that are open into its alarm.
class AlarmSm final : public Kiv::Machine<AlarmSm> {
 public:
  static constexpr std::string_view kTypeName = "Example::AlarmSm";
  // When the machine goes, the alarm shows nothing.
  static constexpr bool kTeardownRunsCleanup = true;

  // Observes the house; mirrors its doors.
  class KivHouse final : public Kiv::Reactor<KivHouse, AlarmSm, House> {
   public:
    static constexpr std::string_view kTypeName = "Example::AlarmSm::KivHouse";
    using Reactor::Reactor;

    void onDoor(const Kiv::Name& name) override {
      if (live()) machine()->handleDoor(name);
    }
    void onDoorkivImmediate() override {
      if (mirrors()) machine()->followDoors(*entity());
    }

   private:
    void mirror() override { machine()->mirrorDoors(*entity()); }
  };

  // Observes one door; its removal takes the door off the alarm.
  class KivDoor final : public Kiv::MemberReactor<KivDoor, AlarmSm, Door> {
   public:
    static constexpr std::string_view kTypeName = "Example::AlarmSm::KivDoor";
    using MemberReactor::MemberReactor;

    void onOpen() override {
      if (live()) machine()->handleDoor(fwkKey());
    }
    void doCleanup() { machine()->alarm()->openDoorDel(fwkKey()); }

   private:
    void kivHandle() override { machine()->kiv_handleDoor(Kiv::Ptr<KivDoor>(this)); }
  };

  // What the machine is made with. The house may be null, and is then not observed.
  struct Arguments {
    Kiv::ReactorSlot<KivHouse> house;
    Kiv::ValidPtr<Alarm> alarm;
  };

  AlarmSm(Arguments&& arguments, Kiv::Start start) : arguments_(std::move(arguments)) {
    begin(start);
  }
  ~AlarmSm() override { teardown(); }

  // Constructor arguments
  Kiv::Ptr<const House> house() const { return arguments_.house.entity(); }
  void houseIs(const Kiv::Ptr<const House>& v) { arguments_.house.is(*this, v); }
  const Kiv::Ptr<Alarm>& alarm() const { return arguments_.alarm; }

  // The reactors of the doors, by name.
  const auto& door() const { return door_; }
  void kiv_handleDoor(const Kiv::Ptr<KivDoor>& reactor) { reactor->doCleanup(); }

  // Handlers
  // Handles every door; once.
  void handleInitialized() {
    for (const auto& reactor : door_) handleDoor(reactor->fwkKey());
    initializedIs(true);
  }
  // A door was added, opened, shut or removed.
  void handleDoor(const Kiv::Name& name);

 private:
  friend class Kiv::Machine<AlarmSm>;

  auto reactors() { return std::tie(arguments_.house, door_); }
  auto children() { return std::tuple<>(); }

  void mirrorDoors(const House& house) { door_.synchronise(*this, house.door()); }
  void followDoors(const House& house) { door_.follow(*this, house.door()); }

  Arguments arguments_;
  Kiv::ReactorMap<KivDoor, Kiv::Name> door_;

 public:
  // The attributes: what tools, traces and exception texts know of the machine. It stands last,
  // where all that it names has been declared.
  static constexpr auto kAttributes = Kiv::attributes(
      Kiv::fixedArgument(130, "house", &AlarmSm::house),
      Kiv::fixedArgument(131, "alarm", &AlarmSm::alarm),
      Kiv::collection(132, "door", "name", &AlarmSm::door_),
      Kiv::handler(133, "handleDoor", "void Example::AlarmSm::handleDoor(Kiv::Name)",
                   &AlarmSm::handleDoor),
      Kiv::plain(134, "initialized", &AlarmSm::initialized, &AlarmSm::initializedIs));
};

void AlarmSm::handleDoor(const Kiv::Name& name) {
  static constexpr auto here = kAttributes.handler("AlarmSm", "handleDoor");
  Kiv::traceLine(9, here, this, __LINE__, [&](std::ostream& text) { text << name; });
  const auto inputs = house();
  const Kiv::Ptr<const Door> door(inputs ? inputs->door()[name] : nullptr);
  if (door && door->open()) {
    alarm()->openDoorIs(name, true);
  } else {
    alarm()->openDoorDel(name);
  }
}

// Reads the alarm aloud.
class Siren final : public Alarm::NotifieeConst {
 public:
  void onOpenDoor(const Kiv::Name& name) override {
    std::cout << "  " << name << (notifier()->openDoor()[name] ? " is open\n" : " is not open\n");
  }
  void onOpenDoor() override { std::cout << "  open: " << notifier()->openDoor().size() << '\n'; }
};

}  // namespace Example

int main() {
  Kiv::ActivityManager loop;
  const auto house = Kiv::make<Example::House>();
  const auto alarm = Kiv::make<Example::Alarm>();
  house->doorIs("front")->openIs(true);
  auto machine = Kiv::makeMachine<Example::AlarmSm>({house, alarm});
  std::cout << "when the machine is made: " << alarm->openDoor().size() << " open\n";

  const auto siren = Kiv::make<Example::Siren>();
  siren->notifierIs(alarm);
  siren->isRegisteredNotifieeIs(true);
  siren->hasNotificationActiveIs(true);

  std::cout << "two doors come, one opens:\n";
  house->doorIs("back");
  house->doorIs("garden")->openIs(true);
  loop.run();

  std::cout << "one opens, shuts and opens before the loop runs:\n";
  const auto back = house->doorIs("back");
  back->openIs(true);
  back->openIs(false);
  back->openIs(true);
  loop.run();

  std::cout << "what a tool sees:\n";
  const Kiv::GenericIf& description = *machine->genericIf();
  for (const Kiv::KivAttr& attribute : description.attributes()) {
    std::cout << "  " << attribute.index << ' ' << attribute.name << '\n';
  }
  for (auto at = description.iterate(*machine, "door"); at->iterNonnull(); at->iterInc()) {
    std::cout << "  it mirrors " << at->iterKey().text() << '\n';
  }

  std::cout << "an open door goes:\n";
  house->doorDel("front");
  loop.run();

  std::cout << "the machine goes:\n";
  machine = nullptr;
  loop.run();
}
