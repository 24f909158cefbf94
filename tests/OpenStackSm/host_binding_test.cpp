// Bindings of ports to hosts: the region's domain on the host, and the rules that stop the process.
#include "tests/OpenStackSm/MachineTest.h"

namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr const char* kHost = "PortBindingSm::handlePortToHostBinding(Kiv::Name)";
constexpr const char* kDoCleanup = "PortBindingSm::doCleanupPortToHostBinding(Kiv::Name)";
constexpr const char* kReactorCleanup = "PortBindingSm::KivPortToHostBinding::doCleanup()";
constexpr const char* kChildInitialized = "PortToHostBindingSm::handleInitialized()";
constexpr const char* kChildDoCleanup = "PortToHostBindingSm::doCleanup()";

class HostBindingTest : public MachineTest {
 protected:
  void SetUp() override {
    world.start("region R; segment vl vlan 10");
    world.traces.take();
  }
};
using HostBindingDeathTest = HostBindingTest;

TEST_F(HostBindingTest, ABoundHostServesTheRegion) {
  world.apply("host p h1");
  EXPECT_THAT(world.published(), ElementsAre("host h1", "host h1 domain R: p"));
  expectRebuiltIsReached();
}

TEST_F(HostBindingTest, TheDomainIsWrittenBeforeTheChildWrites) {
  OutputWatch watch(world.statuses, world.resources, world.elements);
  world.apply("host p h1 0=vl");
  EXPECT_THAT(watch.take(), ElementsAre("host h1", "host h1 domain R", "host h1 domain R for p",
                                        "host h1 vlan 10", "host h1 vlan 10 for p"));
}

TEST_F(HostBindingTest, UnbindingWithdrawsAtOnceAndDeletesFromTheLoop) {
  world.apply("host p h1");
  const auto sm = world.portSm("p");
  const auto child = world.hostSm("p", "h1");
  const void* reactor = sm->portToHostBinding()["h1"];
  world.traces.take();
  world.change("-host p h1");
  EXPECT_TRUE(world.hostSm("p", "h1"));
  EXPECT_THAT(sm->portToHostBinding(), IsEmpty());
  EXPECT_THAT(world.published(), ElementsAre("host h1", "host h1 domain R: p"));
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(9, reactor, kReactorCleanup, ""),
                          said(9, child.get(), kChildDoCleanup, "Removing port p from h1")));
  world.run();
  EXPECT_FALSE(world.hostSm("p", "h1"));
  EXPECT_THAT(world.published(), ElementsAre("host h1"));
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(9, sm.get(), kHost, "h1"), said(9, sm.get(), kDoCleanup, "h1"),
                          said(2, sm.get(), kDoCleanup, "Deleting region R from host h1")));
}

TEST_F(HostBindingTest, TwoPortsShareTheDomain) {
  world.apply("host p h1; host q h1");
  EXPECT_THAT(world.published(), ElementsAre("host h1", "host h1 domain R: p q"));
  const auto p = world.portSm("p");
  const auto q = world.portSm("q");
  world.change("-host p h1");
  world.traces.take();
  world.run();
  EXPECT_THAT(world.published(), ElementsAre("host h1", "host h1 domain R: q"));
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(9, p.get(), kHost, "h1"), said(9, p.get(), kDoCleanup, "h1")));
  expectRebuiltIsReached();
  world.change("-host q h1");
  world.traces.take();
  world.run();
  EXPECT_THAT(world.published(), ElementsAre("host h1"));
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(9, q.get(), kHost, "h1"), said(9, q.get(), kDoCleanup, "h1"),
                          said(2, q.get(), kDoCleanup, "Deleting region R from host h1")));
}

TEST_F(HostBindingTest, OnePortOnTwoHosts) {
  world.apply("host p h1; host p h2");
  EXPECT_THAT(world.published(),
              ElementsAre("host h1", "host h1 domain R: p", "host h2", "host h2 domain R: p"));
  world.apply("-host p h1");
  EXPECT_THAT(world.published(), ElementsAre("host h1", "host h2", "host h2 domain R: p"));
  expectRebuiltIsReached();
}

TEST_F(HostBindingTest, HandlingABindingAgainWritesNothing) {
  world.apply("host p h1 0=vl");
  const auto sm = world.portSm("p");
  const auto child = world.hostSm("p", "h1");
  OutputWatch watch(world.statuses, world.resources, world.elements);
  world.traces.take();
  sm->handlePortToHostBinding("h1");
  EXPECT_THAT(world.traces.take(), ElementsAre(said(9, sm.get(), kHost, "h1")));
  EXPECT_EQ(world.hostSm("p", "h1"), child);
  world.run();
  EXPECT_EQ(watch.changes(), 0);
  EXPECT_THAT(watch.take(), IsEmpty());
}

TEST_F(HostBindingTest, UnbindingAHostThatNeverPublishedChangesNothingElse) {
  world.apply("bind p");
  const auto sm = world.portSm("p");
  world.traces.take();
  sm->handlePortToHostBinding("h9");
  EXPECT_THAT(world.traces.take(),
              ElementsAre(said(9, sm.get(), kHost, "h9"), said(9, sm.get(), kDoCleanup, "h9")));
  EXPECT_THAT(world.published(), IsEmpty());
}

TEST_F(HostBindingTest, ACleanupWithoutTheHostsResourcesStillDeletesTheChild) {
  world.apply("host p h1");
  world.resources->resourcesForHostnameDel("h1");
  world.apply("-host p h1");
  EXPECT_FALSE(world.hostSm("p", "h1"));
  EXPECT_THAT(world.published(), IsEmpty());
}

TEST_F(HostBindingTest, ACleanupWithoutTheDomainStillDeletesTheChild) {
  world.apply("host p h1");
  world.resources->resourcesForHostname()["h1"]->domainDel("R");
  world.apply("-host p h1");
  EXPECT_FALSE(world.hostSm("p", "h1"));
  EXPECT_THAT(world.published(), ElementsAre("host h1"));
}

TEST_F(HostBindingTest, ARemovedReactorWithoutAChildTracesNothingMore) {
  world.apply("bind p");
  world.change("host p h1");
  const void* reactor = world.portSm("p")->portToHostBinding()["h1"];
  world.traces.take();
  world.change("-host p h1");
  EXPECT_THAT(world.traces.take(), ElementsAre(said(9, reactor, kReactorCleanup, "")));
  world.run();
  EXPECT_THAT(world.published(), IsEmpty());
}

TEST_F(HostBindingTest, TheDomainsReferrerIsThePlainId) {
  world.apply("host p-1 h1");
  EXPECT_THAT(world.published(), ElementsAre("host h1", "host h1 domain R: p-1"));
}

TEST_F(HostBindingTest, TheHostCanServeAnotherRegionOnceTheFirstHasLeft) {
  world.apply("host p h1");
  world.apply("-bind p");
  world.apply("region S; host q h1");
  EXPECT_THAT(world.published(), ElementsAre("host h1", "host h1 domain S: q"));
}

TEST_F(HostBindingTest, AHostWithoutLevelsGetsItsDomainAndNoVlan) {
  world.apply("host p h1");
  ASSERT_TRUE(world.hostSm("p", "h1"));
  EXPECT_THAT(world.hostSm("p", "h1")->segment(), IsEmpty());
}

TEST_F(HostBindingTest, TheChildsNotificationsFollowThePortsHandler) {
  world.traces.take();
  world.apply("host p h1");
  const auto lines = world.traces.take();
  ASSERT_GE(lines.size(), 2U);
  EXPECT_EQ(lines.back(), said(9, world.hostSm("p", "h1").get(), kChildInitialized, ""));
}

// What stops the process.

TEST_F(HostBindingDeathTest, AHostOfASecondRegion) {
  world.apply("host p h1");
  EXPECT_DEATH(world.apply("region S; host q h1"),
               stops("host->domains() == 1", "handlePortToHostBinding"));
}

TEST_F(HostBindingDeathTest, AHostBindingBesideASwitchInterface) {
  world.apply("switch p sw e1 h2; switch p sw e2 h2");
  EXPECT_DEATH(
      {
        world.traces.toStandardErrorIs(true);
        world.apply("host p h1");
      },
      AllOf(HasSubstr("0 "),
            HasSubstr("Port p is already bound to the following switch "
                      "interfaces: \n"),
            HasSubstr("handlePortToHostBinding(Kiv::Name) ] sw:e1\n"),
            HasSubstr("handlePortToHostBinding(Kiv::Name) ] sw:e2\n"),
            stops("false", "handlePortToHostBinding")));
}

TEST_F(HostBindingDeathTest, ARemovedHostBesideASwitchInterface) {
  world.apply("switch p sw e1 h2");
  EXPECT_DEATH(world.portSm("p")->handlePortToHostBinding("h1"),
               stops("false", "handlePortToHostBinding"));
}

TEST_F(HostBindingDeathTest, ASwitchInterfaceAddedBesideAHostBeforeTheLoopRuns) {
  EXPECT_DEATH(world.apply("host p h1; switch p sw e1 h2"),
               stops("false", "handlePortToHostBinding"));
}

TEST_F(HostBindingDeathTest, AConflictIsTracedBeforeAnythingIsWritten) {
  world.apply("switch p sw e1 h2");
  OutputWatch watch(world.statuses, world.resources, world.elements);
  watch.immediate = [](const std::string&) { std::fputs("WRITTEN\n", stderr); };
  EXPECT_DEATH(world.apply("host p h1"), AllOf(testing::Not(HasSubstr("WRITTEN")),
                                               stops("false", "handlePortToHostBinding")));
}

TEST_F(HostBindingDeathTest, TheLinesOfAConflictHaveTheLevelsZeroAndTwo) {
  world.apply("switch p sw e1 h2");
  EXPECT_DEATH(
      {
        world.traces.toStandardErrorIs(true);
        world.apply("host p h1");
      },
      testing::ContainsRegex(
          "9 0x[0-9a-f]+ . void OpenStack::PortBindingSm::handlePortToHostBinding.Kiv::Name. . "
          "h1\n"
          "0 0x[0-9a-f]+ . void OpenStack::PortBindingSm::handlePortToHostBinding.Kiv::Name. . "
          "Port p is already bound to the following switch interfaces: \n"
          "2 0x[0-9a-f]+ . void OpenStack::PortBindingSm::handlePortToHostBinding.Kiv::Name. . "
          "sw:e1\n"
          "Assertion \"false\" failed: OpenStackSm: handlePortToHostBinding\n"));
}

}  // namespace
