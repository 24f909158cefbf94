// What must be one and the same thing on both sides of the library's boundary: types and their
// counters, exceptions, and the words that the process has once. Prints what is not; exits 1 then.
#include <algorithm>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "OpenStackSm/OpenStackSm.h"
#include "framework/FeatureToggle.h"

namespace {

int faults = 0;

void expect(bool holds, const char* what) {
  if (holds) return;
  std::cout << "not so: " << what << '\n';
  ++faults;
}

// True when `act` throws an Expected, or something that derives from it.
template <class Expected, class Act>
bool throws(Act act) {
  try {
    act();
  } catch (const Expected&) {
    return true;
  } catch (...) {
    std::cout << "another exception came\n";
  }
  return false;
}

// An exception and an entity of the program's own, which the library has never heard of.
class OwnError final : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class Rack final : public Kiv::Entity<Rack> {
 public:
  static constexpr std::string_view kTypeName = "boundary::Rack";
  const Kiv::GenericIf* genericIf() const override { return nullptr; }
  class NotifieeConst : public Kiv::Notifiee<Rack> {};
};

// Watch what the library writes, from inside the library's mutators.
class StatusWatcher final : public OpenStack::OpenStackStatus::NotifieeConst {
 public:
  void onRegionStatuskivImmediate() override {
    const Kiv::Name* changed = notifier()->regionStatus().singleChangeSince(before);
    sawChange = changed != nullptr && *changed == "RegionTwo";
  }

  Kiv::U32 before = 0;
  bool sawChange = false;
};

class HostWatcher final : public VirtualNetwork::ResourcesForHostname::NotifieeConst {
 public:
  void onVlankivImmediate() override {
    if (refuses) throw OwnError("refused by the program");
  }

  bool refuses = false;
};

// The tracker's records of a type: there should be one.
std::vector<Kiv::AllocTrackRecord> tracked(std::string_view typeName) {
  std::vector<Kiv::AllocTrackRecord> records = Kiv::AllocTrackTypeInfo::report();
  std::erase_if(records, [&](const auto& record) { return record.typeName != typeName; });
  return records;
}

bool live(std::string_view typeName, Kiv::U64 count) {
  const auto records = tracked(typeName);
  return records.size() == 1 && records[0].liveCount == count;
}

}  // namespace

int main() {
  Kiv::ActivityManager loop;
  Kiv::VirtualTime time;
  Kiv::System::timeSourceIs(&time);
  expect(Kiv::System::currentTime() == 0, "the library reads the program's time source");
  expect(&Kiv::ActivityManager::instance() == &loop, "the library runs the program's loop");

  int traceLines = 0;
  Kiv::_defaultTraceHandle().levelIs(9);
  Kiv::_defaultTraceHandle().sinkIs([&](const Kiv::TraceLine&) { ++traceLines; });
  bool toggleAsked = false;
  Kiv::toggleProviderIs([&](std::string_view, bool) {
    toggleAsked = true;
    return Kiv::kToggleOn;
  });
  expect(Kiv::getToggleState("Any", false) == Kiv::kToggleOn && toggleAsked,
         "the library asks the program's toggle provider");

  const auto cloud = Kiv::make<OpenStack::OpenStackConfig>();
  const auto status = Kiv::make<OpenStack::OpenStackStatus>();
  const auto resources = Kiv::make<VirtualNetwork::RequestedResourcesCollection>();
  const auto elements = Kiv::make<VirtualNetwork::NetworkElementCollection>();
  auto machines =
      OpenStack::openStackSmFactory(cloud, status, Kiv::make<OpenStack::NameResolution::Config>(),
                                    Kiv::make<OpenStack::NameResolution::Status>(), resources, 60,
                                    Kiv::make<OpenStack::Config>(), elements);
  const auto region = cloud->regionIs("RegionOne");
  const auto vlan = region->segmentIs("seg-rack");
  vlan->segmentationTypeIs(OpenStack::SegmentationType::vlan);
  vlan->segmentationIdIs(100);
  const auto binding = region->portBindingIs("port-1");
  binding->portIs(region->portIs("port-1"));
  const auto onHost = binding->portToHostBindingIs("compute-1");
  onHost->segmentIs(0, vlan);
  loop.run();
  expect(traceLines > 0, "the library writes to the program's trace handle");

  // Types: the record of an object that the library made is the program's record of that type.
  const Kiv::Ptr<OpenStack::RegionStatus> regionStatus(status->regionStatus()["RegionOne"]);
  const Kiv::PtrInterface* object = regionStatus.get();
  expect(&object->fwkType() == &Kiv::typeRecord<OpenStack::RegionStatus>,
         "a type has one record in the process");
  expect(dynamic_cast<const OpenStack::RegionStatus*>(object) != nullptr,
         "a dynamic cast knows the library's object");
  expect(live("OpenStack::RegionStatus", 1), "the library's object is counted once");
  expect(live("OpenStack::Region", 1), "the program's object of a library type is counted once");
  expect(live("OpenStack::PortBindingSm", 1), "a machine is counted once");
  {
    const auto rack = Kiv::make<Rack>();
    expect(live("boundary::Rack", 1), "an object of the program's own type is counted");
  }
  expect(live("boundary::Rack", 0), "and is counted out when it goes");

  // Exceptions of the library, thrown by the library and caught here.
  auto watcher = Kiv::make<HostWatcher>();
  expect(throws<Kiv::RangeException>(
             [&] { watcher->notifierIs(Kiv::Ptr<const Kiv::PtrInterface>(region)); }),
         "a range exception of the library is caught as one");
  expect(throws<Kiv::Exception>(
             [&] { watcher->notifierIs(Kiv::Ptr<const Kiv::PtrInterface>(region)); }),
         "and as the framework's exception");
  expect(throws<std::runtime_error>(
             [&] { watcher->notifierIs(Kiv::Ptr<const Kiv::PtrInterface>(region)); }),
         "and as the standard library's");
  expect(throws<Kiv::NameInUseException>([] { Kiv::throwNameInUseException("in use"); }),
         "a name-in-use exception of the library is caught as one");

  // A single change, made by the library and seen here.
  auto statusWatcher = Kiv::make<StatusWatcher>();
  statusWatcher->notifierIs(status);
  statusWatcher->isRegisteredNotifieeIs(true);
  statusWatcher->hasNotificationActiveIs(true);
  statusWatcher->before = status->regionStatus().changes();
  cloud->regionIs("RegionTwo");
  loop.run();
  expect(statusWatcher->sawChange, "a single change of the library is known as one here");
  statusWatcher = nullptr;

  // An exception of the program that passes through the library.
  watcher->notifierIs(Kiv::Ptr<VirtualNetwork::ResourcesForHostname>(
      resources->resourcesForHostname()["compute-1"]));
  watcher->isRegisteredNotifieeIs(true);
  watcher->hasNotificationActiveIs(true);
  watcher->refuses = true;
  const auto other = region->segmentIs("seg-row");
  other->segmentationTypeIs(OpenStack::SegmentationType::vlan);
  other->segmentationIdIs(200);
  onHost->segmentIs(1, other);
  expect(throws<OwnError>([&] { loop.run(); }), "an exception of the program passes the library");
  watcher->refuses = false;

  watcher = nullptr;
  machines = nullptr;
  expect(live("OpenStack::OpenStackSm", 0), "the root machine is gone");
  Kiv::_defaultTraceHandle().sinkIs({});
  Kiv::System::timeSourceIs(nullptr);
  if (faults == 0) std::cout << "both sides agree\n";
  return faults == 0 ? 0 : 1;
}
