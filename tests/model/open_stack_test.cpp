// The cloud's entities: every attribute can be written, read and observed.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "model/OpenStack/NameResolution.h"
#include "model/OpenStack/Values.h"
#include "tests/model/open_stack_watchers.h"

namespace {

using Kiv::make;
using Kiv::Ptr;
using Kiv::Seconds;
using Kiv::String;
using OpenStack::SegmentationType;
using OpenStack::SyncStatus;
using OpenStack::VlanType;
using OpenStack::VlanTypeDriver;
using testing::ElementsAre;
using testing::IsEmpty;
using VirtualNetwork::SwitchInterface;
using namespace Model;

class OpenStackModelTest : public ModelTest {};

// The text of the range exception that `run` throws.
template <class Run>
std::string refusal(Run run) {
  try {
    run();
  } catch (const Kiv::RangeException& e) {
    return e.what();
  }
  return "nothing was thrown";
}

TEST_F(OpenStackModelTest, TheAgentConfigurationsScalarsAreObservable) {
  using C = OpenStack::Config;
  using W = ConfigWatcher;
  const auto config = make<C>();
  const auto kNone = static_cast<VlanTypeDriver>(0);
  isScalar<W>(config, "enabled", &C::enabled, &C::enabledIs, false, true);
  isScalar<W>(config, "defaultVlanTypeDriver", &C::defaultVlanTypeDriver,
              &C::defaultVlanTypeDriverIs, kNone, VlanTypeDriver::external);
  isScalar<W>(config, "vlanTypeDriver", &C::vlanTypeDriver, &C::vlanTypeDriverIs, kNone,
              static_cast<VlanTypeDriver>(77));
  isScalar<W>(config, "defaultGracePeriod", &C::defaultGracePeriod, &C::defaultGracePeriodIs,
              Seconds{0}, Seconds{60});
  isScalar<W>(config, "gracePeriod", &C::gracePeriod, &C::gracePeriodIs, Seconds{0}, Seconds{1});
  isScalar<W>(config, "defaultRegionSyncTimeout", &C::defaultRegionSyncTimeout,
              &C::defaultRegionSyncTimeoutIs, Seconds{0}, Seconds{180});
  isScalar<W>(config, "regionSyncTimeout", &C::regionSyncTimeout, &C::regionSyncTimeoutIs,
              Seconds{0}, Seconds{0.5});
  isScalar<W>(config, "defaultAgentMode", &C::defaultAgentMode, &C::defaultAgentModeIs, String(),
              String("one"));
  isScalar<W>(config, "agentMode", &C::agentMode, &C::agentModeIs, String(), String("two"));
  isScalar<W>(config, "authRole", &C::authRole, &C::authRoleIs, String(), String("admin"));
  isScalar<W>(config, "serviceAclTypeVrfMap", &C::serviceAclTypeVrfMap, &C::serviceAclTypeVrfMapIs,
              OpenStack::ServiceAclTypeVrfMap(), OpenStack::ServiceAclTypeVrfMap{{"ssh", "mgmt"}});
}

TEST_F(OpenStackModelTest, TheAgentConfigurationsCollectionsAreObservable) {
  using C = OpenStack::Config;
  using W = ConfigWatcher;
  const auto config = make<C>();
  ownsChildren<W>(config, "mandatoryRegion", &C::mandatoryRegion, &C::mandatoryRegionIs,
                  &C::mandatoryRegionDel, &C::mandatoryRegionDelAll, "a", "b");
  takesChildren<W>(config, "mandatoryRegion", &C::mandatoryRegion, &C::mandatoryRegionIs, "a");
  ownsChildren<W>(config, "credentials", &C::credentials, &C::credentialsIs, &C::credentialsDel,
                  &C::credentialsDelAll, "a", "b");
  takesChildren<W>(config, "credentials", &C::credentials, &C::credentialsIs, "a");
  ownsChildren<W>(config, "vlanAssignment", &C::vlanAssignment, &C::vlanAssignmentIs,
                  &C::vlanAssignmentDel, &C::vlanAssignmentDelAll, "a", "b");
  takesChildren<W>(config, "vlanAssignment", &C::vlanAssignment, &C::vlanAssignmentIs, "a");
  ownsChildren<W>(config, "keystoneAuthUrl", &C::keystoneAuthUrl, &C::keystoneAuthUrlIs,
                  &C::keystoneAuthUrlDel, &C::keystoneAuthUrlDelAll, "a", "b");
  takesChildren<W>(config, "keystoneAuthUrl", &C::keystoneAuthUrl, &C::keystoneAuthUrlIs, "a");
}

TEST_F(OpenStackModelTest, TheConfiguredRegionsAreObservable) {
  using C = OpenStack::OpenStackConfig;
  using W = OpenStackConfigWatcher;
  const auto config = make<C>();
  ownsChildren<W>(config, "region", &C::region, &C::regionIs, &C::regionDel, &C::regionDelAll, "a",
                  "b");
  takesChildren<W>(config, "region", &C::region, &C::regionIs, "a");
}

TEST_F(OpenStackModelTest, AVlanAssignmentsVlansAreObservable) {
  using A = OpenStack::VlanAssignment;
  const auto assignment = make<A>("RegionOne");
  EXPECT_EQ(assignment->regionName(), "RegionOne");
  EXPECT_EQ(assignment->fwkKey(), "RegionOne");
  isValueSet<VlanAssignmentWatcher>(assignment, "vlan", &A::vlan, &A::vlanIs, &A::vlanDel,
                                    &A::vlanDelAll, Kiv::U16{1}, Kiv::U16{4094});
}

TEST_F(OpenStackModelTest, ARegionsCollectionsAreObservable) {
  using R = OpenStack::Region;
  using W = RegionWatcher;
  const auto region = make<R>("RegionOne");
  EXPECT_EQ(region->name(), "RegionOne");
  EXPECT_EQ(region->fwkKey(), "RegionOne");
  ownsChildren<W>(region, "serviceEndPoint", &R::serviceEndPoint, &R::serviceEndPointIs,
                  &R::serviceEndPointDel, &R::serviceEndPointDelAll, "a", "b");
  takesChildren<W>(region, "serviceEndPoint", &R::serviceEndPoint, &R::serviceEndPointIs, "a");
  ownsChildren<W>(region, "tenant", &R::tenant, &R::tenantIs, &R::tenantDel, &R::tenantDelAll, "a",
                  "b");
  takesChildren<W>(region, "tenant", &R::tenant, &R::tenantIs, "a");
  ownsChildren<W>(region, "network", &R::network, &R::networkIs, &R::networkDel, &R::networkDelAll,
                  "a", "b");
  takesChildren<W>(region, "network", &R::network, &R::networkIs, "a");
  ownsChildren<W>(region, "segment", &R::segment, &R::segmentIs, &R::segmentDel, &R::segmentDelAll,
                  "a", "b");
  takesChildren<W>(region, "segment", &R::segment, &R::segmentIs, "a");
  ownsChildren<W>(region, "port", &R::port, &R::portIs, &R::portDel, &R::portDelAll, "a", "b");
  takesChildren<W>(region, "port", &R::port, &R::portIs, "a");
  ownsChildren<W>(region, "vmInstance", &R::vmInstance, &R::vmInstanceIs, &R::vmInstanceDel,
                  &R::vmInstanceDelAll, "a", "b");
  takesChildren<W>(region, "vmInstance", &R::vmInstance, &R::vmInstanceIs, "a");
  ownsChildren<W>(region, "dhcpInstance", &R::dhcpInstance, &R::dhcpInstanceIs, &R::dhcpInstanceDel,
                  &R::dhcpInstanceDelAll, "a", "b");
  takesChildren<W>(region, "dhcpInstance", &R::dhcpInstance, &R::dhcpInstanceIs, "a");
  ownsChildren<W>(region, "baremetalInstance", &R::baremetalInstance, &R::baremetalInstanceIs,
                  &R::baremetalInstanceDel, &R::baremetalInstanceDelAll, "a", "b");
  takesChildren<W>(region, "baremetalInstance", &R::baremetalInstance, &R::baremetalInstanceIs,
                   "a");
  ownsChildren<W>(region, "routerInstance", &R::routerInstance, &R::routerInstanceIs,
                  &R::routerInstanceDel, &R::routerInstanceDelAll, "a", "b");
  takesChildren<W>(region, "routerInstance", &R::routerInstance, &R::routerInstanceIs, "a");
  ownsChildren<W>(region, "portBinding", &R::portBinding, &R::portBindingIs, &R::portBindingDel,
                  &R::portBindingDelAll, "a", "b");
  takesChildren<W>(region, "portBinding", &R::portBinding, &R::portBindingIs, "a");
}

TEST_F(OpenStackModelTest, ARegionsScalarsAreObservable) {
  using R = OpenStack::Region;
  using W = RegionWatcher;
  const auto region = make<R>("RegionOne");
  isScalar<W>(region, "syncStatus", &R::syncStatus, &R::syncStatusIs, SyncStatus::syncUnknown,
              SyncStatus::syncComplete);
  isScalar<W>(region, "syncInterval", &R::syncInterval, &R::syncIntervalIs, 0.0, 30.0);
  isScalar<W>(region, "syncHeartbeat", &R::syncHeartbeat, &R::syncHeartbeatIs, 0.0, 1.5);
  isScalar<W>(region, "requester", &R::requester, &R::requesterIs, String(), String("driver-1"));
  isScalar<W>(region, "requestId", &R::requestId, &R::requestIdIs, String(), String("req-1"));
}

TEST_F(OpenStackModelTest, ASegmentIsObservable) {
  using S = OpenStack::Segment;
  using W = SegmentWatcher;
  const auto segment = make<S>("seg-1");
  EXPECT_EQ(segment->id(), "seg-1");
  EXPECT_EQ(segment->fwkKey(), "seg-1");
  isScalar<W>(segment, "segmentationType", &S::segmentationType, &S::segmentationTypeIs,
              SegmentationType::vlan, SegmentationType::vxlan);
  isScalar<W>(segment, "segmentationId", &S::segmentationId, &S::segmentationIdIs, Kiv::U32{0},
              Kiv::U32{16777215});
}

TEST_F(OpenStackModelTest, APortIsObservable) {
  using P = OpenStack::Port;
  const auto port = make<P>("port-1");
  EXPECT_EQ(port->id(), "port-1");
  EXPECT_EQ(port->fwkKey(), "port-1");
  isScalar<PortWatcher>(port, "vlanType", &P::vlanType, &P::vlanTypeIs, VlanType::tagged,
                        VlanType::native);
}

TEST_F(OpenStackModelTest, APortBindingIsObservable) {
  using B = OpenStack::PortBinding;
  using W = PortBindingWatcher;
  const auto binding = make<B>("port-1");
  EXPECT_EQ(binding->portId(), "port-1");
  EXPECT_EQ(binding->fwkKey(), "port-1");
  const Ptr<const OpenStack::Port> none;
  const Ptr<const OpenStack::Port> port = make<OpenStack::Port>("port-1");
  isScalar<W>(binding, "port", &B::port, &B::portIs, none, port);
  ownsChildren<W>(binding, "portToHostBinding", &B::portToHostBinding, &B::portToHostBindingIs,
                  &B::portToHostBindingDel, &B::portToHostBindingDelAll, "host-1", "host-2");
  takesChildren<W>(binding, "portToHostBinding", &B::portToHostBinding, &B::portToHostBindingIs,
                   "host-1");
  ownsChildren<W>(binding, "portToSwitchInterfaceBinding", &B::portToSwitchInterfaceBinding,
                  &B::portToSwitchInterfaceBindingIs, &B::portToSwitchInterfaceBindingDel,
                  &B::portToSwitchInterfaceBindingDelAll, SwitchInterface("sw", "Ethernet1"),
                  SwitchInterface("sw", "Ethernet2"));
  takesChildren<W>(binding, "portToSwitchInterfaceBinding", &B::portToSwitchInterfaceBinding,
                   &B::portToSwitchInterfaceBindingIs, SwitchInterface("sw", "Ethernet1"));
}

TEST_F(OpenStackModelTest, ARemovedHostBindingIsNotifiedByItsKeyAndNotFound) {
  const auto binding = make<OpenStack::PortBinding>("port-1");
  binding->portToHostBindingIs("host-1");
  bool there = true;
  EXPECT_THAT(toldOf<PortBindingWatcher>(binding,
                                         [&] {
                                           binding->portToHostBindingDel("host-1");
                                           there = binding->portToHostBinding().contains("host-1");
                                         }),
              three("portToHostBinding", "host-1"));
  EXPECT_FALSE(there);
}

// Both kinds of binding carry segments by level.
template <class Binding, class Watcher, class Key>
struct BindingKind {
  using B = Binding;
  using W = Watcher;
  using K = Key;
};
template <class Kind>
class SegmentLevelsTest : public ModelTest {
 protected:
  static Ptr<typename Kind::B> binding() {
    if constexpr (std::is_same_v<typename Kind::K, Kiv::Name>) {
      return make<typename Kind::B>(Kiv::Name("host-1"));
    } else {
      return make<typename Kind::B>(SwitchInterface("sw", "Ethernet1"));
    }
  }
};
using BindingKinds =
    testing::Types<BindingKind<OpenStack::PortToHostBinding, PortToHostBindingWatcher, Kiv::Name>,
                   BindingKind<OpenStack::PortToSwitchInterfaceBinding,
                               PortToSwitchInterfaceBindingWatcher, SwitchInterface>>;
TYPED_TEST_SUITE(SegmentLevelsTest, BindingKinds);

TYPED_TEST(SegmentLevelsTest, ALevelWithoutASegmentIsNullAlsoTheTop) {
  const auto binding = this->binding();
  for (const unsigned level : {0U, 1U, 255U}) {
    EXPECT_EQ(binding->segment(static_cast<Kiv::U8>(level)), nullptr);
  }
  binding->segmentIs(1, make<OpenStack::Segment>("s"));
  EXPECT_EQ(binding->segment(0), nullptr);
  EXPECT_EQ(binding->segment(2), nullptr);
}

TYPED_TEST(SegmentLevelsTest, SegmentsAreReferencesByLevelAndObservable) {
  using W = typename TypeParam::W;
  const auto binding = this->binding();
  const auto one = make<OpenStack::Segment>("one");
  const auto two = make<OpenStack::Segment>("two");
  EXPECT_THAT((this->template toldOf<W>(binding, [&] { binding->segmentIs(0, one); })),
              this->three("segment", "0"));
  EXPECT_EQ(binding->segment(0).get(), one.get());
  EXPECT_THAT((this->template toldOf<W>(binding, [&] { binding->segmentIs(0, one); })), IsEmpty());
  EXPECT_THAT((this->template toldOf<W>(binding, [&] { binding->segmentIs(255, one); })),
              this->three("segment", "255"));
  EXPECT_THAT((this->template toldOf<W>(binding, [&] { binding->segmentIs(0, two); })),
              this->three("segment", "0"));
  EXPECT_EQ(binding->segment(0).get(), two.get());
  EXPECT_THAT((this->template toldOf<W>(binding, [&] { binding->segmentDel(0); })),
              this->three("segment", "0"));
  EXPECT_EQ(binding->segment(0), nullptr);
  EXPECT_THAT((this->template toldOf<W>(binding, [&] { binding->segmentDel(0); })), IsEmpty());
  EXPECT_EQ(binding->segment().size(), 1U);
  EXPECT_THAT((this->template toldOf<W>(binding, [&] { binding->segmentDelAll(); })),
              this->three("segment", "255"));
  EXPECT_EQ(one->references(), 1U);
}

TYPED_TEST(SegmentLevelsTest, LevelsStandInAscendingOrder) {
  const auto binding = this->binding();
  const auto segment = make<OpenStack::Segment>("s");
  for (const unsigned level : {200U, 3U, 255U, 0U, 17U}) {
    binding->segmentIs(static_cast<Kiv::U8>(level), segment);
  }
  std::vector<unsigned> levels;
  for (const auto& entry : binding->segment()) levels.push_back(entry.key);
  EXPECT_THAT(levels, ElementsAre(0U, 3U, 17U, 200U, 255U));
}

TYPED_TEST(SegmentLevelsTest, ANullSegmentThrows) {
  const auto binding = this->binding();
  EXPECT_THROW(binding->segmentIs(0, nullptr), Kiv::RangeException);
  EXPECT_EQ(refusal([&] { binding->segmentIs(0, nullptr); }),
            Kiv::nullArgumentText("segment", binding->fwkType().name()));
  EXPECT_TRUE(binding->segment().empty());
}

TEST_F(OpenStackModelTest, ABindingIsKeyedByWhatThePortIsBoundTo) {
  EXPECT_EQ(make<OpenStack::PortToHostBinding>("host-1")->host(), "host-1");
  const auto binding =
      make<OpenStack::PortToSwitchInterfaceBinding>(SwitchInterface("sw", "Ethernet1"));
  EXPECT_EQ(binding->switchInterface(), SwitchInterface("sw", "Ethernet1"));
  using B = OpenStack::PortToSwitchInterfaceBinding;
  isScalar<PortToSwitchInterfaceBindingWatcher>(binding, "host", &B::host, &B::hostIs, Kiv::Name(),
                                                Kiv::Name("host-1"));
}

TEST_F(OpenStackModelTest, TheStatusOfTheRegionsIsObservable) {
  using S = OpenStack::OpenStackStatus;
  const auto status = make<S>();
  ownsChildren<OpenStackStatusWatcher>(status, "regionStatus", &S::regionStatus, &S::regionStatusIs,
                                       &S::regionStatusDel, &S::regionStatusDelAll, "a", "b");
}

TEST_F(OpenStackModelTest, ARegionsStatusIsObservable) {
  using S = OpenStack::RegionStatus;
  using W = RegionStatusWatcher;
  const auto status = make<S>("RegionOne");
  EXPECT_EQ(status->name(), "RegionOne");
  EXPECT_EQ(status->fwkKey(), "RegionOne");
  isScalar<W>(status, "syncStatus", &S::syncStatus, &S::syncStatusIs, SyncStatus::syncUnknown,
              SyncStatus::syncTimedOut);
  isScalar<W>(status, "oldSyncStatus", &S::oldSyncStatus, &S::oldSyncStatusIs,
              SyncStatus::syncUnknown, SyncStatus::syncInProgress);
  isScalar<W>(status, "owner", &S::owner, &S::ownerIs, String(), String("driver-1"));
  isScalar<W>(status, "requestId", &S::requestId, &S::requestIdIs, String(), String("req-1"));
  isScalar<W>(status, "vlanAssignmentUuid", &S::vlanAssignmentUuid, &S::vlanAssignmentUuidIs,
              String(), String("uuid"));
}

TEST_F(OpenStackModelTest, ARegionStatusHasOnePoolWhichIsMadeOnce) {
  using W = RegionStatusWatcher;
  const auto status = make<OpenStack::RegionStatus>("RegionOne");
  EXPECT_EQ(status->vlanPool(), nullptr);
  Ptr<OpenStack::VlanPool> pool;
  EXPECT_THAT(toldOf<W>(status, [&] { pool = status->vlanPoolIs("RegionOne"); }),
              ElementsAre("vlanPool"));
  ASSERT_NE(pool, nullptr);
  EXPECT_EQ(pool->name(), "RegionOne");
  EXPECT_EQ(pool->fwkKey(), "RegionOne");
  EXPECT_EQ(status->vlanPool(), pool);
  EXPECT_EQ(std::as_const(*status).vlanPool(), pool);
  EXPECT_THAT(toldOf<W>(status, [&] { EXPECT_EQ(status->vlanPoolIs("RegionOne"), pool); }),
              IsEmpty());
  EXPECT_THAT(toldOf<W>(status, [&] { EXPECT_NE(status->vlanPoolIs("another"), pool); }),
              ElementsAre("vlanPool"));
  EXPECT_EQ(status->vlanPool()->name(), "another");
  EXPECT_THAT(toldOf<W>(status, [&] { status->vlanPoolDel(); }), ElementsAre("vlanPool"));
  EXPECT_EQ(status->vlanPool(), nullptr);
}

TEST_F(OpenStackModelTest, ARegionStatusesPoolsAreAKeyedCollection) {
  const auto status = make<OpenStack::RegionStatus>("R");
  EXPECT_EQ(status->vlanPool().size(), 0U);
  EXPECT_TRUE(status->vlanPool().empty());
  EXPECT_EQ(status->vlanPool()["R"], nullptr);
  const auto pool = status->vlanPoolIs("R");
  EXPECT_EQ(status->vlanPool()["R"], pool.get());
  EXPECT_EQ(status->vlanPool()["S"], nullptr);
  EXPECT_TRUE(status->vlanPool().contains("R"));
  EXPECT_EQ(std::as_const(*status).vlanPool().size(), 1U);
  std::vector<std::string> names;
  for (const auto& each : status->vlanPool()) names.push_back(each->name().str());
  for (const auto& each : std::as_const(*status).vlanPool()) names.push_back(each->name().str());
  EXPECT_THAT(names, ElementsAre("R", "R"));
  EXPECT_EQ(status->vlanPoolDel("S"), nullptr);
  EXPECT_EQ(status->vlanPoolDel("R"), pool);
  EXPECT_TRUE(status->vlanPool().empty());
  EXPECT_FALSE(status->vlanPool());
}

TEST_F(OpenStackModelTest, ANullEntityIsRefusedWithTheTextOfItsCollection) {
  const auto region = make<OpenStack::Region>("R");
  const auto refused = [&](std::string_view name, auto mutator) {
    EXPECT_EQ(refusal([&] { mutator(); }), Kiv::nullArgumentText(name, "OpenStack::Region"));
  };
  using OpenStack::IdentifiedObject;
  using OpenStack::NamedObject;
  refused("serviceEndPoint", [&] { region->serviceEndPointIs(Ptr<NamedObject>()); });
  refused("tenant", [&] { region->tenantIs(Ptr<IdentifiedObject>()); });
  refused("network", [&] { region->networkIs(Ptr<IdentifiedObject>()); });
  refused("segment", [&] { region->segmentIs(Ptr<OpenStack::Segment>()); });
  refused("port", [&] { region->portIs(Ptr<OpenStack::Port>()); });
  refused("vmInstance", [&] { region->vmInstanceIs(Ptr<IdentifiedObject>()); });
  refused("dhcpInstance", [&] { region->dhcpInstanceIs(Ptr<IdentifiedObject>()); });
  refused("baremetalInstance", [&] { region->baremetalInstanceIs(Ptr<IdentifiedObject>()); });
  refused("routerInstance", [&] { region->routerInstanceIs(Ptr<IdentifiedObject>()); });
  refused("portBinding", [&] { region->portBindingIs(Ptr<OpenStack::PortBinding>()); });
  const auto config = make<OpenStack::Config>();
  EXPECT_EQ(refusal([&] { config->vlanAssignmentIs(Ptr<OpenStack::VlanAssignment>()); }),
            "null _vlanAssignment parameter to mutator for OpenStack::Config::vlanAssignment not "
            "allowed\"");
  EXPECT_EQ(refusal([&] { config->credentialsIs(Ptr<NamedObject>()); }),
            Kiv::nullArgumentText("credentials", "OpenStack::Config"));
  const auto cloud = make<OpenStack::OpenStackConfig>();
  EXPECT_EQ(refusal([&] { cloud->regionIs(Ptr<OpenStack::Region>()); }),
            Kiv::nullArgumentText("region", "OpenStack::OpenStackConfig"));
  const auto binding = make<OpenStack::PortBinding>("p");
  EXPECT_EQ(refusal([&] { binding->portToHostBindingIs(Ptr<OpenStack::PortToHostBinding>()); }),
            Kiv::nullArgumentText("portToHostBinding", "OpenStack::PortBinding"));
  EXPECT_EQ(
      refusal([&] {
        binding->portToSwitchInterfaceBindingIs(Ptr<OpenStack::PortToSwitchInterfaceBinding>());
      }),
      Kiv::nullArgumentText("portToSwitchInterfaceBinding", "OpenStack::PortBinding"));
}

// Whether a watcher of class W can be given an entity of class E, as far as the compiler knows.
template <class W, class E>
concept Watches = requires(W& watcher, const Ptr<E>& entity) {
  watcher.notifierIs(entity);
};

TEST_F(OpenStackModelTest, AWatcherOnAnotherClassOfEntityDoesNotCompile) {
  using W = OpenStack::Region::NotifieeConst;
  static_assert(Watches<W, OpenStack::Region>);
  static_assert(Watches<W, const OpenStack::Region>);
  static_assert(Watches<W, const Kiv::PtrInterface>, "known at run time only");
  static_assert(!Watches<W, OpenStack::Segment>);
  static_assert(!Watches<W, const OpenStack::Config>);
  using R = RegionStatusWatcher;
  static_assert(Watches<R, OpenStack::RegionStatus>);
  static_assert(!Watches<R, OpenStack::Region>);
}

TEST_F(OpenStackModelTest, ARemovedRegionStatusTakesItsPoolAlong) {
  const auto all = make<OpenStack::OpenStackStatus>();
  const Ptr<OpenStack::VlanPool> pool = all->regionStatusIs("a")->vlanPoolIs("a");
  EXPECT_EQ(pool->references(), 2U);
  all->regionStatusDel("a");
  EXPECT_EQ(pool->references(), 1U);
}

TEST_F(OpenStackModelTest, AVlanPoolsSetsAreObservable) {
  using P = OpenStack::VlanPool;
  using W = VlanPoolWatcher;
  const auto pool = make<P>("RegionOne");
  const Kiv::U16 a = 1;
  const Kiv::U16 b = 4094;
  isValueSet<W>(pool, "assignedVlan", &P::assignedVlan, &P::assignedVlanIs, &P::assignedVlanDel,
                &P::assignedVlanDelAll, a, b);
  isValueSet<W>(pool, "allocatedVlan", &P::allocatedVlan, &P::allocatedVlanIs, &P::allocatedVlanDel,
                &P::allocatedVlanDelAll, a, b);
  isValueSet<W>(pool, "availableVlan", &P::availableVlan, &P::availableVlanIs, &P::availableVlanDel,
                &P::availableVlanDelAll, a, b);
}

TEST_F(OpenStackModelTest, EntitiesReportTheirTypes) {
  EXPECT_EQ(make<OpenStack::Config>()->fwkType().name(), "OpenStack::Config");
  EXPECT_EQ(make<OpenStack::OpenStackConfig>()->fwkType().name(), "OpenStack::OpenStackConfig");
  EXPECT_EQ(make<OpenStack::OpenStackStatus>()->fwkType().name(), "OpenStack::OpenStackStatus");
  EXPECT_EQ(make<OpenStack::NameResolution::Config>()->fwkType().name(),
            "OpenStack::NameResolution::Config");
  EXPECT_EQ(make<OpenStack::NameResolution::Status>()->fwkType().name(),
            "OpenStack::NameResolution::Status");
  EXPECT_EQ(make<OpenStack::Region>("a")->fwkType().name(), "OpenStack::Region");
  EXPECT_EQ(make<OpenStack::RegionStatus>("a")->fwkType().name(), "OpenStack::RegionStatus");
  EXPECT_EQ(make<OpenStack::VlanPool>("a")->fwkType().name(), "OpenStack::VlanPool");
  EXPECT_EQ(make<OpenStack::Segment>("a")->fwkType().name(), "OpenStack::Segment");
  EXPECT_EQ(make<OpenStack::Port>("a")->fwkType().name(), "OpenStack::Port");
  EXPECT_EQ(make<OpenStack::PortBinding>("a")->fwkType().name(), "OpenStack::PortBinding");
}

TEST_F(OpenStackModelTest, MirroredObjectsAreKeyedByTheirIds) {
  EXPECT_EQ(make<OpenStack::NamedObject>("a")->id(), "a");
  EXPECT_EQ(make<OpenStack::IdentifiedObject>("a")->fwkKey(), "a");
}

TEST_F(OpenStackModelTest, NamedAndIdentifiedObjectsAreOfDifferentTypes) {
  EXPECT_FALSE(make<OpenStack::NamedObject>("a")->fwkType() ==
               make<OpenStack::IdentifiedObject>("a")->fwkType());
}

// Values

TEST(EnumerationsTest, ASyncStatusPrintsItsNameOrItsNumber) {
  EXPECT_EQ(text(SyncStatus::syncUnknown), "syncUnknown");
  EXPECT_EQ(text(SyncStatus::syncInProgress), "syncInProgress");
  EXPECT_EQ(text(SyncStatus::syncTimedOut), "syncTimedOut");
  EXPECT_EQ(text(SyncStatus::syncComplete), "syncComplete");
  EXPECT_EQ(text(static_cast<SyncStatus>(4)), "4");
}

TEST(VlanPoolsTest, WithoutAStatusThereIsNoPool) {
  const OpenStack::VlanPools<OpenStack::VlanPool> none = nullptr;
  EXPECT_TRUE(none.empty());
  EXPECT_EQ(none.size(), 0U);
  EXPECT_FALSE(none.contains("RegionOne"));
  EXPECT_EQ(none["RegionOne"], nullptr);
}

TEST(EnumerationsTest, WhatIsNoSegmentationTypeDoesNotParse) {
  using Traits = Kiv::ValueTraits<SegmentationType>;
  EXPECT_EQ(Traits::parse("7"), SegmentationType{7});
  EXPECT_EQ(Traits::parse("vlans"), std::nullopt);
  EXPECT_EQ(Traits::parse("256"), std::nullopt);
}

TEST(EnumerationsTest, ASegmentationTypePrintsItsNameOrItsNumber) {
  EXPECT_EQ(text(SegmentationType::vlan), "vlan");
  EXPECT_EQ(text(SegmentationType::vxlan), "vxlan");
  EXPECT_EQ(text(static_cast<SegmentationType>(2)), "2");
  EXPECT_EQ(text(static_cast<SegmentationType>(255)), "255");
}

TEST(EnumerationsTest, WhatPrintsParses) {
  for (const Kiv::U32 number : {0U, 3U, 4U, 4294967295U}) {
    const auto status = static_cast<SyncStatus>(number);
    using Traits = Kiv::ValueTraits<SyncStatus>;
    EXPECT_EQ(Traits::parse(Traits::text(status)), status);
  }
  for (const unsigned number : {0U, 1U, 2U, 255U}) {
    const auto type = static_cast<SegmentationType>(number);
    using Traits = Kiv::ValueTraits<SegmentationType>;
    EXPECT_EQ(Traits::parse(Traits::text(type)), type);
  }
  EXPECT_EQ(Kiv::ValueTraits<SyncStatus>::parse("4294967296"), std::nullopt);
  EXPECT_EQ(Kiv::ValueTraits<SyncStatus>::parse("syncNever"), std::nullopt);
}

TEST(EnumerationsTest, TheirNumbersAreFixed) {
  static_assert(static_cast<Kiv::U32>(SyncStatus::syncUnknown) == 0);
  static_assert(static_cast<Kiv::U32>(SyncStatus::syncInProgress) == 1);
  static_assert(static_cast<Kiv::U32>(SyncStatus::syncTimedOut) == 2);
  static_assert(static_cast<Kiv::U32>(SyncStatus::syncComplete) == 3);
  static_assert(static_cast<Kiv::U8>(SegmentationType::vlan) == 0);
  static_assert(static_cast<Kiv::U8>(SegmentationType::vxlan) == 1);
  static_assert(static_cast<Kiv::U8>(VlanType::native) == 1);
  static_assert(static_cast<Kiv::U32>(VlanTypeDriver::assigned) == 0);
  static_assert(static_cast<Kiv::U32>(VlanTypeDriver::external) == 1);
}

}  // namespace
