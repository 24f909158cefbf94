// Longer streams: ports that share and migrate, the same under both answers of the feature toggle,
// and the toggle's own word.
#include "OpenStackSm/detail/Toggle.h"
#include "framework/FeatureToggle.h"
#include "tests/OpenStackSm/MachineTest.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class StoryTest : public SwitchTest {};

TEST_P(StoryTest, APortMigratesFromHostToHost) {
  world.start("region R; assign R 10; segment vx vxlan 5000; segment vl vlan 10");
  world.apply("host p h1 0=vx 1=vl");
  // Both hosts for a while, as the guest moves.
  world.apply("host p h2 0=vx 1=vl");
  EXPECT_THAT(world.published(),
              ElementsAre("host h1", "host h1 domain R: p", "host h1 vlan 10 vni 5000: p",
                          "host h1 vlan 10: p", "host h2", "host h2 domain R: p",
                          "host h2 vlan 10 vni 5000: p", "host h2 vlan 10: p"));
  world.apply("-host p h1");
  EXPECT_THAT(world.published(), ElementsAre("host h1", "host h2", "host h2 domain R: p",
                                             "host h2 vlan 10 vni 5000: p", "host h2 vlan 10: p"));
  expectRebuiltIsReached();
  EXPECT_EQ(world.rebuiltVlans(), world.vlans());
}

TEST_P(StoryTest, APortMigratesInOneGo) {
  world.start("region R; segment vl vlan 10; host p h1 0=vl");
  world.apply("-host p h1; host p h2 0=vl");
  EXPECT_THAT(world.published(),
              ElementsAre("host h1", "host h2", "host h2 domain R: p", "host h2 vlan 10: p"));
  expectRebuiltIsReached();
}

TEST_P(StoryTest, APortMovesFromAHostBehindASwitchInterface) {
  world.start("region R; segment vl vlan 10; host p h1 0=vl");
  world.apply("-host p h1");
  world.apply("switch p sw e1 h1 0=vl");
  EXPECT_THAT(withoutHistory(world.published()), testing::Contains(at() + " vlan 10: p"));
  expectRebuiltIsReached();
  world.apply("-switch p sw e1");
  world.apply("host p h1 0=vl");
  EXPECT_THAT(withoutHistory(world.published()),
              ElementsAre("host h1 domain R: p", "host h1 vlan 10: p"));
}

TEST_P(StoryTest, APortMovesBetweenInterfaces) {
  world.start("region R; segment vl vlan 10; port p native; switch p sw e1 h1 0=vl");
  world.apply("-switch p sw e1; switch p sw e2 h1 0=vl");
  expectRebuiltIsReached();
  const std::string e2 = on() ? "port sw:e2" : "element sw interface e2";
  EXPECT_THAT(world.published(), testing::IsSupersetOf({e2 + " vlan 10: p", e2 + " native 10"}));
  EXPECT_THAT(withoutHistory(world.published()),
              testing::Not(testing::Contains(testing::StartsWith(at()))));
}

TEST_P(StoryTest, AWholeCloudIsBuiltAndRemovedByStepsAndAtOnce) {
  const std::string cloud = R"(
      region R; assign R 10 20 30 40
      segment vx vxlan 5000; segment vy vxlan 6000
      segment va vlan 10; segment vb vlan 20; segment vc vlan 30
      port n native
      host p1 h1 0=vx 1=va; host p1 h2 0=vx 1=vb
      host p2 h1 0=vx 1=va; host p3 h1 0=vy 1=vc; host p4 h3
      switch p5 sw e1 h4 0=vx 1=va; switch n sw e1 h4 0=vb; switch p6 sw e2 h5 0=vy 1=va
      switch p7 sx e1 h6 0=va 1=vb 2=vx 3=vc)";
  world.start();
  world.apply(cloud);
  const Lines full = world.published();
  const std::string vlans = world.vlans();
  EXPECT_EQ(vlans, "assigned 10 20 30 40 allocated 10 20 30 available 40");
  expectRebuiltIsReached();
  EXPECT_EQ(world.rebuiltVlans(), vlans);
  // A statement at a time.
  std::string statement;
  world.unbindAll();
  EXPECT_THAT(withoutHistory(world.published()), IsEmpty());
  std::istringstream in(cloud);
  for (std::string line; std::getline(in, line);) {
    std::istringstream each(line);
    for (std::string one; std::getline(each, one, ';');) {
      world.apply(one);
      expectRebuiltIsReached();
    }
  }
  EXPECT_EQ(world.published(), full);
  EXPECT_EQ(world.vlans(), vlans);
  for (const char* going : {"-bind p1", "-bind p5", "-host p2 h1", "switch n sw e1 h4 0=-",
                            "-switch p6 sw e2", "-segment vc", "-bind n", "-bind p3", "-bind p4"}) {
    world.apply(going);
    expectRebuiltIsReached();
  }
}

TEST_P(StoryTest, SegmentsThatLeaveTheRegionStayWhereABindingUsesThem) {
  world.start("region R; segment vl vlan 10; host p h1 0=vl");
  world.apply("-segment vl");
  EXPECT_THAT(world.published(),
              ElementsAre("host h1", "host h1 domain R: p", "host h1 vlan 10: p"));
  EXPECT_EQ(world.vlans(), "assigned allocated available");
  expectRebuiltIsReached();
}

TEST_P(StoryTest, TwoRegionsAreIndependent) {
  world.start("region R; segment vl vlan 10; host p h1 0=vl");
  world.apply("region S; segment vl vlan 20; host p h2 0=vl; switch q sw e1 h3 0=vl");
  expectRebuiltIsReached();
  world.apply("-bind p");
  world.change("region R");
  EXPECT_THAT(world.published(),
              testing::IsSupersetOf({"host h1 domain R: p", "host h1 vlan 10: p"}));
  world.apply("-bind p");
  EXPECT_THAT(world.published(), testing::Contains(at() + " vlan 20: q"));
}

TEST_P(StoryTest, AStreamOfRepetitionsWritesNothingMore) {
  const std::string cloud =
      "region R; segment vl vlan 10; host p h1 0=vl; switch q sw e1 h2 0=vl; assign R 10";
  world.start(cloud);
  OutputWatch watch(world.statuses, world.resources, world.elements);
  world.traces.take();
  world.apply("region R; host p h1 0=vl; switch q sw e1 h2 0=vl; assign R 10; bind p; bind q");
  EXPECT_THAT(watch.take(), IsEmpty());
  EXPECT_EQ(watch.changes(), 0);
  EXPECT_THAT(world.traces.take(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Toggles, StoryTest, bothToggles(), toggleName);

// The toggle's word.

struct Asked {
  std::vector<std::pair<std::string, bool>> questions;
  Kiv::U32 answer = 0;

  void install() {
    Kiv::toggleProviderIs([this](std::string_view name, bool byDefault) {
      questions.emplace_back(name, byDefault);
      return answer;
    });
    OpenStack::detail::virtualNetworkAgentToggleForget();
  }
};

const std::pair<std::string, bool> kAtLoad{"VirtualNetworkAgentToggle", false};
const std::pair<std::string, bool> kAgain{"VirtualNetworkAgentToggle", true};

class ToggleTest : public MachineTest {
 protected:
  void SetUp() override { world.start("region R; segment vl vlan 10; bind p; switch p sw e1 h1"); }
  void TearDown() override {
    // What was published under one answer is not withdrawn under another.
    forgetOutputs();
    MachineTest::TearDown();
    Kiv::toggleProviderIs(nullptr);
  }
  void forgetOutputs() {
    world.resources->resourcesForSwitchportDelAll();
    world.elements->networkElementDelAll();
  }
  // Whether a handler that reads the toggle once finds it on.
  bool isOn() {
    forgetOutputs();
    world.portSm("p")->handlePortToSwitchInterfaceBinding({"sw", "e1"});
    EXPECT_NE(world.resources->resourcesForSwitchport().empty(),
              world.elements->networkElement().empty());
    return !world.resources->resourcesForSwitchport().empty();
  }
  Asked asked;
};

TEST_F(ToggleTest, ItIsAskedAtLoadWithDefaultFalse) {
  asked.install();
  EXPECT_THAT(asked.questions, ElementsAre(kAtLoad));
}

TEST_F(ToggleTest, WhileUnknownItIsAskedAgainEachTimeWithDefaultTrue) {
  asked.install();
  EXPECT_FALSE(isOn());
  asked.answer = Kiv::kToggleOn;
  EXPECT_TRUE(isOn());
  asked.answer = 0;
  EXPECT_FALSE(isOn());
  EXPECT_THAT(asked.questions, ElementsAre(kAtLoad, kAgain, kAgain, kAgain));
}

TEST_F(ToggleTest, OnceKnownItIsNeverAskedAgain) {
  asked.answer = Kiv::kToggleOn;
  asked.install();
  asked.answer = Kiv::kToggleKnown;
  EXPECT_FALSE(isOn());
  asked.answer = Kiv::kToggleKnown | Kiv::kToggleOn;
  EXPECT_FALSE(isOn());
  EXPECT_THAT(asked.questions, ElementsAre(kAtLoad, kAgain));
}

TEST_F(ToggleTest, KnownAtLoadItIsNeverAskedAgain) {
  asked.answer = Kiv::kToggleKnown | Kiv::kToggleOn;
  asked.install();
  asked.answer = 0;
  EXPECT_TRUE(isOn());
  EXPECT_THAT(asked.questions, ElementsAre(kAtLoad));
}

TEST_F(ToggleTest, OtherBitsOfTheAnswerAreNothing) {
  asked.answer = ~Kiv::U32{0} & ~Kiv::kToggleOn;
  asked.install();
  EXPECT_FALSE(isOn());
}

TEST_F(ToggleTest, WithoutAProviderItIsOnByTheDefaultOfTheSecondQuestion) {
  Kiv::toggleProviderIs(nullptr);
  OpenStack::detail::virtualNetworkAgentToggleForget();
  EXPECT_TRUE(isOn());
}

TEST_F(ToggleTest, HandlersAskWhenTheyNeedItAndOneWordServesThemAll) {
  world.apply("-bind p; bind p; host q h1 0=vl");
  asked.install();
  EXPECT_THAT(asked.questions, ElementsAre(kAtLoad));
  world.apply("host q h2 0=vl; -bind q");
  EXPECT_THAT(asked.questions, ElementsAre(kAtLoad));
  asked.answer = Kiv::kToggleKnown;
  world.apply("switch p sw e1 h1 0=vl");
  EXPECT_THAT(asked.questions, ElementsAre(kAtLoad, kAgain));
  EXPECT_THAT(world.resources->resourcesForSwitchport(), IsEmpty());
  world.apply("-bind p");
  EXPECT_THAT(asked.questions, ElementsAre(kAtLoad, kAgain));
}

TEST_F(ToggleTest, EachHandlerThatNeedsItAsksWhileItIsUnknown) {
  world.apply("-bind p; bind p");
  asked.answer = Kiv::kToggleOn;
  asked.install();
  world.apply("switch p sw e1 h1");
  EXPECT_EQ(asked.questions.size(), 2U);
  world.change("switch p sw e1 h1 0=vl");
  world.run();
  EXPECT_EQ(asked.questions.size(), 3U) << "once for the one segment";
  const std::size_t before = asked.questions.size();
  world.change("switch p sw e1 h1 0=-");
  EXPECT_GT(asked.questions.size(), before);
  const std::size_t cleaned = asked.questions.size();
  world.change("-switch p sw e1");
  EXPECT_GT(asked.questions.size(), cleaned);
  world.run();
  for (std::size_t i = 1; i < asked.questions.size(); ++i) EXPECT_EQ(asked.questions[i], kAgain);
}

}  // namespace
